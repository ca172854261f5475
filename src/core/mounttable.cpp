// SPDX-License-Identifier: Apache-2.0
#include "core/mounttable_p.h"

#include "core/cancelguard_p.h"

#include <array>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace oru::io {

namespace {

/// All of a file. \returns false with errno when it cannot be read.
bool readAll(const char* path, QByteArray& content) {
    const CancelGuard guard;
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd == -1)
        return false;
    std::array<char, 4096> piece; // the kernel returns no more per read(2)
    ssize_t count = 0;
    while ((count = ::read(fd, piece.data(), piece.size())) > 0 ||
           (count == -1 && errno == EINTR)) {
        if (count > 0)
            content.append(piece.data(), static_cast<int>(count));
    }
    const int reason = errno;
    ::close(fd);
    errno = reason;
    return count == 0;
}

} // namespace

bool tableMountPoint(const QString& directory, SystemText& path) {
    if (!toSystem(directory, path))
        return false;
    int end = path.size() - 1; // where its NUL is
    while (end > 1 && path[end - 1] == '/')
        --end;
    path[end] = '\0';
    return true;
}

MountTable::MountTable(const char* path)
    : m_line(readAll(path, m_text) ? m_text.data() : nullptr) {}

bool MountTable::isRead() const {
    return m_line != nullptr;
}

const MountTable::Mount* MountTable::next() {
    const char* const end = m_text.constData() + m_text.size();
    while (m_line && m_line < end) {
        char* const line = m_line;
        auto* const lineEnd = static_cast<char*>(std::memchr(line, '\n', end - line));
        if (lineEnd)
            *lineEnd = '\0'; // after a last line without "\n" is the array's own NUL
        m_line = lineEnd ? lineEnd + 1 : line + (end - line);
        char* rest = nullptr;
        m_mount.device = strtok_r(line, " ", &rest);
        m_mount.mountPoint = strtok_r(nullptr, " ", &rest);
        if (m_mount.mountPoint)
            return &m_mount;
    }
    return nullptr;
}

} // namespace oru::io
