// SPDX-License-Identifier: Apache-2.0
// Files and directories of a share.

#include <oruio/error.h>
#include <oruio/fssmb.h>

#include "network/fssmb_p.h"
#include "network/libsmb2_p.h"
#include "network/smb2listing_p.h"
#include "network/smb2session_p.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <utility>

#include "core/log_p.h"
#include "core/notimplemented_p.h"

namespace oru::io {

ORUIO_LOG_ON(smbLogChannel);

namespace {

unsigned char directoryType(std::uint32_t smb2Type) {
    switch (smb2Type) {
    case SMB2_TYPE_FILE:
        return DT_REG;
    case SMB2_TYPE_DIRECTORY:
        return DT_DIR;
    case SMB2_TYPE_LINK:
        return DT_LNK;
    default:
        return DT_UNKNOWN;
    }
}

} // namespace

// --- Smb2File -----------------------------------------------------------------------------------

namespace {

/// What an operation does with liberrno.
enum class Liberrno { Clear, Keep };

} // namespace

class Smb2File::Data {
public:
    using Share = QExplicitlySharedDataPointer<Smb2FS::Data>;

    Data(Share of, smb2fh* opened)
        : share(std::move(of)), session(share->session), handle(opened) {}

    template <class Call>
    int run(Liberrno treatment, Call call) {
        if (share->isBroken())
            return -1;
        const Smb2FS::Data::Lock lock(*share);
        if (treatment == Liberrno::Clear)
            liberrno = Ok;
        return runLocked(call);
    }
    /// The same without the lock and the check of the share. \returns -1 with errno EBADF when the
    /// file is closed or its session has ended.
    template <class Call>
    int runLocked(Call call) {
        const std::shared_ptr<Smb2Session> current = session.lock();
        if (!current || !isOpen) {
            errno = EBADF;
            return -1;
        }
        return share->report(call(*current));
    }

    void written(qint64 end) {
        writtenEnd = std::max(writtenEnd, end);
    }

    const Share share;
    // Guarded by the share's mutex:
    const std::weak_ptr<Smb2Session> session; // the handle is valid in this session only
    smb2fh* const handle;
    bool isOpen = true;
    qint64 position = 0;
    qint64 writtenEnd = 0; ///< the largest offset after a byte written through this object
};

Smb2File::Smb2File(Smb2FS* fs, smb2fh* handle, QString)
    : File(QStringLiteral("Smb2File")), m_data([&] {
          const Smb2FS::Data::Lock lock(*fs->m_data);
          return new Data(fs->m_data, handle);
      }()) {}

Smb2File::~Smb2File() {
    close();
}

int Smb2File::read(void* buf, unsigned int len) {
    return m_data->run(Liberrno::Clear, [&](Smb2Session& session) {
        const int count = session.read(m_data->handle, buf, len);
        if (count > 0)
            m_data->position += count;
        return count;
    });
}

int Smb2File::write(const void* buf, unsigned int len) {
    return m_data->run(Liberrno::Clear, [&](Smb2Session& session) {
        const int count = session.write(m_data->handle, buf, len);
        if (count > 0) {
            m_data->position += count;
            m_data->written(m_data->position);
        }
        return count;
    });
}

int Smb2File::pread(void* buf, unsigned int len, long long offset) {
    return m_data->run(Liberrno::Clear, [&](Smb2Session& session) {
        return session.pread(m_data->handle, buf, len, offset);
    });
}

int Smb2File::pwrite(const void* buf, unsigned int len, long long offset) {
    return m_data->run(Liberrno::Clear, [&](Smb2Session& session) {
        const int count = session.pwrite(m_data->handle, buf, len, offset);
        if (count >= 0)
            m_data->written(offset + count);
        return count;
    });
}

long long Smb2File::lseek(long long offset, int whence) {
    if (m_data->share->isBroken())
        return -1;
    const Smb2FS::Data::Lock lock(*m_data->share);
    liberrno = Ok;
    const std::shared_ptr<Smb2Session> session = m_data->session.lock();
    if (!session || !m_data->isOpen) {
        errno = EBADF;
        return -1;
    }
    qint64 base = 0;
    switch (whence) {
    case SEEK_SET:
        break;
    case SEEK_CUR:
        base = m_data->position;
        break;
    case SEEK_END:
        base = m_data->writtenEnd;
        break;
    default:
        ORUIO_LOG(LogDebug, "Invalid lseek whence code '%d'", whence);
        errno = EINVAL;
        return -1;
    }
    long long target = 0;
    if (__builtin_add_overflow(base, offset, &target)) {
        errno = EOVERFLOW;
        return -1;
    }
    m_data->position = target;
    if (target < 0) {
        ORUIO_LOG(LogDebug, "Invalid seek offset: %lld", target);
        errno = EINVAL;
        return -1;
    }
    // A query of position 0 does not move. A relative seek that ends at 0 does move libsmb2's
    // offset, from which the next read or write continues.
    if (whence == SEEK_CUR && offset == 0 && target == 0)
        return target;
    const std::int64_t result = session->lseek(m_data->handle, target);
    if (result < 0) {
        ORUIO_LOG(LogWarning, "smb lseek failed\n");
        return result;
    }
    return target;
}

int Smb2File::fstat(struct stat& st) {
    return m_data->run(Liberrno::Keep, [&](Smb2Session& session) {
        smb2_stat_64 found = {};
        const int result = session.fstat(m_data->handle, found);
        if (result == 0)
            smbStat2Stat(&found, &st);
        return result;
    });
}

int Smb2File::ftruncate(long long length) {
    return m_data->run(Liberrno::Clear, [&](Smb2Session& session) {
        return length < 0 ? -EINVAL
                          : session.ftruncate(m_data->handle, static_cast<std::uint64_t>(length));
    });
}

int Smb2File::fsync() {
    return m_data->run(Liberrno::Clear,
                       [&](Smb2Session& session) { return session.fsync(m_data->handle); });
}

int Smb2File::fdatasync() {
    if (m_data->share->isBroken())
        return -1;
    const Smb2FS::Data::Lock lock(*m_data->share);
    liberrno = Ok;
    return notSupported();
}

int Smb2File::fcntl(int, ...) {
    if (m_data->share->isBroken())
        return -1;
    const Smb2FS::Data::Lock lock(*m_data->share);
    return notSupported();
}

int Smb2File::flock(int) {
    return notSupported();
}

int Smb2File::fchmod(int) {
    return notSupported();
}

int Smb2File::close() {
    if (m_data->share->isBroken())
        return -1;
    const Smb2FS::Data::Lock lock(*m_data->share);
    liberrno = Ok;
    if (!m_data->isOpen)
        return 0;
    const int result =
        m_data->runLocked([&](Smb2Session& session) { return session.close(m_data->handle); });
    m_data->isOpen = false;
    return result;
}

int Smb2File::ioctl(QString, QString&) {
    return notImplemented();
}

// --- Smb2Dir ------------------------------------------------------------------------------------

class Smb2Dir::Data {
public:
    Data(QExplicitlySharedDataPointer<Smb2FS::Data> of, QString at)
        : share(std::move(of)), path(std::move(at)) {}

    /// Lists the directory in `current`. It stays closed, with errno, on failure.
    void open(const std::shared_ptr<Smb2Session>& current) {
        session = current;
        withSharePath(path,
                      [&](const char* p) { return share->report(current->list(p, listing)); });
        isOpen = listing != nullptr;
    }
    void close() {
        isOpen = false;
        listing.reset();
    }

    const QExplicitlySharedDataPointer<Smb2FS::Data> share;
    const QString path;
    // Guarded by the share's mutex:
    std::weak_ptr<Smb2Session> session; // the directory belongs to this session
    std::unique_ptr<Smb2Listing> listing;
    // Changed with the share's mutex locked. isOpen() reads it without the mutex.
    std::atomic<bool> isOpen{false};
    struct dirent entry = {};
};

Smb2Dir::Smb2Dir(Smb2FS* fs, QString& path)
    : Directory(QStringLiteral("Smb2Directory")), m_data(new Data(fs->m_data, path)) {
    if (m_data->share->isBroken())
        return;
    const Smb2FS::Data::Lock lock(*m_data->share);
    m_data->open(m_data->share->session);
}

Smb2Dir::~Smb2Dir() {
    closedir();
}

bool Smb2Dir::isOpen() {
    return m_data->isOpen;
}

struct dirent* Smb2Dir::readdir() {
    if (m_data->share->isBroken())
        return nullptr;
    const Smb2FS::Data::Lock lock(*m_data->share);
    errno = ENOENT;
    if (!m_data->isOpen)
        return nullptr;
    const std::shared_ptr<Smb2Session> current = m_data->session.lock();
    if (!current) {
        errno = EBADF;
        return nullptr;
    }
    Smb2Listing::Entry found = {};
    if (!current->hasConnection() || !m_data->listing->next(found))
        return nullptr;
    struct dirent& entry = m_data->entry;
    entry.d_ino = found.inode;
    entry.d_off = 0;
    entry.d_reclen = 0;
    entry.d_type = directoryType(found.type);
    std::strncpy(entry.d_name, found.name, sizeof entry.d_name - 1);
    return &entry;
}

int Smb2Dir::rewinddir() {
    if (m_data->share->isBroken())
        return -1;
    const Smb2FS::Data::Lock lock(*m_data->share);
    // An open directory belongs to the connection that opened it. A closed one may be opened again
    // in the current connection.
    const std::shared_ptr<Smb2Session> current =
        m_data->isOpen ? m_data->session.lock() : m_data->share->session;
    if (!current) {
        errno = EBADF;
        return -1;
    }
    m_data->close();
    m_data->open(current);
    return 0;
}

int Smb2Dir::closedir() {
    if (m_data->share->isBroken())
        return -1;
    const Smb2FS::Data::Lock lock(*m_data->share);
    m_data->close();
    return 0;
}

int Smb2Dir::ioctl(QString, QString&) {
    return notImplemented();
}

} // namespace oru::io
