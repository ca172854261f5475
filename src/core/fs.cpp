// SPDX-License-Identifier: Apache-2.0
#include <oruio/error.h>
#include <oruio/fs.h>

#include "core/failwith_p.h"

#include <cerrno>
#include <limits>
#include <new>
#include <utility>

namespace oru::io {

File::File(const QString& type) : m_type(type) {}

File::~File() = default;

const QString& File::type() {
    return m_type;
}

QByteArray File::readAll(unsigned int maxSize) {
    struct stat st;
    if (fstat(st) != 0)
        return {};
    const auto size = qMin<qint64>(maxSize, st.st_size);
    // An empty file is read, too: its one read shows an error.
    if (maxSize == 0 || size < 0)
        return {};
    // The largest size of a byte array.
    constexpr int headerRoom = 64;
    if (size > std::numeric_limits<int>::max() - headerRoom) {
        failWith(EFBIG);
        return {};
    }
    QByteArray data;
    try {
        data.resize(static_cast<int>(size));
    } catch (const std::bad_alloc&) {
        failWith(ENOMEM);
        return {};
    }
    if (read(data.data(), static_cast<unsigned int>(size)) != size)
        return {};
    return data;
}

Directory::Directory(QString type) : m_type(std::move(type)) {}

Directory::~Directory() = default;

QString Directory::type() {
    return m_type;
}

FS::FS(QString type) : m_type(std::move(type)) {}

FS::~FS() = default;

QString FS::type() {
    return m_type;
}

} // namespace oru::io
