// SPDX-License-Identifier: Apache-2.0
// Reporting progress to the library.
#include "progress.h"

#include <cerrno>
#include <cstdlib>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/// How long a line waits for a reader that does not read.
constexpr int patienceMs = 1000;

int output = -1;
unsigned long long lastPermille = 0;
bool hasPermille = false;

/// Writes the line if the reader takes it within this time. A pipe with room takes a short line
/// whole.
void report(const std::string& line, int milliseconds) {
    if (output == -1)
        return;
    pollfd writable = {output, POLLOUT, 0};
    if (poll(&writable, 1, milliseconds) != 1)
        return;
    const bool isWritten =
        (writable.revents & POLLOUT) && write(output, line.data(), line.size()) != -1;
    if (!isWritten && errno != EAGAIN) // the reader has gone
        output = -1;
}

} // namespace

void progress::open(const char* number) {
    if (!number)
        return;
    char* end = nullptr;
    const long value = std::strtol(number, &end, 10);
    struct stat status = {};
    if (end == number || *end || value <= STDERR_FILENO || value > 1 << 20)
        return;
    const int fd = static_cast<int>(value);
    if (fstat(fd, &status) == -1 || !(S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode)))
        return;
    if ((fcntl(fd, F_GETFL) & O_ACCMODE) == O_RDONLY)
        return;
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    output = fd;
}

bool progress::isWanted() {
    return output != -1;
}

int progress::descriptor() {
    return output;
}

void progress::phase(const std::string& name) {
    hasPermille = false;
    report("phase " + name + '\n', patienceMs);
}

void progress::permille(unsigned long long done) {
    if (hasPermille && done == lastPermille)
        return;
    hasPermille = true;
    lastPermille = done;
    report("progress " + std::to_string(done) + '\n', 0);
}

void progress::committed() {
    report("committed\n", patienceMs);
}
