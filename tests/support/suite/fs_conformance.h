// One suite of tests that every FS passes, whatever stands behind it.
//
// A backend joins by describing itself: how to make an instance, and a table of what it does
// differently. A test never asks which backend it runs on; it asks the table.
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

/// What a backend may not provide, or provide in its own way.
enum class Op {
    AddWatch,
    RemWatch,
    Ioctl,
    Link,
    Symlink,
    ReadlinkOfFile, ///< of something that is no link
    Xattr,          ///< extended attributes, apart from their list
    Listxattr,
    Chmod,
    Truncate,
    RenameOntoExisting,
    RmdirOfFile,
    RmdirNonEmpty,
    UnlinkDirectory,
    UnlinkOpenFile,
    OpenDirectory, ///< for reading, as a file
    OpenDirectoryForWriting,
    OpenThroughFile, ///< of a name below a file
    NameTooLong,
    StatNameTooLong, ///< by one byte
    ReadWriteOnlyFile,
    WriteReadOnlyFile,
    WriteBeyondLargestFile,
    OddCharacter, ///< to make a file with it in the name, where not any character will do
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

/// How a backend answers an operation.
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
    /// It is not what its name says; the backend's own tests hold what it is.
    static Answer isSomethingElse() {
        return {IsSomethingElse, 0};
    }
};

/// How a backend deviates from a local file system.
struct Capabilities {
    const char* type = "";
    const char* fileType = "";
    const char* directoryType = "";

    /// The answers of operations that do not simply work. The defaults are what a local file
    /// system refuses.
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

    bool opendirIsNeverNull = false; ///< a directory that cannot be opened is an empty one
    int closeAgain = 0;              ///< the result of closing a closed file
    int closedirAgain = -1;          ///< the result of closing a directory that is not open
    bool readlinkPads = false;       ///< what is left of the buffer is filled with NULs
    bool keepsModes = true;          ///< permission bits are stored as given; otherwise they stay
    bool appends = true;             ///< O_APPEND is honoured
    bool caseSensitive = true;
    bool anyCharacter = true; ///< names may contain all but the slash; see Op::OddCharacter
    bool threadSafe = true;   ///< operations may overlap
    long long largestFile = 1LL << 40; ///< in bytes; see Op::WriteBeyondLargestFile
    int longestName = 255;             ///< in bytes
    long long timeStep = 1;            ///< what times are multiples of, in nanoseconds
};

/// An instance of a backend under test.
struct Backend {
    QSharedPointer<FS> fs;
    QString root; ///< an empty directory in it, without a slash at the end
    Capabilities can;
    std::shared_ptr<void> keep; ///< what must live as long as the backend
    std::string skipReason;     ///< when not empty, it cannot run here
};

struct BackendMaker {
    const char* name;
    std::function<Backend()> make;
};

/// For the names of the tests.
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

    /// Whether `result` is a success that the table promises. When the table tells of another
    /// answer, checks that `result`, liberrno and errno are that answer and returns false.
    bool works(Op op, long long result) const;
    /// As the table has it, without a call.
    bool provides(Op op) const;

    /// Makes a file with `content`.
    void put(const char* name, const QByteArray& content = {});
    /// The content of a file; fails the test when it cannot be read.
    QByteArray get(const char* name);
    bool exists(const QString& name);
    QStringList list(const QString& path);

    static QByteArray pattern(int size, int seed = 1);
    /// Reads exactly `size` bytes, however many calls that takes.
    static QByteArray readFully(File& file, int size);
    /// Checks that the last call was refused by the system for `error`.
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
