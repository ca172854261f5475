// SPDX-License-Identifier: Apache-2.0
// Fixture for tests against a real SMB server.
#pragma once

#include "support/system/childprocess.h"
#include "support/system/smbserver.h"

#include <oruio/fssmb.h>
#include <oruio/properties.h>

#include <gtest/gtest.h>

#include <QFile>

#include <memory>

namespace oru::io::test {

/// Properties to connect as the server's user.
inline Properties login(const QString& address, const QString& share = "rw") {
    return {{"server", address},
            {"share", share},
            {"user", SmbServer::user},
            {"password", SmbServer::password}};
}

/// Has an SMB server; skipped if none can run.
class Smb : public ::testing::Test {
protected:
    Smb() : server(SmbServer::shared()) {}
    /// Starts a server with options for this test, which takes longer than the shared one.
    explicit Smb(const SmbServer::Options& options)
        : m_own(std::make_unique<SmbServer>(options)), server(*m_own) {}

    void SetUp() override {
        if (!SmbServer::missing().isEmpty())
            GTEST_SKIP() << SmbServer::missing().toStdString();
        ASSERT_EQ(server.problem(), "");
    }

    /// The local path of a file or directory of the share "rw".
    QString local(const QString& path) const {
        return server.directory("rw") + path;
    }
    void putLocal(const QString& path, const QByteArray& content = {}) const {
        QFile file(local(path));
        ASSERT_TRUE(file.open(QFile::WriteOnly));
        file.write(content);
        file.close();
        // For a server that does not run as root.
        file.setPermissions(QFile::Permissions(0x6666));
    }
    QByteArray getLocal(const QString& path) const {
        QFile file(local(path));
        EXPECT_TRUE(file.open(QFile::ReadOnly));
        return file.readAll();
    }

private:
    const std::unique_ptr<SmbServer> m_own;

protected:
    SmbServer& server;
};

/// Connects `fs` to the share "rw". On a busy machine, that may take more than one time-out.
inline bool connectEventually(Smb2FS& fs, const QString& address) {
    return eventually([&] { return fs.connect(login(address)) == 0; }, 60);
}

} // namespace oru::io::test
