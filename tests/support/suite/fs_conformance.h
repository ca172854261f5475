// SPDX-License-Identifier: Apache-2.0
// A suite of tests that every FS passes.
//
// A backend declares how to make an instance, and a table of its deviations from a local file
// system. The tests use this table only: they do not depend on the backend.
#pragma once

#include <oruio/error.h>
#include <oruio/fs.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace oru::io::test {

/// Operations that a backend may not provide, or that may behave differently.
enum class Op {
    AddWatch,
    RemWatch,
    Ioctl,
    Link,
    Symlink,
    ReadlinkOfFile, ///< of something other than a link
    Xattr,          ///< extended attributes, apart from their list
    Listxattr,
    Chmod,
    Truncate,
    RenameOntoExisting,
    RmdirOfFile,
    RmdirNonEmpty,
    UnlinkDirectory,
    UnlinkOpenFile,
    OpenDirectory, ///< with open(), for reading
    OpenDirectoryForWriting,
    OpenThroughFile, ///< with a file in place of a directory in the path
    NameTooLong,
    StatNameTooLong, ///< by one byte
    ReadWriteOnlyFile,
    WriteReadOnlyFile,
    WriteBeyondLargestFile,
    OddCharacter, ///< creating a file with a character that the backend excludes
    LseekBeforeStart,
    LseekFromEnd,
    FileFdatasync,
    FileFchmod,
    FileFlock,
    FileFcntlFlags, ///< F_GETFL and F_SETFL
    FileFcntlLock,  ///< F_SETLK and F_GETLK
    FileIoctl,
    DirectoryIoctl,
};

/// The declared result of an operation.
struct Answer {
    enum Kind { Works, NotImplementedHere, Fails, IsSomethingElse } kind;
    int error;

    static Answer works() {
        return {Works, 0};
    }
    static Answer notImplemented() {
        return {NotImplementedHere, 0};
    }
    static Answer fails(int error) {
        return {Fails, error};
    }
    /// The operation does something else, which the backend's own tests check.
    static Answer isSomethingElse() {
        return {IsSomethingElse, 0};
    }
};

/// How a backend deviates from a local file system.
struct Capabilities {
    const char* type = "";
    const char* fileType = "";
    const char* directoryType = "";

    /// The answers of operations that do not just succeed. The defaults are the errors of a local
    /// file system.
    std::map<Op, Answer> answers = {
        {Op::AddWatch, Answer::notImplemented()},
        {Op::RemWatch, Answer::notImplemented()},
        {Op::Ioctl, Answer::notImplemented()},
        {Op::FileIoctl, Answer::notImplemented()},
        {Op::DirectoryIoctl, Answer::notImplemented()},
        {Op::ReadlinkOfFile, Answer::fails(EINVAL)},
        {Op::RmdirOfFile, Answer::fails(ENOTDIR)},
        {Op::RmdirNonEmpty, Answer::fails(ENOTEMPTY)},
        {Op::UnlinkDirectory, Answer::fails(EISDIR)},
        {Op::OpenDirectoryForWriting, Answer::fails(EISDIR)},
        {Op::OpenThroughFile, Answer::fails(ENOTDIR)},
        {Op::NameTooLong, Answer::fails(ENAMETOOLONG)},
        {Op::StatNameTooLong, Answer::fails(ENAMETOOLONG)},
        {Op::ReadWriteOnlyFile, Answer::fails(EBADF)},
        {Op::WriteReadOnlyFile, Answer::fails(EBADF)},
        {Op::LseekBeforeStart, Answer::fails(EINVAL)},
    };

    bool opendirIsNeverNull = false;  ///< a directory that cannot be opened is an empty one
    int closeAgain = 0;               ///< the result of closing a closed file
    int closedirAgain = -1;           ///< the result of closing a directory that is not open
    bool readlinkPads = false;        ///< the rest of the buffer is filled with NULs
    bool readlinkReturnsZero = false; ///< and not the length
    bool keepsModes = true; ///< permission bits are stored as given; otherwise they do not change
    bool appends = true;    ///< O_APPEND is honoured
    bool caseSensitive = true;
    bool anyCharacter =
        true;               ///< names may contain any character but the slash; see Op::OddCharacter
    bool threadSafe = true; ///< operations may overlap
    long long largestFile = 1LL << 40; ///< in bytes; see Op::WriteBeyondLargestFile
    int longestName = 255;             ///< in bytes
    long long timeStep = 1;            ///< in nanoseconds; all times are multiples of it
};

/// An instance of a backend under test.
struct Backend {
    QSharedPointer<FS> fs;
    QString root; ///< an empty directory in it, without a slash at the end
    Capabilities can;
    std::shared_ptr<void> keep; ///< lives as long as the backend
    std::string skipReason;     ///< why the backend cannot run; empty when it can
};

struct BackendMaker {
    const char* name;
    std::function<Backend()> make;
};

/// Prints the name, for the names of the tests.
std::ostream& operator<<(std::ostream& out, const BackendMaker& maker);

/// The base of all tests of the suite. Instantiate it for a backend with
/// ORUIO_CONFORMS(Name, maker).
class FSConformance : public ::testing::TestWithParam<BackendMaker> {
protected:
    void SetUp() override;

    FS& fs() {
        return *m_backend.fs;
    }
    const Capabilities& can() const {
        return m_backend.can;
    }
    /// The path of `name` in the test's directory.
    QString at(const QString& name) const;
    QString at(const char* name) const;

    /// What readlink() returns for a target of `length` bytes.
    int linkResult(int length) const {
        return can().readlinkReturnsZero ? 0 : length;
    }

    /// Checks that `result`, liberrno and errno are the declared answer. \returns whether the
    /// declared answer is success and `result` is one.
    bool works(Op op, long long result) const;
    /// Whether the declared answer is success.
    bool provides(Op op) const;

    /// Writes a file with `content`.
    void put(const char* name, const QByteArray& content = {});
    /// The content of a file; fails the test when it cannot be read.
    QByteArray get(const char* name);
    bool exists(const QString& name);
    QStringList list(const QString& path);

    static QByteArray pattern(int size, int seed = 1);
    /// Reads `size` bytes, with as many calls as necessary; fewer at the end of the file.
    static QByteArray readFully(File& file, int size);
    /// Checks that the last call failed with errno `error` and liberrno Ok.
    static void expectRefusal(int error);

private:
    Answer answer(Op op) const;

    Backend m_backend;
};

} // namespace oru::io::test

// NOLINTNEXTLINE(bugprone-macro-parentheses): the name is a token of the test's name.
#define ORUIO_CONFORMS(Name, ...)                                                                  \
    INSTANTIATE_TEST_SUITE_P(Name, FSConformance,                                                  \
                             ::testing::Values(BackendMaker{#Name, __VA_ARGS__}),                  \
                             ::testing::PrintToStringParamName())
