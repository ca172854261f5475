// SPDX-License-Identifier: Apache-2.0
// Runs a private smbd on the loopback interface.
#pragma once

#include "support/system/loopback.h"
#include "support/system/tempdir.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QStringList>

#include <sys/types.h>

namespace oru::io::test {

/// Runs smbd while it lives, as root or as any other user. All files of smbd are in a private
/// directory. Its processes and its directory are also removed when the test's process is killed.
///
/// Shares:
/// - "rw", "rw2": writable by `user`
/// - "ro": readable by `user`, with one file "file.txt" that contains "read only file\n"
/// - "guest": writable by everyone as guest
class SmbServer {
public:
    struct Options {
        QStringList global; ///< more lines for the section [global] of smb.conf
        /// More shares: name and lines of the section. Each has its own directory.
        QMap<QString, QStringList> shares;
    };

    static constexpr const char* user = "tester";
    static constexpr const char* password = "Secret1";

    /// Returns when smbd listens. problem() reports a failure.
    explicit SmbServer(const Options& options = {});
    ~SmbServer();
    /// A server without options, shared by the tests of this process one after the other. Each call
    /// empties its shares and restarts it if needed; its log is kept.
    static SmbServer& shared();

    /// Why no server can run on this machine; empty if one can.
    static QString missing();
    /// Why smbd does not listen, with its log; empty if it does.
    QString problem() const;

    quint16 port() const;
    /// "127.0.0.1:PORT".
    QString address() const;
    /// The local directory of a share.
    QString directory(const QString& share) const;

    /// Kills all of its processes. After that, connections to its port are refused.
    void kill();
    /// Starts smbd again with the same directories and port. \returns whether it listens.
    bool restart();
    /// Stops all of its processes (SIGSTOP) until cont().
    void stop();
    void cont();

    /// All processes of smbd that have not ended: the main process, its helpers and one for each
    /// connection.
    QList<pid_t> processes() const;
    /// The log of smbd since the construction.
    QByteArray log() const;

private:
    Q_DISABLE_COPY(SmbServer)
    void writeFiles(const Options& options);
    void signal(int number);

    const TempDir m_directory;
    const Socket m_port; // reserves the port number, also while smbd does not run
    QString m_problem;
    pid_t m_smbd = -1;  // leader of the process group
    pid_t m_guard = -1; // kills smbd when this process ends
    int m_lifeline = -1;
};

} // namespace oru::io::test
