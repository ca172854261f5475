// SPDX-License-Identifier: Apache-2.0
// Turns Ctrl-C and SIGTERM into a request to stop.
#pragma once

namespace stopsignal {

/// Installs the handler of SIGINT and SIGTERM, which sets the request. Ignores SIGPIPE, so that the
/// program continues if the reader of its output exits.
void install();

/// Whether one of the signals arrived since install() or the last clear().
bool isRequested();
void clear();
/// Waits until a signal arrives; returns at once if one already has. For one thread.
void wait();

} // namespace stopsignal
