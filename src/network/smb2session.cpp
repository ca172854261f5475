// SPDX-License-Identifier: Apache-2.0
#include "network/libsmb2_internals_p.h"
#include "network/libsmb2_p.h"
#include "network/smb2listing_p.h"
#include "network/smb2reply_p.h"
#include "network/smb2session_p.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <utility>

#include <poll.h>
#include <sys/socket.h>

namespace oru::io {

namespace {

/// Blocks SIGPIPE in the calling thread while libsmb2 writes to a connection that the server may
/// have closed. The write's error suffices.
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
        m_wasPending = sigismember(&pending, SIGPIPE) == 1;
    }
    ~NoPipeSignal() {
        pthread_sigmask(SIG_SETMASK, &m_mask, nullptr);
    }
    /// Discards the signal of a write that failed.
    void discard() {
        constexpr struct timespec now = {0, 0};
        if (!m_wasPending)
            sigtimedwait(&m_pipe, nullptr, &now);
    }

private:
    Q_DISABLE_COPY(NoPipeSignal)

    sigset_t m_pipe;
    sigset_t m_mask;
    bool m_wasPending = false;
};

/// Queues a request. Null means that libsmb2 had no memory for it. \returns 0 or a negative errno.
int queue(smb2_context* context, smb2_pdu* request) {
    if (!request)
        return -ENOMEM;
    smb2_queue_pdu(context, request);
    return 0;
}

void fill(smb2_stat_64& st, const smb2_file_all_info& info) {
    st.smb2_type = typeOfAttributes(info.basic.file_attributes);
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

/// A command that opens the file or directory at `path` for the other commands of a request.
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
            result = -EBADMSG; // a success without the record
        smb2_free_data(context, info);
    }
    query->answer(result);
}

void Smb2Session::ContextDeleter::operator()(smb2_context* context) const {
    libsmb2::destroyContext(context);
}

Smb2Session::Smb2Session(unsigned int timeout) : m_timeout(timeout), m_lastError(ENOTCONN) {}

Smb2Session::~Smb2Session() = default;

int Smb2Session::remainingMs(const QDeadlineTimer& deadline) {
    return static_cast<int>(
        std::min<qint64>(deadline.remainingTime(), std::numeric_limits<int>::max()));
}

QDeadlineTimer Smb2Session::deadline() const {
    return m_timeout == 0 ? QDeadlineTimer(QDeadlineTimer::Forever)
                          : QDeadlineTimer(qint64{m_timeout} * 1000);
}

int Smb2Session::lastError() const {
    return m_lastError;
}

const std::string& Smb2Session::message() const {
    return m_message;
}

bool Smb2Session::hasConnection() const {
    return m_context != nullptr;
}

unsigned int Smb2Session::dialect() const {
    return m_dialect;
}

int Smb2Session::isProtected() const {
    return m_isProtected;
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

/// Sends one compound request: the command `open`, the commands that `makeCommand` makes, and a
/// close. libsmb2's own calls of this kind do not check what a successful answer contains, and
/// return the failure of the last command instead of the first.
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

/// Deletes a file or a directory, by setting its disposition, which the server grants or refuses in
/// its answer. libsmb2's own calls use "delete on close" instead: they delete files and directories
/// alike, and succeed for a directory that the server keeps because it is not empty.
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

        // The string is valid during the callback only.
        static void take(smb2_context*, int status, void* text, void* reply) {
            auto* const link = static_cast<Link*>(static_cast<Reply*>(reply));
            if (status == 0 && text)
                link->target = static_cast<const char*>(text);
            link->answer(status);
        }
    };
    // libsmb2 leaks memory when it cannot send this request.
    if (!checkConnection())
        return -m_lastError;
    // libsmb2 uses freed memory if the close is answered before the other two commands. After an
    // echo the order is known.
    if (!m_frames.isOrderKnown()) {
        const int result = echo();
        if (result < 0)
            return result;
    }
    m_frames.setOrdered(true);
    Link link;
    const int result = request(link, deadline(), [&](smb2_context* context, Reply* reply) {
        return smb2_readlink_async(context, path, Link::take, reply);
    });
    m_frames.setOrdered(false);
    if (result < 0)
        return result;
    // The second string is libsmb2's for a kind of link that it does not know. It is not a valid
    // name.
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

/// libsmb2's own call crashes when the connection ends.
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

int Smb2Session::list(const char* path, std::unique_ptr<Smb2Listing>& listing) {
    struct Directory : Reply {
        smb2_file_id id = {};

        static void take(smb2_context*, int status, void* data, void* reply) {
            auto* const opened = static_cast<Directory*>(static_cast<Reply*>(reply));
            if (status == 0)
                std::memcpy(opened->id, static_cast<smb2_create_reply*>(data)->file_id,
                            SMB2_FD_SIZE);
            opened->answer(-nterror_to_errno(status));
        }
    };
    smb2_create_request open = opening(path, SMB2_FILE_LIST_DIRECTORY | SMB2_FILE_READ_ATTRIBUTES,
                                       SMB2_FILE_DIRECTORY_FILE);
    open.file_attributes = SMB2_FILE_ATTRIBUTE_DIRECTORY;
    open.share_access = SMB2_FILE_SHARE_READ | SMB2_FILE_SHARE_WRITE;
    Directory directory;
    const int refused = request(directory, deadline(), [&](smb2_context* context, Reply* reply) {
        return queue(context, smb2_cmd_create_async(context, &open, Directory::take, reply));
    });
    if (refused != 0)
        return refused;

    auto entries = std::make_unique<Smb2Listing>();
    const int result = readEntries(directory.id, *entries);
    smb2_close_request close = {};
    close.flags = SMB2_CLOSE_FLAG_POSTQUERY_ATTRIB;
    std::memcpy(close.file_id, directory.id, SMB2_FD_SIZE);
    const int closed = request([&](smb2_context* context, Reply* reply) {
        return queue(context, smb2_cmd_close_async(context, &close, Reply::takeStatus, reply));
    });
    if (result == 0 && closed == 0)
        listing = std::move(entries);
    return result != 0 ? result : closed;
}

/// Reads the entries of an open directory.
int Smb2Session::readEntries(const std::uint8_t* directory, Smb2Listing& listing) {
    struct Entries : Reply {
        explicit Entries(Smb2Listing& to) : listing(to) {}

        Smb2Listing& listing;
        bool isEnd = false;

        static void take(smb2_context*, int status, void* data, void* reply) {
            auto* const read = static_cast<Entries*>(static_cast<Reply*>(reply));
            switch (static_cast<std::uint32_t>(status)) {
            case SMB2_STATUS_SUCCESS: {
                const auto* const answer = static_cast<smb2_query_directory_reply*>(data);
                // Without a buffer, libsmb2 does not set the pointer.
                const std::uint32_t size = answer->output_buffer_length;
                read->answer(size == 0 ? -EBADMSG
                                       : read->listing.append(answer->output_buffer, size));
                break;
            }
            case SMB2_STATUS_NO_MORE_FILES:
                read->isEnd = true;
                read->answer(0);
                break;
            default:
                read->answer(-nterror_to_errno(status));
            }
        }
    };
    smb2_query_directory_request command = {};
    command.file_information_class = SMB2_FILE_ID_FULL_DIRECTORY_INFORMATION;
    std::memcpy(command.file_id, directory, SMB2_FD_SIZE);
    command.output_buffer_length = Smb2Frames::longestListing;
    command.name = "*";
    constexpr int mostRequests = 10'000; // more than any directory needs
    for (int i = 0; i < mostRequests; ++i) {
        Entries entries(listing);
        const int result = request(entries, deadline(), [&](smb2_context* context, Reply* reply) {
            return queue(context,
                         smb2_cmd_query_directory_async(context, &command, Entries::take, reply));
        });
        if (result != 0 || entries.isEnd)
            return result;
    }
    return -EOVERFLOW;
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
    const int loss = send();
    return loss == 0 ? await(reply, deadline) : fail(loss);
}

/// Reads what has arrived since the last call. \returns whether there still is a connection.
bool Smb2Session::checkConnection() {
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

/// Reads and writes until `reply` is complete. \returns its result. After the deadline (ETIMEDOUT)
/// or a failure of the connection, the session has no connection any more.
int Smb2Session::await(Reply& reply, const QDeadlineTimer& deadline) {
    while (!reply.isComplete()) {
        const int unanswered = reply.unanswered;
        const int loss = exchange(deadline);
        if (reply.unanswered != unanswered)
            m_frames.setAnswered();
        if (loss != 0) {
            // The answer may have arrived before the connection ended.
            const int result = reply.isComplete() ? reply.result : -loss;
            fail(loss);
            return result;
        }
    }
    const bool hasEndOfFile = m_frames.takeEndOfFile();
    return hasEndOfFile && reply.result == 0 ? -EBADMSG : reply.result;
}

/// Sends what is queued. Nearly every request fits into the socket's buffer, so without poll(2)
/// first. \returns 0, or the errno with which the connection ended.
int Smb2Session::send() {
    const libsmb2::CreditSearch search(m_context.get());
    return service(POLLOUT);
}

/// Waits for the socket until `deadline`, then reads or writes. \returns 0, also when a signal has
/// arrived, or the errno with which the connection ended.
int Smb2Session::exchange(const QDeadlineTimer& deadline) {
    smb2_context* const context = m_context.get();
    const int limit = remainingMs(deadline);
    if (limit == 0)
        return ETIMEDOUT;
    struct pollfd poller = {smb2_get_fd(context), static_cast<short>(smb2_which_events(context)),
                            0};
    const int ready = poll(&poller, 1, limit);
    if (ready < 0 && errno != EINTR)
        return errno;
    return ready > 0 ? serve(poller) : 0;
}

/// Reads or writes, by the result of poll(2). \returns 0, or the errno with which the connection
/// ended.
int Smb2Session::serve(const struct pollfd& poller) {
    if (!(poller.revents & (POLLERR | POLLHUP | POLLNVAL)))
        return service(poller.revents);
    // Data received before the connection closed is read first. The read after it returns the
    // error.
    if (poller.revents & POLLIN)
        return service(POLLIN);
    int error = 0;
    socklen_t size = sizeof error;
    getsockopt(poller.fd, SOL_SOCKET, SO_ERROR, &error, &size);
    return lossOf(error);
}

/// Lets libsmb2 read or write. \returns 0, or the errno with which the connection ended.
int Smb2Session::service(int events) {
    smb2_context* const context = m_context.get();
    const t_socket socket = smb2_get_fd(context);
    if (events & POLLIN) {
        const int refused = m_frames.look(socket);
        if (refused == EAGAIN)
            events &= ~POLLIN;
        else if (refused != 0)
            return refused;
    }
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

/// Ends the connection. Later calls fail with `reason`. \returns -reason.
int Smb2Session::fail(int reason) {
    m_lastError = reason;
    if (m_context && m_frames.hasRefused()) {
        m_message = reason == EPERM ? libsmb2::encryptedMessage
                                    : "An answer of the server breaks the protocol";
    } else if (m_context) {
        m_message = smb2_get_error(m_context.get()); // the destruction changes it
    }
    m_context.reset();
    return -reason;
}

} // namespace oru::io
