// SPDX-License-Identifier: Apache-2.0
#include "fuzz/smb/shareclient.h"

#include "fuzz/support.h"
#include "support/system/files.h"

#include <QDir>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <memory>
#include <utility>

#include <fcntl.h>

#include "network/fssmb_p.h"

namespace oru::io::test {

namespace {

/// A time-out that no operation reaches: the server closes the connection before.
constexpr unsigned int timeout = 3600;

constexpr int contentSize = 70'000; // more than one credit
constexpr int smallRead = 100;
constexpr int writtenSize = 150'000; // three requests
constexpr int shortLength = 10;
constexpr int smallListing = 3;
constexpr int largeListing = 130; // with long names: several requests
constexpr int dots = 2;           // "." and ".."

QString largeName(int number) {
    return QStringLiteral("%1-%2").arg(number, 3, 10, QChar('0')).arg(QString(230, 'n'));
}

} // namespace

struct ShareClient::Operation {
    const char* name;
    bool (ShareClient::*run)();

    static const Operation all[];
};

const ShareClient::Operation ShareClient::Operation::all[] = {
    {"connect", &ShareClient::connect},
    {"echo", &ShareClient::echo},
    {"stat", &ShareClient::stat},
    {"statfs", &ShareClient::statfs},
    {"mkdir", &ShareClient::mkdir},
    {"rename", &ShareClient::rename},
    {"rmdir", &ShareClient::rmdir},
    {"read", &ShareClient::read},
    {"pread", &ShareClient::pread},
    {"write", &ShareClient::write},
    {"pwrite", &ShareClient::pwrite},
    {"status", &ShareClient::status},
    {"truncate", &ShareClient::truncate},
    {"readlink", &ShareClient::readlink},
    {"unlink", &ShareClient::unlink},
    {"small", &ShareClient::listSmall},
    {"large", &ShareClient::listLarge},
    {"missing", &ShareClient::missing},
    {"disconnect", &ShareClient::disconnect},
};

QList<QByteArray> ShareClient::operations() {
    QList<QByteArray> names;
    for (const Operation& operation : Operation::all)
        names.append(operation.name);
    return names;
}

void ShareClient::makeFiles(const QString& root) {
    const QDir directory(root);
    directory.mkpath("small");
    directory.mkpath("large");
    makeFile(root + "/content", QByteArray(contentSize, 'c'));
    makeFile(root + "/link", "not a link");
    makeFile(root + "/doomed", "");
    for (int i = 0; i < smallListing; ++i)
        makeFile(root + QStringLiteral("/small/%1").arg(i), "");
    for (int i = 0; i < largeListing; ++i)
        makeFile(root + "/large/" + largeName(i), "");
}

ShareClient::ShareClient(Properties login, Witness& witness)
    : m_login(std::move(login)), m_witness(witness), m_share(timeout) {}

bool ShareClient::run(const QByteArray& operation) {
    const auto* const found =
        std::find_if(std::begin(Operation::all), std::end(Operation::all),
                     [&](const Operation& known) { return operation == known.name; });
    if (found == std::end(Operation::all))
        return false;
    m_witness.beginOperation(operation);
    return (this->*found->run)();
}

/// Carries out one call of the backend.
template <class Call>
auto ShareClient::call(Call call) {
    m_witness.beginCall();
    errno = 0;
    return call();
}

/// Checks a failed call.
void ShareClient::checkFailure() {
    require(m_isBroken == (errno == 0), "a failure has an errno, unless the share is broken");
    takeFailure();
}

/// Takes note of errno after a call.
void ShareClient::takeFailure() {
    m_isBroken = m_isBroken || isFatal(errno);
    m_isConnectionKept = m_isConnectionKept && errno != ECONNRESET;
}

bool ShareClient::isConnectionKept() const {
    return m_isConnectionKept;
}

/// Whether a call was successful.
bool ShareClient::isDone(int result) {
    require(result >= -1, "the result of a failure is -1");
    if (result == -1)
        checkFailure();
    else
        require(!m_isBroken, "a broken share carries out nothing");
    return result != -1;
}

/// Whether a call was successful, which the server must have granted.
bool ShareClient::isGranted(int result) {
    if (!isDone(result))
        return false;
    require(result == 0, "the result of a success is 0");
    require(m_witness.isGranted(), "a success was granted by the server");
    return true;
}

// --- Connection ---------------------------------------------------------------------------------

bool ShareClient::connect() {
    const int result = call([&] { return m_share.connect(m_login); });
    require(result == 0 || result == -1, "connect() returns 0 or -1");
    require(result == 0 || errno != 0, "a failed connect has an errno");
    require(result == -1 || m_witness.hasConnected(), "a session was granted by the server");
    m_isBroken = false;
    m_isConnectionKept = m_isConnectionKept && result == 0;
    if (result == -1)
        takeFailure();
    return result == 0 && m_share.getDialect() == m_login["version"].toString();
}

bool ShareClient::disconnect() {
    const int result = call([&] { return m_share.disconnect(); });
    require(result == 0 || result == -1, "disconnect() returns 0 or -1");
    if (result == -1) {
        require(errno != 0, "a failed disconnect has an errno");
        m_isBroken = false; // the errno of this failure replaces the one before
        takeFailure();
    }
    return result == 0;
}

bool ShareClient::echo() {
    const bool isConnected = call([&] { return m_share.isConnected(); });
    require(isConnected || !m_isBroken, "a broken share counts as connected");
    require(!isConnected || m_isBroken || m_witness.isGranted(), "an echo was answered");
    m_isConnectionKept = m_isConnectionKept && isConnected;
    return isConnected && !m_isBroken;
}

// --- Paths --------------------------------------------------------------------------------------

bool ShareClient::stat() {
    struct stat st = {};
    st.st_uid = 1;
    const int result = call([&] { return m_share.stat("/content", st); });
    require(st.st_uid == 1, "stat() leaves other fields unchanged");
    require(result == 0 || st.st_mode == 0, "a failed stat() sets nothing");
    const bool isFile = isGranted(result) && st.st_size == contentSize && S_ISREG(st.st_mode);
    struct stat directory = {};
    const bool isDirectory = isGranted(call([&] { return m_share.lstat("/small", directory); })) &&
                             S_ISDIR(directory.st_mode);
    return isFile && isDirectory;
}

bool ShareClient::statfs() {
    struct statfs st = {};
    return isGranted(call([&] { return m_share.statfs("/", st); })) && st.f_blocks > 0;
}

bool ShareClient::mkdir() {
    return isGranted(call([&] { return m_share.mkdir("/made", 0777); }));
}

bool ShareClient::rename() {
    return isGranted(call([&] { return m_share.rename("/made", "/renamed"); }));
}

bool ShareClient::rmdir() {
    return isGranted(call([&] { return m_share.rmdir("/renamed"); }));
}

bool ShareClient::unlink() {
    return isGranted(call([&] { return m_share.unlink("/doomed"); }));
}

bool ShareClient::truncate() {
    return isGranted(call([&] { return m_share.truncate("/written", shortLength); }));
}

bool ShareClient::readlink() {
    QString target;
    if (isDone(call([&] { return m_share.readlink("/link", target); })))
        require(!target.isEmpty() && m_witness.hasLink(), "a link has a target");
    const auto buffer = std::make_unique<char[]>(shortLength);
    const int result = call([&] { return m_share.readlink("/link", buffer.get(), shortLength); });
    if (isDone(result))
        require(buffer[0] != '\0' && m_witness.hasLink(), "a link has a target");
    return target == "target" && result == 0;
}

bool ShareClient::missing() {
    struct stat st;
    const bool isFound = isGranted(call([&] { return m_share.stat("/missing", st); }));
    const auto file = open("/missing", O_RDONLY);
    const auto directory = call([&] { return m_share.opendir("/missing"); });
    if (!directory)
        checkFailure();
    return !isFound && !file && !directory && errno == ENOENT;
}

// --- Files --------------------------------------------------------------------------------------

QSharedPointer<File> ShareClient::open(const char* path, int flags) {
    auto file = call([&] { return m_share.open(path, flags, 0666); });
    if (file)
        require(m_witness.isGranted(), "an open was granted by the server");
    else
        checkFailure();
    return file;
}

bool ShareClient::close(File& file) {
    return isGranted(call([&] { return file.close(); }));
}

/// Reads `count` bytes. \returns the result.
qint64 ShareClient::transfer(qint64 count, const std::function<int(char* buffer)>& read) {
    // Exactly as large as needed, so that the sanitizer finds an overrun.
    const std::unique_ptr<char[]> buffer(new char[static_cast<std::size_t>(count)]);
    const int result = call([&] { return read(buffer.get()); });
    if (!isDone(result))
        return -1;
    require(result <= count, "a read returns no more than was asked for");
    require(m_witness.hasRead(result), "a read returns what the server has sent");
    return result;
}

/// Writes `count` bytes. \returns whether it succeeded.
bool ShareClient::stores(qint64 count, bool mayStopAtZero,
                         const std::function<int(const char*)>& write) {
    const std::unique_ptr<char[]> buffer(new char[static_cast<std::size_t>(count)]);
    std::memset(buffer.get(), 'w', static_cast<std::size_t>(count));
    const int result = call([&] { return write(buffer.get()); });
    if (!isDone(result))
        return false;
    require(result == count, "a write returns the whole count");
    require(m_witness.hasWritten(count) || (mayStopAtZero && m_witness.hasWrittenNothing()),
            "the server has accepted what was written");
    return true;
}

bool ShareClient::read() {
    const auto file = open("/content", O_RDONLY);
    if (!file)
        return false;
    const auto next = [&](qint64 count) {
        return transfer(count, [&](char* buffer) {
            return file->read(buffer, static_cast<unsigned int>(count));
        });
    };
    constexpr int enough = 4; // SMB 2.0.2 has at most 64 KiB in a request
    bool isAsExpected = next(smallRead) == smallRead;
    qint64 total = smallRead;
    qint64 count = 1;
    for (int i = 0; i < enough && count > 0; ++i) {
        count = next(contentSize);
        total += count;
    }
    isAsExpected &= count == 0 && total == contentSize;
    return close(*file) && isAsExpected;
}

bool ShareClient::pread() {
    const auto file = open("/content", O_RDONLY);
    if (!file)
        return false;
    const auto at = [&](qint64 offset) {
        return transfer(smallRead,
                        [&](char* buffer) { return file->pread(buffer, smallRead, offset); });
    };
    bool isAsExpected = at(contentSize - shortLength) == shortLength;
    isAsExpected &= at(0) == smallRead;
    isAsExpected &= at(contentSize) == 0;
    return close(*file) && isAsExpected;
}

bool ShareClient::write() {
    const auto file = open("/written", O_RDWR | O_CREAT);
    if (!file)
        return false;
    const auto next = [&](qint64 count) {
        return stores(count, false, [&](const char* buffer) {
            return file->write(buffer, static_cast<unsigned int>(count));
        });
    };
    bool isAsExpected = next(writtenSize);
    isAsExpected &= next(smallRead);
    isAsExpected &= isGranted(call([&] { return file->fsync(); }));
    return close(*file) && isAsExpected;
}

bool ShareClient::pwrite() {
    const auto file = open("/written", O_WRONLY);
    if (!file)
        return false;
    const auto at = [&](qint64 count, qint64 offset) {
        return stores(count, true, [&](const char* buffer) {
            return file->pwrite(buffer, static_cast<unsigned int>(count), offset);
        });
    };
    bool isAsExpected = at(smallRead, smallRead);
    isAsExpected &= at(writtenSize, 0);
    return close(*file) && isAsExpected;
}

bool ShareClient::status() {
    const auto file = open("/written", O_RDWR);
    if (!file)
        return false;
    struct stat st = {};
    bool isAsExpected =
        isGranted(call([&] { return file->fstat(st); })) && st.st_size == writtenSize + smallRead;
    isAsExpected &= isGranted(call([&] { return file->ftruncate(contentSize); }));
    // Needs no request; a negative result is an errno.
    isAsExpected &= call([&] { return file->lseek(contentSize, SEEK_SET); }) == contentSize;
    isAsExpected &=
        transfer(smallRead, [&](char* buffer) { return file->read(buffer, smallRead); }) == 0;
    return close(*file) && isAsExpected;
}

// --- Directories --------------------------------------------------------------------------------

/// Reads all entries. \returns their number; -1 when the listing ends with a failure.
int ShareClient::entries(Directory& directory) {
    int count = 0;
    while (const struct dirent* const entry = call([&] { return directory.readdir(); })) {
        require(std::memchr(entry->d_name, '\0', sizeof entry->d_name), "a name ends");
        require(entry->d_reclen == 0 && entry->d_off == 0, "other fields of an entry are 0");
        ++count;
    }
    if (m_isBroken)
        return -1;
    require(errno != 0, "the end of a listing has an errno");
    return errno == ENOENT ? count : -1;
}

bool ShareClient::list(const char* path, int expected, bool isRewound) {
    const auto directory = call([&] { return m_share.opendir(path); });
    if (!directory) {
        checkFailure();
        return false;
    }
    require(m_witness.hasListed(), "a listing is complete");
    bool isAsExpected = entries(*directory) == expected + dots;
    if (isRewound && !m_isBroken) {
        const int result = call([&] { return directory->rewinddir(); });
        require(result == 0, "rewinddir() returns 0");
        takeFailure();
        if (errno == 0)
            require(m_witness.hasListed(), "a listing is complete");
        isAsExpected &= entries(*directory) == expected + dots;
    }
    const int result = call([&] { return directory->closedir(); });
    return isDone(result) && isAsExpected;
}

bool ShareClient::listSmall() {
    return list("/small", smallListing, true);
}

bool ShareClient::listLarge() {
    return list("/large", largeListing, false);
}

} // namespace oru::io::test
