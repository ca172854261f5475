#include <oruio/error.h>
#include <oruio/fssmb.h>

#include "core/systemtext_p.h"
#include "network/smb2session_p.h"

#include <QSharedData>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <limits>
#include <mutex>
#include <string>
#include <utility>

// libsmb2's headers want these first.
#include <ctime>
#include <smb2/smb2.h>

#include <smb2/libsmb2.h>

#include "core/log_p.h"
#include "core/notimplemented_p.h"

ORUIO_LOG_CHANNEL("libio_smb2");

namespace oru::io {

namespace {

const QMap<QString, smb2_negotiate_version> version_map = {
    {QStringLiteral("2.x"), SMB2_VERSION_ANY2},   {QStringLiteral("3.x"), SMB2_VERSION_ANY3},
    {QStringLiteral("2.0.2"), SMB2_VERSION_0202}, {QStringLiteral("2.1.0"), SMB2_VERSION_0210},
    {QStringLiteral("3.0.0"), SMB2_VERSION_0300}, {QStringLiteral("3.0.2"), SMB2_VERSION_0302},
    {QStringLiteral("3.1.1"), SMB2_VERSION_0311},
};

/// The most bytes of one text of a login. Longer ones do not fit into the protocol's fields.
constexpr int longestText = 1024;
/// The most characters of a path that the protocol can carry.
constexpr int longestPath = 32767;
constexpr int longestDescription = 4095;
constexpr int longestWrite = 65536;
/// What connect() has left, at least, when leaving the former share has taken its time.
constexpr qint64 shortestConnectMs = 800;

/// Whether a failure is one of the connection, which ends all use of the share.
bool isFatal(int error) {
    switch (error) {
    case ETIMEDOUT:
    case ENETRESET:
    case EBUSY:
    case ECONNREFUSED:
    case ECONNRESET:
        return true;
    default:
        return false;
    }
}

int notSupported() {
    errno = EOPNOTSUPP;
    return -1;
}

/// The result of `call` on the path as the protocol has it: without the slash in front.
template <class Call>
int withSharePath(const QString& path, Call call) {
    if (path.size() > longestPath) {
        errno = ENAMETOOLONG;
        return -1;
    }
    return withPath(path, [&](const char* p) { return call(*p == '/' ? p + 1 : p); });
}

void smbStat2Stat(const smb2_stat_64* in, struct stat* out) {
    constexpr mode_t readWriteForAll = 0666;
    switch (in->smb2_type) {
    case SMB2_TYPE_FILE:
        out->st_mode = S_IFREG | readWriteForAll;
        break;
    case SMB2_TYPE_DIRECTORY:
        out->st_mode = S_IFDIR | readWriteForAll;
        break;
    case SMB2_TYPE_LINK:
        out->st_mode = S_IFLNK | readWriteForAll;
        break;
    default:
        out->st_mode = S_IFMT | readWriteForAll;
        break;
    }
    out->st_size = static_cast<off_t>(in->smb2_size);
    out->st_ino = in->smb2_ino;
    out->st_nlink = in->smb2_nlink;
    const auto timeOf = [](std::uint64_t seconds, std::uint64_t nanoseconds) {
        struct timespec time = {};
        time.tv_sec = static_cast<time_t>(seconds);
        time.tv_nsec = static_cast<long>(nanoseconds);
        return time;
    };
    out->st_atim = timeOf(in->smb2_atime, in->smb2_atime_nsec);
    out->st_mtim = timeOf(in->smb2_mtime, in->smb2_mtime_nsec);
    out->st_ctim = timeOf(in->smb2_ctime, in->smb2_ctime_nsec);
}

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

// --- Smb2FS -------------------------------------------------------------------------------------

/// The connection. Shared by a share with its files and directories, so that those find out when it
/// is gone.
class Smb2FS::Data : public QSharedData {
public:
    explicit Data(unsigned int seconds)
        : timeout(seconds), session(std::make_shared<Smb2Session>(seconds)) {}

    bool isBroken() const {
        return isFatal(lastError);
    }

    /// What an operation returns for what the session did, and remembers of it.
    int report(int result) {
        if (result >= 0)
            return result;
        lastError = -result;
        errno = -result;
        return -1;
    }

    /// The result of `call(session, path)`.
    template <class Call>
    int onPath(const QString& path, Call call) {
        if (isBroken())
            return -1;
        const std::lock_guard lock(mutex);
        return withSharePath(path, [&](const char* p) { return report(call(*session, p)); });
    }

    // Recursive: a directory is made under it, and opens itself under it.
    std::recursive_mutex mutex; // guards all below but lastError
    const unsigned int timeout;
    std::shared_ptr<Smb2Session> session; ///< one for each connect(); null when the share is gone
    QByteArray description;               ///< of the connection; empty when not connected
    std::atomic<int> lastError{0};        ///< the errno of the last call that failed
};

int set_errno(Smb2FS* fs, int rc, smb2_context*, const char*, const char*) {
    return fs->m_data->report(rc);
}

Smb2FS::Smb2FS(unsigned int timeout) : FS(QStringLiteral("Smb2FS")), m_data(new Data(timeout)) {}

Smb2FS::~Smb2FS() {
    const std::lock_guard lock(m_data->mutex);
    m_data->session.reset();
}

int Smb2FS::connect(Properties props) {
    // First of all: who waits for the lock meanwhile must not find the connection before this one.
    const std::lock_guard lock(m_data->mutex);
    const qint64 limit = qint64{m_data->timeout} * 1000;
    const QDeadlineTimer deadline(limit);
    disconnect();
    m_data->lastError = 0;
    m_data->description.clear();
    m_data->session = std::make_shared<Smb2Session>(m_data->timeout);

    const QString version = props[QStringLiteral("version")].toString();
    std::array<SystemText, 7> texts;
    auto& [server, share, user, password, domain, workstation, versionText] = texts;
    const char* const keys[] = {"server", "share",       "user",   "password",
                                "domain", "workstation", "version"};
    for (size_t i = 0; i < texts.size(); ++i) {
        if (!toSystem(props[QLatin1String(keys[i])].toString(), texts[i]))
            return m_data->report(-errno);
        if (texts[i].size() - 1 > longestText) // less its NUL
            return m_data->report(-ENAMETOOLONG);
    }

    Smb2Session::Login login = {};
    login.server = server.constData();
    login.share = share.constData();
    login.user = user.constData();
    login.password = password.constData();
    login.domain = domain.constData();
    login.workstation = workstation.constData();
    login.version = version_map.value(version, SMB2_VERSION_ANY);
    // Leaving a share that does not answer may have taken all of the time.
    const QDeadlineTimer rest =
        limit == 0 ? QDeadlineTimer(QDeadlineTimer::Forever)
                   : QDeadlineTimer(std::max(deadline.remainingTime(), shortestConnectMs));
    if (const int failed = m_data->report(m_data->session->connect(login, rest)))
        return failed;

    const int isProtected = m_data->session->isProtected();
    if (isProtected != 0) {
        m_data->session->disconnect(rest);
        m_data->session = std::make_shared<Smb2Session>(m_data->timeout);
        return m_data->report(isProtected > 0 ? -EPERM : isProtected);
    }

    QByteArray description = "smb://";
    if (login.domain[0])
        description.append(login.domain).append('\\');
    description.append(login.user[0] ? login.user : "anonymous");
    if (login.password[0])
        description.append(":****");
    description.append('@').append(login.server).append('/').append(login.share);
    if (versionText[0])
        description.append(" vers=").append(versionText.constData());
    if (login.workstation[0])
        description.append(" workstation=").append(login.workstation);
    m_data->description = description.left(longestDescription);
    ORUIO_LOG(LogDebug, "SMB Connect '%s' OK", m_data->description.constData());
    return 0;
}

int Smb2FS::disconnect() {
    const std::lock_guard lock(m_data->mutex);
    if (m_data->description.isEmpty())
        return 0;
    Smb2Session& session = *m_data->session;
    const int result = m_data->report(session.disconnect(session.deadline()));
    if (result == 0)
        m_data->description.clear();
    return result;
}

bool Smb2FS::isConnected() {
    if (m_data->isBroken())
        return true;
    const std::lock_guard lock(m_data->mutex);
    return !m_data->description.isEmpty() && m_data->session->echo() == 0;
}

QString Smb2FS::getDialect() {
    QString unknown = QStringLiteral("unknown");
    if (m_data->isBroken())
        return unknown;
    const std::lock_guard lock(m_data->mutex);
    if (m_data->description.isEmpty())
        return unknown;
    const auto dialect = static_cast<smb2_negotiate_version>(m_data->session->dialect());
    return version_map.key(dialect, unknown);
}

int Smb2FS::addWatch(QString) {
    return notImplemented();
}

int Smb2FS::remWatch(QString) {
    return notImplemented();
}

QSharedPointer<File> Smb2FS::open(QString path, int flags, int) {
    if (m_data->isBroken())
        return {};
    const std::lock_guard lock(m_data->mutex);
    liberrno = Ok;
    smb2fh* handle = nullptr;
    const int result = withSharePath(path, [&](const char* p) {
        return m_data->report(m_data->session->open(p, flags, handle));
    });
    if (result < 0)
        return {};
    return QSharedPointer<Smb2File>::create(this, handle, path);
}

QSharedPointer<Directory> Smb2FS::opendir(QString path) {
    if (m_data->isBroken())
        return {};
    const std::lock_guard lock(m_data->mutex);
    liberrno = Ok;
    auto directory = QSharedPointer<Smb2Dir>::create(this, path);
    if (!directory->isOpen())
        return {};
    return directory;
}

int Smb2FS::lstat(QString path, struct stat& st) {
    return stat(path, st);
}

int Smb2FS::stat(QString path, struct stat& st) {
    smb2_stat_64 found = {};
    const int result = m_data->onPath(
        path, [&](Smb2Session& session, const char* p) { return session.stat(p, found); });
    if (result == 0)
        smbStat2Stat(&found, &st);
    return result;
}

int Smb2FS::statfs(QString path, struct statfs& st) {
    struct smb2_statvfs found = {};
    const int result = m_data->onPath(
        path, [&](Smb2Session& session, const char* p) { return session.statvfs(p, found); });
    if (result < 0)
        return result;
    st = {};
    st.f_bsize = found.f_bsize;
    st.f_frsize = found.f_frsize;
    st.f_blocks = found.f_blocks;
    st.f_bfree = found.f_bfree;
    st.f_bavail = found.f_bavail;
    st.f_files = found.f_files;
    st.f_ffree = found.f_ffree;
    st.f_fsid.__val[0] = static_cast<int>(found.f_fsid);
    st.f_namelen = found.f_namemax;
    st.f_flags = found.f_flag;
    return result;
}

int Smb2FS::link(QString, QString) {
    return notSupported();
}

int Smb2FS::unlink(QString path) {
    return m_data->onPath(path,
                          [](Smb2Session& session, const char* p) { return session.unlink(p); });
}

int Smb2FS::mkdir(QString path, int) {
    return m_data->onPath(path,
                          [](Smb2Session& session, const char* p) { return session.mkdir(p); });
}

int Smb2FS::rmdir(QString path) {
    return m_data->onPath(path,
                          [](Smb2Session& session, const char* p) { return session.rmdir(p); });
}

int Smb2FS::rename(QString oldPath, QString newPath) {
    if (m_data->isBroken())
        return -1;
    const std::lock_guard lock(m_data->mutex);
    return withSharePath(oldPath, [&](const char* from) {
        return withSharePath(newPath, [&](const char* to) {
            return m_data->report(m_data->session->rename(from, to));
        });
    });
}

void Smb2FS::sync() {}

int Smb2FS::getxattr(QString, QString, void*, unsigned int) {
    return notSupported();
}

int Smb2FS::setxattr(QString, QString, void*, unsigned int, int) {
    return notSupported();
}

int Smb2FS::removexattr(QString, QString) {
    return notSupported();
}

int Smb2FS::listxattr(QString, QVector<QString>&) {
    return notSupported();
}

int Smb2FS::listxattr(QString, char*, unsigned int) {
    return notSupported();
}

int Smb2FS::symlink(QString, QString) {
    return notSupported();
}

int Smb2FS::readlink(QString path, QString& target) {
    std::array<char, 4096> text = {};
    const int result = readlink(path, text.data(), text.size() - 1);
    target = decoded(text.data(), static_cast<int>(std::strlen(text.data())));
    return result;
}

int Smb2FS::readlink(QString path, char* buf, unsigned int size) {
    return m_data->onPath(path, [&](Smb2Session& session, const char* p) {
        std::string target;
        const int result = session.readlink(p, target);
        if (result == 0)
            std::strncpy(buf, target.c_str(), size);
        return result;
    });
}

int Smb2FS::truncate(QString path, long long length) {
    return m_data->onPath(path, [&](Smb2Session& session, const char* p) {
        return length < 0 ? -EINVAL : session.truncate(p, static_cast<std::uint64_t>(length));
    });
}

int Smb2FS::chmod(QString, int) {
    if (m_data->isBroken())
        return -1;
    const std::lock_guard lock(m_data->mutex);
    return notSupported();
}

int Smb2FS::ioctl(QString, QString&) {
    return notImplemented();
}

// --- Smb2File -----------------------------------------------------------------------------------

namespace {

/// What an operation does to liberrno.
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
        const std::lock_guard lock(share->mutex);
        if (treatment == Liberrno::Clear)
            liberrno = Ok;
        return runLocked(call);
    }
    /// The result of `call(session)`; -1 with errno EBADF when there is nothing to call it on.
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
    // All below: under the share's mutex.
    const std::weak_ptr<Smb2Session> session; // which alone knows the handle
    smb2fh* const handle;
    bool isOpen = true;
    qint64 position = 0;
    qint64 writtenEnd = 0; ///< the end of what was written through this object
};

Smb2File::Smb2File(Smb2FS* fs, smb2fh* handle, QString)
    : File(QStringLiteral("Smb2File")), m_data([&] {
          const std::lock_guard lock(fs->m_data->mutex);
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
        if (len > static_cast<unsigned int>(std::numeric_limits<int>::max()))
            return -EINVAL;
        const char* from = static_cast<const char*>(buf);
        int left = static_cast<int>(len);
        int count = 0;
        // A server that takes nothing is asked again: a recording is not given up while the
        // connection stands.
        while (left > 0) {
            count = session.write(m_data->handle, from, std::min(left, longestWrite));
            if (count < 0)
                return count;
            from += count;
            left -= count;
        }
        m_data->position += len;
        m_data->written(m_data->position);
        return static_cast<int>(len);
    });
}

int Smb2File::pread(void* buf, unsigned int len, long long offset) {
    return m_data->run(Liberrno::Clear, [&](Smb2Session& session) {
        return session.pread(m_data->handle, buf, len, offset);
    });
}

int Smb2File::pwrite(const void* buf, unsigned int len, long long offset) {
    return m_data->run(Liberrno::Clear, [&](Smb2Session& session) {
        if (len > static_cast<unsigned int>(std::numeric_limits<int>::max()))
            return -EINVAL;
        if (offset > std::numeric_limits<long long>::max() - len)
            return -EFBIG;
        const char* const from = static_cast<const char*>(buf);
        int done = 0;
        while (done < static_cast<int>(len)) {
            const int piece = std::min(static_cast<int>(len) - done, longestWrite);
            const int count = session.pwrite(m_data->handle, from + done, piece, offset + done);
            if (count < 0)
                return count;
            if (count == 0)
                break;
            done += count;
        }
        m_data->written(offset + len);
        return static_cast<int>(len);
    });
}

long long Smb2File::lseek(long long offset, int whence) {
    if (m_data->share->isBroken())
        return -1;
    const std::lock_guard lock(m_data->share->mutex);
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
    // To ask where one is, at the beginning, moves nothing. A step that leads back there from
    // elsewhere does move libsmb2's offset: that is where reads and writes go on.
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
    const std::lock_guard lock(m_data->share->mutex);
    liberrno = Ok;
    return notSupported();
}

int Smb2File::fcntl(int, ...) {
    if (m_data->share->isBroken())
        return -1;
    const std::lock_guard lock(m_data->share->mutex);
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
    const std::lock_guard lock(m_data->share->mutex);
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

    /// Opens the directory in `current`; errno tells why that failed.
    void open(const std::shared_ptr<Smb2Session>& current) {
        session = current;
        smb2dir* opened = nullptr;
        withSharePath(path,
                      [&](const char* p) { return share->report(current->opendir(p, opened)); });
        handle = opened;
    }
    void close() {
        const std::shared_ptr<Smb2Session> current = session.lock();
        smb2dir* const opened = handle.exchange(nullptr);
        if (current && opened)
            current->closedir(opened);
    }

    const QExplicitlySharedDataPointer<Smb2FS::Data> share;
    const QString path;
    // All below: under the share's mutex.
    std::weak_ptr<Smb2Session> session; // which alone knows the handle, while there is one
    // Written under the share's mutex; isOpen() reads it without.
    std::atomic<smb2dir*> handle{nullptr}; ///< null when not open
    struct dirent entry = {};
};

Smb2Dir::Smb2Dir(Smb2FS* fs, QString& path)
    : Directory(QStringLiteral("Smb2Directory")), m_data(new Data(fs->m_data, path)) {
    if (m_data->share->isBroken())
        return;
    const std::lock_guard lock(m_data->share->mutex);
    m_data->open(m_data->share->session);
}

Smb2Dir::~Smb2Dir() {
    closedir();
}

bool Smb2Dir::isOpen() {
    return m_data->handle;
}

struct dirent* Smb2Dir::readdir() {
    if (m_data->share->isBroken())
        return nullptr;
    const std::lock_guard lock(m_data->share->mutex);
    errno = ENOENT;
    if (!m_data->handle)
        return nullptr;
    const std::shared_ptr<Smb2Session> current = m_data->session.lock();
    if (!current) {
        errno = EBADF;
        return nullptr;
    }
    const smb2dirent* const found = current->readdir(m_data->handle);
    if (!found)
        return nullptr;
    struct dirent& entry = m_data->entry;
    entry.d_ino = found->st.smb2_ino;
    entry.d_off = 0;
    entry.d_reclen = 0;
    entry.d_type = directoryType(found->st.smb2_type);
    std::strncpy(entry.d_name, found->name ? found->name : "", sizeof entry.d_name - 1);
    return &entry;
}

int Smb2Dir::rewinddir() {
    if (m_data->share->isBroken())
        return -1;
    const std::lock_guard lock(m_data->share->mutex);
    // An open directory belongs to its connection, a closed one to none.
    const std::shared_ptr<Smb2Session> current =
        m_data->handle ? m_data->session.lock() : m_data->share->session;
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
    const std::lock_guard lock(m_data->share->mutex);
    m_data->close();
    return 0;
}

int Smb2Dir::ioctl(QString, QString&) {
    return notImplemented();
}

} // namespace oru::io
