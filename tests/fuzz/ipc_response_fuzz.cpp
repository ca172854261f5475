// SPDX-License-Identifier: Apache-2.0
// The client's end of the file service: any bytes in the response area.
//
// An input is a session with an open file and an open directory. Each line is an operation, a
// number that is its argument, and the answer to its request:
//
//     read 100:0,0,0 0 5|
//
// An answer needs a NUL to end before the bytes of earlier answers. In addition to support.h,
//
//     ;    separates the answers to several requests of one operation
//
// Further requests of the operation get the last answer again.

#include "fuzz/support.h"

#include <oruio/error.h>
#include <oruio/fsipc.h>

#include <QByteArray>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/types.h>
#include <unistd.h>

namespace oru::io::test {

namespace {

using namespace ipcwire;

/// A server without a thread. It answers from the input as soon as the client posts a request.
class FakeServer {
public:
    static FakeServer& instance() {
        static FakeServer server;
        return server;
    }

    WatchedBlock block;

    void beginInput() {
        std::memset(area().response, unwritten, textSize);
        endSession();
    }

    void setAnswers(std::string_view answers) {
        m_answers = answers;
        m_isWellFormed.reset();
    }

    /// Takes the posted request and answers it.
    void serve() {
        Text request;
        require(take(area(), request), "a posted request can be taken");
        const std::string_view string(request.bytes);
        require(string.size() < request.length, "a request ends within the area");
        if (requestState(area()) == Ending) {
            endSession();
            return;
        }
        if (string.substr(0, string.find(' ')) == op::connect)
            answer(bytesOf("0,0,0|"));
        else
            answer(nextAnswer());
        // The server releases the data buffer of a write.
        if (string.find("write") < string.find(' ')) {
            for (int i = 0; i < dataBuffers; ++i)
                block.shm()->freeDataBuf(i);
        }
        sem_post(&area().control.responseSem);
    }

    /// Whether the last answer has a valid header; no value when there was no answer.
    std::optional<bool> isWellFormed() const {
        return m_isWellFormed;
    }

    void checkSessionEnded() {
        AreaControl& control = area().control;
        require(requestState(area()) == Idle, "a disconnected client leaves the area idle");
        require(pthread_mutex_trylock(&control.clientMutex) == 0,
                "a disconnected client has released the client mutex");
        pthread_mutex_unlock(&control.clientMutex);
    }

    /// Requires that all data buffers are free between operations.
    void checkBuffers() {
        AreaControl& control = area().control;
        int free = 0;
        sem_getvalue(&control.bufferSem, &free);
        require(free == dataBuffers && control.bufferMap == 0,
                "an operation releases its data buffers");
    }

private:
    static constexpr char unwritten = '\xee';

    Area& area() {
        return block.area();
    }

    void endSession() {
        AreaControl& control = area().control;
        sem_init(&control.requestSem, 1, 0);
        sem_init(&control.responseSem, 1, 0);
        sem_init(&control.bufferSem, 1, dataBuffers);
        control.bufferMap = 0;
        setIdle(area());
    }

    std::string nextAnswer() {
        const std::size_t end = m_answers.find(';');
        const std::string_view next = m_answers.substr(0, end);
        if (end != m_answers.npos)
            m_answers.remove_prefix(end + 1);
        return bytesOf(next);
    }

    void answer(const std::string& bytes) {
        std::memcpy(area().response, bytes.data(), std::min(bytes.size(), textSize));
        Text sent;
        copyResponse(area(), sent);
        int result = 0;
        int systemError = 0;
        int libraryError = 0;
        FieldReader header(sent.bytes);
        header.number(result).separator(',').number(systemError).separator(',');
        header.number(libraryError);
        m_isWellFormed =
            header.isGood() && libraryError >= Ok && (header.atEnd() || *header.rest() == ' ');
    }

    std::string_view m_answers;
    std::optional<bool> m_isWellFormed;
};

struct Client {
    IPCFS fs;
    // Operations use the last one. The others stay open, because closing them sends a request.
    std::vector<QSharedPointer<File>> files;
    std::vector<QSharedPointer<Directory>> directories;
};

// --- Operations ---------------------------------------------------------------------------------
// Each is called with the number of its line. \returns whether it failed; no value when the result
// does not show that.

using Outcome = std::optional<bool>;
using Operation = Outcome (*)(Client& client, long long number);

constexpr unsigned int maxLength = dataBufferSize + 10;

unsigned int lengthOf(long long number) {
    return static_cast<unsigned int>(std::clamp<long long>(number, 0, maxLength));
}

/// Moves data between the file and a memory block of exactly the length. \returns whether that
/// failed.
template <class Call>
Outcome transfer(Client& client, long long number, Call call) {
    if (client.files.empty())
        return {};
    const unsigned int length = lengthOf(number);
    const std::unique_ptr<char[]> bytes(new char[length]);
    const int count = call(*client.files.back(), bytes.get(), length);
    require(count >= -1 && count <= static_cast<int>(std::min(length, dataBufferSize)),
            "a transfer moves at most the requested length");
    return count == -1;
}

template <class Call>
Outcome onFile(Client& client, Call call) {
    return client.files.empty() ? Outcome() : Outcome(call(*client.files.back()) < 0);
}

template <class Call>
Outcome onDirectory(Client& client, Call call) {
    return client.directories.empty() ? Outcome() : Outcome(call(*client.directories.back()));
}

Outcome open(Client& client, long long number) {
    const auto file = client.fs.open("/f", static_cast<int>(number), 0644);
    if (file)
        client.files.push_back(file);
    return file.isNull();
}

Outcome opendir(Client& client, long long) {
    const auto directory = client.fs.opendir("/");
    if (directory)
        client.directories.push_back(directory);
    return directory.isNull();
}

Outcome readlink(Client& client, long long number) {
    const unsigned int size = lengthOf(number);
    const std::unique_ptr<char[]> target(new char[size]);
    const int result = client.fs.readlink("/l", target.get(), size);
    require(result <= 0, "readlink returns no length");
    const std::size_t length = strnlen(target.get(), size);
    const QByteArray padding(static_cast<int>(size - length), '\0');
    if (result == 0)
        require(std::memcmp(target.get() + length, padding.constData(), size - length) == 0,
                "a link's target is followed by NULs");
    return result < 0;
}

Outcome readlinkString(Client& client, long long) {
    QString target;
    const int result = client.fs.readlink("/l", target);
    require(result <= 0, "readlink returns no length");
    require(target.size() <= static_cast<int>(linkTextSize),
            "a link's target has a limited length");
    return result < 0;
}

Outcome readAll(Client& client, long long number) {
    if (client.files.empty())
        return {};
    const unsigned int maxSize = lengthOf(number);
    const auto size = static_cast<unsigned int>(client.files.back()->readAll(maxSize).size());
    require(size <= maxSize, "a file is read up to the size asked for");
    return {};
}

Outcome readdir(Client& client, long long) {
    return onDirectory(client, [](Directory& directory) {
        const struct dirent* const entry = directory.readdir();
        require(!entry || std::memchr(entry->d_name, '\0', sizeof entry->d_name),
                "an entry's name ends within it");
        return !entry;
    });
}

const std::map<std::string_view, Operation> operations = {
    {"open", open},
    {"opendir", opendir},
    {"readlink", readlink},
    {"readlinktext", readlinkString},
    {"readall", readAll},
    {"readdir", readdir},
    {"stat",
     [](Client& c, long long) {
         struct stat st;
         return Outcome(c.fs.stat("/f", st) < 0);
     }},
    {"lstat",
     [](Client& c, long long) {
         struct stat st;
         return Outcome(c.fs.lstat("/f", st) < 0);
     }},
    {"statfs",
     [](Client& c, long long) {
         struct statfs st;
         return Outcome(c.fs.statfs("/f", st) < 0);
     }},
    {"link", [](Client& c, long long) { return Outcome(c.fs.link("/f", "/g") < 0); }},
    {"symlink", [](Client& c, long long) { return Outcome(c.fs.symlink("/f", "/g") < 0); }},
    {"rename", [](Client& c, long long) { return Outcome(c.fs.rename("/f", "/g") < 0); }},
    {"unlink", [](Client& c, long long) { return Outcome(c.fs.unlink("/f") < 0); }},
    {"mkdir", [](Client& c, long long) { return Outcome(c.fs.mkdir("/d", 0755) < 0); }},
    {"rmdir", [](Client& c, long long) { return Outcome(c.fs.rmdir("/d") < 0); }},
    {"truncate",
     [](Client& c, long long number) { return Outcome(c.fs.truncate("/f", number) < 0); }},
    {"chmod", [](Client& c, long long) { return Outcome(c.fs.chmod("/f", 0600) < 0); }},
    {"sync",
     [](Client& c, long long) {
         c.fs.sync();
         return Outcome();
     }},
    {"read",
     [](Client& c, long long number) {
         return transfer(c, number, [](File& f, char* b, unsigned n) { return f.read(b, n); });
     }},
    {"write",
     [](Client& c, long long number) {
         return transfer(c, number, [](File& f, char* b, unsigned n) { return f.write(b, n); });
     }},
    {"pread",
     [](Client& c, long long number) {
         return transfer(c, number, [](File& f, char* b, unsigned n) { return f.pread(b, n, 7); });
     }},
    {"pwrite",
     [](Client& c, long long number) {
         return transfer(c, number, [](File& f, char* b, unsigned n) { return f.pwrite(b, n, 7); });
     }},
    {"lseek",
     [](Client& c, long long number) {
         return onFile(c, [=](File& f) { return f.lseek(number, SEEK_SET); });
     }},
    {"fstat",
     [](Client& c, long long) {
         struct stat st;
         return onFile(c, [&](File& f) { return f.fstat(st); });
     }},
    {"ftruncate",
     [](Client& c, long long number) {
         return onFile(c, [=](File& f) { return f.ftruncate(number); });
     }},
    {"fsync", [](Client& c, long long) { return onFile(c, [](File& f) { return f.fsync(); }); }},
    {"fdatasync",
     [](Client& c, long long) { return onFile(c, [](File& f) { return f.fdatasync(); }); }},
    {"fcntl",
     [](Client& c, long long number) {
         return onFile(c, [=](File& f) { return f.fcntl(F_SETFL, number); });
     }},
    {"lock",
     [](Client& c, long long) {
         struct flock lock = {};
         return onFile(c, [&](File& f) { return f.fcntl(F_SETLK, &lock); });
     }},
    {"flock", [](Client& c, long long) { return onFile(c, [](File& f) { return f.flock(2); }); }},
    {"fchmod",
     [](Client& c, long long) { return onFile(c, [](File& f) { return f.fchmod(0600); }); }},
    {"close", [](Client& c, long long) { return onFile(c, [](File& f) { return f.close(); }); }},
    {"rewinddir",
     [](Client& c, long long) {
         return onDirectory(c, [](Directory& d) { return d.rewinddir() < 0; });
     }},
    {"closedir",
     [](Client& c, long long) {
         return onDirectory(c, [](Directory& d) { return d.closedir() < 0; });
     }},
    {"drop",
     [](Client& c, long long) {
         c.files.clear();
         c.directories.clear();
         return Outcome();
     }},
    {"connect",
     [](Client& c, long long) {
         c.fs.connect(1, nullptr);
         return Outcome();
     }},
    {"disconnect",
     [](Client& c, long long) {
         c.fs.disconnect();
         return Outcome();
     }},
};

/// Runs the operation of a line. Ignores an unknown one.
void operate(FakeServer& server, Client& client, std::string_view line) {
    const std::size_t colon = std::min(line.find(':'), line.size());
    const std::size_t blank = std::min(line.find(' '), colon);
    const auto found = operations.find(line.substr(0, blank));
    if (found == operations.end())
        return;
    long long number = 0;
    if (blank < colon)
        std::from_chars(line.data() + blank + 1, line.data() + colon, number);
    server.setAnswers(line.substr(std::min(colon + 1, line.size())));

    errno = 0;
    liberrno = Ok;
    const Outcome hasFailed = found->second(client, number);
    const int reason = errno;
    server.checkBuffers();
    if (!hasFailed)
        return;
    const auto wasWellFormed = server.isWellFormed();
    if (!wasWellFormed)
        require(!*hasFailed || reason == ENOTCONN || reason == EBADF,
                "an operation without a request succeeds or fails with ENOTCONN or EBADF");
    else if (!*wasWellFormed)
        require(*hasFailed && reason == EBADMSG, "a malformed answer fails with EBADMSG");
}

} // namespace

} // namespace oru::io::test

using oru::io::test::FakeServer;
using oru::io::test::WatchedBlock;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t size) {
    using namespace oru::io::test;
    FakeServer& server = FakeServer::instance();
    server.beginInput();
    Client client;
    require(client.fs.connect(1, nullptr) == 0, "a session begins");
    operate(server, client, "open 2:1024,0,0|");
    operate(server, client, "opendir:0,0,0 0x10|");
    require(!client.files.empty() && !client.directories.empty(),
            "a file and a directory are open");
    for (const std::string_view line : linesOf(input, size))
        operate(server, client, line);
    client.fs.disconnect();
    server.checkSessionEnded();
    return 0;
}

// With --wrap, the linker redirects the library's calls to these functions. The client opens an
// empty object and maps the server's block.
extern "C" {

int __wrap_shm_open(const char*, int, mode_t) {
    static const int object = [] {
        const int fd = memfd_create("object", MFD_CLOEXEC);
        return ftruncate(fd, WatchedBlock::size) == 0 ? fd : -1;
    }();
    return dup(object);
}

void* __wrap_mmap64(void*, size_t, int, int, int, off_t) {
    return FakeServer::instance().block.base();
}

int __wrap_munmap(void*, size_t) {
    return 0;
}

int __real_sem_post(sem_t* semaphore);
int __wrap_sem_post(sem_t* semaphore) {
    FakeServer& server = FakeServer::instance();
    if (semaphore != &server.block.area().control.requestSem)
        return __real_sem_post(semaphore);
    server.serve();
    return 0;
}
}
