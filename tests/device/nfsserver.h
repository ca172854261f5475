// The device's own NFS server, which exports a memory file system to the device itself.
#pragma once

#include <QString>

namespace oru::io::test {

/// One for all tests of a boot: it is started by the first that asks for it.
class NfsServer {
public:
    /// Why there can be none; empty when there can.
    static QString missing();
    /// Starts it unless it runs. \returns whether it does.
    static bool start();
    /// Ends its threads: whoever asks it for something gets no answer.
    static bool stop();

    /// What is exported, as the server has it.
    static QString directory();
    /// The same, as clients name it.
    static QString target();
};

} // namespace oru::io::test
