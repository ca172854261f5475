// SPDX-License-Identifier: Apache-2.0
// A file descriptor with an owner.
#pragma once

#include <utility>

#include <unistd.h>

/// Closes its descriptor. -1: it has none.
class Descriptor {
public:
    explicit Descriptor(int fd = -1) : m_fd(fd) {}
    Descriptor(Descriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    ~Descriptor() {
        close();
    }

    int get() const {
        return m_fd;
    }
    bool isOpen() const {
        return m_fd != -1;
    }
    void close() {
        if (m_fd != -1)
            ::close(m_fd);
        m_fd = -1;
    }

private:
    int m_fd;
};
