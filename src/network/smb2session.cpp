#include "network/smb2session_p.h"

#include <QSemaphore>

#include <algorithm>
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
        const std::size_t size = malloc_usable_size(sample);
        const unsigned char* const bytes = bytesOf(sample);
        const std::vector<unsigned char> off(bytes, bytes + size);
        set(sample, 1);
        std::size_t changes = 0;
        for (std::size_t i = 0; i < size; ++i) {
            const unsigned char change = off[i] ^ bytes[i];
            if (change == 0)
                continue;
            ++changes;
            m_offset = i;
            m_mask = change;
        }
        // One bit of one byte, else it is something other than a flag.
        if (changes != 1 || (m_mask & (m_mask - 1)) != 0)
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

    std::size_t m_offset = 0;
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

/// Why a connection ended, by what its socket says.
int lossOf(int error) {
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

/// Whether a server is given by an address: then nobody is asked for it.
bool isAddress(const char* server) {
    addrinfo hints = {};
    hints.ai_flags = AI_NUMERICHOST;
    addrinfo* addresses = nullptr;
    if (getaddrinfo(hostOf(server).c_str(), nullptr, &hints, &addresses) != 0)
        return false;
    freeaddrinfo(addresses);
    return true;
}

/// The reason why no address of a server could even be tried, which libsmb2 tells in a text only.
int connectFailure(smb2_context* context, int result) {
    const char* const text = smb2_get_error(context);
    const auto begins = [text](const char* words) {
        return std::strncmp(text, words, std::strlen(words)) == 0;
    };
    const char* const number = std::strrchr(text, '(');
    const bool isTold = begins("Connect failed") || begins("Failed to open");
    const int error = isTold && number ? std::atoi(number + 1) : 0;
    return error > 0 ? -error : result;
}

/// Queues a request; a null one could not be made. \returns 0 or a negative errno.
int queue(smb2_context* context, smb2_pdu* request) {
    if (!request)
        return -ENOMEM;
    smb2_queue_pdu(context, request);
    return 0;
}

void fill(smb2_stat_64& st, const smb2_file_all_info& info) {
    constexpr std::uint32_t deviceAttribute = 0x40;
    constexpr std::uint32_t otherType = SMB2_TYPE_LINK + 1;
    const std::uint32_t attributes = info.basic.file_attributes;
    st.smb2_type = SMB2_TYPE_FILE;
    if (attributes & deviceAttribute)
        st.smb2_type = otherType;
    if (attributes & SMB2_FILE_ATTRIBUTE_DIRECTORY)
        st.smb2_type = SMB2_TYPE_DIRECTORY;
    if (attributes & SMB2_FILE_ATTRIBUTE_REPARSE_POINT)
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

void fill(struct smb2_statvfs& st, const smb2_file_fs_full_size_info& info) {
    st.f_bsize = info.bytes_per_sector * info.sectors_per_allocation_unit;
    st.f_frsize = st.f_bsize;
    st.f_blocks = info.total_allocation_units;
    st.f_bfree = info.caller_available_allocation_units;
    st.f_bavail = st.f_bfree;
}

smb2_query_info_request infoRequest(std::uint8_t type, std::uint8_t infoClass,
                                    const std::uint8_t* file) {
    smb2_query_info_request request = {};
    request.info_type = type;
    request.file_info_class = infoClass;
    request.output_buffer_length = 0xffff;
    std::memcpy(request.file_id, file, SMB2_FD_SIZE);
    return request;
}

/// To open what there is at `path`, for one request.
smb2_create_request opening(const char* path, std::uint32_t access, std::uint32_t options = 0) {
    smb2_create_request request = {};
    request.requested_oplock_level = SMB2_OPLOCK_LEVEL_NONE;
    request.impersonation_level = SMB2_IMPERSONATION_IMPERSONATION;
    request.desired_access = access;
    request.share_access = SMB2_FILE_SHARE_READ | SMB2_FILE_SHARE_WRITE | SMB2_FILE_SHARE_DELETE;
    request.create_disposition = SMB2_FILE_OPEN;
    request.create_options = options;
    request.name = path;
    return request;
}

} // namespace

/// What comes of a request of one command or more.
struct Smb2Session::Reply {
    int unanswered = 1; ///< commands
    int result = 0;     ///< of the first that failed, a negative errno; else 0 or a count
    int renewals = 0;   ///< how many requests after the first have a deadline of their own
    void* data = nullptr;

    bool isComplete() const {
        return unanswered == 0;
    }
    void answer(int status, void* replyData = nullptr) {
        if (result == 0)
            result = status;
        data = replyData;
        --unanswered;
    }

    /// For requests whose status libsmb2 translates.
    static void take(smb2_context*, int status, void* data, void* reply) {
        static_cast<Reply*>(reply)->answer(status, data);
    }
    /// For connecting, where libsmb2 has the sign of some failures wrong, and -1 for an answer that
    /// it cannot read.
    static void takeConnection(smb2_context*, int status, void*, void* reply) {
        static_cast<Reply*>(reply)->answer(status == -1 ? -ECONNRESET : -std::abs(status));
    }
    /// For commands whose status is the server's.
    static void takeStatus(smb2_context*, int status, void*, void* reply) {
        static_cast<Reply*>(reply)->answer(-nterror_to_errno(status));
    }
    /// For a command that asks for an `Info`, for the `Attributes` of a Query.
    template <class Info, class Attributes>
    static void takeInfo(smb2_context* context, int status, void* data, void* reply);
};

template <class Attributes>
struct Smb2Session::Query : Reply {
    explicit Query(Attributes& to) : attributes(to) {}

    Attributes& attributes;
};

template <class Info, class Attributes>
void Smb2Session::Reply::takeInfo(smb2_context* context, int status, void* data, void* reply) {
    auto* const query = static_cast<Query<Attributes>*>(static_cast<Reply*>(reply));
    int result = -nterror_to_errno(status);
    if (status == 0) {
        void* const info = static_cast<smb2_query_info_reply*>(data)->output_buffer;
        if (info)
            fill(query->attributes, *static_cast<const Info*>(info));
        else
            result = -EBADMSG; // a success that tells nothing
        smb2_free_data(context, info);
    }
    query->answer(result);
}

/// The beginning of a connection: libsmb2 looks the name of the server up before it returns, which
/// takes as long as the resolver likes.
struct Smb2Session::Attempt {
    std::string server;
    std::string share;
    Reply reply;
    std::unique_ptr<smb2_context, ContextDeleter> context; // goes first, and writes the reply
    std::atomic<int> result = 0;                           // set when all before it is
    QSemaphore hasBegun;

    void begin() {
        // No user: it is set. Were it set again, a password from libsmb2's own file would replace
        // ours.
        const int refused = smb2_connect_share_async(context.get(), server.c_str(), share.c_str(),
                                                     nullptr, Reply::takeConnection, &reply);
        result = refused == 0 ? 0 : connectFailure(context.get(), refused);
        hasBegun.release();
    }

    static void* run(void* shared) {
        const std::unique_ptr<std::shared_ptr<Attempt>> attempt(
            static_cast<std::shared_ptr<Attempt>*>(shared));
        (*attempt)->begin();
        return nullptr;
    }
};

void Smb2Session::ContextDeleter::operator()(smb2_context* context) const {
    destroyContext(context);
}

Smb2Session::Smb2Session(unsigned int timeout) : m_timeout(timeout), m_lastError(ENOTCONN) {}

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

// --- Connecting ---------------------------------------------------------------------------------

int Smb2Session::connect(const Login& login, const QDeadlineTimer& deadline) {
    const auto attempt = std::make_shared<Attempt>();
    attempt->server = login.server;
    attempt->share = login.share;
    attempt->context.reset(makeContext());
    if (!attempt->context)
        return -ENOMEM;
    smb2_context* const context = attempt->context.get();
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

    const int result = establish(attempt, deadline);
    if (result < 0) {
        fail(ENOTCONN);
        return result;
    }
    m_dialect = smb2_get_dialect(context);
    const int isSigned = HiddenFlag(smb2_set_sign).of(context);
    const int isSealed = HiddenFlag(smb2_set_seal).of(context);
    m_isProtected = std::min(isSigned, isSealed) < 0 ? -ENOTSUP : isSigned | isSealed;
    return 0;
}

int Smb2Session::establish(const std::shared_ptr<Attempt>& attempt,
                           const QDeadlineTimer& deadline) {
    const int refused = begin(attempt, deadline);
    if (refused != 0)
        return refused;
    m_context = std::move(attempt->context);
    const int failed = reach(deadline);
    if (failed != 0)
        return failed;
    const int result = await(attempt->reply, deadline);
    return m_context || result < 0 ? result : -m_lastError;
}

/// A name is looked up on a thread that nobody has to wait for.
int Smb2Session::begin(const std::shared_ptr<Attempt>& attempt, const QDeadlineTimer& deadline) {
    if (isAddress(attempt->server.c_str())) {
        attempt->begin();
        return attempt->result;
    }
    auto shared = std::make_unique<std::shared_ptr<Attempt>>(attempt);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    // The program's signals are for its own threads.
    sigset_t all;
    sigset_t mask;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &mask);
    pthread_t thread;
    const int error = pthread_create(&thread, &attributes, &Attempt::run, shared.get());
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    pthread_attr_destroy(&attributes);
    if (error != 0)
        return -error;
    static_cast<void>(shared.release()); // the thread's
    if (!attempt->hasBegun.tryAcquire(1, remaining(deadline)))
        return -ETIMEDOUT;
    return attempt->result;
}

/// Waits until the server has taken the connection, at one of its addresses. They are tried one
/// after another: of several attempts at a time libsmb2 may close the wrong socket. One that does
/// not answer gets an eighth of the time that is left, as long as there are others: each is on
/// libsmb2's list three times, once for each type of socket, so that a sole one is tried anew
/// twice.
int Smb2Session::reach(const QDeadlineTimer& deadline) {
    smb2_context* const context = m_context.get();
    const auto isConnecting = [context] { return (smb2_which_events(context) & POLLIN) == 0; };
    while (isConnecting()) {
        size_t count = 0;
        int untilNext = -1;
        struct pollfd poller = {*smb2_get_fds(context, &count, &untilNext), POLLOUT, 0};
        const bool isLast = untilNext < 0;
        QDeadlineTimer share = deadline;
        if (!isLast && !deadline.isForever())
            share.setRemainingTime(deadline.remainingTime() / 8);

        int ready = 0;
        do
            ready = poll(&poller, 1, remaining(share));
        while (ready < 0 && errno == EINTR);
        if (ready < 0)
            return -errno;
        int error = ETIMEDOUT;
        socklen_t size = sizeof error;
        if (ready > 0)
            getsockopt(poller.fd, SOL_SOCKET, SO_ERROR, &error, &size);
        if (isLast && error != 0)
            return -error;
        // For libsmb2 POLLERR is to close this socket, and to try the next address.
        const int failed = smb2_service_fd(context, poller.fd, error == 0 ? POLLOUT : POLLERR);
        if (failed != 0)
            return -error;
    }
    return 0;
}

int Smb2Session::disconnect(const QDeadlineTimer& deadline) {
    Reply leaving;
    const int result = request(leaving, deadline, [](smb2_context* context, Reply* reply) {
        return queue(context, smb2_cmd_tree_disconnect_async(context, Reply::takeStatus, reply));
    });
    if (result < 0)
        return result;
    Reply loggingOff;
    request(loggingOff, deadline, [](smb2_context* context, Reply* reply) {
        return queue(context, smb2_cmd_logoff_async(context, Reply::takeStatus, reply));
    });
    fail(ENOTCONN);
    return 0;
}

int Smb2Session::echo() {
    return request([](smb2_context* context, Reply* reply) {
        return smb2_echo_async(context, Reply::take, reply);
    });
}

// --- Paths --------------------------------------------------------------------------------------

/// One request: opens something, does what the commands say that `makeCommand` makes, if any, and
/// closes it. libsmb2's own calls of this kind trust a success to tell what was asked, and report
/// the failure of the last command in place of the first.
template <class... MakeCommand>
int Smb2Session::whileOpen(Reply& reply, smb2_create_request open, MakeCommand... makeCommand) {
    smb2_close_request close = {};
    std::memcpy(close.file_id, compound_file_id, SMB2_FD_SIZE);
    return request(reply, deadline(), [&](smb2_context* context, Reply*) {
        smb2_pdu* const first = smb2_cmd_create_async(context, &open, Reply::takeStatus, &reply);
        if (!first)
            return -ENOMEM;
        const auto add = [&](smb2_pdu* command) {
            if (command) {
                smb2_add_compound_pdu(context, first, command);
                ++reply.unanswered;
            }
            return command != nullptr;
        };
        const bool isWhole = (add(makeCommand(context)) && ...) &&
                             add(smb2_cmd_close_async(context, &close, Reply::takeStatus, &reply));
        if (!isWhole) {
            smb2_free_pdu(context, first);
            return -ENOMEM;
        }
        return queue(context, first);
    });
}

template <class Info, class Attributes>
int Smb2Session::query(const char* path, std::uint8_t type, std::uint8_t infoClass,
                       Attributes& attributes) {
    smb2_query_info_request command = infoRequest(type, infoClass, compound_file_id);
    Query<Attributes> reply(attributes);
    return whileOpen(reply, opening(path, SMB2_FILE_READ_ATTRIBUTES), [&](smb2_context* context) {
        return smb2_cmd_query_info_async(context, &command, Reply::takeInfo<Info, Attributes>,
                                         static_cast<Reply*>(&reply));
    });
}

int Smb2Session::change(smb2_create_request open, std::uint8_t infoClass, void* info) {
    smb2_set_info_request command = {};
    command.info_type = SMB2_0_INFO_FILE;
    command.file_info_class = infoClass;
    command.input_data = info;
    std::memcpy(command.file_id, compound_file_id, SMB2_FD_SIZE);
    Reply reply;
    return whileOpen(reply, open, [&](smb2_context* context) {
        return smb2_cmd_set_info_async(context, &command, Reply::takeStatus, &reply);
    });
}

int Smb2Session::stat(const char* path, smb2_stat_64& st) {
    return query<smb2_file_all_info>(path, SMB2_0_INFO_FILE, SMB2_FILE_ALL_INFORMATION, st);
}

int Smb2Session::statvfs(const char* path, struct smb2_statvfs& st) {
    return query<smb2_file_fs_full_size_info>(path, SMB2_0_INFO_FILESYSTEM,
                                              SMB2_FILE_FS_FULL_SIZE_INFORMATION, st);
}

int Smb2Session::mkdir(const char* path) {
    smb2_create_request make = opening(path, SMB2_FILE_READ_ATTRIBUTES, SMB2_FILE_DIRECTORY_FILE);
    make.create_disposition = SMB2_FILE_CREATE;
    make.file_attributes = SMB2_FILE_ATTRIBUTE_DIRECTORY;
    Reply reply;
    return whileOpen(reply, make);
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
    smb2_file_disposition_info disposition = {};
    disposition.delete_pending = 1;
    return change(opening(path, SMB2_DELETE, options | SMB2_FILE_OPEN_REPARSE_POINT),
                  SMB2_FILE_DISPOSITION_INFORMATION, &disposition);
}

int Smb2Session::rename(const char* from, const char* to) {
    std::string name = to;
    std::replace(name.begin(), name.end(), '/', '\\');
    smb2_file_rename_info renaming = {};
    renaming.file_name = reinterpret_cast<const std::uint8_t*>(name.c_str());
    return change(opening(from, SMB2_DELETE), SMB2_FILE_RENAME_INFORMATION, &renaming);
}

int Smb2Session::truncate(const char* path, std::uint64_t length) {
    smb2_file_end_of_file_info end = {length};
    return change(opening(path, SMB2_GENERIC_WRITE), SMB2_FILE_END_OF_FILE_INFORMATION, &end);
}

int Smb2Session::readlink(const char* path, std::string& target) {
    struct Link : Reply {
        std::string target;

        // The text is there during the callback only.
        static void take(smb2_context*, int status, void* text, void* reply) {
            auto* const link = static_cast<Link*>(static_cast<Reply*>(reply));
            if (status == 0 && text)
                link->target = static_cast<const char*>(text);
            link->answer(status);
        }
    };
    // libsmb2 loses some memory when it cannot send this one.
    if (!isStillThere())
        return -m_lastError;
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

// --- Files --------------------------------------------------------------------------------------

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
        return -m_lastError;
    if (count == 0)
        return 0;
    constexpr int largestErrno = 4095;
    const int moved = request(submit);
    const bool isErrno = moved < 0 && moved >= -largestErrno;
    if (!isErrno && static_cast<std::uint32_t>(moved) > count)
        return fail(ECONNRESET); // no answer to what was asked
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
    return m_context ? smb2_lseek(m_context.get(), file, offset, SEEK_SET, nullptr) : -m_lastError;
}

std::int64_t Smb2Session::offsetOf(smb2fh* file) const {
    return m_context ? smb2_lseek(m_context.get(), file, 0, SEEK_CUR, nullptr) : -m_lastError;
}

/// Not libsmb2's own call, which does not survive the end of the connection.
int Smb2Session::fstat(smb2fh* file, smb2_stat_64& st) {
    Query<smb2_stat_64> reply(st);
    return request(reply, deadline(), [&](smb2_context* context, Reply* to) {
        smb2_query_info_request command =
            infoRequest(SMB2_0_INFO_FILE, SMB2_FILE_ALL_INFORMATION, *smb2_get_file_id(file));
        return queue(context,
                     smb2_cmd_query_info_async(
                         context, &command, Reply::takeInfo<smb2_file_all_info, smb2_stat_64>, to));
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

// --- Directories --------------------------------------------------------------------------------

int Smb2Session::opendir(const char* path, smb2dir*& dir) {
    Reply opened;
    opened.renewals = 10'000; // more than any listing has: one without an end has an end
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

// --- Requests and answers -----------------------------------------------------------------------

template <class Submit>
int Smb2Session::request(Submit submit) {
    Reply reply;
    return request(reply, deadline(), submit);
}

template <class Submit>
int Smb2Session::request(Reply& reply, const QDeadlineTimer& deadline, Submit submit) {
    if (!m_context)
        return -m_lastError;
    const int refused = submit(m_context.get(), &reply);
    if (refused != 0)
        return refused == -1 ? -ENOMEM : refused;
    // Nearly every request fits into the socket's buffer: poll(2) need not be asked first.
    const int loss = service(POLLOUT);
    return loss == 0 ? await(reply, deadline) : fail(loss);
}

/// Whether there is a connection. Notices a server that has ended it since the last call.
bool Smb2Session::isStillThere() {
    if (!m_context)
        return false;
    struct pollfd poller = {smb2_get_fd(m_context.get()), POLLIN, 0};
    if (poll(&poller, 1, 0) > 0) {
        const int loss = serve(poller);
        if (loss != 0)
            fail(loss);
    }
    return m_context != nullptr;
}

/// Serves the connection until `reply` is complete. \returns its result. When the deadline passes
/// or the connection fails, the session has lost it.
int Smb2Session::await(Reply& reply, QDeadlineTimer deadline) {
    smb2_context* const context = m_context.get();
    bool hadRequest = true;
    while (!reply.isComplete()) {
        const auto events = static_cast<short>(smb2_which_events(context));
        // Of several requests libsmb2 queues the next one when it has all of the answer before it.
        const bool hasRequest = (events & POLLOUT) != 0;
        if (hasRequest && !hadRequest && reply.renewals > 0) {
            deadline = this->deadline();
            --reply.renewals;
        }
        hadRequest = hasRequest;
        const int limit = remaining(deadline);
        if (limit == 0)
            return fail(ETIMEDOUT);
        struct pollfd poller = {smb2_get_fd(context), events, 0};
        const int ready = poll(&poller, 1, limit);
        if (ready < 0 && errno != EINTR)
            return fail(errno);
        const int loss = ready > 0 ? serve(poller) : 0;
        if (loss != 0) {
            // The answer may be the last that came.
            const int result = reply.isComplete() ? reply.result : -loss;
            fail(loss);
            return result;
        }
    }
    return reply.result;
}

/// Does what poll(2) says can be done. \returns 0, or why the connection has ended.
int Smb2Session::serve(const struct pollfd& poller) {
    if (!(poller.revents & (POLLERR | POLLHUP | POLLNVAL)))
        return service(poller.revents);
    // What had come before is still to be read, and behind it why nothing more comes.
    if (poller.revents & POLLIN)
        return service(POLLIN);
    int error = 0;
    socklen_t size = sizeof error;
    getsockopt(poller.fd, SOL_SOCKET, SO_ERROR, &error, &size);
    return lossOf(error);
}

/// \returns 0, or why the connection has ended.
int Smb2Session::service(int events) {
    smb2_context* const context = m_context.get();
    const t_socket socket = smb2_get_fd(context);
    errno = 0;
    if (!(events & POLLOUT))
        return smb2_service_fd(context, socket, events) == 0 ? 0 : lossOf(errno);
    NoPipeSignal noSignal;
    if (smb2_service_fd(context, socket, events) == 0)
        return 0;
    const int error = errno;
    noSignal.discard();
    return lossOf(error);
}

/// Ends the connection; from here on there is none, for that reason. \returns -reason.
int Smb2Session::fail(int reason) {
    m_lastError = reason;
    m_context.reset();
    return -reason;
}

} // namespace oru::io
