// SPDX-License-Identifier: Apache-2.0
#include "ipc/clientmutexowner_p.h"

#include "ipc/ipcsync_p.h"
#include "ipc/processgeneration_p.h"

#include <cerrno>
#include <csignal>

#include <semaphore.h>

namespace oru::io {

using namespace ipcwire;

namespace {

/// The thread only waits. The rest is for the thread-local data of the program. Where that is
/// larger, the stack has the default size.
constexpr std::size_t stackSize = 256 * 1024;

} // namespace

struct ClientMutexOwner::Thread {
    explicit Thread(pthread_mutex_t& clientMutex) : mutex(&clientMutex) {
        sem_init(&isReady, 0, 0);
        sem_init(&isReleased, 0, 0);
    }

    int start();
    static void* main(void* argument);

    pthread_mutex_t* const mutex;
    const unsigned int generation = processGeneration();
    pthread_t id = {};
    int error = 0;    // of the lock; valid once isReady was posted
    sem_t isReady;    // posted by the thread
    sem_t isReleased; // posted by release()
};

/// \returns 0 or an error number.
int ClientMutexOwner::Thread::start() {
    pthread_attr_t attributes;
    if (const int failure = pthread_attr_init(&attributes))
        return failure;
    pthread_attr_setstacksize(&attributes, stackSize);
    // The thread inherits the mask: no handler of the application runs on it.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    int failure = pthread_create(&id, &attributes, main, this);
    if (failure == EINVAL)
        failure = pthread_create(&id, nullptr, main, this);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    pthread_attr_destroy(&attributes);
    return failure;
}

void* ClientMutexOwner::Thread::main(void* argument) {
    auto* const self = static_cast<Thread*>(argument);
    pthread_setname_np(pthread_self(), "oruio-session");
    self->error = pthread_mutex_trylock(self->mutex);
    const bool isLocked = self->error == 0 || self->error == EOWNERDEAD;
    if (self->error == EOWNERDEAD)
        pthread_mutex_consistent(self->mutex);
    sem_post(&self->isReady);
    if (isLocked) {
        waitFor(self->isReleased);
        pthread_mutex_unlock(self->mutex);
    }
    return nullptr;
}

ClientMutexOwner::ClientMutexOwner() = default;

ClientMutexOwner::~ClientMutexOwner() {
    release();
}

int ClientMutexOwner::acquire(pthread_mutex_t& mutex) {
    auto thread = std::make_unique<Thread>(mutex);
    if (const int failure = thread->start())
        return failure;
    waitFor(thread->isReady);
    const int error = thread->error;
    if (error == 0 || error == EOWNERDEAD)
        m_thread = std::move(thread);
    else
        pthread_join(thread->id, nullptr);
    return error;
}

void ClientMutexOwner::release() {
    if (isHeld()) {
        sem_post(&m_thread->isReleased);
        pthread_join(m_thread->id, nullptr);
    }
    m_thread.reset();
}

bool ClientMutexOwner::isHeld() const {
    return m_thread && m_thread->generation == processGeneration();
}

} // namespace oru::io
