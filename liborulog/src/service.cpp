// SPDX-License-Identifier: Apache-2.0
// The service: the four operations, the controls, and the thread that writes.

#include "callersthread_p.h"
#include "levels_p.h"
#include "output_p.h"
#include "records_p.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <mutex>
#include <new>
#include <string>
#include <utility>

#include <pthread.h>
#include <signal.h>

namespace orulog {

namespace {

// Initial-exec: the first access of a thread allocates no memory.
__attribute__((tls_model("initial-exec"))) thread_local bool isWriting = false;

/// Locks m_writing, unless this thread has locked it already: the hook runs with it locked.
class WritingLock {
public:
    explicit WritingLock(std::mutex& mutex) : m_mutex(mutex), m_nested(isWriting) {
        if (m_nested)
            return;
        m_mutex.lock();
        isWriting = true;
    }

    ~WritingLock() {
        if (m_nested)
            return;
        isWriting = false;
        m_mutex.unlock();
    }

    WritingLock(const WritingLock&) = delete;
    WritingLock& operator=(const WritingLock&) = delete;

private:
    std::mutex& m_mutex;
    const bool m_nested;
};

class Service {
public:
    static Service& instance();

    oruLogMsg* alloc();
    void push(oruLogMsg* msg);

    /// `name` is the argument that openSink() takes.
    void setSink(Sink sink, std::string name);
    void setHook(oruLogHook hook, void* user);
    int flush();

    /// Writes what is queued and ends the thread.
    void stop();

    void beforeFork();
    void afterForkInParent();
    void afterForkInChild();

private:
    bool ensureThread();
    static void* runThread(void* service);
    void writeUntilStopped();
    void writeQueued();
    bool writeOldest();

    // Held while a record is written: records are written one at a time, in the order of the queue.
    // Locked before any other mutex.
    std::mutex m_writing;
    Sink m_sink;
    oruLogMsg* m_current = nullptr; // the record that is being written

    // Guards the members below. Held briefly: every message locks it.
    std::mutex m_mutex;
    pthread_cond_t m_arrived = PTHREAD_COND_INITIALIZER; // a record was queued, or m_stopping set
    pthread_cond_t m_written = PTHREAD_COND_INITIALIZER; // m_writtenCount has grown
    uint64_t m_pushedCount = 0;
    uint64_t m_writtenCount = 0;
    pthread_t m_thread{};
    bool m_hasThread = false;
    bool m_stopping = false;
    Records m_records;
    std::string m_sinkName = "stderr";
    bool m_mustReopen = false; // m_sink is to be opened again, by its name
    oruLogHook m_hook = nullptr;
    void* m_user = nullptr;
    bool m_isWritingLocked = false; // m_writing, from before a fork to after it
};

Service& Service::instance() {
    // Never destroyed: objects that are destroyed after this library may still log.
    alignas(Service) static unsigned char storage[sizeof(Service)];
    static Service& service = *new (storage) Service;
    return service;
}

oruLogMsg* Service::alloc() {
    // A message logged by the hook would call the hook again, without end.
    if (isWriting)
        return nullptr;
    const std::lock_guard lock(m_mutex);
    return m_records.take();
}

void Service::push(oruLogMsg* msg) {
    {
        const std::lock_guard lock(m_mutex);
        if (!m_records.queue(msg))
            return;
        ++m_pushedCount;
        if (ensureThread()) {
            pthread_cond_signal(&m_arrived);
            return;
        }
    }
    // In a hook, the call of writeQueued() further up the stack writes the record.
    if (!isWriting) {
        const CallersThread guard;
        writeQueued();
    }
}

void Service::setSink(Sink sink, std::string name) {
    {
        const WritingLock writing(m_writing);
        m_sink.swap(sink);
        const std::lock_guard lock(m_mutex);
        m_sinkName.swap(name);
        m_mustReopen = false;
    }
    // The former sink is closed here, after the unlock.
}

void Service::setHook(oruLogHook hook, void* user) {
    const WritingLock writing(m_writing);
    const std::lock_guard lock(m_mutex);
    m_hook = hook;
    m_user = user;
}

int Service::flush() {
    if (isWriting)
        return EDEADLK;
    std::unique_lock lock(m_mutex);
    const uint64_t pushed = m_pushedCount;
    while (m_writtenCount < pushed)
        pthread_cond_wait(&m_written, m_mutex.native_handle());
    return 0;
}

/// Starts the thread if it is not running. The caller holds m_mutex.
///
/// \returns false when the service is stopping or the thread cannot be started.
bool Service::ensureThread() {
    if (m_stopping)
        return false;
    if (m_hasThread)
        return true;
    // The thread inherits the mask: no signal handler of the program runs in it.
    sigset_t all;
    sigset_t mask;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &mask);
    m_hasThread = pthread_create(&m_thread, nullptr, runThread, this) == 0;
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    return m_hasThread;
}

void* Service::runThread(void* service) {
    pthread_setname_np(pthread_self(), "orulog");
    static_cast<Service*>(service)->writeUntilStopped();
    return nullptr;
}

void Service::writeUntilStopped() {
    std::unique_lock lock(m_mutex);
    for (;;) {
        while (!m_records.hasQueued() && !m_stopping)
            pthread_cond_wait(&m_arrived, m_mutex.native_handle());
        if (!m_records.hasQueued())
            return;
        lock.unlock();
        writeQueued();
        lock.lock();
    }
}

void Service::writeQueued() {
    while (writeOldest())
        continue;
}

bool Service::writeOldest() {
    const WritingLock writing(m_writing);
    oruLogHook hook = nullptr;
    void* user = nullptr;
    {
        const std::lock_guard lock(m_mutex);
        m_current = m_records.takeOldest();
        if (!m_current)
            return false;
        hook = m_hook;
        user = m_user;
        if (std::exchange(m_mustReopen, false))
            m_sink = openSink(m_sinkName.c_str());
    }
    const char* const channel = Levels::instance().name(m_current->channel);
    write(m_sink, *m_current, channel);
    if (hook)
        hook(m_current, channel, user);

    const std::lock_guard lock(m_mutex);
    m_records.release(std::exchange(m_current, nullptr));
    ++m_writtenCount;
    pthread_cond_broadcast(&m_written);
    return true;
}

void Service::stop() {
    bool hadThread = false;
    {
        const std::lock_guard lock(m_mutex);
        m_stopping = true;
        hadThread = std::exchange(m_hasThread, false);
        pthread_cond_signal(&m_arrived);
    }
    // A hook that ends the process runs on that thread and cannot join it.
    if (hadThread && !isWriting)
        pthread_join(m_thread, nullptr);
}

/// Waits until no message is being written, for a moment only: the output may be stuck.
void Service::beforeFork() {
    constexpr int tries = 20;
    constexpr timespec pause = {0, 1'000'000};
    m_isWritingLocked = isWriting || m_writing.try_lock();
    for (int i = 1; i < tries && !m_isWritingLocked; ++i) {
        nanosleep(&pause, nullptr);
        m_isWritingLocked = m_writing.try_lock();
    }
    m_mutex.lock();
    Levels::instance().mutex.lock();
}

void Service::afterForkInParent() {
    Levels::instance().mutex.unlock();
    m_mutex.unlock();
    if (m_isWritingLocked && !isWriting)
        m_writing.unlock();
}

void Service::afterForkInChild() {
    m_hasThread = false;
    if (!m_isWritingLocked) {
        // A thread of the parent is writing. The child has the mutex and the sink as they are in
        // the middle of that, so it makes new ones and leaves the sink in memory.
        new (&m_writing) std::mutex;
        new (&m_sink) Sink;
        m_mustReopen = true;
    }
    // Only the record that the calling thread's hook has is still used.
    if (!isWriting)
        m_current = nullptr;
    m_records.reset(m_current);
    m_pushedCount = m_writtenCount + (m_current ? 1 : 0);
    // Threads of the parent, which the child does not have, may have been waiting for them.
    m_arrived = PTHREAD_COND_INITIALIZER;
    m_written = PTHREAD_COND_INITIALIZER;
    afterForkInParent();
}

void reportUnusable(const char* variable, const char* text, const char* instead) {
    fprintf(stderr, "orulog: cannot use %s='%s', %s instead\n", variable, text, instead);
}

bool setThresholds(const char* text) {
    try {
        if (Levels::instance().set(text))
            return true;
        errno = EINVAL;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
    }
    return false;
}

bool setOutput(const char* text) {
    const CallersThread guard;
    Sink sink = openSink(text);
    if (!sink)
        return false;
    try {
        Service::instance().setSink(std::move(sink), absoluteName(text));
        return true;
    } catch (const std::exception&) {
        errno = ENOMEM;
        return false;
    }
}

__attribute__((constructor)) void load() {
    pthread_atfork([] { Service::instance().beforeFork(); },
                   [] { Service::instance().afterForkInParent(); },
                   [] { Service::instance().afterForkInChild(); });
    const char* const level = secure_getenv("ORULOG_LEVEL");
    if (level && !setThresholds(level))
        reportUnusable("ORULOG_LEVEL", level, "10");
    const char* const output = secure_getenv("ORULOG_OUTPUT");
    if (output && !setOutput(output))
        reportUnusable("ORULOG_OUTPUT", output, "stderr");
}

__attribute__((destructor)) void unload() {
    Service::instance().stop();
}

} // namespace

} // namespace orulog

using orulog::Levels;
using orulog::Service;

int __oruLogChanReg(const char* name, const char*, int, const char*) {
    return Levels::instance().add(name);
}

oruLogMsg* oruLogMsgAlloc() {
    return Service::instance().alloc();
}

void oruLogMsgPush(oruLogMsg* msg) {
    const int savedErrno = errno;
    Service::instance().push(msg);
    errno = savedErrno;
}

int oruLogSetThresholds(const char* text) {
    return orulog::setThresholds(text) ? 0 : -1;
}

int oruLogSetOutput(const char* text) {
    return orulog::setOutput(text) ? 0 : -1;
}

void oruLogSetHook(oruLogHook hook, void* user) {
    Service::instance().setHook(hook, user);
}

int oruLogFlush() {
    const int error = Service::instance().flush();
    if (error == 0)
        return 0;
    errno = error;
    return -1;
}
