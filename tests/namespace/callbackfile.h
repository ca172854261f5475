// SPDX-License-Identifier: Apache-2.0
// A file that calls functions of the test.
#pragma once

#include <oruio/error.h>
#include <oruio/posixfs.h>

#include <cerrno>
#include <functional>

namespace oru::io::test {

/// A file that calls functions of the test in flock() and close().
class CallbackFile : public PosixFile {
public:
    CallbackFile() : PosixFile(-1) {}
    /// Overwrites errno and liberrno, as closing may.
    ~CallbackFile() override {
        errno = ETXTBSY;
        liberrno = NotFound;
    }
    std::function<void()> onClose = [] {};
    std::function<void()> onFlock = [] {};
    int flock(int) override {
        onFlock();
        errno = EDOM;
        liberrno = NotImplemented;
        return -1;
    }
    int close() override {
        onClose();
        errno = EDOM;
        liberrno = LibraryFailure;
        return -1;
    }
};

} // namespace oru::io::test
