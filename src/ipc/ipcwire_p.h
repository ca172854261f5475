// SPDX-License-Identifier: Apache-2.0
// The wire format of the file service between processes: names, formats, limits, the layout of the
// shared memory, and the states of a request.
#pragma once

#include <algorithm>
#include <charconv>
#include <cstdarg>
#include <cstddef>
#include <cstdint>

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

/// Marks a block's header as initialised, and an area as owned by a server.
constexpr std::uint32_t magic = 0x0CAB005E;

/// How many bytes an object is larger than its user data.
constexpr unsigned int blockOverhead = 40;
constexpr unsigned int areaSize = 0x205000;
/// The size of a text area. A request or response must be shorter, with all that follows its
/// string.
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

/// The part of the layout that depends on the platform's mutexes and semaphores.
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

/// How much of the area lies within the object. A header that is larger than the overhead takes the
/// difference from the area.
constexpr std::size_t areaRoom = sizeof(BlockHeader) > blockOverhead
                                     ? areaSize + blockOverhead - sizeof(BlockHeader)
                                     : areaSize;
/// The buffers are at the end of the area, so that they lie within the object on each platform.
constexpr std::size_t buffersOffset = areaRoom - std::size_t{dataBuffers} * dataBufferSize;

struct Area {
    AreaControl control;
    char request[textSize];
    char response[textSize];
    std::uint32_t sessions; // how many have begun; the first may have any number
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

/// Whether a server owns the area, by its magic.
bool isOwned(const Area& area);
void setOwned(Area& area, bool owned);

/// Counts a session. The caller has just locked the client mutex. By the count, a client of an
/// earlier release finds that another one has locked the mutex since.
void countSession(Area& area);

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

/// The arguments of requests, as the client formats them.
namespace args {
constexpr char path[] = "%s";
constexpr char twoStrings[] = "%s%c%s"; // with a NUL between them
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

/// The responses, as the server formats them. The header is the result, errno and liberrno. After
/// it comes a blank and a string, or a NUL and a record.
namespace answer {
constexpr char header[] = "%d,%d,%d";
constexpr char tooLong[] = "%d,%d,%d Server Error";
constexpr char text[] = "%s";
constexpr char handle[] = "%p";
constexpr char bufferAndCount[] = "%d %zd";
constexpr char count[] = "%zd";
constexpr char position[] = "%lli";
} // namespace answer

/// The numbers of the lock commands on the wire, on every platform: those of the target.
enum WireLockCommand : int { WireGetLock = 12, WireSetLock = 13, WireSetLockWait = 14 };

/// The number on the wire of a platform's lock command, and back. \returns -1 for other commands.
int wireLockCommand(int command);
int platformLockCommand(int wireCommand);
/// Whether fcntl() carries `command` with an integer argument.
bool isIntegerCommand(int command);

// --- The states of a request --------------------------------------------------------------------
//
// The first byte of the request area is its state, and says which end owns the area. Only the owner
// accesses the rest. So a request is executed once or not at all, even if a semaphore was posted
// several times for it.

enum RequestState : char {
    Idle = 0,     // no session. The client may publish a request.
    Copying = 1,  // the server is copying the request
    Accepted = 2, // the server has the request, or has answered it. The client may read the answer.
    Done = 3,     // the client has its answer or does not want one. It may publish a request.
    Ending = 4,   // the server has accepted "disconnect" and will set the state to Idle
    // Any other byte is the first letter of a published request: the server may accept it, the
    // client may cancel it.
};

/// The current state. Of a published request, its first letter.
char requestState(const Area& area);
inline bool isPublished(char state) {
    return static_cast<unsigned char>(state) > Ending;
}

/// Client: publishes a request in an area that is Idle or Done. `length` counts the
/// bytes of the string with its NUL, and of the record after it.
void publish(Area& area, const char* text, std::size_t length);
/// Client: cancels a published request. \returns false when the server has accepted it before.
bool cancel(Area& area);
/// Client: sets the state to Done, after the answer has been copied or when nobody waits for it.
void setDone(Area& area);

/// A copy of a request or response, which the other end cannot change any more. Two NULs follow it:
/// they end a string without a NUL and make the one after it empty.
struct Text {
    char bytes[textSize + 2];
    std::size_t length;

    const char* end() const {
        return bytes + length;
    }
};

/// Server: copies the published request and wipes the area, so that bytes of this request cannot
/// complete a later one that is cut short. \returns false when no request is published.
bool take(Area& area, Text& request);
/// Server: wipes the request area and sets the state to Idle.
void setIdle(Area& area);

/// Client: copies the response: its string and, after that, as many bytes as the largest record
/// has.
void copyResponse(const Area& area, Text& response);

// --- Formatting and parsing ---------------------------------------------------------------------

/// Formats the fields of a request or response, as vsnprintf(3), in a fraction of its time. Knows
/// the conversions of the formats above.
std::size_t formatFields(char* text, std::size_t size, const char* format, std::va_list args)
    __attribute__((format(printf, 3, 0)));
std::size_t formatFields(char* text, std::size_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

/// Parses the fields of a NUL-terminated string from left to right. After the first field that is
/// malformed it parses nothing more, and isGood() is false.
class FieldReader {
public:
    /// A null string has no fields.
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
    /// Parses an address as "%p" prints it.
    FieldReader& pointer(void*& value);
    FieldReader& separator(char wanted);

    bool isGood() const {
        return m_isGood;
    }
    /// Whether the whole string has been parsed.
    bool atEnd() const {
        return m_next == m_end;
    }
    /// The rest of the string.
    const char* rest() const {
        return m_next;
    }

private:
    const char* m_next;
    const char* m_end;
    bool m_isGood;
};

} // namespace ipcwire

} // namespace oru::io
