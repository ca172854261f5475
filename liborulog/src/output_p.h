// Where messages go: the one unit that knows how they are written.
#pragma once

#include <orulog/orulog.h>

#include <memory>

namespace spdlog::sinks {
class sink;
}

namespace orulog {

/// Null stands for standard error.
using Sink = std::shared_ptr<spdlog::sinks::sink>;

/// The output that oruLogSetOutput() calls `text`; null with errno set when there is none such.
Sink openSink(const char* text);

/// Writes a message through to `sink`. When it fails, says so on standard error, writes there, and
/// leaves `sink` null. Not to be called for one sink by two threads at once.
void write(Sink& sink, const oruLogMsg& msg, const char* channel) noexcept;

} // namespace orulog
