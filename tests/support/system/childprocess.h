// SPDX-License-Identifier: Apache-2.0
// Child processes that run a part of a test and can be killed.
#pragma once

#include <QtGlobal>

#include <functional>

#include <sys/types.h>

namespace oru::io::test {

/// A fork of this process that runs one function. Fork before the test starts threads.
class ChildProcess {
public:
    /// The child runs `work` and calls _exit() with its result. It is killed when the test's
    /// process ends.
    explicit ChildProcess(const std::function<int()>& work);
    /// Kills the child if it still runs.
    ~ChildProcess();

    pid_t pid() const;
    /// Sends a signal to the child.
    void signal(int number);
    /// Waits until the child has ended.
    /// \returns its exit status,
    /// the negative number of the signal that killed it, or
    /// -1000 if it still runs after `seconds`.
    int wait(int seconds = 30);
    /// The number of its open descriptors.
    int descriptors() const;

private:
    Q_DISABLE_COPY(ChildProcess)
    bool reap(int flags);

    pid_t m_pid;
    bool m_hasEnded = false;
    int m_status = 0;
};

/// Polls `condition` until it is true. \returns false if it is not within `seconds`.
bool eventually(const std::function<bool()>& condition, double seconds = 10);

} // namespace oru::io::test
