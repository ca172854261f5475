// SPDX-License-Identifier: Apache-2.0
// Files of a real SMB server's share.
#include "network/fssmb_fixtures.h"

#include "support/suite/logcapture.h"
#include <QFileInfo>

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>

namespace oru::io {
namespace {

using test::FaultProxy;
using test::LogCapture;
using test::SmbShare;
using test::SmbWire;

} // namespace

TEST_F(SmbWire, Write_SendsRequestsOf64KiB) {
    const auto file = fs.open("/f", O_RDWR | O_CREAT, 0644);
    QByteArray content;
    while (content.size() < 200'000)
        content += QByteArray::number(content.size()) + ' ';
    content.truncate(200'000);
    proxy->clear();
    EXPECT_EQ(file->write(content.constData(), content.size()), 200'000);
    EXPECT_EQ(lengths(FaultProxy::Write), (std::vector<quint32>{65536, 65536, 65536, 3392}));
    EXPECT_EQ(file->lseek(0, SEEK_CUR), 200'000);
    EXPECT_EQ(file->lseek(0, SEEK_END), 200'000);
    proxy->clear();
    EXPECT_EQ(file->pwrite(content.constData(), content.size(), 300'000), 200'000);
    EXPECT_EQ(lengths(FaultProxy::Write), (std::vector<quint32>{65536, 65536, 65536, 3392}));
    EXPECT_EQ(getLocal("/f").left(200'000), content);
    EXPECT_EQ(getLocal("/f").mid(300'000), content);
}

TEST_F(SmbWire, Read_SendsOneRequest) {
    putLocal("/f", QByteArray(1 << 20, 'r'));
    const auto file = fs.open("/f", O_RDONLY, 0);
    QByteArray buf(1 << 20, '\0');
    // The server grants credits with each response. A read of 1 MiB needs more than it has granted.
    fs.stat("/f", *std::make_unique<struct stat>());
    proxy->clear();
    EXPECT_EQ(file->read(buf.data(), buf.size()), buf.size());
    EXPECT_EQ(file->pread(buf.data(), 200'000, 100'000), 200'000);
    EXPECT_EQ(lengths(FaultProxy::Read), (std::vector<quint32>{1 << 20, 200'000}));
    EXPECT_EQ(file->lseek(0, SEEK_CUR), 1 << 20);
}

TEST_F(SmbWire, ZeroBytes_SendsNoRequest) {
    const auto file = fs.open("/f", O_RDWR | O_CREAT, 0644);
    char buf[1];
    proxy->clear();
    liberrno = NotFound;
    EXPECT_EQ(file->read(buf, 0), 0);
    EXPECT_EQ(liberrno, Ok);
    EXPECT_EQ(file->write(buf, 0), 0);
    EXPECT_EQ(file->pread(buf, 0, 5), 0);
    EXPECT_EQ(file->pwrite(buf, 0, 5), 0);
    EXPECT_EQ(file->lseek(0, SEEK_END), 5);
    EXPECT_EQ(proxy->messages().size(), 0);
}

namespace {

/// Makes a WRITE response report 0 written bytes.
const auto reportZeroWritten = FaultProxy::Fault::edit(
    [](QByteArray& message) { message.replace(64 + 4, 4, QByteArray(4, '\0')); });
/// Makes a WRITE response report 1000 written bytes.
const auto reportThousandWritten = FaultProxy::Fault::edit(
    [](QByteArray& message) { message.replace(64 + 4, 4, QByteArray("\xe8\x03\0\0", 4)); });

} // namespace

TEST_F(SmbWire, ServerWritesNothing_WriteSendsTheBytesAgain) {
    const auto file = fs.open("/f", O_RDWR | O_CREAT, 0644);
    const QByteArray content(100'000, 'w');
    proxy->clear();
    for (int i = 0; i < 5; ++i)
        proxy->on({FaultProxy::Response, FaultProxy::Write}, reportZeroWritten);
    EXPECT_EQ(file->write(content.constData(), content.size()), content.size());
    EXPECT_EQ(lengths(FaultProxy::Write),
              (std::vector<quint32>{65536, 34464, 65536, 34464, 65536, 34464, 65536}));
    EXPECT_EQ(getLocal("/f"), content);
}

TEST_F(SmbWire, ServerWritesNothing_PwriteStopsAndReturnsTheFullCount) {
    const auto file = fs.open("/f", O_RDWR | O_CREAT, 0644);
    const QByteArray content(2 << 20, 'w');
    proxy->clear();
    proxy->on({FaultProxy::Response, FaultProxy::Write}, reportZeroWritten);
    EXPECT_EQ(file->pwrite(content.constData(), content.size(), 0), content.size());
    // Those that were under way.
    EXPECT_EQ(lengths(FaultProxy::Write), std::vector<quint32>(16, 65536));
    EXPECT_EQ(file->lseek(0, SEEK_END), content.size());
}

TEST_F(SmbWire, ServerWritesPart_RestIsSent) {
    const auto file = fs.open("/f", O_RDWR | O_CREAT, 0644);
    const QByteArray content = QByteArray(1000, 'a') + QByteArray(99'000, 'b');
    for (const bool positioned : {false, true}) {
        proxy->clear();
        proxy->on({FaultProxy::Response, FaultProxy::Write}, reportThousandWritten);
        const int size = content.size();
        EXPECT_EQ(positioned ? file->pwrite(content.constData(), size, 0)
                             : file->write(content.constData(), size),
                  size);
        EXPECT_EQ(lengths(FaultProxy::Write), (std::vector<quint32>{65536, 34464, 64536}));
        EXPECT_EQ(proxy->messages(FaultProxy::Request, FaultProxy::Write)[2].offset, 1000U);
        EXPECT_EQ(getLocal("/f"), content);
    }
}

TEST_F(SmbShare, CountsAndOffsetsOutOfRange_FailWithEINVALOrEFBIG) {
    const auto file = create("/f");
    char byte = 'x';
    EXPECT_EQ(file->write(&byte, 0x80000000U), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(file->pwrite(&byte, 0x80000000U, 0), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(file->lseek(0, SEEK_END), 0);
    EXPECT_EQ(file->pwrite(&byte, 1, -1), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(file->pread(&byte, 1, -1), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(file->pwrite(&byte, 1, std::numeric_limits<long long>::max()), -1);
    EXPECT_EQ(errno, EFBIG);
    EXPECT_EQ(file->lseek(std::numeric_limits<long long>::max(), SEEK_SET),
              std::numeric_limits<long long>::max());
    EXPECT_EQ(file->write(&byte, 1), -1);
    EXPECT_EQ(errno, EFBIG);
    EXPECT_EQ(file->ftruncate(-1), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(fs.truncate("/f", -1), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(getLocal("/f").size(), 0);
}

TEST_F(SmbShare, ReadBeyondTheServersMaximum_IsShort) {
    const QByteArray content(20 << 20, 'r');
    putLocal("/f", content);
    const auto file = fs.open("/f", O_RDONLY, 0);
    QByteArray buf(content.size(), '\0');
    int done = 0;
    int requests = 0;
    while (done < buf.size()) {
        const int count = file->read(buf.data() + done, buf.size() - done);
        ASSERT_GT(count, 0) << strerror();
        done += count;
        ++requests;
    }
    EXPECT_GT(requests, 1);
    EXPECT_EQ(buf, content);
    EXPECT_EQ(file->read(buf.data(), 1), 0);
}

TEST_F(SmbShare, LiberrnoSet_OpeningsAndSomeFileCallsClearIt) {
    putLocal("/f");
    putLocal("/g");
    const auto file = create("/f");
    const auto directory = fs.opendir("/");
    char byte = 0;
    struct stat st;
    struct statfs sizes;
    QString target;
    const auto clears = [](const std::function<void()>& call) {
        liberrno = NotFound;
        call();
        return liberrno == Ok;
    };
    EXPECT_TRUE(clears([&] { file->write(&byte, 1); }));
    EXPECT_TRUE(clears([&] { file->read(&byte, 1); }));
    EXPECT_TRUE(clears([&] { file->pwrite(&byte, 1, 0); }));
    EXPECT_TRUE(clears([&] { file->pread(&byte, 1, 0); }));
    EXPECT_TRUE(clears([&] { file->lseek(0, SEEK_SET); }));
    EXPECT_TRUE(clears([&] { file->ftruncate(0); }));
    EXPECT_TRUE(clears([&] { file->fsync(); }));
    EXPECT_TRUE(clears([&] { file->fdatasync(); }));
    EXPECT_FALSE(clears([&] { file->fstat(st); }));
    EXPECT_FALSE(clears([&] { file->fcntl(F_GETFL); }));
    EXPECT_TRUE(clears([&] { file->close(); }));
    EXPECT_TRUE(clears([&] { fs.open("/f", O_RDONLY, 0); }));
    EXPECT_TRUE(clears([&] { fs.opendir("/"); }));
    EXPECT_FALSE(clears([&] { directory->readdir(); }));
    EXPECT_FALSE(clears([&] { directory->rewinddir(); }));
    EXPECT_FALSE(clears([&] { directory->closedir(); }));
    EXPECT_FALSE(clears([&] { fs.stat("/f", st); }));
    EXPECT_FALSE(clears([&] { fs.statfs("/", sizes); }));
    EXPECT_FALSE(clears([&] { fs.mkdir("/d", 0755); }));
    EXPECT_FALSE(clears([&] { fs.rmdir("/d"); }));
    EXPECT_FALSE(clears([&] { fs.rename("/g", "/h"); }));
    EXPECT_FALSE(clears([&] { fs.truncate("/h", 1); }));
    EXPECT_FALSE(clears([&] { fs.unlink("/h"); }));
    EXPECT_FALSE(clears([&] { fs.readlink("/f", target); }));
    EXPECT_FALSE(clears([&] { fs.disconnect(); }));
}

TEST_F(SmbShare, AppendFlag_IsIgnored) {
    putLocal("/f", "0123456789");
    const auto file = fs.open("/f", O_WRONLY | O_APPEND, 0);
    EXPECT_EQ(file->write("ab", 2), 2);
    EXPECT_EQ(getLocal("/f"), "ab23456789");
    // A program that opens a file to append to it overwrites its head.
    for (const char* line : {"abc", "def"}) {
        const auto log = fs.open("/log", O_WRONLY | O_CREAT | O_APPEND, 0644);
        EXPECT_EQ(log->write(line, 3), 3);
    }
    EXPECT_EQ(getLocal("/log"), "def");
}

TEST_F(SmbShare, OffsetsBeyondFourGiB_AreExact) {
    constexpr long long far = 5LL << 30;
    const auto file = create("/sparse");
    EXPECT_EQ(file->pwrite("far", 3, far), 3);
    EXPECT_EQ(file->lseek(0, SEEK_END), far + 3);
    EXPECT_EQ(file->lseek(far + 1, SEEK_SET), far + 1);
    char buf[4] = {};
    EXPECT_EQ(file->read(buf, 3), 2);
    EXPECT_STREQ(buf, "ar");
    EXPECT_EQ(file->lseek(far + 3, SEEK_SET), far + 3);
    EXPECT_EQ(file->write("ther", 4), 4);
    struct stat st;
    EXPECT_EQ(fs.stat("/sparse", st), 0);
    EXPECT_EQ(st.st_size, far + 7);
    EXPECT_EQ(QFileInfo(local("/sparse")).size(), far + 7);
    EXPECT_EQ(fs.truncate("/sparse", far - 1), 0);
    EXPECT_EQ(file->fstat(st), 0);
    EXPECT_EQ(st.st_size, far - 1);
    EXPECT_EQ(file->ftruncate(far + 1), 0);
    EXPECT_EQ(fs.stat("/sparse", st), 0);
    EXPECT_EQ(st.st_size, far + 1);
}

TEST_F(SmbShare, PreadAndPwrite_DoNotMoveThePosition) {
    const auto file = create("/f");
    EXPECT_EQ(file->pwrite("0123456789", 10, 100), 10);
    EXPECT_EQ(file->lseek(0, SEEK_CUR), 0);
    EXPECT_EQ(file->lseek(0, SEEK_END), 110);
    EXPECT_EQ(file->lseek(0, SEEK_SET), 0);
    char buf[10];
    EXPECT_EQ(file->pread(buf, 5, 100), 5);
    EXPECT_EQ(file->lseek(0, SEEK_CUR), 0);
    // pread() and pwrite() do not move the position of read() and write().
    EXPECT_EQ(file->write("ab", 2), 2);
    EXPECT_EQ(file->pread(buf, 2, 0), 2);
    EXPECT_EQ(std::string(buf, 2), "ab");
    EXPECT_EQ(file->lseek(0, SEEK_CUR), 2);
    EXPECT_EQ(file->ftruncate(1000), 0);
    EXPECT_EQ(file->lseek(0, SEEK_END), 110); // not the size
}

TEST_F(SmbWire, Lseek_ReturnsThePositionOrFails) {
    putLocal("/f", QByteArray(1000, 'x'));
    const auto file = fs.open("/f", O_RDWR, 0);
    proxy->clear();
    LogCapture log("libio_smb2=12");
    const auto fails = [&](long long offset, int whence, int error) {
        errno = 0;
        liberrno = NotFound;
        const bool failed = file->lseek(offset, whence) == -1 && errno == error;
        return failed && liberrno == Ok;
    };
    const QString negative = "libio_smb2 12 Invalid seek offset: %1";

    // SEEK_END counts from the end of the bytes written through this object.
    EXPECT_EQ(file->lseek(0, SEEK_END), 0);
    EXPECT_EQ(file->lseek(7, SEEK_END), 7);
    EXPECT_EQ(file->lseek(0, SEEK_CUR), 7);
    EXPECT_EQ(file->lseek(3, SEEK_CUR), 10);
    EXPECT_EQ(file->lseek(-10, SEEK_CUR), 0);
    EXPECT_EQ(file->lseek(0, SEEK_CUR), 0);
    EXPECT_EQ(file->lseek(5'000'000'000, SEEK_SET), 5'000'000'000);
    EXPECT_EQ(file->lseek(2, SEEK_SET), 2);
    EXPECT_EQ(log.messages(), QStringList());

    // lseek() fails for a negative position, but keeps it.
    EXPECT_TRUE(fails(-5, SEEK_SET, EINVAL));
    EXPECT_TRUE(fails(0, SEEK_CUR, EINVAL));
    EXPECT_EQ(log.messages(), QStringList({negative.arg(-5), negative.arg(-5)}));
    EXPECT_EQ(file->lseek(10, SEEK_CUR), 5);
    EXPECT_TRUE(fails(-6, SEEK_CUR, EINVAL));
    EXPECT_EQ(file->lseek(1, SEEK_CUR), 0);
    EXPECT_TRUE(fails(-1, SEEK_END, EINVAL));
    EXPECT_EQ(log.messages(), QStringList({negative.arg(-1), negative.arg(-1)}));

    EXPECT_EQ(file->lseek(4, SEEK_SET), 4);
    for (const int whence : {3, -1, SEEK_HOLE}) {
        EXPECT_TRUE(fails(0, whence, EINVAL));
        EXPECT_EQ(log.messages(), QStringList("libio_smb2 12 Invalid lseek whence code '" +
                                              QString::number(whence) + "'"));
    }
    EXPECT_EQ(file->lseek(0, SEEK_CUR), 4);

    // An overflow does not move the position.
    EXPECT_TRUE(fails(std::numeric_limits<long long>::max(), SEEK_CUR, EOVERFLOW));
    EXPECT_EQ(file->lseek(0, SEEK_CUR), 4);
    EXPECT_EQ(log.messages(), QStringList());
    EXPECT_EQ(proxy->messages().size(), 0);
}

TEST_F(SmbShare, NegativePosition_ReadsAndWritesContinueAtTheOldPosition) {
    putLocal("/f", "0123456789");
    const auto file = fs.open("/f", O_RDWR, 0);
    EXPECT_EQ(file->lseek(4, SEEK_SET), 4);
    EXPECT_EQ(file->lseek(-5, SEEK_SET), -1);
    char buf[3] = {};
    EXPECT_EQ(file->read(buf, 2), 2);
    EXPECT_STREQ(buf, "45");
    EXPECT_EQ(file->lseek(0, SEEK_CUR), -1); // at -3
    EXPECT_EQ(file->write("xy", 2), 2);
    EXPECT_EQ(getLocal("/f"), "012345xy89");
    EXPECT_EQ(file->lseek(3, SEEK_CUR), 2);
    EXPECT_EQ(file->read(buf, 2), 2);
    EXPECT_STREQ(buf, "23");
}

TEST_F(SmbShare, SeekBackToStart_ReadsContinueThere) {
    putLocal("/f", "0123456789");
    const auto file = fs.open("/f", O_RDWR, 0);
    char buf[5] = {};
    EXPECT_EQ(file->read(buf, 4), 4);
    EXPECT_EQ(file->lseek(-4, SEEK_CUR), 0);
    EXPECT_EQ(file->read(buf, 4), 4);
    EXPECT_STREQ(buf, "0123");
}

TEST_F(SmbShare, UnsupportedFileOperations_FailWithEOPNOTSUPP) {
    const auto file = create("/f");
    const auto refused = [](int result) { return result == -1 && errno == EOPNOTSUPP; };
    liberrno = NotFound;
    EXPECT_TRUE(refused(file->fcntl(F_GETFL)));
    EXPECT_TRUE(refused(file->flock(LOCK_EX)));
    EXPECT_TRUE(refused(file->fchmod(0600)));
    EXPECT_EQ(liberrno, NotFound);
    EXPECT_TRUE(refused(file->fdatasync()));
    EXPECT_EQ(liberrno, Ok);
    EXPECT_EQ(file->fsync(), 0);
    QString response;
    EXPECT_EQ(file->ioctl("anything", response), -1);
    EXPECT_EQ(liberrno, NotImplemented);
    liberrno = Ok;
    EXPECT_EQ(fs.opendir("/")->ioctl("anything", response), -1);
    EXPECT_EQ(liberrno, NotImplemented);
}

TEST_F(SmbWire, CloseTwice_SendsOneRequest) {
    const auto file = fs.open("/f", O_RDWR | O_CREAT, 0644);
    proxy->clear();
    EXPECT_EQ(file->close(), 0);
    EXPECT_EQ(file->close(), 0);
    EXPECT_EQ(proxy->messages(FaultProxy::Request, FaultProxy::Close).size(), 1);
    struct stat st;
    char byte;
    EXPECT_EQ(file->fstat(st), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(file->read(&byte, 1), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(SmbWire, LastReferenceReleased_FileIsClosed) {
    {
        const auto file = fs.open("/f", O_RDWR | O_CREAT, 0644);
        proxy->clear();
    }
    EXPECT_EQ(proxy->messages(FaultProxy::Request, FaultProxy::Close).size(), 1);
}

} // namespace oru::io
