// SPDX-License-Identifier: Apache-2.0
// The descriptor adapter in a process with an unknown limit of system descriptors.

#include "support/doubles/recordingfs.h"
#include "support/system/tempdir.h"

#include <oruio/error.h>
#include <oruio/fdadapter.h>
#include <oruio/posixfs.h>

#include <gtest/gtest.h>

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

// The C library's sysconf(), by a name that nothing overrides.
extern "C" long __sysconf(int name) noexcept;

// The library calls this definition when it is loaded. The sanitizers call it before they are
// initialised, so it is not instrumented.
extern "C"
    __attribute__((visibility("default"), no_sanitize("address", "thread", "undefined"))) long
    sysconf(int name) noexcept {
    return name == _SC_OPEN_MAX ? -1 : __sysconf(name);
}

namespace oru::io {

TEST(FDAdapterWithoutLimit, Open_FailsAfterTheFileSystemOpened) {
    const auto fs = QSharedPointer<test::RecordingFS>::create();
    FDAdapter adapter(fs);
    errno = EXDEV;
    liberrno = NotFound;
    EXPECT_EQ(adapter.open("/f", O_RDWR, 0), -1);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(liberrno, Ok);
    EXPECT_EQ(fs->take(), QStringList({"open /f 2 0", "~file"}));
}

TEST(FDAdapterWithoutLimit, OpenedFile_IsClosed) {
    test::TempDir dir;
    FDAdapter adapter(QSharedPointer<PosixFS>::create(dir.path()));
    const int free = dup(0);
    ASSERT_NE(free, -1);
    ASSERT_EQ(close(free), 0);
    EXPECT_EQ(adapter.creat("/f", 0644), -1);
    struct stat st;
    EXPECT_EQ(adapter.stat("/f", &st), 0);
    EXPECT_EQ(fcntl(free, F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);
}

namespace {

/// A file whose destructor overwrites errno and liberrno.
class OverwritingFile : public PosixFile {
public:
    OverwritingFile() : PosixFile(-1) {}
    ~OverwritingFile() override {
        errno = ETXTBSY;
        liberrno = LibraryFailure;
    }
};

class OverwritingFS : public test::RecordingFS {
public:
    QSharedPointer<File> open(QString, int, int) override {
        liberrno = Ok;
        return QSharedPointer<OverwritingFile>::create();
    }
};

} // namespace

TEST(FDAdapterWithoutLimit, FileDestructorOverwritesErrno_CallerKeepsErrno) {
    FDAdapter adapter(QSharedPointer<OverwritingFS>::create());
    errno = EXDEV;
    EXPECT_EQ(adapter.open("/f", O_RDWR, 0), -1);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(liberrno, Ok);
}

} // namespace oru::io
