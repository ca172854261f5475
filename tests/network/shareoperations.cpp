// SPDX-License-Identifier: Apache-2.0
// The operations, and the check after a fatal error.
#include "network/shareoperations.h"

#include "support/system/smbtest.h"

#include <oruio/error.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/vfs.h>

namespace oru::io::test {

std::mutex connectMutex;

Share::Share(const QString& address, const QString& name, unsigned int seconds)
    : fs(seconds), directoryPath('/' + name) {
    const std::lock_guard lock(connectMutex);
    EXPECT_TRUE(connectEventually(fs, address)) << strerror();
    EXPECT_EQ(fs.mkdir(directoryPath, 0755), 0) << strerror();
    EXPECT_EQ(fs.mkdir(at("empty"), 0755), 0) << strerror();
    file = fs.open(at("file"), O_RDWR | O_CREAT, 0644);
    EXPECT_TRUE(file) << strerror();
    if (!file)
        return;
    EXPECT_EQ(file->pwrite(content.constData(), content.size(), 0), content.size());
    EXPECT_TRUE(fs.open(at("other"), O_RDWR | O_CREAT, 0644)) << strerror();
    directory = fs.opendir(directoryPath);
    EXPECT_TRUE(directory) << strerror();
}

const std::vector<Operation> operations = {
    {"stat", FaultProxy::Create,
     [](Share& s) {
         struct stat st;
         return s.fs.stat(s.at("file"), st);
     }},
    {"statfs", FaultProxy::Create,
     [](Share& s) {
         struct statfs st;
         return s.fs.statfs("/", st);
     }},
    {"open", FaultProxy::Create,
     [](Share& s) { return s.fs.open(s.at("file"), O_RDONLY, 0) ? 0 : -1; }},
    {"opendir", FaultProxy::Create,
     [](Share& s) { return s.fs.opendir(s.directoryPath) ? 0 : -1; }},
    {"opendir's listing", FaultProxy::QueryDirectory,
     [](Share& s) { return s.fs.opendir(s.directoryPath) ? 0 : -1; }},
    {"mkdir", FaultProxy::Create, [](Share& s) { return s.fs.mkdir(s.at("new"), 0755); }},
    {"rmdir", FaultProxy::Create, [](Share& s) { return s.fs.rmdir(s.at("empty")); }},
    {"unlink", FaultProxy::Create, [](Share& s) { return s.fs.unlink(s.at("other")); }},
    {"rename", FaultProxy::Create,
     [](Share& s) { return s.fs.rename(s.at("other"), s.at("renamed")); }},
    {"truncate", FaultProxy::Create, [](Share& s) { return s.fs.truncate(s.at("other"), 10); }},
    {"readlink", FaultProxy::Create,
     [](Share& s) {
         // The server has no links: EINVAL is its regular response.
         QString target;
         return s.fs.readlink(s.at("other"), target) < 0 && errno != EINVAL ? -1 : 0;
     }},
    {"read", FaultProxy::Read,
     [](Share& s) { return s.file->read(s.buffer.data(), s.buffer.size()); }},
    {"pread", FaultProxy::Read,
     [](Share& s) { return s.file->pread(s.buffer.data(), s.buffer.size(), 0); }},
    {"write", FaultProxy::Write,
     [](Share& s) { return s.file->write(s.content.constData(), s.content.size()); }},
    {"pwrite", FaultProxy::Write,
     [](Share& s) { return s.file->pwrite(s.content.constData(), s.content.size(), 0); }},
    {"fsync", FaultProxy::Flush, [](Share& s) { return s.file->fsync(); }},
    {"ftruncate", FaultProxy::SetInfo, [](Share& s) { return s.file->ftruncate(8000); }},
    {"fstat", FaultProxy::QueryInfo,
     [](Share& s) {
         struct stat st;
         return s.file->fstat(st);
     }},
    {"close", FaultProxy::Close, [](Share& s) { return s.file->close(); }},
    {"disconnect", FaultProxy::TreeDisconnect, [](Share& s) { return s.fs.disconnect(); }},
};

void expectGuarded(Share& share) {
    errno = 4711;
    liberrno = NotFound;
    for (const Operation& operation : operations) {
        const bool isDisconnect = std::strcmp(operation.name, "disconnect") == 0;
        if (!isDisconnect) {
            EXPECT_LT(operation.call(share), 0) << operation.name;
        }
    }
    EXPECT_EQ(share.file->lseek(0, SEEK_SET), -1);
    EXPECT_EQ(share.file->fdatasync(), -1);
    EXPECT_EQ(share.file->fcntl(F_GETFL), -1);
    EXPECT_EQ(share.directory->readdir(), nullptr);
    EXPECT_EQ(share.directory->rewinddir(), -1);
    EXPECT_EQ(share.directory->closedir(), -1);
    EXPECT_TRUE(share.fs.isConnected());
    EXPECT_EQ(share.fs.getDialect(), "unknown");
    EXPECT_EQ(errno, 4711);
    EXPECT_EQ(liberrno, NotFound);
}

} // namespace oru::io::test
