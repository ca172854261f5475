// Child processes that run a part of a test and may be killed in the middle of it.
#pragma once

#include <QtGlobal>

#include <functional>

#include <sys/types.h>

namespace oru::io::test {

/// A copy of this process that runs one function. Start it before the test has threads.
class ChildProcess {
public:
    /// The child ends with the result of `work` as its exit status, without running destructors of
    /// statics; it is killed when the test dies.
    explicit ChildProcess(const std::function<int()>& work);
    /// Kills it, if it still runs.
    ~ChildProcess();

    pid_t pid() const;
    /// Sends a signal.
    void signal(int number);
    /// Waits until it has ended. \returns its exit status, or the negative number of the signal
    /// that killed it; -1000 when it is still there after `seconds`.
    int wait(int seconds = 30);
    /// The system descriptors that it has open.
    int descriptors() const;

private:
    Q_DISABLE_COPY(ChildProcess)
    bool reap(int flags);

    pid_t m_pid;
    bool m_hasEnded = false;
    int m_status = 0;
};

/// Waits until `condition` holds. \returns whether it came to that within `seconds`.
bool eventually(const std::function<bool()>& condition, double seconds = 10);

} // namespace oru::io::test
