// SPDX-License-Identifier: Apache-2.0
// The NFS server of the device. It exports a tmpfs to the device itself.
#pragma once

#include <QString>

namespace oru::io::test {

/// The server is shared by all tests; the first start() after boot starts it.
class NfsServer {
public:
    /// Why no server can run; empty if one can.
    static QString missing();
    /// Starts the server unless it runs. \returns whether it runs.
    static bool start();
    /// Ends the server's threads: requests then get no reply.
    static bool stop();

    /// The exported directory, as a local path.
    static QString directory();
    /// The export, as clients name it.
    static QString target();
};

} // namespace oru::io::test
