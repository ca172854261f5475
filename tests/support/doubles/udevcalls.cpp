// SPDX-License-Identifier: Apache-2.0
#include "support/doubles/udevcalls.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <utility>

#include <dlfcn.h>
#include <libudev.h>
#include <poll.h>

namespace oru::io::test {

namespace {

// The library calls these functions before the constructors of this program run. These objects are
// initialised statically.
std::atomic<int> held{0};
std::atomic<int> received{0};
std::atomic<int> failures{0};
std::atomic<int> failureError{0};
std::atomic<int> toLose{0};
std::atomic<int> shortPolls{0};
char source[32];
char hidden[256];
std::function<void()> beforeEnumeration; // not called that early

void copyString(char* to, std::size_t size, const char* string) {
    std::strncpy(to, string, size - 1);
    to[size - 1] = '\0';
}

bool mustFail(const char* function) {
    const char* const failing = std::getenv("ORUIO_TEST_FAILS");
    return failing && std::strcmp(failing, function) == 0;
}

/// The real function.
template <class Function>
Function* real(Function*, const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

template <class T>
T* counted(T* object) {
    if (object)
        ++held;
    return object;
}

} // namespace

int heldUdevObjects() {
    return held;
}

int receivedUdevDevices() {
    return received;
}

QByteArray udevMonitorSource() {
    return source;
}

void hideUdevDevice(const QByteArray& syspath) {
    copyString(hidden, sizeof hidden, syspath.constData());
}

void failUdevReceive(int error, int times) {
    failureError = error;
    failures = times;
}

void loseUdevMessages(int count) {
    toLose = count;
}

void shortenLongestPolls(int times) {
    shortPolls = times;
}

void beforeUdevEnumerates(std::function<void()> call) {
    beforeEnumeration = std::move(call);
}

} // namespace oru::io::test

// clang-format off
#define REAL(function) oru::io::test::real(&(function), #function)
#define STAND_IN extern "C" __attribute__((visibility("default")))
// clang-format on

using namespace oru::io::test;

STAND_IN udev* udev_new() {
    return mustFail("udev_new") ? nullptr : counted(REAL(udev_new)());
}

STAND_IN udev* udev_unref(udev* context) {
    held -= context != nullptr;
    return REAL(udev_unref)(context);
}

STAND_IN udev_monitor* udev_monitor_new_from_netlink(udev* context, const char* name) {
    copyString(source, sizeof source, name);
    if (mustFail("udev_monitor_new_from_netlink"))
        return nullptr;
    return counted(REAL(udev_monitor_new_from_netlink)(context, name));
}

STAND_IN int udev_monitor_enable_receiving(udev_monitor* monitor) {
    return mustFail("udev_monitor_enable_receiving") ? -ENOMEM
                                                     : REAL(udev_monitor_enable_receiving)(monitor);
}

STAND_IN udev_monitor* udev_monitor_unref(udev_monitor* monitor) {
    held -= monitor != nullptr;
    return REAL(udev_monitor_unref)(monitor);
}

STAND_IN udev_device* udev_monitor_receive_device(udev_monitor* monitor) {
    if (failures > 0) {
        --failures;
        errno = failureError;
        return nullptr;
    }
    if (toLose > 0) {
        while (toLose-- > 0)
            REAL(udev_device_unref)(REAL(udev_monitor_receive_device)(monitor));
        toLose = 0;
        errno = ENOBUFS;
        return nullptr;
    }
    udev_device* const device = counted(REAL(udev_monitor_receive_device)(monitor));
    received += device != nullptr;
    return device;
}

STAND_IN udev_enumerate* udev_enumerate_new(udev* context) {
    if (beforeEnumeration)
        beforeEnumeration();
    return counted(REAL(udev_enumerate_new)(context));
}

STAND_IN udev_enumerate* udev_enumerate_unref(udev_enumerate* enumeration) {
    held -= enumeration != nullptr;
    return REAL(udev_enumerate_unref)(enumeration);
}

STAND_IN udev_device* udev_device_new_from_syspath(udev* context, const char* syspath) {
    if (std::strcmp(syspath, hidden) == 0) {
        errno = ENODEV;
        return nullptr;
    }
    return counted(REAL(udev_device_new_from_syspath)(context, syspath));
}

STAND_IN udev_device* udev_device_unref(udev_device* device) {
    held -= device != nullptr;
    return REAL(udev_device_unref)(device);
}

STAND_IN int poll(struct pollfd* descriptors, nfds_t count, int timeout) {
    if (timeout == INT_MAX && shortPolls > 0) {
        --shortPolls;
        return 0;
    }
    return REAL(poll)(descriptors, count, timeout);
}
