// An SMB server of a test's own: the real smbd, on the loopback interface.
#pragma once

#include "support/system/loopback.h"
#include "support/system/tempdir.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QStringList>

#include <sys/types.h>

namespace oru::io::test {

/// Runs smbd from its construction to its destruction, as root or as any other user, with all that
/// it reads and writes in a private directory. Neither its processes nor its directory outlive the
/// test's process for more than a moment, even if that is killed.
///
/// Its shares are
/// - "rw" and "rw2", which `user` may write to,
/// - "ro", which `user` may read, with one file "file.txt" of the text "read only file\n",
/// - "guest", where everybody is a guest and may write.
class SmbServer {
public:
    struct Options {
        QStringList global; ///< more lines for the section [global] of smb.conf
        /// More shares, each with a directory of its own and these lines in its section.
        QMap<QString, QStringList> shares;
    };

    static constexpr const char* user = "tester";
    static constexpr const char* password = "Secret1";

    /// Serves when it returns, if all is well: see problem().
    explicit SmbServer(const Options& options = {});
    ~SmbServer();
    /// One without options that all tests of this process can have, one after the other. It is as
    /// new, apart from its log.
    static SmbServer& shared();

    /// Why no server can run on this machine; empty when one can.
    static QString missing();
    /// Why it does not serve, with what smbd has logged; empty when it does.
    QString problem() const;

    quint16 port() const;
    /// "127.0.0.1:PORT".
    QString address() const;
    /// The local directory behind a share.
    QString directory(const QString& share) const;

    /// Kills all of its processes. Connections to its port are refused from now on.
    void kill();
    /// Serves the same directories on the same port with new processes. \returns whether it does.
    bool restart();
    /// Stops all of its processes in the midst of what they are doing, until cont().
    void stop();
    void cont();

    /// The main process, its helpers, and one for each connection; without those that have ended.
    QList<pid_t> processes() const;
    /// What smbd has logged since the construction.
    QByteArray log() const;

private:
    Q_DISABLE_COPY(SmbServer)
    void writeFiles(const Options& options);
    void signal(int number);

    const TempDir m_directory;
    const Socket m_port; // reserves the number while smbd does not run, too
    QString m_problem;
    pid_t m_smbd = -1;  // leader of the group of all of its processes
    pid_t m_guard = -1; // waits for the end of this process
    int m_lifeline = -1;
};

} // namespace oru::io::test
