// SPDX-License-Identifier: Apache-2.0
// Fixtures of the SMB tests: shares connected directly or through a recording proxy.
#pragma once

#include "support/doubles/faultproxy.h"
#include "support/suite/logcapture.h"
#include "support/system/files.h"
#include "support/system/smbtest.h"

#include <oruio/error.h>
#include <oruio/fssmb.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>

namespace oru::io::test {

inline Properties with(Properties props, const QString& key, const QVariant& value) {
    props[key] = value;
    return props;
}

/// With `fs` connected to the share "rw".
class SmbShare : public Smb {
protected:
    void SetUp() override {
        Smb::SetUp();
        if (IsSkipped())
            return;
        ASSERT_EQ(fs.connect(login(server.address())), 0) << strerror();
    }

    QSharedPointer<File> create(const QString& path) {
        return fs.open(path, O_RDWR | O_CREAT | O_TRUNC, 0644);
    }

    Smb2FS fs{10};
};

/// With `fs` connected to the share "rw" through a proxy that records the messages.
class SmbWire : public Smb {
protected:
    void SetUp() override {
        Smb::SetUp();
        if (IsSkipped())
            return;
        proxy = std::make_unique<FaultProxy>(server.port());
        ASSERT_EQ(fs.connect(login(proxy->address())), 0) << strerror();
        proxy->clear();
    }

    /// The length fields of all requests with `command`, in their order.
    std::vector<quint32> lengths(FaultProxy::Command command) const {
        std::vector<quint32> found;
        for (const auto& message : proxy->messages(FaultProxy::Request, command))
            found.push_back(message.length);
        return found;
    }
    /// The path of the CREATE request. Fails the test unless there is exactly one.
    QString createdPath() const {
        const auto messages = proxy->messages(FaultProxy::Request, FaultProxy::Create);
        EXPECT_EQ(messages.size(), 1);
        if (messages.size() != 1)
            return {};
        const QByteArray& head = messages[0].head;
        const auto field = [&](int at) {
            return quint8(head[at]) | quint8(head[at + 1]) << 8; // little-endian
        };
        const QByteArray name = head.mid(field(64 + 44), field(64 + 46));
        return QString::fromUtf16(reinterpret_cast<const ushort*>(name.constData()),
                                  name.size() / 2);
    }

    std::unique_ptr<FaultProxy> proxy;
    Smb2FS fs{10};
};

/// Expects that connecting fails with `error`: the session is or may be signed or encrypted.
inline void expectRefused(const SmbServer& server, const QString& version,
                          const QString& share = "rw", int error = EPERM) {
    FaultProxy proxy(server.port());
    LogCapture log("libio_smb2=12");
    Smb2FS fs(10);
    EXPECT_EQ(fs.connect(with(login(proxy.address(), share), "version", version)), -1);
    EXPECT_EQ(errno, error) << std::strerror(errno);
    using Reason = Smb2FS::ConnectFailure::Reason;
    EXPECT_EQ(fs.connectFailure().reason, error == EPERM ? Reason::Protected : Reason::Other);
    EXPECT_TRUE(proxy.waitUntilClosed());
    EXPECT_FALSE(fs.isConnected());
    EXPECT_EQ(fs.getDialect(), "unknown");
    EXPECT_EQ(log.messages(), QStringList());
    // The error is not fatal.
    struct stat st;
    EXPECT_EQ(fs.stat("/", st), -1);
    EXPECT_EQ(errno, ENOTCONN);
}

inline QStringList names(Directory& directory) {
    QStringList found;
    while (const struct dirent* entry = directory.readdir())
        found += QString::fromUtf8(entry->d_name);
    found.sort();
    return found;
}

inline QByteArray utf16(const QString& string) {
    return {reinterpret_cast<const char*>(string.utf16()), string.size() * 2};
}

// The time-out of a share. A request without a fault completes within it even on a busy machine.
constexpr unsigned int timeoutSeconds = 5;
/// Less than two time-outs: enough to find a call that waits for a second one, and time for a busy
/// machine.
constexpr qint64 timeLimitMs = (2 * timeoutSeconds - 1) * 1000;

} // namespace oru::io::test
