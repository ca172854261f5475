// SPDX-License-Identifier: Apache-2.0
// A share of an SMB server, and connections to it through the compared clients.
#pragma once

#include "delayedline.h"

#include "support/system/smbserver.h"

#include <oruio/fssmb.h>

#include <QString>
#include <QTemporaryDir>
#include <benchmark/benchmark.h>

#include <map>
#include <memory>
#include <string>

/// A directory on the disk with one clip, shared by a server on this machine.
///
/// Each benchmark makes a connection and closes it at its end. The throughput of a connection grows
/// with its use, and not always equally: a permanent connection could be slow, or fast, in all
/// rounds. A new connection waits until the server has ended the previous one.
class Share {
public:
    struct ContextDeleter {
        void operator()(smb2_context* context) const;
    };
    using Context = std::unique_ptr<smb2_context, ContextDeleter>;

    /// The only share, served from its first use to the end of the program.
    static Share& instance();

    /// Why it cannot be served; empty on success.
    const std::string& lastError() const;

    /// Connects with the library, over a line with this round trip in milliseconds; 0 is the
    /// loopback interface. \returns null on failure.
    std::unique_ptr<oru::io::Smb2FS> connect(int roundTripMs = 0);
    /// Connects with libsmb2 alone, in the same dialect. \returns null on failure.
    Context connectLibsmb2(int roundTripMs = 0);
    /// Lets smbclient carry out `command`, a transfer. \returns the speed that it prints, in KiB
    /// per second; 0, with an error in `state`, on failure.
    double runSmbclient(benchmark::State& state, const QString& command, int roundTripMs = 0);

    /// The path of a clip of clipSize bytes, for all clients.
    static constexpr char clip[] = "clip.mov";
    /// The local path of the clip.
    QString clipFile() const;

    /// Makes the directory `takes` with `takeCount` files, at the first call. \returns whether it
    /// is there.
    bool makeTakes();
    static constexpr char takes[] = "takes";
    static constexpr int takeCount = 100'000;

private:
    Share();
    Q_DISABLE_COPY(Share)

    void awaitIdleServer() const;
    quint16 port(int roundTripMs);

    QTemporaryDir m_directory;
    oru::io::test::SmbServer m_server;
    const int m_idleProcesses; // processes of the server without a connection
    const std::string m_lastError;
    std::map<int, DelayedLine> m_lines; // by their round trips
};
