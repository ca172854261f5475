// SPDX-License-Identifier: Apache-2.0
// The conformance suite over a share of a real SMB server.
#include <oruio/error.h>
#include <oruio/fssmb.h>

#include "support/suite/fs_conformance.h"
#include "support/system/smbtest.h"

namespace oru::io {
namespace {

using test::login;
using test::SmbServer;

test::Backend shareBackend() {
    test::Backend backend;
    backend.skipReason = SmbServer::missing().toStdString();
    if (!backend.skipReason.empty())
        return backend;
    const SmbServer& server = SmbServer::shared();
    EXPECT_EQ(server.problem(), "");
    const auto fs = QSharedPointer<Smb2FS>::create(10);
    EXPECT_EQ(fs->connect(login(server.address())), 0) << strerror();
    backend.fs = fs;
    using test::Answer;
    using test::Op;
    backend.can.type = "Smb2FS";
    backend.can.fileType = "Smb2File";
    backend.can.directoryType = "Smb2Directory";
    backend.can.closedirAgain = 0;
    backend.can.readlinkPads = true;
    backend.can.keepsModes = false;
    backend.can.appends = false;
    backend.can.caseSensitive = false;
    for (const Op op : {Op::Link, Op::Symlink, Op::Xattr, Op::Listxattr, Op::Chmod, Op::FileFchmod,
                        Op::FileFlock, Op::FileFcntlFlags, Op::FileFcntlLock})
        backend.can.answers[op] = Answer::fails(EOPNOTSUPP);
    backend.can.anyCharacter = false;
    backend.can.answers[Op::FileFdatasync] = Answer::fails(EOPNOTSUPP);
    backend.can.answers[Op::LseekFromEnd] = Answer::isSomethingElse();
    // The errnos to which libsmb2 translates the statuses of the server.
    backend.can.answers[Op::OpenDirectoryForWriting] = Answer::fails(EPERM);
    backend.can.answers[Op::OpenThroughFile] = Answer::fails(ENOENT);
    backend.can.answers[Op::NameTooLong] = Answer::fails(EIO);
    backend.can.answers[Op::StatNameTooLong] = Answer::fails(EIO);
    backend.can.answers[Op::OddCharacter] = Answer::fails(EIO);
    backend.can.answers[Op::ReadWriteOnlyFile] = Answer::fails(EACCES);
    backend.can.answers[Op::WriteReadOnlyFile] = Answer::fails(EACCES);
    backend.can.answers[Op::RenameOntoExisting] = Answer::fails(EEXIST);
    backend.can.answers[Op::UnlinkDirectory] = Answer::fails(EPERM);
    backend.can.answers[Op::UnlinkOpenFile] = Answer::fails(ETXTBSY);
    backend.can.answers[Op::OpenDirectory] = Answer::fails(EPERM);
    return backend;
}

} // namespace

namespace test {

ORUIO_CONFORMS(Smb2FS, shareBackend);

} // namespace test
} // namespace oru::io
