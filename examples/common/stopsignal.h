// Ctrl-C and SIGTERM as a request to come to an end, not as a sudden death.
#pragma once

namespace stopsignal {

/// From here on SIGINT and SIGTERM set the request. SIGPIPE is ignored: a reader of the output that
/// goes away must not end the work.
void install();

/// Whether one of them came since the start or the last clear().
bool isRequested();
void clear();
/// Returns when one has come, also if that was before the call. For one thread.
void wait();

} // namespace stopsignal
