// SPDX-License-Identifier: Apache-2.0
// The outputs of messages. Only this unit uses spdlog.
#pragma once

#include <orulog/orulog.h>

#include <memory>
#include <string>

namespace spdlog::sinks {
class sink;
}

namespace orulog {

/// An open output. Null stands for standard error.
using Sink = std::shared_ptr<spdlog::sinks::sink>;

/// Opens an output. `name` is the argument of oruLogSetOutput().
///
/// \returns the output, or null with errno.
Sink openSink(const char* name);

/// The name of an output that can be opened, with the path of a file made absolute.
std::string absoluteName(const char* name);

/// Writes a message to `sink` and flushes it.
///
/// On failure prints the reason on standard error, writes the message there, and sets `sink` to
/// null. Two threads must not call it for one sink at the same time.
void write(Sink& sink, const oruLogMsg& msg, const char* channel) noexcept;

} // namespace orulog
