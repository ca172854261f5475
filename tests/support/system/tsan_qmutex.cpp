// SPDX-License-Identifier: Apache-2.0
// Annotates QMutex for ThreadSanitizer.
//
// Qt's library is not instrumented, so the sanitizer does not see that QMutex orders memory
// accesses. The definitions in the program take precedence over Qt's; they add the annotations and
// call Qt's.

#include <QMutex>

#include <dlfcn.h>
#include <sanitizer/tsan_interface.h>

namespace {

template <class Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

void QMutex::lock() noexcept {
    static const auto real = next<void(QMutex*)>("_ZN6QMutex4lockEv");
    __tsan_mutex_pre_lock(this, 0);
    real(this);
    __tsan_mutex_post_lock(this, 0, 0);
}

bool QMutex::tryLock(int timeout) noexcept {
    static const auto real = next<bool(QMutex*, int)>("_ZN6QMutex7tryLockEi");
    __tsan_mutex_pre_lock(this, __tsan_mutex_try_lock);
    const bool locked = real(this, timeout);
    __tsan_mutex_post_lock(this,
                           __tsan_mutex_try_lock | (locked ? 0 : __tsan_mutex_try_lock_failed), 0);
    return locked;
}

void QMutex::unlock() noexcept {
    static const auto real = next<void(QMutex*)>("_ZN6QMutex6unlockEv");
    __tsan_mutex_pre_unlock(this, 0);
    real(this);
    __tsan_mutex_post_unlock(this, 0);
}
