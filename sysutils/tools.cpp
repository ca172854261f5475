// SPDX-License-Identifier: Apache-2.0
// Running the distribution's tools.
#include "tools.h"

#include "cancel.h"
#include "output.h"
#include "status.h"
#include "waiting.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr const char* directories[] = {"/usr/sbin", "/usr/bin", "/sbin", "/bin"};
char pathVariable[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
char localeVariable[] = "LC_ALL=C";

constexpr int stepMs = 1000; // how often a reader that does not read is looked at
constexpr int termMs = 5000; // for a cancelled tool
constexpr std::size_t longestLine = 4096;

/// A tool that runs.
class Run {
public:
    Run(const tools::Arguments& arguments, const std::vector<int>& inherited);
    int waitForEnd(tools::LinePipe* lines);

private:
    [[noreturn]] void become(const std::string& path, const tools::Arguments& arguments,
                             const std::vector<int>& inherited) const;
    void cancelIfRequested();
    void step(tools::LinePipe* lines);

    pid_t m_id = -1;
    long long m_cancelledAt = 0;
};

Run::Run(const tools::Arguments& arguments, const std::vector<int>& inherited) {
    const std::string path = tools::find(arguments[0]);
    m_id = fork();
    if (m_id == 0)
        become(path, arguments, inherited);
    if (m_id == -1)
        fail(Status::NoTool, "no process for " + arguments[0] + ": " + std::strerror(errno));
}

void setSignals() {
    // SIGPIPE stays ignored: if the program is killed, the tool goes on without its output.
    signal(SIGCHLD, SIG_DFL);
    // After the point of no return these signals stay ignored.
    if (!cancel::isCommitted()) {
        for (const int each : {SIGTERM, SIGINT, SIGHUP})
            signal(each, SIG_DFL);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

void Run::become(const std::string& path, const tools::Arguments& arguments,
                 const std::vector<int>& inherited) const {
    setsid();
    setSignals();
    const int input = open("/dev/null", O_RDONLY);
    if (input == -1 || dup2(input, STDIN_FILENO) == -1 ||
        dup2(output::writeEnd(), STDOUT_FILENO) == -1 ||
        dup2(output::writeEnd(), STDERR_FILENO) == -1)
        _exit(127);
    close(input);
    for (const int fd : inherited)
        fcntl(fd, F_SETFD, 0);
    std::vector<char*> words;
    words.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments)
        words.push_back(const_cast<char*>(argument.c_str()));
    words.push_back(nullptr);
    char* environment[] = {pathVariable, localeVariable, nullptr};
    execve(path.c_str(), words.data(), environment);
    _exit(127);
}

void Run::cancelIfRequested() {
    if (!cancel::isRequested())
        return;
    if (m_cancelledAt == 0) {
        m_cancelledAt = waiting::now();
        kill(-m_id, SIGTERM);
    } else if (waiting::now() - m_cancelledAt > termMs) {
        kill(-m_id, SIGKILL);
    }
}

void Run::step(tools::LinePipe* lines) {
    pollfd waited[3] = {};
    output::prepare(waited[0], waited[1]);
    waited[2] = {lines ? lines->readEnd() : -1, POLLIN, 0};
    if (waiting::wait(waited, 3, stepMs) == -1)
        return; // a signal: the results are not set
    output::relay(waited[0], waited[1]);
    if (waited[2].revents & POLLIN)
        lines->read();
}

int Run::waitForEnd(tools::LinePipe* lines) {
    int status = 0;
    while (waitpid(m_id, &status, WNOHANG) == 0) {
        cancelIfRequested();
        step(lines);
    }
    output::drain();
    if (WIFSIGNALED(status))
        return m_cancelledAt != 0 ? tools::cancelled : 128 + WTERMSIG(status);
    return WEXITSTATUS(status);
}

} // namespace

std::string tools::find(const std::string& name) {
    for (const char* const directory : directories) {
        std::string path = std::string(directory) + '/' + name;
        struct stat status = {};
        if (stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
            access(path.c_str(), X_OK) == 0)
            return path;
    }
    return {};
}

void tools::require(std::initializer_list<std::string> names) {
    for (const std::string& name : names) {
        if (find(name).empty())
            fail(Status::NoTool, name + " is not installed");
    }
}

tools::LinePipe::LinePipe(LineHandler handler) : m_handler(std::move(handler)) {
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) == -1)
        fail(Status::NoTool, std::string("no pipe for a tool: ") + std::strerror(errno));
    m_readEnd = Descriptor(ends[0]);
    m_writeEnd = Descriptor(ends[1]);
}

void tools::LinePipe::read() {
    char bytes[longestLine];
    const ssize_t count = ::read(m_readEnd.get(), bytes, sizeof bytes);
    for (ssize_t at = 0; at < count; ++at) {
        if (bytes[at] == '\n') {
            m_handler(m_line);
            m_line.clear();
        } else if (m_line.size() < longestLine) {
            m_line += bytes[at];
        }
    }
}

int tools::run(const Arguments& arguments) {
    return Run(arguments, {}).waitForEnd(nullptr);
}

int tools::runOn(const Device& device, const Arguments& arguments, Status ifHeld, LinePipe* lines) {
    device.requireSame();
    device.requireUnclaimed(ifHeld);
    std::vector<int> inherited{device.descriptor(), device.diskDescriptor()};
    if (lines)
        inherited.push_back(lines->writeEnd());
    Run tool(arguments, inherited);
    const int status = tool.waitForEnd(lines);
    device.requireSame();
    return status;
}
