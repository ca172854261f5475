// SPDX-License-Identifier: Apache-2.0
// The owner of the client mutex.
#pragma once

#include <memory>

#include <pthread.h>

namespace oru::io {

/// A thread that holds the client mutex for this process, for the length of a session.
///
/// A robust mutex belongs to a thread: when its owner has ended, another process can lock it. If
/// the thread that connects held the client mutex, that thread could end while another thread of
/// its process is in the middle of a request. A client in another process would then begin a
/// session, and the rest of that request would overwrite its requests and its data. The thread of
/// this class ends only with the session or with the process. So a client that gets EOWNERDEAD
/// knows that no thread of the process before it accesses the area any more.
///
/// Not for concurrent use.
class ClientMutexOwner {
public:
    ClientMutexOwner();
    ~ClientMutexOwner();
    ClientMutexOwner(const ClientMutexOwner&) = delete;
    ClientMutexOwner& operator=(const ClientMutexOwner&) = delete;

    /// Starts the thread, which locks `mutex` without waiting for it. If the owner of the mutex has
    /// died, makes the mutex consistent.
    ///
    /// \returns 0 or EOWNERDEAD when the thread holds the mutex, else an error number of
    /// pthread_mutex_trylock(3) or pthread_create(3).
    int acquire(pthread_mutex_t& mutex);

    /// Unlocks the mutex and ends the thread, if there is one. In a child of fork(2), which has no
    /// such thread, changes nothing in the area.
    void release();

    /// Whether the mutex is held for this process.
    bool isHeld() const;

private:
    struct Thread;
    std::unique_ptr<Thread> m_thread;
};

} // namespace oru::io
