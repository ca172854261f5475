// SPDX-License-Identifier: Apache-2.0
// The output of the tools on its way to standard output.
#include "output.h"

#include "status.h"
#include "waiting.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace {

/// A reader that takes nothing for this long counts as gone.
constexpr int patienceMs = 10'000;
/// After poll(2) has reported POLLOUT, a pipe takes this much without blocking.
constexpr std::size_t pieceSize = 4096;
/// The size of the pipe: what a tool can write if both processes of the program are killed.
constexpr int pipeSize = 1 << 20;

int ends[2] = {-1, -1};
std::string held;
long long takenAt = 0; // when standard output last took something
bool isGone = false;

/// \returns how much is taken.
std::size_t take() {
    char bytes[16 * pieceSize];
    const ssize_t result = read(ends[0], bytes, sizeof bytes);
    const std::size_t count = result > 0 ? static_cast<std::size_t>(result) : 0;
    if (!isGone) {
        held.assign(bytes, count);
        takenAt = waiting::now();
    }
    return count;
}

void discard() {
    isGone = true;
    held.clear();
}

void pass() {
    const ssize_t count = write(STDOUT_FILENO, held.data(), std::min(held.size(), pieceSize));
    if (count >= 0) {
        held.erase(0, static_cast<std::size_t>(count));
        takenAt = waiting::now();
    } else if (errno != EAGAIN && errno != EINTR) {
        discard();
    }
}

} // namespace

void output::open() {
    if (pipe2(ends, O_CLOEXEC) == -1)
        fail(Status::NoTool, std::string("no pipe for the tools: ") + std::strerror(errno));
    fcntl(ends[0], F_SETPIPE_SZ, pipeSize); // smaller if the system limits it
}

int output::readEnd() {
    return ends[0];
}

int output::writeEnd() {
    return ends[1];
}

void output::closeWriteEnd() {
    close(ends[1]);
    ends[1] = -1;
}

void output::prepare(pollfd& toRead, pollfd& toWrite) {
    toRead = {held.empty() ? ends[0] : -1, POLLIN, 0};
    toWrite = {held.empty() ? -1 : STDOUT_FILENO, POLLOUT, 0};
}

void output::relay(const pollfd& toRead, const pollfd& toWrite) {
    if (toRead.revents & POLLIN)
        take();
    if (toWrite.revents & POLLOUT)
        pass();
    else if (toWrite.revents || (!held.empty() && waiting::now() - takenAt > patienceMs))
        discard();
}

void output::drain() {
    // A child of the tool that still writes must not keep the program.
    for (std::size_t taken = 0; taken <= pipeSize;) {
        flush();
        pollfd toRead = {ends[0], POLLIN, 0};
        if (poll(&toRead, 1, 0) != 1 || !(toRead.revents & POLLIN))
            return;
        taken += take();
    }
    flush();
}

void output::drainToEnd() {
    for (;;) {
        flush();
        pollfd toRead = {ends[0], POLLIN, 0};
        if (poll(&toRead, 1, -1) == 1 && !(toRead.revents & POLLIN))
            return;
        take();
    }
}

void output::flush() {
    if (held.empty())
        return;
    if (!write(STDOUT_FILENO, held))
        isGone = true;
    held.clear();
}

void output::print(const std::string& line) {
    flush();
    if (!isGone)
        held = line + '\n';
    flush();
}

bool output::write(int fd, const std::string& bytes) {
    std::size_t written = 0;
    while (written < bytes.size()) {
        pollfd writable = {fd, POLLOUT, 0};
        const int ready = poll(&writable, 1, patienceMs);
        if (ready == -1 && errno == EINTR)
            continue;
        if (ready != 1 || !(writable.revents & POLLOUT))
            return false;
        const ssize_t count =
            ::write(fd, bytes.data() + written, std::min(bytes.size() - written, pieceSize));
        if (count >= 0)
            written += static_cast<std::size_t>(count);
        else if (errno != EAGAIN && errno != EINTR)
            return false;
    }
    return true;
}
