// SPDX-License-Identifier: Apache-2.0
// The two processes of the program.
#include "supervisor.h"

#include "cancel.h"
#include "output.h"
#include "status.h"
#include "waiting.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>

#include <dirent.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

volatile pid_t child = -1;
pid_t first = -1;
std::vector<pid_t> protectedOnes;

void passOn(int signal) {
    kill(child, signal);
}

void handle(int signal, void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigaction(signal, &action, nullptr);
}

void closeAllBut(int kept) {
    std::vector<int> open;
    {
        const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir("/proc/self/fd"), &closedir);
        while (const dirent* const entry = directory ? readdir(directory.get()) : nullptr)
            open.push_back(std::atoi(entry->d_name));
    }
    for (const int fd : open) {
        if (fd > STDERR_FILENO && fd != kept)
            close(fd);
    }
}

pid_t parentOf(pid_t process) {
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    for (std::string word; status >> word;) {
        pid_t parent = 0;
        if (word == "PPid:" && status >> parent)
            return parent;
    }
    return 0;
}

/// Waits for the child and ends as it has ended.
[[noreturn]] void supervise() {
    output::closeWriteEnd();
    siginfo_t ended = {};
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    while (waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT) == -1 &&
           errno == EINTR)
        continue;
    // Its number is free for another process once it is waited for.
    waiting::blockSignals();
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFEXITED(status))
        _exit(WEXITSTATUS(status));
    // The child was killed. A tool that it has begun goes on: take its output, so that it does not
    // wait for a reader, and end after it.
    output::drainToEnd();
    handle(WTERMSIG(status), SIG_DFL);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    raise(WTERMSIG(status));
    _exit(128 + WTERMSIG(status));
}

} // namespace

void supervisor::prepareProcess(int keptDescriptor) {
    // A device must not get the number of a standard descriptor that the caller has closed.
    int fd = 0;
    do
        fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    while (fd != -1 && fd <= STDERR_FILENO && fcntl(fd, F_SETFD, 0) == 0);
    if (fd > STDERR_FILENO)
        close(fd);
    closeAllBut(keptDescriptor);
    handle(SIGPIPE, SIG_IGN);
    handle(SIGCHLD, [](int) {}); // interrupts a wait; an ignored one would lose the status
    waiting::blockSignals();
}

void supervisor::begin() {
    first = getpid();
    protectedOnes.push_back(1);
    for (pid_t each = first; each > 1; each = parentOf(each))
        protectedOnes.push_back(each);
    output::open();
    child = fork();
    if (child == -1)
        fail(Status::NoTool, std::string("no second process: ") + std::strerror(errno));
    if (child != 0) {
        for (const int signal : {SIGTERM, SIGINT, SIGHUP})
            handle(signal, passOn);
        supervise();
    }
    setsid();
    protectedOnes.push_back(getpid());
    cancel::watch();
}

bool supervisor::isAlive() {
    return getppid() == first;
}

const std::vector<pid_t>& supervisor::protectedProcesses() {
    return protectedOnes;
}
