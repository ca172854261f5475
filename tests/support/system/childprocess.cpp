// SPDX-License-Identifier: Apache-2.0
#include "support/system/childprocess.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>

#include <dirent.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace oru::io::test {

ChildProcess::ChildProcess(const std::function<int()>& work) {
    std::fflush(nullptr);
    m_pid = fork();
    if (m_pid == -1) {
        perror("fork");
        std::abort();
    }
    if (m_pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        _exit(work());
    }
}

ChildProcess::~ChildProcess() {
    if (m_hasEnded)
        return;
    signal(SIGKILL);
    reap(0);
}

pid_t ChildProcess::pid() const {
    return m_pid;
}

void ChildProcess::signal(int number) {
    if (!m_hasEnded)
        ::kill(m_pid, number);
}

bool ChildProcess::reap(int flags) {
    if (!m_hasEnded)
        m_hasEnded = waitpid(m_pid, &m_status, flags) == m_pid;
    return m_hasEnded;
}

int ChildProcess::wait(int seconds) {
    if (!eventually([this] { return reap(WNOHANG); }, seconds))
        return -1000;
    return WIFSIGNALED(m_status) ? -WTERMSIG(m_status) : WEXITSTATUS(m_status);
}

int ChildProcess::descriptors() const {
    int count = 0;
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(
        opendir(("/proc/" + std::to_string(m_pid) + "/fd").c_str()), closedir);
    while (directory && ::readdir(directory.get()))
        ++count;
    return count - 2; // . and ..
}

bool eventually(const std::function<bool()>& condition, double seconds) {
    using Clock = std::chrono::steady_clock;
    using std::chrono::milliseconds;
    const auto start = Clock::now();
    const auto deadline = start + std::chrono::duration<double>(seconds);
    while (!condition()) {
        const auto now = Clock::now();
        if (now > deadline)
            return false;
        // Polling takes processor time from the process it waits for: the interval grows with the
        // time waited.
        const auto waited = std::chrono::duration_cast<milliseconds>(now - start);
        std::this_thread::sleep_for(std::clamp(waited / 16, milliseconds(1), milliseconds(20)));
    }
    return true;
}

} // namespace oru::io::test
