// SPDX-License-Identifier: Apache-2.0
#include <oruio/error.h>
#include <oruio/fssmb.h>

#include "core/systemtext_p.h"
#include "network/connectfailure_p.h"
#include "network/fssmb_p.h"
#include "network/libsmb2_p.h"
#include "network/smb2session_p.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "core/log_p.h"
#include "core/notimplemented_p.h"

namespace oru::io {

ORUIO_SHARED_LOG_CHANNEL(smbLogChannel, "libio_smb2");

namespace {

const QMap<QString, smb2_negotiate_version> version_map = {
    {QStringLiteral("2.x"), SMB2_VERSION_ANY2},   {QStringLiteral("3.x"), SMB2_VERSION_ANY3},
    {QStringLiteral("2.0.2"), SMB2_VERSION_0202}, {QStringLiteral("2.1.0"), SMB2_VERSION_0210},
    {QStringLiteral("3.0.0"), SMB2_VERSION_0300}, {QStringLiteral("3.0.2"), SMB2_VERSION_0302},
    {QStringLiteral("3.1.1"), SMB2_VERSION_0311},
};

/// The longest string of a login, in bytes. Longer ones do not fit into the fields of the protocol.
constexpr int longestString = 1024;
constexpr int longestDescription = 4095;
/// The least time for connect() after it has left the previous share.
constexpr qint64 shortestConnectMs = 800;

using Reason = Smb2FS::ConnectFailure::Reason;

/// Where to connect to, and as which user.
class Login {
public:
    /// Reads the properties of Smb2FS::connect(). \returns 0, or a negative errno for a string that
    /// cannot be sent. `problem` then describes it.
    int read(const Properties& props, QString& problem) {
        version = version_map.value(props[QStringLiteral("version")].toString(), SMB2_VERSION_ANY);
        for (const auto& [key, value] : fields()) {
            const bool isValid = toSystem(props[key].toString(), *value);
            const int error = errno;
            if (!isValid) {
                problem = quoted(key);
                problem += error == EINVAL ? " contains a NUL" : " is not valid UTF-16";
                return -error;
            }
            if (value->size() - 1 > longestString) { // without the NUL
                problem = quoted(key) + " is longer than 1 KiB";
                return -ENAMETOOLONG;
            }
        }
        return 0;
    }

    /// The keys of `props` that are none of a login.
    QStringList unknownKeys(const Properties& props) {
        QStringList unknown = props.keys();
        for (const auto& field : fields())
            unknown.removeAll(field.first);
        return unknown;
    }

    /// What is wrong with the property that made connecting fail for `reason`; empty if no property
    /// is wrong.
    QString problemAfter(Reason reason) const {
        const bool isBracketOpen = server[0] == '[' && !std::strchr(server.constData(), ']');
        if (reason == Reason::HostNotFound && isEmpty(server))
            return quoted("server") + " is missing or empty";
        if (reason == Reason::HostNotFound &&
            (isBracketOpen || std::strpbrk(server.constData(), "/\\@")))
            return quoted("server") + " is neither a name nor an address";
        if (reason == Reason::NoSuchShare && isEmpty(share))
            return quoted("share") + " is missing or empty";
        return {};
    }

    Smb2Session::Login forSession() const {
        Smb2Session::Login login = {};
        login.server = server.constData();
        login.share = share.constData();
        login.user = user.constData();
        login.password = password.constData();
        login.domain = domain.constData();
        login.workstation = workstation.constData();
        login.version = version;
        return login;
    }

    /// A URL of the share for the log, without the password.
    QByteArray description() const {
        QByteArray url = "smb://";
        if (!isEmpty(domain))
            url.append(domain.constData()).append('\\');
        url.append(isEmpty(user) ? "anonymous" : user.constData());
        if (!isEmpty(password))
            url.append(":****");
        url.append('@').append(server.constData()).append('/').append(share.constData());
        if (!isEmpty(versionName))
            url.append(" vers=").append(versionName.constData());
        if (!isEmpty(workstation))
            url.append(" workstation=").append(workstation.constData());
        return url.left(longestDescription);
    }

private:
    std::array<std::pair<QString, SystemText*>, 7> fields() {
        return {{{"server", &server},
                 {"share", &share},
                 {"user", &user},
                 {"password", &password},
                 {"domain", &domain},
                 {"workstation", &workstation},
                 {"version", &versionName}}};
    }
    static bool isEmpty(const SystemText& field) {
        return field[0] == '\0';
    }
    static QString quoted(const QString& key) {
        return '"' + key + '"';
    }

    SystemText server;
    SystemText share;
    SystemText user;
    SystemText password;
    SystemText domain;
    SystemText workstation;
    SystemText versionName;
    smb2_negotiate_version version = SMB2_VERSION_ANY;
};

/// Sessions that sign or encrypt their messages are refused: libsmb2's ciphers are too slow to
/// record through. \returns 0, -EPERM for such a session, or -ENOTSUP when it cannot be found out.
int protectionError(const Smb2Session& session) {
    const int isProtected = session.isProtected();
    return isProtected > 0 ? -EPERM : isProtected;
}

} // namespace

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

// --- Smb2FS -------------------------------------------------------------------------------------

int set_errno(Smb2FS* fs, int rc, smb2_context*, const char*, const char*) {
    return fs->m_data->report(rc);
}

int Smb2FS::Data::connect(const Properties& props, const QDeadlineTimer& deadline) {
    ConnectFailure outcome;
    const int result = connect(props, deadline, outcome);
    if (result < 0) {
        outcome.error = -result;
        if (outcome.message.isEmpty())
            outcome.message = QString::fromLocal8Bit(std::strerror(-result));
    }
    const std::lock_guard<std::mutex> lock(stateMutex);
    failure = outcome;
    return result;
}

int Smb2FS::Data::connect(const Properties& props, const QDeadlineTimer& deadline,
                          ConnectFailure& outcome) {
    description.clear();
    writesSingly = writesSingly || session->wasLostInWindow();
    setSession(std::make_shared<Smb2Session>(timeout));
    Login login;
    outcome.unknownKeys = login.unknownKeys(props);
    if (const int failed = login.read(props, outcome.message)) {
        outcome.reason = Reason::BadProperties;
        return failed;
    }
    const auto next = std::make_shared<Smb2Session>(timeout);
    if (const int failed = next->connect(login.forSession(), deadline)) {
        outcome.reason = reasonOf(-failed, next->message());
        outcome.message = login.problemAfter(outcome.reason);
        if (outcome.message.isEmpty())
            outcome.message = QString::fromStdString(next->message());
        else
            outcome.reason = Reason::BadProperties;
        return failed;
    }
    if (const int refused = protectionError(*next)) {
        next->disconnect(deadline);
        outcome.reason = refused == -EPERM ? Reason::Protected : Reason::Other;
        return refused;
    }
    if (std::exchange(writesSingly, false))
        next->writeSingly();
    setSession(next);
    description = login.description();
    ORUIO_LOG(LogDebug, "SMB Connect '%s' OK", description.constData());
    return 0;
}

void Smb2FS::Data::setSession(std::shared_ptr<Smb2Session> next) {
    const std::lock_guard<std::mutex> lock(stateMutex);
    session.swap(next);
}

int Smb2FS::Data::brokenBy() const {
    const int error = lastError;
    if (isFatal(error))
        return error;
    const std::lock_guard<std::mutex> lock(stateMutex);
    return session->lastError();
}

Smb2FS::Smb2FS(unsigned int timeout) : FS(QStringLiteral("Smb2FS")), m_data(new Data(timeout)) {}

Smb2FS::~Smb2FS() {
    const Data::Lock lock(*m_data);
    m_data->session.reset();
}

int Smb2FS::connect(Properties props) {
    // First of all: a call that waits for the lock must not find the connection before this one.
    const Data::Lock lock(*m_data);
    const qint64 limit = qint64{m_data->timeout} * 1000;
    const QDeadlineTimer deadline(limit);
    disconnect();
    m_data->lastError = 0;
    // To leave a share whose server does not answer may have taken all of the time.
    const QDeadlineTimer rest =
        limit == 0 ? QDeadlineTimer(QDeadlineTimer::Forever)
                   : QDeadlineTimer(std::max(deadline.remainingTime(), shortestConnectMs));
    return m_data->report(m_data->connect(props, rest));
}

int Smb2FS::disconnect() {
    const Data::Lock lock(*m_data);
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
    const Data::Lock lock(*m_data);
    return !m_data->description.isEmpty() && m_data->session->echo() == 0;
}

QString Smb2FS::getDialect() {
    QString unknown = QStringLiteral("unknown");
    if (m_data->isBroken())
        return unknown;
    const Data::Lock lock(*m_data);
    if (m_data->description.isEmpty())
        return unknown;
    const auto dialect = static_cast<smb2_negotiate_version>(m_data->session->dialect());
    return version_map.key(dialect, unknown);
}

int Smb2FS::brokenBy() const {
    return m_data->brokenBy();
}

Smb2FS::ConnectFailure Smb2FS::connectFailure() const {
    const std::lock_guard<std::mutex> lock(m_data->stateMutex);
    return m_data->failure;
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
    const Data::Lock lock(*m_data);
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
    const Data::Lock lock(*m_data);
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
    const Data::Lock lock(*m_data);
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
    const Data::Lock lock(*m_data);
    return notSupported();
}

int Smb2FS::ioctl(QString, QString&) {
    return notImplemented();
}

} // namespace oru::io
