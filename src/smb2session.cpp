#include "smb2session_p.h"

#include <QSemaphore>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <mutex>
#include <utility>
#include <vector>

#include <dlfcn.h>
#include <fcntl.h>
#include <malloc.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>

// libsmb2's headers want these first.
#include <smb2/smb2.h>

#include <smb2/libsmb2.h>

#include <smb2/libsmb2-raw.h>

namespace oru::io {

namespace {

/// libsmb2 keeps a list of all contexts, without a lock of its own.
std::mutex contextsMutex;

smb2_context* makeContext() {
    const std::lock_guard lock(contextsMutex);
    return smb2_init_context();
}

void destroyContext(smb2_context* context) {
    const std::lock_guard lock(contextsMutex);
    smb2_destroy_context(context);
}

/// A flag of a context that libsmb2 has a function to set but none to get. Where it lies shows on a
/// context of its own, on which it is turned on.
class HiddenFlag {
public:
    explicit HiddenFlag(void (*set)(smb2_context*, int)) {
        // To the end: the contexts are linked, so that making and destroying others changes this
        // one.
        const std::lock_guard lock(contextsMutex);
        smb2_context* const sample = smb2_init_context();
        if (!sample)
            return;
        set(sample, 0);
        const unsigned char* const bytes = bytesOf(sample);
        const std::vector<unsigned char> off(bytes, bytes + malloc_usable_size(sample));
        set(sample, 1);
        const auto [was, is] = std::mismatch(off.begin(), off.end(), bytes);
        if (was != off.end()) {
            m_offset = was - off.begin();
            m_mask = *was ^ *is;
        }
        set(sample, 0);
        // Else it is something other than one flag.
        const bool isOneBit = (m_mask & (m_mask - 1)) == 0;
        if (!isOneBit || !std::equal(off.begin(), off.end(), bytes))
            m_mask = 0;
        smb2_destroy_context(sample);
    }

    /// 1 or 0; -ENOTSUP when it was not found.
    int of(const smb2_context* context) const {
        if (m_mask == 0)
            return -ENOTSUP;
        return (bytesOf(context)[m_offset] & m_mask) != 0;
    }

private:
    static const unsigned char* bytesOf(const smb2_context* context) {
        return reinterpret_cast<const unsigned char*>(context);
    }

    std::ptrdiff_t m_offset = 0;
    unsigned char m_mask = 0;
};

/// Keeps SIGPIPE from the calling thread: libsmb2 writes to a connection that the server may have
/// ended, and the error alone is enough.
class NoPipeSignal {
public:
    NoPipeSignal() {
        sigemptyset(&m_pipe);
        sigaddset(&m_pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &m_pipe, &m_mask);
        if (sigismember(&m_mask, SIGPIPE) == 0)
            return;
        sigset_t pending;
        sigpending(&pending);
        m_isSomebodyElses = sigismember(&pending, SIGPIPE) == 1;
    }
    ~NoPipeSignal() {
        pthread_sigmask(SIG_SETMASK, &m_mask, nullptr);
    }
    /// After a write that failed.
    void discard() {
        constexpr struct timespec now = {0, 0};
        if (!m_isSomebodyElses)
            sigtimedwait(&m_pipe, nullptr, &now);
    }

private:
    Q_DISABLE_COPY(NoPipeSignal)

    sigset_t m_pipe;
    sigset_t m_mask;
    bool m_isSomebodyElses = false;
};

/// Prepares a socket that libsmb2 has made.
void socketMade(smb2_context*, t_socket socket, int command) {
    if (command != SMB2_ADD_FD)
        return;
    // A program that the process starts must not keep the connection.
    fcntl(socket, F_SETFD, FD_CLOEXEC);
    // A server that is switched off ends the connection, also while nothing is asked of it.
    const auto set = [socket](int level, int option, int value) {
        setsockopt(socket, level, option, &value, sizeof value);
    };
    set(SOL_SOCKET, SO_KEEPALIVE, 1);
    set(IPPROTO_TCP, TCP_KEEPIDLE, 30);
    set(IPPROTO_TCP, TCP_KEEPINTVL, 10);
    set(IPPROTO_TCP, TCP_KEEPCNT, 3);
}

/// Why a connection ended.
int lossOf(int socket) {
    int error = 0;
    socklen_t size = sizeof error;
    getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size);
    return error == ETIMEDOUT ? ETIMEDOUT : ECONNRESET;
}

/// In milliseconds, as poll(2) and its like take it.
int remaining(const QDeadlineTimer& deadline) {
    return static_cast<int>(
        std::min<qint64>(deadline.remainingTime(), std::numeric_limits<int>::max()));
}

/// The host in "host", "host:port", "[host]" and "[host]:port".
std::string hostOf(const char* server) {
    const bool isBracketed = *server == '[';
    const char* const begin = server + (isBracketed ? 1 : 0);
    return {begin, std::strcspn(begin, isBracketed ? "]" : ":")};
}

/// What libsmb2 makes of a failed getaddrinfo(3).
int errorOf(int lookup) {
    switch (lookup) {
    case 0:
        return 0;
    case EAI_AGAIN:
        return -EAGAIN;
    case EAI_MEMORY:
        return -ENOMEM;
    default:
        return -EIO;
    }
}

/// Looking up a host, on a thread that nobody has to wait for.
struct Lookup {
    std::string host;
    QSemaphore isDone;
    std::atomic<int> result = 0;

    int resolve(int flags) {
        addrinfo hints = {};
        hints.ai_flags = flags;
        addrinfo* addresses = nullptr;
        const int found = getaddrinfo(host.c_str(), nullptr, &hints, &addresses);
        if (found == 0)
            freeaddrinfo(addresses);
        result = found;
        return found;
    }

    static void* run(void* shared) {
        const std::unique_ptr<std::shared_ptr<Lookup>> lookup(
            static_cast<std::shared_ptr<Lookup>*>(shared));
        (*lookup)->resolve(0);
        (*lookup)->isDone.release();
        return nullptr;
    }
};

/// Keeps the code of this library where it is, for a thread that nobody waits for.
void stayLoaded() {
    Dl_info self;
    if (dladdr(reinterpret_cast<void*>(&stayLoaded), &self) != 0)
        dlopen(self.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE);
}

/// Waits until the name of `server` can be looked up. libsmb2 does so itself while it connects, but
/// for as long as the resolver likes. \returns 0 or a negative errno.
int awaitName(const char* server, const QDeadlineTimer& deadline) {
    const auto lookup = std::make_shared<Lookup>();
    lookup->host = hostOf(server);
    if (lookup->resolve(AI_NUMERICHOST) == 0)
        return 0;

    auto shared = std::make_unique<std::shared_ptr<Lookup>>(lookup);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t thread;
    const int error = pthread_create(&thread, &attributes, &Lookup::run, shared.get());
    pthread_attr_destroy(&attributes);
    if (error != 0)
        return -error;
    static_cast<void>(shared.release()); // the thread's
    if (!lookup->isDone.tryAcquire(1, remaining(deadline))) {
        stayLoaded();
        return -ETIMEDOUT;
    }
    return errorOf(lookup->result);
}

/// The reason why no address of a server could even be tried, which libsmb2 tells in a text only.
int connectFailure(smb2_context* context, int result) {
    int error = 0;
    const char* const number = std::strrchr(smb2_get_error(context), '(');
    if (std::strncmp(smb2_get_error(context), "Connect failed", 14) == 0 && number)
        error = std::atoi(number + 1);
    return error > 0 ? -error : result;
}

/// Queues a request; a null one could not be made. \returns 0 or a negative errno.
int queue(smb2_context* context, smb2_pdu* request) {
    if (!request)
        return -ENOMEM;
    smb2_queue_pdu(context, request);
    return 0;
}

} // namespace

/// What comes of a request.
struct Smb2Session::Reply {
    bool isComplete = false;
    int result = 0; ///< a negative errno, else 0 or a count
    void* data = nullptr;

    void complete(int status, void* replyData) {
        isComplete = true;
        result = status;
        data = replyData;
    }

    /// For requests whose status libsmb2 translates.
    static void take(smb2_context*, int status, void* data, void* reply) {
        static_cast<Reply*>(reply)->complete(status, data);
    }
    /// For connecting, where libsmb2 has the sign of some failures wrong.
    static void takeConnection(smb2_context*, int status, void*, void* reply) {
        static_cast<Reply*>(reply)->complete(-std::abs(status), nullptr);
    }
    /// For all but the last of several commands in one request: the first to fail decides.
    static void note(smb2_context*, int status, void*, void* reply) {
        auto* const noted = static_cast<Reply*>(reply);
        if (noted->result == 0)
            noted->result = -nterror_to_errno(status);
    }
    /// For a single command, and for the last one.
    static void takeStatus(smb2_context* context, int status, void* data, void* reply) {
        note(context, status, data, reply);
        auto* const taken = static_cast<Reply*>(reply);
        taken->complete(taken->result, data);
    }
};

void Smb2Session::ContextDeleter::operator()(smb2_context* context) const {
    destroyContext(context);
}

Smb2Session::Smb2Session(unsigned int timeout) : m_timeout(timeout), m_whyNot(ENOTCONN) {}

Smb2Session::~Smb2Session() = default;

QDeadlineTimer Smb2Session::deadline() const {
    return m_timeout == 0 ? QDeadlineTimer(QDeadlineTimer::Forever)
                          : QDeadlineTimer(qint64{m_timeout} * 1000);
}

unsigned int Smb2Session::dialect() const {
    return m_dialect;
}

int Smb2Session::isProtected() const {
    return m_isProtected;
}

// --- Connecting
// ---------------------------------------------------------------------------------

int Smb2Session::connect(const Login& login, const QDeadlineTimer& deadline) {
    if (const int failure = awaitName(login.server, deadline))
        return failure;
    m_context.reset(makeContext());
    if (!m_context)
        return -ENOMEM;
    smb2_context* const context = m_context.get();
    // Its own time-outs are not set: they come late, and some of its calls do not survive them.
    smb2_fd_event_callbacks(context, socketMade, nullptr);
    // Without this it wants Kerberos, where it was built with that.
    constexpr int ntlmssp = 1;
    smb2_set_authentication(context, ntlmssp);
    smb2_set_user(context, login.user);
    // For libsmb2 an empty password is one, and null is none: it then connects as nobody in
    // particular.
    smb2_set_password(context, login.password[0] ? login.password : nullptr);
    smb2_set_domain(context, login.domain);
    smb2_set_workstation(context, login.workstation);
    smb2_set_security_mode(context, 0);
    smb2_set_version(context, static_cast<smb2_negotiate_version>(login.version));

    Reply reply;
    // No user: it is set. Were it set again, a password from libsmb2's own file would replace ours.
    int result =
        smb2_connect_share_async(context, login.server, login.share, nullptr, Reply::take, &reply);
    if (result != 0)
        return lose(-connectFailure(context, result));
    result = await(reply, deadline);
    if (result < 0)
        return lose(-result);
    m_dialect = smb2_get_dialect(context);
    static const HiddenFlag sign(smb2_set_sign);
    static const HiddenFlag seal(smb2_set_seal);
    const int isSigned = sign.of(context);
    const int isSealed = seal.of(context);
    m_isProtected = std::min(isSigned, isSealed) < 0 ? -ENOTSUP : isSigned | isSealed;
    return 0;
}

int Smb2Session::disconnect() {
    const QDeadlineTimer limit = deadline();
    Reply leaving;
    const int result = request(leaving, limit, [](smb2_context* context, Reply* reply) {
        return queue(context, smb2_cmd_tree_disconnect_async(context, Reply::takeStatus, reply));
    });
    if (result < 0)
        return result;
    Reply loggingOff;
    request(loggingOff, limit, [](smb2_context* context, Reply* reply) {
        return queue(context, smb2_cmd_logoff_async(context, Reply::takeStatus, reply));
    });
    lose(ENOTCONN);
    return 0;
}

int Smb2Session::echo() {
    return request([](smb2_context* context, Reply* reply) {
        return smb2_echo_async(context, Reply::take, reply);
    });
}

// --- Paths
// --------------------------------------------------------------------------------------

int Smb2Session::stat(const char* path, smb2_stat_64& st) {
    return request([&](smb2_context* context, Reply* reply) {
        return smb2_stat_async(context, path, &st, Reply::take, reply);
    });
}

int Smb2Session::statvfs(const char* path, struct smb2_statvfs& st) {
    return request([&](smb2_context* context, Reply* reply) {
        return smb2_statvfs_async(context, path, &st, Reply::take, reply);
    });
}

int Smb2Session::mkdir(const char* path) {
    return request([&](smb2_context* context, Reply* reply) {
        return smb2_mkdir_async(context, path, Reply::take, reply);
    });
}

int Smb2Session::rmdir(const char* path) {
    return remove(path, SMB2_FILE_DIRECTORY_FILE);
}

int Smb2Session::unlink(const char* path) {
    return remove(path, SMB2_FILE_NON_DIRECTORY_FILE);
}

/// libsmb2's own two calls remove a file and a directory alike, and do not notice when the server
/// keeps a directory that is not empty: they ask for its removal with the last handle, after whose
/// closing nobody tells. Asked for by name, it is granted or refused at once.
int Smb2Session::remove(const char* path, std::uint32_t options) {
    smb2_create_request open = {};
    open.requested_oplock_level = SMB2_OPLOCK_LEVEL_NONE;
    open.impersonation_level = SMB2_IMPERSONATION_IMPERSONATION;
    open.desired_access = SMB2_DELETE;
    open.share_access = SMB2_FILE_SHARE_READ | SMB2_FILE_SHARE_WRITE | SMB2_FILE_SHARE_DELETE;
    open.create_disposition = SMB2_FILE_OPEN;
    open.create_options = options | SMB2_FILE_OPEN_REPARSE_POINT;
    open.name = path;

    smb2_file_disposition_info disposition = {};
    disposition.delete_pending = 1;
    smb2_set_info_request mark = {};
    mark.info_type = SMB2_0_INFO_FILE;
    mark.file_info_class = SMB2_FILE_DISPOSITION_INFORMATION;
    mark.input_data = &disposition;
    std::memcpy(mark.file_id, compound_file_id, SMB2_FD_SIZE);

    smb2_close_request close = {};
    std::memcpy(close.file_id, compound_file_id, SMB2_FD_SIZE);

    return request([&](smb2_context* context, Reply* reply) {
        smb2_pdu* const first = smb2_cmd_create_async(context, &open, Reply::note, reply);
        if (!first)
            return -ENOMEM;
        smb2_pdu* const second = smb2_cmd_set_info_async(context, &mark, Reply::note, reply);
        if (second)
            smb2_add_compound_pdu(context, first, second);
        smb2_pdu* const third =
            second ? smb2_cmd_close_async(context, &close, Reply::takeStatus, reply) : nullptr;
        if (!third) {
            smb2_free_pdu(context, first);
            return -ENOMEM;
        }
        smb2_add_compound_pdu(context, first, third);
        return queue(context, first);
    });
}

int Smb2Session::rename(const char* from, const char* to) {
    return request([&](smb2_context* context, Reply* reply) {
        return smb2_rename_async(context, from, to, Reply::take, reply);
    });
}

int Smb2Session::truncate(const char* path, std::uint64_t length) {
    return request([&](smb2_context* context, Reply* reply) {
        return smb2_truncate_async(context, path, length, Reply::take, reply);
    });
}

int Smb2Session::readlink(const char* path, std::string& target) {
    struct Link : Reply {
        std::string target;

        // The text is there during the callback only.
        static void take(smb2_context*, int status, void* text, void* reply) {
            auto* const link = static_cast<Link*>(static_cast<Reply*>(reply));
            if (status == 0 && text)
                link->target = static_cast<const char*>(text);
            link->complete(status, nullptr);
        }
    };
    Link link;
    const int result = request(link, deadline(), [&](smb2_context* context, Reply* reply) {
        return smb2_readlink_async(context, path, Link::take, reply);
    });
    if (result < 0)
        return result;
    // What libsmb2 calls a target that it cannot read; no server allows such a name.
    if (link.target.empty() || link.target == "<unknown reparse point type>")
        return -EINVAL;
    target = std::move(link.target);
    return 0;
}

// --- Files
// --------------------------------------------------------------------------------------

int Smb2Session::open(const char* path, int flags, smb2fh*& file) {
    Reply opened;
    const int result = request(opened, deadline(), [&](smb2_context* context, Reply* reply) {
        return smb2_open_async(context, path, flags, Reply::take, reply);
    });
    if (result == 0)
        file = static_cast<smb2fh*>(opened.data);
    return result;
}

int Smb2Session::close(smb2fh* file) {
    return request([&](smb2_context* context, Reply* reply) {
        return smb2_close_async(context, file, Reply::take, reply);
    });
}

/// A request that moves up to `count` bytes, of which there are some: libsmb2 takes a count of 0
/// for a very large one.
template <class Submit>
int Smb2Session::transfer(std::uint32_t count, Submit submit) {
    if (!m_context)
        return -m_whyNot;
    if (count == 0)
        return 0;
    Reply reply;
    const int moved = exchange(reply, deadline(), submit);
    if (moved > 0 && static_cast<std::uint32_t>(moved) > count)
        return lose(ECONNRESET); // no answer to what was asked
    return moved;
}

int Smb2Session::read(smb2fh* file, void* buf, std::uint32_t count) {
    return transfer(count, [&](smb2_context* context, Reply* reply) {
        return smb2_read_async(context, file, static_cast<std::uint8_t*>(buf), count, Reply::take,
                               reply);
    });
}

int Smb2Session::write(smb2fh* file, const void* buf, std::uint32_t count) {
    if (offsetOf(file) > std::numeric_limits<std::int64_t>::max() - count)
        return -EFBIG;
    return transfer(count, [&](smb2_context* context, Reply* reply) {
        return smb2_write_async(context, file, static_cast<const std::uint8_t*>(buf), count,
                                Reply::take, reply);
    });
}

/// Keeps the handle's offset, which libsmb2 moves with every transfer.
template <class Transfer>
int Smb2Session::atOffset(smb2fh* file, std::int64_t offset, Transfer transfer) {
    if (offset < 0)
        return -EINVAL;
    const std::int64_t before = offsetOf(file);
    const int moved = transfer();
    lseek(file, before);
    return moved;
}

int Smb2Session::pread(smb2fh* file, void* buf, std::uint32_t count, std::int64_t offset) {
    return atOffset(file, offset, [&] {
        return transfer(count, [&](smb2_context* context, Reply* reply) {
            return smb2_pread_async(context, file, static_cast<std::uint8_t*>(buf), count,
                                    static_cast<std::uint64_t>(offset), Reply::take, reply);
        });
    });
}

int Smb2Session::pwrite(smb2fh* file, const void* buf, std::uint32_t count, std::int64_t offset) {
    return atOffset(file, offset, [&] {
        return transfer(count, [&](smb2_context* context, Reply* reply) {
            return smb2_pwrite_async(context, file, static_cast<const std::uint8_t*>(buf), count,
                                     static_cast<std::uint64_t>(offset), Reply::take, reply);
        });
    });
}

std::int64_t Smb2Session::lseek(smb2fh* file, std::int64_t offset) {
    return m_context ? smb2_lseek(m_context.get(), file, offset, SEEK_SET, nullptr) : -m_whyNot;
}

std::int64_t Smb2Session::offsetOf(smb2fh* file) const {
    return m_context ? smb2_lseek(m_context.get(), file, 0, SEEK_CUR, nullptr) : -m_whyNot;
}

/// Not libsmb2's own call, which does not survive the end of the connection.
int Smb2Session::fstat(smb2fh* file, smb2_stat_64& st) {
    struct Attributes : Reply {
        smb2_stat_64* st = nullptr;

        static void take(smb2_context* context, int status, void* data, void* reply) {
            auto* const attributes = static_cast<Attributes*>(static_cast<Reply*>(reply));
            int result = -nterror_to_errno(status);
            if (status == 0) {
                void* const info = static_cast<smb2_query_info_reply*>(data)->output_buffer;
                if (info)
                    fill(*attributes->st, *static_cast<smb2_file_all_info*>(info));
                else
                    result = -EBADMSG;
                smb2_free_data(context, info);
            }
            attributes->complete(result, nullptr);
        }

        static void fill(smb2_stat_64& st, const smb2_file_all_info& info) {
            const std::uint32_t kind = info.basic.file_attributes;
            st.smb2_type = SMB2_TYPE_FILE;
            if (kind & SMB2_FILE_ATTRIBUTE_DIRECTORY)
                st.smb2_type = SMB2_TYPE_DIRECTORY;
            if (kind & SMB2_FILE_ATTRIBUTE_REPARSE_POINT)
                st.smb2_type = SMB2_TYPE_LINK;
            st.smb2_nlink = info.standard.number_of_links;
            st.smb2_ino = info.index_number;
            st.smb2_size = info.standard.end_of_file;
            const auto set = [](const smb2_timeval& from, std::uint64_t& s, std::uint64_t& ns) {
                s = static_cast<std::uint64_t>(from.tv_sec);
                ns = static_cast<std::uint64_t>(from.tv_usec) * 1000;
            };
            set(info.basic.last_access_time, st.smb2_atime, st.smb2_atime_nsec);
            set(info.basic.last_write_time, st.smb2_mtime, st.smb2_mtime_nsec);
            set(info.basic.change_time, st.smb2_ctime, st.smb2_ctime_nsec);
            set(info.basic.creation_time, st.smb2_btime, st.smb2_btime_nsec);
        }
    };
    smb2_query_info_request query = {};
    query.info_type = SMB2_0_INFO_FILE;
    query.file_info_class = SMB2_FILE_ALL_INFORMATION;
    query.output_buffer_length = 0xffff;
    std::memcpy(query.file_id, *smb2_get_file_id(file), SMB2_FD_SIZE);

    Attributes attributes;
    attributes.st = &st;
    return request(attributes, deadline(), [&](smb2_context* context, Reply* reply) {
        return queue(context, smb2_cmd_query_info_async(context, &query, Attributes::take, reply));
    });
}

int Smb2Session::ftruncate(smb2fh* file, std::uint64_t length) {
    return request([&](smb2_context* context, Reply* reply) {
        return smb2_ftruncate_async(context, file, length, Reply::take, reply);
    });
}

int Smb2Session::fsync(smb2fh* file) {
    return request([&](smb2_context* context, Reply* reply) {
        return smb2_fsync_async(context, file, Reply::take, reply);
    });
}

// --- Directories
// --------------------------------------------------------------------------------

int Smb2Session::opendir(const char* path, smb2dir*& dir) {
    Reply opened;
    const int result = request(opened, deadline(), [&](smb2_context* context, Reply* reply) {
        return smb2_opendir_async(context, path, Reply::take, reply);
    });
    if (result == 0)
        dir = static_cast<smb2dir*>(opened.data);
    return result;
}

const smb2dirent* Smb2Session::readdir(smb2dir* dir) {
    return m_context ? smb2_readdir(m_context.get(), dir) : nullptr;
}

void Smb2Session::closedir(smb2dir* dir) {
    if (m_context)
        smb2_closedir(m_context.get(), dir);
}

// --- Requests and answers
// -----------------------------------------------------------------------

template <class Submit>
int Smb2Session::request(Submit submit) {
    Reply reply;
    return request(reply, deadline(), submit);
}

template <class Submit>
int Smb2Session::request(Reply& reply, const QDeadlineTimer& deadline, Submit submit) {
    return isStillThere() ? exchange(reply, deadline, submit) : -m_whyNot;
}

template <class Submit>
int Smb2Session::exchange(Reply& reply, const QDeadlineTimer& deadline, Submit submit) {
    const int refused = submit(m_context.get(), &reply);
    if (refused != 0)
        return refused == -1 ? -ENOMEM : refused;
    // Nearly every request fits into the socket's buffer: poll(2) need not be asked first.
    if (service(smb2_get_fd(m_context.get()), POLLOUT) != 0)
        return lose(ECONNRESET);
    return await(reply, deadline);
}

/// Whether there is a connection. Notices a server that has ended it since the last call: of a
/// request with several commands that cannot be sent any more, libsmb2 loses what belongs to them.
bool Smb2Session::isStillThere() {
    if (!m_context)
        return false;
    struct pollfd poller = {smb2_get_fd(m_context.get()), POLLIN, 0};
    if (poll(&poller, 1, 0) <= 0)
        return true;
    if (poller.revents & (POLLERR | POLLHUP | POLLNVAL))
        lose(lossOf(poller.fd));
    else if (service(poller.fd, POLLIN) != 0)
        lose(ECONNRESET);
    return m_context != nullptr;
}

/// Serves the connection until `reply` is complete. \returns its result. When the deadline passes
/// or the connection fails, the session has lost it.
int Smb2Session::await(Reply& reply, const QDeadlineTimer& deadline) {
    smb2_context* const context = m_context.get();
    while (!reply.isComplete) {
        // While it connects there may be several, for the several addresses of the server.
        size_t count = 0;
        int untilNextAddress = -1;
        const t_socket* const sockets = smb2_get_fds(context, &count, &untilNextAddress);
        std::array<struct pollfd, 8> pollers = {};
        count = std::min(count, pollers.size());
        const int events = smb2_which_events(context);
        for (size_t i = 0; i < count; ++i)
            pollers[i] = {sockets[i], static_cast<short>(events), 0};

        const int limit = remaining(deadline);
        if (limit == 0)
            return lose(ETIMEDOUT);
        const bool nextIsSooner = untilNextAddress >= 0 && (limit < 0 || untilNextAddress < limit);
        const int ready = poll(pollers.data(), count, nextIsSooner ? untilNextAddress : limit);
        if (ready < 0 && errno != EINTR)
            return lose(errno);
        int failure = 0;
        if (ready > 0) {
            const auto* const poller =
                std::find_if(pollers.begin(), pollers.end(),
                             [](const struct pollfd& candidate) { return candidate.revents != 0; });
            const bool hasSocket = (events & POLLIN) != 0;
            if (hasSocket && (poller->revents & (POLLERR | POLLHUP)))
                return lose(lossOf(poller->fd));
            failure = service(poller->fd, poller->revents);
        } else if (ready == 0 && nextIsSooner) {
            failure = service(-1, 0);
        }
        if (failure != 0) {
            // While it connects, the answer may be why it failed.
            const bool isAnswer = m_dialect == 0 && reply.isComplete && reply.result < 0;
            return lose(isAnswer ? -reply.result : ECONNRESET);
        }
    }
    return reply.result;
}

int Smb2Session::service(int socket, int events) {
    if (!(events & POLLOUT))
        return smb2_service_fd(m_context.get(), socket, events);
    NoPipeSignal noSignal;
    const int result = smb2_service_fd(m_context.get(), socket, events);
    if (result != 0)
        noSignal.discard();
    return result;
}

/// Ends the connection; from here on there is none, for that reason. \returns -reason.
int Smb2Session::lose(int reason) {
    m_whyNot = reason;
    m_context.reset();
    return -reason;
}

} // namespace oru::io
