// SPDX-License-Identifier: Apache-2.0
// The server's end of the file service: any bytes in the request area.
//
// An input is a session. Each line is one request, as the bytes of the request area. It needs a NUL
// to end before the bytes of earlier requests. In addition to support.h, these bytes are replaced:
//
//     $    the descriptor that the session opened last
//     @    the directory handle that the session opened last
//     !    a descriptor that the server process has opened outside the session
//     &    a directory handle that the server process has opened outside the session

#include "fuzz/support.h"
#include "support/doubles/memfs.h"

#include <oruio/error.h>
#include <oruio/fdadapter.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include "ipc/ipc_server_p.h"

namespace oru::io::test {

namespace {

using namespace ipcwire;

/// A file and a directory that the server process has opened outside the session.
class ForeignFiles {
public:
    ForeignFiles()
        : m_adapter(QSharedPointer<MemFS>::create()),
          m_file(m_adapter.open("/file", O_RDWR | O_CREAT, 0600)),
          m_directory(m_adapter.opendir("/")) {
        m_adapter.write(m_file, content, sizeof content);
    }

    int file() const {
        return m_file;
    }
    void* directory() const {
        return m_directory;
    }

    /// Requires that the file and the directory are unchanged.
    void check() {
        struct stat st;
        char bytes[sizeof content];
        require(m_adapter.fstat(m_file, &st) == 0 && st.st_size == sizeof content &&
                    st.st_mode == (S_IFREG | 0600),
                "a foreign file is unchanged");
        require(m_adapter.lseek(m_file, 0, SEEK_CUR) == sizeof content &&
                    m_adapter.fcntl(m_file, F_GETFL) == O_RDWR,
                "a foreign descriptor is unchanged");
        require(m_adapter.pread(m_file, bytes, sizeof bytes, 0) == sizeof bytes &&
                    std::memcmp(bytes, content, sizeof bytes) == 0,
                "the content of a foreign file is unchanged");
        const struct dirent* const first = m_adapter.readdir(m_directory);
        require(first && std::strcmp(first->d_name, ".") == 0,
                "the position of a foreign directory is unchanged");
        m_adapter.rewinddir(m_directory);
    }

private:
    static constexpr char content[] = "not yours";
    FDAdapter m_adapter;
    const int m_file;
    void* const m_directory;
};

/// A server that checks the arguments of transfers.
class CheckedServer : public IPCServer::Data {
public:
    CheckedServer(QSharedPointer<FS> fs, IPCShm* area) : Data(std::move(fs)) {
        shm = area;
    }

    int read(int fd, void* buf, unsigned int len) override {
        checkTransfer(fd, buf, len);
        return Data::read(fd, buf, len);
    }
    int write(int fd, const void* buf, unsigned int len) override {
        checkTransfer(fd, buf, len);
        return Data::write(fd, buf, len);
    }
    int pread(int fd, void* buf, unsigned int len, long long offset) override {
        checkTransfer(fd, buf, len);
        return Data::pread(fd, buf, len, offset);
    }
    int pwrite(int fd, const void* buf, unsigned int len, long long offset) override {
        checkTransfer(fd, buf, len);
        return Data::pwrite(fd, buf, len, offset);
    }

private:
    void checkTransfer(int fd, const void* buf, unsigned int len) const {
        require(files.contains(fd), "only the session's descriptors are used");
        const Area& area = areaOf(shm);
        const bool isBuffer = buf == area.buffers[0] || buf == area.buffers[1];
        require(isBuffer && len <= dataBufferSize, "a transfer stays within a data buffer");
    }
};

/// The bytes of the area that no request changes: magic number, client mutex and server mutex.
std::string ownershipOf(const Area& area) {
    return {reinterpret_cast<const char*>(&area), offsetof(AreaControl, bufferMutex)};
}

class Session {
public:
    Session(WatchedBlock& block, const ForeignFiles& foreign)
        : m_area(block.area()), m_foreign(foreign),
          m_server(QSharedPointer<MemFS>::create(), block.shm()) {
        require(m_server.resetSession() == 0, "a session begins");
        std::memset(m_server.request.bytes, unwritten, sizeof m_server.request.bytes);
    }

    void request(std::string_view line) {
        const std::string bytes = bytesOf(line, [this](char byte) { return special(byte); });
        std::memset(m_area.response, unwritten, textSize);
        std::memcpy(m_area.request, bytes.data(), std::min(bytes.size(), textSize));
        const std::string ownership = ownershipOf(m_area);
        const char first = requestState(m_area);
        if (!take()) {
            require(!isPublished(first) && requestState(m_area) == first,
                    "a published request is taken, any other bytes are left alone");
            return;
        }
        const bool ends = requestState(m_area) == Ending;
        require(ends || requestState(m_area) == Accepted,
                "the state of a taken request is Accepted or Ending");
        require(m_server.request.end()[0] == '\0' && m_server.request.end()[1] == '\0',
                "a request is followed by two NULs");
        if (ends)
            m_server.process();
        else
            process();
        require(ownershipOf(m_area) == ownership,
                "a request does not change the ownership of the area");
        checkAnswer(ends);
        checkTables();
    }

    void end() {
        require(m_server.resetSession() == 0, "a session ends");
        require(m_server.files.isEmpty() && m_server.dirs.isEmpty(),
                "an ended session has no open files");
        require(requestState(m_area) == Idle, "an ended session leaves the area idle");
        for (const int fd : m_seenFiles)
            require(m_server.lseek(fd, 0, SEEK_CUR) == -1 && liberrno == NotFound,
                    "an ended session has closed its files");
        for (void* const handle : m_seenDirs) {
            m_server.rewinddir(handle);
            require(!m_server.readdir(handle), "an ended session has closed its directories");
        }
    }

private:
    static constexpr char unwritten = '\xee';

    std::string special(char byte) const {
        switch (byte) {
        case '$':
            return std::to_string(m_server.files.isEmpty() ? -1 : m_server.files.last());
        case '@':
            return handleString(m_server.dirs.isEmpty() ? nullptr : m_server.dirs.last());
        case '!':
            return std::to_string(m_foreign.file());
        case '&':
            return handleString(m_foreign.directory());
        default:
            return {};
        }
    }

    static std::string handleString(const void* handle) {
        char string[32];
        std::snprintf(string, sizeof string, "%p", handle);
        return string;
    }

    /// Takes the request, as the server does. It must not read the response area.
    bool take() {
        const OffLimits response(m_area.response, textSize);
        return ipcwire::take(m_area, m_server.request);
    }

    /// Carries out the request, as the server does. It must not read the request area again, nor
    /// the bytes after the request in the server's own copy.
    void process() {
        const OffLimits area(m_area.request, textSize);
        Text& request = m_server.request;
        const std::size_t used = request.length + 2;
        const OffLimits afterRequest(request.bytes + used, sizeof request.bytes - used);
        m_server.process();
    }

    void checkAnswer(bool ended) {
        require(requestState(m_area) == (ended ? Idle : Accepted),
                "an answer does not change the request's state");
        int posts = -1;
        sem_getvalue(&m_area.control.responseSem, &posts);
        require(posts == (ended ? 0 : 1), "a request is answered once");
        sem_trywait(&m_area.control.responseSem);

        require(std::memchr(m_area.response, '\0', textSize), "an answer ends within the area");
        int result = 0;
        int systemError = -1;
        int libraryError = -1;
        FieldReader header(m_area.response);
        header.number(result).separator(',').number(systemError).separator(',');
        header.number(libraryError);
        require(header.isGood() && (header.atEnd() || *header.rest() == ' '),
                "an answer begins with three numbers");
        require(libraryError >= Ok && libraryError <= LibraryFailure,
                "an answer has a valid error code of the library");
    }

    /// Requires that the session's tables hold only descriptors and handles that it has opened. A
    /// closed descriptor may be reused outside the session.
    void checkTables() {
        for (const int fd : std::as_const(m_server.files)) {
            struct stat st;
            require(m_server.fstat(fd, &st) == 0, "the session's descriptors are open");
            m_seenFiles.insert(fd);
        }
        for (void* const handle : std::as_const(m_server.dirs))
            m_seenDirs.insert(handle);
        require(!m_server.files.contains(m_foreign.file()) &&
                    !m_server.dirs.contains(m_foreign.directory()),
                "the session has no foreign descriptor or handle");
    }

    Area& m_area;
    const ForeignFiles& m_foreign;
    CheckedServer m_server;
    std::set<int> m_seenFiles;
    std::set<void*> m_seenDirs;
};

} // namespace

} // namespace oru::io::test

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t size) {
    using namespace oru::io::test;
    static WatchedBlock block;
    static ForeignFiles foreign;
    Session session(block, foreign);
    for (const std::string_view line : linesOf(input, size))
        session.request(line);
    session.end();
    foreign.check();
    return 0;
}
