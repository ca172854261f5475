// SPDX-License-Identifier: Apache-2.0
#include "clipwriter.h"

#include "common/failure.h"

#include <oruio/error.h>
#include <oruio/fdadapter.h>

#include <QRegularExpression>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <utility>

#include <dirent.h>
#include <fcntl.h>

namespace {

oru::io::FDAdapter& storage() {
    return *oru::io::FDAdapter::rootfs();
}

/// Whether the last operation failed because of `number`.
bool failedWith(int number) {
    return oru::io::liberrno == oru::io::Ok && errno == number;
}

bool exists(const Destination& destination, const QString& name) {
    struct stat st;
    if (storage().lstat(qUtf8Printable(destination.path(name)), &st) == 0)
        return true;
    if (!failedWith(ENOENT))
        throw cannot("look for " + destination.shown(name));
    return false;
}

/// The number of the last numbered clip, finished or not; 0 if there is none.
int lastNumber(const Destination& destination) {
    static const QRegularExpression pattern("^clip-(\\d{4,8})\\.oru(\\.part)?$");
    int last = 0;
    void* const directory = storage().opendir(qUtf8Printable(destination.directory()));
    while (const dirent* entry = storage().readdir(directory)) {
        const auto match = pattern.match(QString::fromUtf8(entry->d_name));
        last = std::max(last, match.captured(1).toInt());
    }
    storage().closedir(directory);
    return last;
}

QString numberedName(int number) {
    return QString::asprintf("clip-%04d.oru", number);
}

/// Whether the last operation failed because the storage does not support it.
bool isUnsupported() {
    return oru::io::liberrno == oru::io::NotImplemented || failedWith(EINVAL) ||
           failedWith(EOPNOTSUPP);
}

/// Whether opening failed because the storage does not support it or does not permit it.
bool isRefused() {
    return isUnsupported() || failedWith(EISDIR) || failedWith(EPERM) || failedWith(EACCES);
}

/// Syncs if the storage supports that for this descriptor, then closes it.
void syncAndClose(int fd, const QString& action) {
    std::optional<Failure> failure;
    if (storage().fsync(fd) != 0 && !isUnsupported())
        failure = cannot(action);
    storage().close(fd);
    if (failure)
        throw *failure;
}

/// Syncs a file or directory, if the storage permits opening and syncing it.
void syncPath(const QString& path, int flags, const QString& action) {
    const int fd = storage().open(qUtf8Printable(path), flags | O_CLOEXEC, 0);
    if (fd >= 0)
        syncAndClose(fd, action);
    else if (!isRefused())
        throw cannot(action);
}

void syncDirectory(const Destination& destination) {
    syncPath(destination.directory(), O_RDONLY | O_DIRECTORY,
             "sync the directory " + destination.shown({}));
}

} // namespace

ClipWriter::ClipWriter(const Destination& destination) : m_destination(destination) {}

ClipWriter::~ClipWriter() {
    discard();
}

std::unique_ptr<ClipWriter> ClipWriter::create(const Destination& destination,
                                               const QString& name) {
    std::unique_ptr<ClipWriter> clip(new ClipWriter(destination));
    if (name.isEmpty()) {
        int number = lastNumber(destination) + 1;
        while (!clip->start(numberedName(number)))
            ++number;
    } else if (!clip->start(name)) {
        errno = EEXIST;
        throw cannot("record " + destination.shown(name));
    }
    return clip;
}

/// \returns false if a finished or unfinished clip has this name.
bool ClipWriter::start(const QString& name) {
    m_name = name;
    m_fd = storage().open(qUtf8Printable(m_destination.path(part())),
                          O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (m_fd < 0) {
        if (failedWith(EEXIST))
            return false;
        throw cannot("create " + m_destination.shown(part()));
    }
    m_partExists = true;
    // Checked after the part exists: from then on no other recorder can finish a clip of this name.
    if (!exists(m_destination, m_name)) {
        // Without the name, a power cut would lose data that is synced later.
        syncDirectory(m_destination);
        return true;
    }
    discard();
    return false;
}

QString ClipWriter::part() const {
    return m_name + ".part";
}

void ClipWriter::discard() {
    if (m_fd >= 0)
        storage().close(std::exchange(m_fd, -1));
    if (std::exchange(m_partExists, false))
        storage().unlink(qUtf8Printable(m_destination.path(part())));
}

void ClipWriter::write(const char* data, size_t size) {
    const auto start = Clock::now();
    for (size_t done = 0; done < size;) {
        const int count = storage().write(m_fd, data + done, static_cast<unsigned>(size - done));
        if (count < 0 && failedWith(EINTR))
            continue;
        if (count == 0)
            errno = EIO; // the storage accepted nothing and reported no error
        if (count <= 0)
            throw cannot("write " + m_destination.shown(part()));
        done += static_cast<size_t>(count);
    }
    const auto time = Clock::now() - start;
    m_statistics.writes.add(time);
    m_statistics.busy += time;
    m_statistics.bytes += static_cast<qint64>(size);
    m_statistics.checksum.add(data, size);
}

void ClipWriter::sync() {
    const auto start = Clock::now();
    if (storage().fsync(m_fd) != 0)
        throw cannot("sync " + m_destination.shown(part()));
    const auto time = Clock::now() - start;
    m_statistics.syncs.add(time);
    m_statistics.busy += time;
}

void ClipWriter::finish() {
    sync();
    if (storage().close(std::exchange(m_fd, -1)) != 0)
        throw cannot("close " + m_destination.shown(part()));
    // Another program may have created a file of this name; a rename would replace it.
    if (exists(m_destination, m_name)) {
        errno = EEXIST;
        throw cannot("finish " + m_destination.shown(m_name));
    }
    if (storage().rename(qUtf8Printable(m_destination.path(part())),
                         qUtf8Printable(m_destination.path(m_name))) != 0)
        throw cannot("rename to " + m_destination.shown(m_name));
    m_partExists = false;
    // On FAT the entry of the new name has size 0 until the file is synced again.
    syncPath(m_destination.path(m_name), O_WRONLY, "sync " + m_destination.shown(m_name));
    syncDirectory(m_destination);
}

const QString& ClipWriter::name() const {
    return m_name;
}

const ClipWriter::Statistics& ClipWriter::statistics() const {
    return m_statistics;
}
