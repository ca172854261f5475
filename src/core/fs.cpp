#include <oruio/error.h>
#include <oruio/fs.h>

#include <cerrno>
#include <cstdlib>
#include <limits>
#include <utility>

namespace oru::io {

namespace {

/// Whether there is memory for `size` bytes. An array that cannot have it would end the process.
bool canAllocate(size_t size) {
    // Volatile: else the compiler may take the success of an unused allocation for granted.
    void* volatile const memory = std::malloc(size);
    std::free(memory);
    return memory;
}

} // namespace

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
    // A size of nothing, or a backend that tells a negative one: there is nothing to read.
    if (size <= 0)
        return {};
    // What a byte array can hold, with room for its own header.
    if (size > std::numeric_limits<int>::max() - 64) {
        liberrno = Ok;
        errno = EFBIG;
        return {};
    }
    if (!canAllocate(static_cast<size_t>(size) + 64)) {
        liberrno = Ok;
        errno = ENOMEM;
        return {};
    }
    QByteArray data(static_cast<int>(size), Qt::Uninitialized);
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
