// SPDX-License-Identifier: Apache-2.0
#include "support/doubles/memfs.h"

#include <oruio/error.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <limits>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/xattr.h>

#include "core/notimplemented_p.h"

namespace oru::io::test {

namespace {

constexpr size_t nameMax = 255;
constexpr size_t pathMax = 4095;
constexpr int linkDepth = 40;
constexpr long long blockSize = 4096;
/// The largest file: its size can be rounded up to blocks.
constexpr long long sizeMax = std::numeric_limits<long long>::max() - blockSize;

int fail(int error) {
    errno = error;
    return -1;
}

bool refuse(int error) {
    errno = error;
    return false;
}

timespec now() {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return ts;
}

/// The bytes of a file. Only written blocks use memory, so files may have large holes.
class Content {
public:
    long long size() const {
        return m_size;
    }

    void resize(long long size) {
        if (size < m_size) {
            m_blocks.erase(m_blocks.lower_bound((size + blockSize - 1) / blockSize),
                           m_blocks.end());
            const auto last = m_blocks.find(size / blockSize);
            if (last != m_blocks.end())
                std::fill(last->second.begin() + size % blockSize, last->second.end(), '\0');
        }
        m_size = size;
    }

    int read(void* buf, unsigned int len, long long offset) const {
        if (offset >= m_size)
            return 0;
        const auto count = static_cast<unsigned int>(std::min<long long>(len, m_size - offset));
        forEachBlock(offset, count, [&](long long block, size_t start, size_t done, size_t part) {
            const auto found = m_blocks.find(block);
            char* const to = static_cast<char*>(buf) + done;
            if (found == m_blocks.end())
                std::memset(to, 0, part);
            else
                std::memcpy(to, found->second.data() + start, part);
        });
        return static_cast<int>(count);
    }

    int write(const void* buf, unsigned int len, long long offset) {
        forEachBlock(offset, len, [&](long long block, size_t start, size_t done, size_t part) {
            auto& bytes = m_blocks[block];
            bytes.resize(blockSize);
            std::memcpy(bytes.data() + start, static_cast<const char*>(buf) + done, part);
        });
        if (len > 0)
            m_size = std::max(m_size, offset + static_cast<long long>(len));
        return static_cast<int>(len);
    }

private:
    template <class Call>
    static void forEachBlock(long long offset, size_t count, Call call) {
        for (size_t done = 0; done < count;) {
            const long long at = offset + static_cast<long long>(done);
            const auto start = static_cast<size_t>(at % blockSize);
            const size_t part = std::min<size_t>(blockSize - start, count - done);
            call(at / blockSize, start, done, part);
            done += part;
        }
    }

    std::map<long long, std::vector<char>> m_blocks;
    long long m_size = 0;
};

struct Node {
    ino_t inode = 0;
    mode_t mode = 0;
    unsigned links = 1;
    timespec modified = now();
    Content content;                                       // of a file
    std::string target;                                    // of a symbolic link
    std::map<std::string, std::shared_ptr<Node>> children; // of a directory
    std::map<std::string, std::string> attributes;

    bool isDirectory() const {
        return S_ISDIR(mode);
    }

    /// Whether `wanted` is this node or below it.
    bool holds(const Node* wanted) const {
        return wanted == this ||
               std::any_of(children.begin(), children.end(),
                           [wanted](const auto& child) { return child.second->holds(wanted); });
    }

    void describe(struct stat& st) const {
        st = {};
        st.st_ino = inode;
        st.st_mode = mode;
        st.st_nlink = links;
        st.st_size = S_ISLNK(mode) ? static_cast<off_t>(target.size()) : content.size();
        st.st_blksize = blockSize;
        st.st_blocks = (st.st_size + 511) / 512;
        st.st_mtim = st.st_ctim = st.st_atim = modified;
    }
};

using NodePtr = std::shared_ptr<Node>;

int resize(Node& node, long long length) {
    if (length < 0)
        return fail(EINVAL);
    if (length > sizeMax)
        return fail(EFBIG);
    node.content.resize(length);
    node.modified = now();
    return 0;
}

/// The result of a path lookup: the directory, the name, and the node, null when missing.
struct Place {
    NodePtr directory;
    std::string name;
    NodePtr node;
};

std::vector<std::string> components(const std::string& path) {
    std::vector<std::string> parts;
    size_t start = 0;
    while (start < path.size()) {
        const size_t end = std::min(path.find('/', start), path.size());
        if (end > start)
            parts.push_back(path.substr(start, end - start));
        start = end + 1;
    }
    return parts;
}

} // namespace

struct MemFS::Data {
    Data() : root(makeNode(S_IFDIR | 0755)) {
        root->links = 2;
    }

    NodePtr makeNode(mode_t mode) {
        auto node = std::make_shared<Node>();
        node->inode = ++lastInode;
        node->mode = mode;
        return node;
    }

    /// Finds `path`. \returns false with errno when its directory does not exist.
    bool find(const QString& path, bool follow, Place& place) {
        if (path.contains(QChar::Null))
            return refuse(EINVAL);
        if (!path.isValidUtf16())
            return refuse(EILSEQ);
        int depth = 0;
        return walk({root}, path.toStdString(), follow, place, depth);
    }

    /// The same, but fails with ENOENT when the path has no node.
    bool findNode(const QString& path, bool follow, Place& place) {
        if (!find(path, follow, place))
            return false;
        return place.node || refuse(ENOENT);
    }

    int create(const QString& path, const NodePtr& node) {
        Place place;
        if (!find(path, false, place))
            return -1;
        if (place.node)
            return fail(EEXIST);
        place.directory->children[place.name] = node;
        place.directory->modified = now();
        return 0;
    }

    std::mutex mutex; // guards everything below, and all nodes
    ino_t lastInode = 0;
    NodePtr root;

private:
    bool walk(std::vector<NodePtr> trail, const std::string& path, bool follow, Place& place,
              int& depth) {
        if (path.size() > pathMax)
            return refuse(ENAMETOOLONG);
        const auto parts = components(path);
        place = {trail.back(), std::string(), trail.back()};
        for (size_t i = 0; i < parts.size(); ++i) {
            const bool last = i + 1 == parts.size();
            if (!place.node || !place.node->isDirectory())
                return refuse(place.node ? ENOTDIR : ENOENT);
            if (!step(trail, parts[i], place))
                return false;
            const bool link = place.node && S_ISLNK(place.node->mode);
            if (link && (!last || follow)) {
                if (++depth > linkDepth)
                    return refuse(ELOOP);
                const std::string target = place.node->target;
                const bool absolute = !target.empty() && target.front() == '/';
                if (!walk(absolute ? std::vector<NodePtr>{root} : trail, target, true, place,
                          depth))
                    return false;
            }
            if (place.node && place.node->isDirectory() && place.node != trail.back())
                trail.push_back(place.node);
        }
        if (!path.empty() && path.back() == '/' && place.node && !place.node->isDirectory())
            return refuse(ENOTDIR);
        return true;
    }

    static bool step(std::vector<NodePtr>& trail, const std::string& name, Place& place) {
        if (name.size() > nameMax)
            return refuse(ENAMETOOLONG);
        if (name == ".." && trail.size() > 1)
            trail.pop_back();
        if (name == "." || name == "..") {
            place = {trail.back(), std::string(), trail.back()};
            return true;
        }
        place.directory = place.node;
        place.name = name;
        const auto child = place.directory->children.find(name);
        place.node = child == place.directory->children.end() ? nullptr : child->second;
        return true;
    }
};

namespace {

class MemFile : public File {
public:
    MemFile(std::shared_ptr<MemFS::Data> fs, NodePtr node, int flags)
        : File(QStringLiteral("MemFile")), m_fs(std::move(fs)), m_node(std::move(node)),
          m_flags(flags) {}

    int read(void* buf, unsigned int len) override {
        const std::lock_guard lock(m_fs->mutex);
        const int count = readAt(buf, len, m_position);
        m_position += std::max(count, 0);
        return count;
    }

    int write(const void* buf, unsigned int len) override {
        const std::lock_guard lock(m_fs->mutex);
        if (m_node && (m_flags & O_APPEND))
            m_position = m_node->content.size();
        const int count = writeAt(buf, len, m_position);
        m_position += std::max(count, 0);
        return count;
    }

    int pread(void* buf, unsigned int len, long long offset) override {
        const std::lock_guard lock(m_fs->mutex);
        return readAt(buf, len, offset);
    }

    int pwrite(const void* buf, unsigned int len, long long offset) override {
        const std::lock_guard lock(m_fs->mutex);
        return writeAt(buf, len, offset);
    }

    long long lseek(long long offset, int whence) override {
        const std::lock_guard lock(m_fs->mutex);
        if (!m_node)
            return fail(EBADF);
        if (whence != SEEK_SET && whence != SEEK_CUR && whence != SEEK_END)
            return fail(EINVAL);
        const long long base = whence == SEEK_SET   ? 0
                               : whence == SEEK_CUR ? m_position
                                                    : m_node->content.size();
        long long target = 0;
        if (__builtin_add_overflow(base, offset, &target))
            return fail(EOVERFLOW);
        if (target < 0)
            return fail(EINVAL);
        m_position = target;
        return target;
    }

    int fstat(struct stat& st) override {
        const std::lock_guard lock(m_fs->mutex);
        if (!m_node)
            return fail(EBADF);
        m_node->describe(st);
        return 0;
    }

    int ftruncate(long long length) override {
        const std::lock_guard lock(m_fs->mutex);
        if (!m_node)
            return fail(EBADF);
        if ((m_flags & O_ACCMODE) == O_RDONLY)
            return fail(EINVAL);
        return resize(*m_node, length);
    }

    int fsync() override {
        const std::lock_guard lock(m_fs->mutex);
        return m_node ? 0 : fail(EBADF);
    }

    int fdatasync() override {
        return fsync();
    }

    int fcntl(int cmd, ...) override {
        va_list args;
        va_start(args, cmd);
        const long argument = va_arg(args, long);
        va_end(args);
        const std::lock_guard lock(m_fs->mutex);
        if (!m_node)
            return fail(EBADF);
        if (cmd == F_GETFL)
            return m_flags;
        if (cmd == F_SETFL) {
            m_flags = (m_flags & ~O_APPEND) | (static_cast<int>(argument) & O_APPEND);
            return 0;
        }
        return notImplemented();
    }

    int flock(int) override {
        return notImplemented();
    }

    int fchmod(int mode) override {
        const std::lock_guard lock(m_fs->mutex);
        if (!m_node)
            return fail(EBADF);
        m_node->mode = (m_node->mode & S_IFMT) | (mode & 07777);
        return 0;
    }

    int close() override {
        const std::lock_guard lock(m_fs->mutex);
        m_node.reset();
        return 0;
    }

    int ioctl(QString, QString&) override {
        return notImplemented();
    }

private:
    int readAt(void* buf, unsigned int len, long long offset) {
        if (!m_node || (m_flags & O_ACCMODE) == O_WRONLY)
            return fail(EBADF);
        if (m_node->isDirectory())
            return fail(EISDIR);
        return offset < 0 ? fail(EINVAL) : m_node->content.read(buf, len, offset);
    }

    int writeAt(const void* buf, unsigned int len, long long offset) {
        if (!m_node || (m_flags & O_ACCMODE) == O_RDONLY)
            return fail(EBADF);
        if (offset < 0)
            return fail(EINVAL);
        if (len > 0 && offset > sizeMax - static_cast<long long>(len))
            return fail(EFBIG);
        m_node->modified = now();
        return m_node->content.write(buf, len, offset);
    }

    const std::shared_ptr<MemFS::Data> m_fs;
    NodePtr m_node; // null once closed
    int m_flags;
    long long m_position = 0;
};

class MemDir : public Directory {
public:
    MemDir(std::shared_ptr<MemFS::Data> fs, NodePtr node)
        : Directory(QStringLiteral("MemDirectory")), m_fs(std::move(fs)), m_node(std::move(node)) {
        MemDir::rewinddir();
    }

    struct dirent* readdir() override {
        if (!m_node || m_next == m_names.size())
            return nullptr;
        const std::string& name = m_names[m_next++];
        m_entry = {};
        std::memcpy(m_entry.d_name, name.data(), name.size());
        m_entry.d_ino = m_next;
        m_entry.d_off = static_cast<off_t>(m_next);
        m_entry.d_reclen = sizeof m_entry;
        m_entry.d_type = DT_UNKNOWN;
        return &m_entry;
    }

    int rewinddir() override {
        const std::lock_guard lock(m_fs->mutex);
        m_names = {".", ".."};
        m_next = 0;
        if (m_node) {
            for (const auto& child : m_node->children)
                m_names.push_back(child.first);
        }
        return 0;
    }

    int closedir() override {
        if (!m_node)
            return -1;
        m_node.reset();
        return 0;
    }

    int ioctl(QString, QString&) override {
        return notImplemented();
    }

private:
    const std::shared_ptr<MemFS::Data> m_fs;
    NodePtr m_node; // null once closed
    std::vector<std::string> m_names;
    size_t m_next = 0;
    struct dirent m_entry = {};
};

/// Copies a value to `buf`. With size 0, only returns the size of the value, as getxattr(2) does.
int copyOut(const std::string& value, void* buf, unsigned int size) {
    if (size == 0)
        return static_cast<int>(value.size());
    if (size < value.size())
        return fail(ERANGE);
    std::memcpy(buf, value.data(), value.size());
    return static_cast<int>(value.size());
}

} // namespace

MemFS::MemFS() : FS(QStringLiteral("MemFS")), m_data(std::make_shared<Data>()) {}

MemFS::~MemFS() = default;

int MemFS::addWatch(QString) {
    return notImplemented();
}

int MemFS::remWatch(QString) {
    return notImplemented();
}

QSharedPointer<File> MemFS::open(QString path, int flags, int mode) {
    liberrno = Ok;
    const std::lock_guard lock(m_data->mutex);
    const bool create = flags & O_CREAT;
    const bool writes = (flags & O_ACCMODE) != O_RDONLY;
    Place place;
    if (!m_data->find(path, !(create && (flags & O_EXCL)), place))
        return {};
    int refusal = 0;
    if (!place.node)
        refusal = create && !path.endsWith(QLatin1Char('/')) ? 0 : create ? EISDIR : ENOENT;
    else if (create && (flags & O_EXCL))
        refusal = EEXIST;
    else if (place.node->isDirectory() && (writes || create))
        refusal = EISDIR;
    else if (!place.node->isDirectory() && (flags & O_DIRECTORY))
        refusal = ENOTDIR;
    if (refusal) {
        errno = refusal;
        return {};
    }
    if (!place.node) {
        place.node = m_data->makeNode(S_IFREG | (mode & 07777));
        place.directory->children[place.name] = place.node;
    } else if ((flags & O_TRUNC) && writes) {
        resize(*place.node, 0);
    }
    return QSharedPointer<MemFile>::create(m_data, place.node,
                                           flags & ~(O_CREAT | O_EXCL | O_TRUNC));
}

QSharedPointer<Directory> MemFS::opendir(QString path) {
    liberrno = Ok;
    Place place;
    {
        const std::lock_guard lock(m_data->mutex);
        if (!m_data->findNode(path, true, place))
            return {};
        if (!place.node->isDirectory()) {
            errno = ENOTDIR;
            return {};
        }
    }
    return QSharedPointer<MemDir>::create(m_data, place.node);
}

int MemFS::lstat(QString path, struct stat& st) {
    const std::lock_guard lock(m_data->mutex);
    Place place;
    if (!m_data->findNode(path, false, place))
        return -1;
    place.node->describe(st);
    return 0;
}

int MemFS::stat(QString path, struct stat& st) {
    const std::lock_guard lock(m_data->mutex);
    Place place;
    if (!m_data->findNode(path, true, place))
        return -1;
    place.node->describe(st);
    return 0;
}

int MemFS::statfs(QString path, struct statfs& st) {
    const std::lock_guard lock(m_data->mutex);
    Place place;
    if (!m_data->findNode(path, true, place))
        return -1;
    st = {};
    st.f_bsize = blockSize;
    st.f_blocks = 1 << 20;
    st.f_bfree = st.f_bavail = 1 << 19;
    st.f_namelen = nameMax;
    return 0;
}

int MemFS::link(QString oldPath, QString newPath) {
    const std::lock_guard lock(m_data->mutex);
    Place place;
    if (!m_data->findNode(oldPath, false, place))
        return -1;
    if (place.node->isDirectory())
        return fail(EPERM);
    if (m_data->create(newPath, place.node) != 0)
        return -1;
    ++place.node->links;
    return 0;
}

int MemFS::unlink(QString path) {
    const std::lock_guard lock(m_data->mutex);
    Place place;
    if (!m_data->findNode(path, false, place))
        return -1;
    if (place.node->isDirectory())
        return fail(EISDIR);
    --place.node->links;
    place.directory->children.erase(place.name);
    return 0;
}

int MemFS::mkdir(QString path, int mode) {
    const std::lock_guard lock(m_data->mutex);
    auto node = m_data->makeNode(S_IFDIR | (mode & 07777));
    node->links = 2;
    return m_data->create(path, node);
}

int MemFS::rmdir(QString path) {
    const std::lock_guard lock(m_data->mutex);
    Place place;
    if (!m_data->findNode(path, false, place))
        return -1;
    if (!place.node->isDirectory())
        return fail(ENOTDIR);
    if (!place.node->children.empty())
        return fail(ENOTEMPTY);
    if (place.name.empty())
        return fail(EBUSY);
    place.directory->children.erase(place.name);
    return 0;
}

int MemFS::rename(QString oldPath, QString newPath) {
    const std::lock_guard lock(m_data->mutex);
    Place from;
    Place to;
    if (!m_data->findNode(oldPath, false, from) || !m_data->find(newPath, false, to))
        return -1;
    if (from.name.empty() || to.name.empty())
        return fail(EBUSY);
    if (from.node == to.node)
        return 0;
    if (from.node->holds(to.directory.get()))
        return fail(EINVAL);
    if (to.node && to.node->isDirectory() != from.node->isDirectory())
        return fail(to.node->isDirectory() ? EISDIR : ENOTDIR);
    if (to.node && !to.node->children.empty())
        return fail(ENOTEMPTY);
    if (to.node)
        --to.node->links;
    from.directory->children.erase(from.name);
    to.directory->children[to.name] = from.node;
    return 0;
}

void MemFS::sync() {}

int MemFS::getxattr(QString path, QString name, void* value, unsigned int size) {
    const std::lock_guard lock(m_data->mutex);
    Place place;
    if (!m_data->findNode(path, true, place))
        return -1;
    const auto found = place.node->attributes.find(name.toStdString());
    if (found == place.node->attributes.end())
        return fail(ENODATA);
    return copyOut(found->second, value, size);
}

int MemFS::setxattr(QString path, QString name, void* value, unsigned int size, int flags) {
    const std::lock_guard lock(m_data->mutex);
    Place place;
    if (!m_data->findNode(path, true, place))
        return -1;
    const bool exists = place.node->attributes.count(name.toStdString()) > 0;
    if (exists && (flags & XATTR_CREATE))
        return fail(EEXIST);
    if (!exists && (flags & XATTR_REPLACE))
        return fail(ENODATA);
    place.node->attributes[name.toStdString()].assign(static_cast<char*>(value), size);
    return 0;
}

int MemFS::removexattr(QString path, QString name) {
    const std::lock_guard lock(m_data->mutex);
    Place place;
    if (!m_data->findNode(path, true, place))
        return -1;
    return place.node->attributes.erase(name.toStdString()) > 0 ? 0 : fail(ENODATA);
}

int MemFS::listxattr(QString path, QVector<QString>& names) {
    const std::lock_guard lock(m_data->mutex);
    Place place;
    if (!m_data->findNode(path, true, place))
        return -1;
    int size = 0;
    for (const auto& attribute : place.node->attributes) {
        names.append(QString::fromStdString(attribute.first));
        size += static_cast<int>(attribute.first.size()) + 1;
    }
    return size;
}

int MemFS::listxattr(QString path, char* list, unsigned int size) {
    const std::lock_guard lock(m_data->mutex);
    Place place;
    if (!m_data->findNode(path, true, place))
        return -1;
    std::string names;
    for (const auto& attribute : place.node->attributes)
        names.append(attribute.first).push_back('\0');
    return copyOut(names, list, size);
}

int MemFS::symlink(QString target, QString linkPath) {
    const std::lock_guard lock(m_data->mutex);
    auto node = m_data->makeNode(S_IFLNK | 0777);
    node->target = target.toStdString();
    return m_data->create(linkPath, node);
}

int MemFS::readlink(QString path, QString& target) {
    const std::lock_guard lock(m_data->mutex);
    Place place;
    target.clear();
    if (!m_data->findNode(path, false, place))
        return -1;
    if (!S_ISLNK(place.node->mode))
        return fail(EINVAL);
    target = QString::fromStdString(place.node->target);
    return static_cast<int>(place.node->target.size());
}

int MemFS::readlink(QString path, char* buf, unsigned int size) {
    QString target;
    if (readlink(path, target) < 0)
        return -1;
    const QByteArray text = target.toUtf8();
    const int count = std::min(text.size(), static_cast<int>(size));
    std::memcpy(buf, text.constData(), count);
    return count;
}

int MemFS::truncate(QString path, long long length) {
    const std::lock_guard lock(m_data->mutex);
    Place place;
    if (!m_data->findNode(path, true, place))
        return -1;
    return place.node->isDirectory() ? fail(EISDIR) : resize(*place.node, length);
}

int MemFS::chmod(QString path, int mode) {
    const std::lock_guard lock(m_data->mutex);
    Place place;
    if (!m_data->findNode(path, true, place))
        return -1;
    place.node->mode = (place.node->mode & S_IFMT) | (mode & 07777);
    return 0;
}

int MemFS::ioctl(QString, QString&) {
    return notImplemented();
}

} // namespace oru::io::test
