// What the two ends of the file service between processes agree on: names, formats, limits, the
// layout of the shared memory, and how a request changes hands.
#pragma once

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <ctime>

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/stat.h>
#include <sys/vfs.h>

namespace oru::io {

class IPCShm;

namespace ipcwire {

// --- Names and limits ---------------------------------------------------------------------------

constexpr char blockName[] = "fsipc";
constexpr char blockNameFormat[] = "/_blk_%s";

/// Says that a block's header, or a server's area, is in order.
constexpr std::uint32_t magic = 0x0CAB005E;

/// How much larger an object is than its user data.
constexpr unsigned int blockOverhead = 40;
constexpr unsigned int areaSize = 0x205000;
/// A text area, which a text with all that follows it must not fill.
constexpr std::size_t textSize = 8704;
constexpr int dataBuffers = 2;
constexpr unsigned int dataBufferSize = 1U << 20;
constexpr unsigned int linkTextSize = 4096;
/// The largest record that follows a response.
constexpr std::size_t recordSize =
    std::max({sizeof(struct stat), sizeof(struct statfs), sizeof(struct dirent)});

constexpr int answerTimeoutMs = 10'000;
constexpr int clientPollMs = 30'000;
constexpr int bufferTimeoutS = 2;

enum DebugBit : unsigned int {
    TraceServer = 1,
    TraceClient = 2,
    TraceLifecycle = 4,
};

// --- Layout -------------------------------------------------------------------------------------

struct BlockHeader {
    std::uint32_t magic;
    pthread_mutex_t mutex;
    std::uint32_t size; // of the whole object
};

/// Where each platform's own mutexes and semaphores make a difference.
struct AreaControl {
    std::uint32_t magic; // a server owns the area
    pthread_mutex_t clientMutex;
    pthread_mutex_t serverMutex;
    pthread_mutex_t bufferMutex;
    sem_t requestSem;
    sem_t responseSem;
    sem_t bufferSem;
    std::uint32_t bufferMap; // bit i: data buffer i is in use; guarded by bufferMutex
};

/// What of the area lies within the object. A header larger than the overhead takes the rest.
constexpr std::size_t areaRoom = sizeof(BlockHeader) > blockOverhead
                                     ? areaSize + blockOverhead - sizeof(BlockHeader)
                                     : areaSize;
/// The buffers keep their place at the end, so that they never leave the object.
constexpr std::size_t buffersOffset = areaRoom - std::size_t{dataBuffers} * dataBufferSize;

struct Area {
    AreaControl control;
    char request[textSize];
    char response[textSize];
    std::uint32_t sessions; // how many have begun; counted by who has just taken clientMutex
    char unused[buffersOffset - sizeof(AreaControl) - 2 * textSize - sizeof(std::uint32_t)];
    char buffers[dataBuffers][dataBufferSize];
};

static_assert(sizeof(BlockHeader) + sizeof(Area) <= areaSize + blockOverhead, "inside the object");
static_assert(offsetof(Area, buffers) == buffersOffset, "the buffers are the last 2 MiB");

#if defined(__arm__)
static_assert(sizeof(pthread_mutex_t) == 24 && sizeof(sem_t) == 16);
static_assert(offsetof(BlockHeader, magic) == 0 && offsetof(BlockHeader, mutex) == 4 &&
              offsetof(BlockHeader, size) == 28 && sizeof(BlockHeader) == 32);
static_assert(offsetof(AreaControl, magic) == 0 && offsetof(AreaControl, clientMutex) == 4 &&
              offsetof(AreaControl, serverMutex) == 28 && offsetof(AreaControl, bufferMutex) == 52);
static_assert(offsetof(AreaControl, requestSem) == 76 && offsetof(AreaControl, responseSem) == 92 &&
              offsetof(AreaControl, bufferSem) == 108 && offsetof(AreaControl, bufferMap) == 124);
static_assert(offsetof(Area, request) == 128 && offsetof(Area, response) == 8832 &&
              offsetof(Area, sessions) == 17536 && sizeof(Area::sessions) == 4 &&
              offsetof(Area, unused) == 17540 && sizeof(Area::unused) == 2940);
static_assert(offsetof(Area, buffers) == 0x5000 && sizeof(Area) == areaSize);
static_assert(sizeof(struct stat) == 104 && sizeof(struct statfs) == 88 &&
              sizeof(struct dirent) == 280 && sizeof(struct flock) == 32);
#endif

/// The user data of the block that is mapped there.
inline IPCShm* shmAt(void* base) {
    return reinterpret_cast<IPCShm*>(static_cast<char*>(base) + sizeof(BlockHeader));
}
inline Area& areaOf(IPCShm* shm) {
    return *reinterpret_cast<Area*>(shm);
}

/// Whether a server owns the area, as far as its magic tells.
bool isOwned(const Area& area);
void setOwned(Area& area, bool owned);

/// Counts one more session. \returns its number. Only for the holder of the client mutex.
std::uint32_t beginSession(Area& area);
/// The number of the last session that has begun. What it starts from makes no difference.
std::uint32_t lastSession(const Area& area);

// --- Operations ---------------------------------------------------------------------------------

namespace op {
constexpr char connect[] = "connect";
constexpr char disconnect[] = "disconnect";
constexpr char mkdir[] = "mkdir";
constexpr char rmdir[] = "rmdir";
constexpr char statfs[] = "statfs";
constexpr char stat[] = "stat";
constexpr char lstat[] = "lstat";
constexpr char link[] = "link";
constexpr char symlink[] = "symlink";
constexpr char unlink[] = "unlink";
constexpr char readlink[] = "readlink";
constexpr char rename[] = "rename";
constexpr char chmod[] = "chmod";
constexpr char truncate[] = "truncate";
constexpr char sync[] = "sync";
constexpr char opendir[] = "opendir";
constexpr char readdir[] = "readdir";
constexpr char rewinddir[] = "rewinddir";
constexpr char closedir[] = "closedir";
constexpr char open[] = "open";
constexpr char read[] = "read";
constexpr char write[] = "write";
constexpr char pread[] = "pread";
constexpr char pwrite[] = "pwrite";
constexpr char lseek[] = "lseek";
constexpr char ftruncate[] = "ftruncate";
constexpr char fsync[] = "fsync";
constexpr char fdatasync[] = "fdatasync";
constexpr char fstat[] = "fstat";
constexpr char fcntl[] = "fcntl";
constexpr char flock[] = "flock";
constexpr char fchmod[] = "fchmod";
constexpr char close[] = "close";
} // namespace op

/// The arguments of requests, as the client writes them.
namespace args {
constexpr char path[] = "%s";
constexpr char twoTexts[] = "%s%c%s"; // with a NUL between them
constexpr char modeAndPath[] = "%d %s";
constexpr char lengthAndPath[] = "%llu %s";
constexpr char handle[] = "%p";
constexpr char open[] = "%d %d %s";             // flags, mode, path
constexpr char transfer[] = "%d %d %zu";        // descriptor, data buffer, count
constexpr char transferAt[] = "%d %d %zu %llu"; // and the offset
constexpr char lseek[] = "%d %lli %d";          // descriptor, offset, whence
constexpr char fdAndLength[] = "%d %lli";
constexpr char fd[] = "%d";
constexpr char fdAndNumber[] = "%d %d";
constexpr char fdAndTwoNumbers[] = "%d %d %d";
} // namespace args

/// The responses, as the server writes them: the header is the result, errno and liberrno; behind
/// it comes a blank and a text, or a NUL and a record.
namespace answer {
constexpr char header[] = "%d,%d,%d";
constexpr char tooLong[] = "%d,%d,%d Server Error";
constexpr char text[] = "%s";
constexpr char handle[] = "%p";
constexpr char bufferAndCount[] = "%d %zd";
constexpr char count[] = "%zd";
constexpr char position[] = "%lli";
} // namespace answer

/// The lock commands have the target's numbers on the wire, whatever the platform calls them.
enum WireLockCommand : int { WireGetLock = 12, WireSetLock = 13, WireSetLockWait = 14 };

/// The wire's number of a platform's lock command, and back; -1 for other commands.
int wireLockCommand(int command);
int platformLockCommand(int wireCommand);
/// Whether fcntl() carries `command` with an integer argument.
bool isIntegerCommand(int command);

// --- How a request changes hands ----------------------------------------------------------------
//
// The first byte of the request area says whose the area is. Only its owner touches the rest, so a
// request is carried out once or not at all, however many times a semaphore was posted for it.

enum RequestState : char {
    Idle = 0,     // no session: the client's to write
    Copying = 1,  // the server is copying the request out
    Accepted = 2, // the server has the request, or has answered it: the client's to read the answer
    Done = 3,     // the client has its answer, or wants none: the client's to write
    Ending = 4,   // the server has a "disconnect" and is about to make the area idle
    // Any other byte begins the name of a request: the server's to take, the client's to withdraw.
};

/// What the first byte is right now. A request reads as its first letter.
char requestState(const Area& area);
inline bool isPublished(char mark) {
    return static_cast<unsigned char>(mark) > Ending;
}

/// Client: puts a request into an area that is idle or done. `text` has `length` bytes, with the
/// NUL and what follows it.
void publish(Area& area, const char* text, std::size_t length);
/// Client: takes a request back. \returns false when the server was faster.
bool cancel(Area& area);
/// Client: the answer has been copied out, or nobody will come for it.
void setDone(Area& area);

/// A request or response, copied out of the area: nothing that the other end does afterwards
/// changes it. Behind it stand two NULs: even behind a text without an end begins another, empty
/// one.
struct Text {
    char bytes[textSize + 2];
    std::size_t length;

    const char* end() const {
        return bytes + length;
    }
};

/// Server: takes the request out of the area and wipes it, so that a later one that is cut short is
/// not completed by what stood there before. \returns false when there is none.
bool take(Area& area, Text& request);
/// Server: no session, nothing in the request area.
void setIdle(Area& area);

/// Client: copies the response, with as much behind its text as may be a record.
void copyResponse(const Area& area, Text& response);

// --- Reading what the other end wrote -----------------------------------------------------------

/// Reads numbers one after the other from a NUL-terminated text. After the first thing that is not
/// as expected, nothing more is read and isGood() is false.
class FieldReader {
public:
    /// A null text has no fields.
    explicit FieldReader(const char* text);

    template <class Number>
    FieldReader& number(Number& value) {
        if (!m_isGood)
            return *this;
        const auto [next, error] = std::from_chars(m_next, m_end, value);
        m_isGood = error == std::errc();
        m_next = next;
        return *this;
    }
    /// An address as "%p" writes it.
    FieldReader& pointer(void*& value);
    FieldReader& separator(char wanted);

    bool isGood() const {
        return m_isGood;
    }
    /// Whether all has been read.
    bool atEnd() const {
        return m_next == m_end;
    }
    /// What has not been read yet.
    const char* rest() const {
        return m_next;
    }

private:
    const char* m_next;
    const char* m_end;
    bool m_isGood;
};

// --- Mutexes ------------------------------------------------------------------------------------

/// The attributes of robust mutexes that other processes may use.
class SharedMutexAttributes {
public:
    SharedMutexAttributes();
    ~SharedMutexAttributes();
    SharedMutexAttributes(const SharedMutexAttributes&) = delete;
    SharedMutexAttributes& operator=(const SharedMutexAttributes&) = delete;

    /// The errors of pthread_mutexattr_init(3), and of making the attributes robust and shared.
    int initError() const {
        return m_initError;
    }
    int setError() const {
        return m_setError;
    }
    /// Initialises `mutex`. \returns 0 or an error number.
    int makeMutex(pthread_mutex_t& mutex) const;

private:
    pthread_mutexattr_t m_attributes;
    int m_initError;
    int m_setError = 0;
};

/// Takes a mutex until `deadline` on CLOCK_REALTIME; at once, or not at all, when that is null. The
/// death of a holder is made good. \returns 0 or an error number.
int lockShared(pthread_mutex_t& mutex, const struct timespec* deadline);

/// sem_timedwait(3), which goes on after a signal handler has run. A null deadline is none.
int waitFor(sem_t& semaphore, const struct timespec* deadline);

/// Looks for what the other end usually does soon, before a wait: for a moment in which the thread
/// only makes way for others. For one thread.
///
/// Putting a processor to sleep and waking it up takes longer than most exchanges. On a processor
/// that others keep busy, though, making way costs a whole slice of time: then a growing number of
/// waits goes without it.
class SpinWaiter {
public:
    /// \returns whether the semaphore was taken.
    bool take(sem_t& semaphore);

private:
    static constexpr unsigned int fewestSkipped = 16;
    unsigned int m_toSkip = 0;              // waits that do not poll
    unsigned int m_skipped = fewestSkipped; // as many after the next poll that took too long
    unsigned int m_goodPolls = 0;           // in a row
};

} // namespace ipcwire

} // namespace oru::io
