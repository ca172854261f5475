// SPDX-License-Identifier: Apache-2.0
// A client that carries out the operations of a share, and checks their results.
#pragma once

#include <oruio/fssmb.h>

#include <QByteArray>
#include <QList>
#include <QString>

#include <functional>

namespace oru::io::test {

/// What a client finds out from its server for its checks. By default the server is trusted.
class Witness {
public:
    virtual ~Witness() = default;
    /// The following calls belong to an operation.
    virtual void beginOperation(const QByteArray&) {}
    /// A call begins.
    virtual void beginCall() {}
    /// Whether each request of the call was answered with a success.
    virtual bool isGranted() const {
        return true;
    }
    /// Whether the call had a session and a share that the server granted.
    virtual bool hasConnected() const {
        return true;
    }
    /// Whether the call had a READ that was answered with `count` bytes; 0 stands for the end of
    /// the file.
    virtual bool hasRead(qint64) const {
        return true;
    }
    /// Whether the WRITEs of the call were answered with at least `count` bytes.
    virtual bool hasWritten(qint64) const {
        return true;
    }
    /// Whether the call had a WRITE that was answered with 0 bytes.
    virtual bool hasWrittenNothing() const {
        return true;
    }
    /// Whether the last QUERY_DIRECTORY of the call was answered with the end of the listing.
    virtual bool hasListed() const {
        return true;
    }
    /// Whether the call had an IOCTL that was answered with a success.
    virtual bool hasLink() const {
        return true;
    }
};

class ShareClient {
public:
    /// The names of the operations, in an order in which each finds the files that it needs.
    static QList<QByteArray> operations();

    /// The files that the operations need, as in the share "rw" of a SmbServer with the directory
    /// `root`.
    static void makeFiles(const QString& root);

    ShareClient(Properties login, Witness& witness);

    /// Carries out an operation; any other name stands for none. Aborts the process when a result
    /// contradicts the header of the backend or the server's answers. \returns whether the
    /// operation had the result that it has with `makeFiles()` and a true server.
    bool run(const QByteArray& operation);

    /// Whether no connection has ended but by disconnect().
    bool isConnectionKept() const;

private:
    struct Operation;

    template <class Call>
    auto call(Call call);
    bool isDone(int result);
    void checkFailure();
    void takeFailure();
    bool isGranted(int result);

    bool connect();
    bool disconnect();
    bool echo();
    bool stat();
    bool statfs();
    bool mkdir();
    bool rename();
    bool rmdir();
    bool unlink();
    bool truncate();
    bool readlink();
    bool write();
    bool pwrite();
    bool read();
    bool pread();
    bool status();
    bool listSmall();
    bool listLarge();
    bool missing();

    QSharedPointer<File> open(const char* path, int flags);
    bool close(File& file);
    qint64 transfer(qint64 count, const std::function<int(char* buffer)>& read);
    bool stores(qint64 count, bool mayStopAtZero, const std::function<int(const char*)>& write);
    int entries(Directory& directory);
    bool list(const char* path, int expected, bool isRewound);

    const Properties m_login;
    Witness& m_witness;
    Smb2FS m_share;
    bool m_isBroken = false;
    bool m_isConnectionKept = true;
};

} // namespace oru::io::test
