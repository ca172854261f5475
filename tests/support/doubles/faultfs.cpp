// SPDX-License-Identifier: Apache-2.0
#include "support/doubles/faultfs.h"

#include <cerrno>
#include <cstdarg>

namespace oru::io::test {

void FaultPlan::failCall(int call, int error) {
    m_calls = 0;
    m_error = error;
    m_failing = call;
}

int FaultPlan::calls() const {
    return m_calls;
}

bool FaultPlan::passes() {
    if (++m_calls != m_failing)
        return true;
    errno = m_error;
    return false;
}

namespace {

class FaultFile : public File {
public:
    FaultFile(QSharedPointer<File> file, std::shared_ptr<FaultPlan> plan)
        : File(file->type()), m_file(std::move(file)), m_plan(std::move(plan)) {}

    int read(void* buf, unsigned int len) override {
        return m_plan->passes() ? m_file->read(buf, len) : -1;
    }
    int write(const void* buf, unsigned int len) override {
        return m_plan->passes() ? m_file->write(buf, len) : -1;
    }
    int pread(void* buf, unsigned int len, long long offset) override {
        return m_plan->passes() ? m_file->pread(buf, len, offset) : -1;
    }
    int pwrite(const void* buf, unsigned int len, long long offset) override {
        return m_plan->passes() ? m_file->pwrite(buf, len, offset) : -1;
    }
    long long lseek(long long offset, int whence) override {
        return m_plan->passes() ? m_file->lseek(offset, whence) : -1;
    }
    int fstat(struct stat& st) override {
        return m_plan->passes() ? m_file->fstat(st) : -1;
    }
    int ftruncate(long long length) override {
        return m_plan->passes() ? m_file->ftruncate(length) : -1;
    }
    int fsync() override {
        return m_plan->passes() ? m_file->fsync() : -1;
    }
    int fdatasync() override {
        return m_plan->passes() ? m_file->fdatasync() : -1;
    }
    int fcntl(int cmd, ...) override {
        va_list args;
        va_start(args, cmd);
        void* argument = va_arg(args, void*);
        va_end(args);
        return m_plan->passes() ? m_file->fcntl(cmd, argument) : -1;
    }
    int flock(int operation) override {
        return m_plan->passes() ? m_file->flock(operation) : -1;
    }
    int fchmod(int mode) override {
        return m_plan->passes() ? m_file->fchmod(mode) : -1;
    }
    /// Closes the file even when it fails, as close(2) does.
    int close() override {
        const bool passes = m_plan->passes();
        const int error = errno;
        const int result = m_file->close();
        if (passes)
            return result;
        errno = error;
        return -1;
    }
    int ioctl(QString request, QString& response) override {
        return m_plan->passes() ? m_file->ioctl(request, response) : -1;
    }

private:
    const QSharedPointer<File> m_file;
    const std::shared_ptr<FaultPlan> m_plan;
};

class FaultDir : public Directory {
public:
    FaultDir(QSharedPointer<Directory> dir, std::shared_ptr<FaultPlan> plan)
        : Directory(dir->type()), m_dir(std::move(dir)), m_plan(std::move(plan)) {}

    struct dirent* readdir() override {
        return m_plan->passes() ? m_dir->readdir() : nullptr;
    }
    int rewinddir() override {
        return m_plan->passes() ? m_dir->rewinddir() : -1;
    }
    int closedir() override {
        return m_plan->passes() ? m_dir->closedir() : -1;
    }
    int ioctl(QString request, QString& response) override {
        return m_plan->passes() ? m_dir->ioctl(request, response) : -1;
    }

private:
    const QSharedPointer<Directory> m_dir;
    const std::shared_ptr<FaultPlan> m_plan;
};

} // namespace

FaultFS::FaultFS(QSharedPointer<FS> fs)
    : FS(fs->type()), m_fs(std::move(fs)), m_plan(std::make_shared<FaultPlan>()) {}

FaultFS::~FaultFS() = default;

FaultPlan& FaultFS::plan() {
    return *m_plan;
}

int FaultFS::addWatch(QString path) {
    return m_plan->passes() ? m_fs->addWatch(path) : -1;
}

int FaultFS::remWatch(QString path) {
    return m_plan->passes() ? m_fs->remWatch(path) : -1;
}

QSharedPointer<File> FaultFS::open(QString path, int flags, int mode) {
    auto file = m_plan->passes() ? m_fs->open(path, flags, mode) : nullptr;
    return file ? QSharedPointer<FaultFile>::create(file, m_plan) : nullptr;
}

QSharedPointer<Directory> FaultFS::opendir(QString path) {
    auto dir = m_plan->passes() ? m_fs->opendir(path) : nullptr;
    return dir ? QSharedPointer<FaultDir>::create(dir, m_plan) : nullptr;
}

int FaultFS::lstat(QString path, struct stat& st) {
    return m_plan->passes() ? m_fs->lstat(path, st) : -1;
}

int FaultFS::stat(QString path, struct stat& st) {
    return m_plan->passes() ? m_fs->stat(path, st) : -1;
}

int FaultFS::statfs(QString path, struct statfs& st) {
    return m_plan->passes() ? m_fs->statfs(path, st) : -1;
}

int FaultFS::link(QString oldPath, QString newPath) {
    return m_plan->passes() ? m_fs->link(oldPath, newPath) : -1;
}

int FaultFS::unlink(QString path) {
    return m_plan->passes() ? m_fs->unlink(path) : -1;
}

int FaultFS::mkdir(QString path, int mode) {
    return m_plan->passes() ? m_fs->mkdir(path, mode) : -1;
}

int FaultFS::rmdir(QString path) {
    return m_plan->passes() ? m_fs->rmdir(path) : -1;
}

int FaultFS::rename(QString oldPath, QString newPath) {
    return m_plan->passes() ? m_fs->rename(oldPath, newPath) : -1;
}

void FaultFS::sync() {
    if (m_plan->passes())
        m_fs->sync();
}

int FaultFS::getxattr(QString path, QString name, void* value, unsigned int size) {
    return m_plan->passes() ? m_fs->getxattr(path, name, value, size) : -1;
}

int FaultFS::setxattr(QString path, QString name, void* value, unsigned int size, int flags) {
    return m_plan->passes() ? m_fs->setxattr(path, name, value, size, flags) : -1;
}

int FaultFS::removexattr(QString path, QString name) {
    return m_plan->passes() ? m_fs->removexattr(path, name) : -1;
}

int FaultFS::listxattr(QString path, QVector<QString>& names) {
    return m_plan->passes() ? m_fs->listxattr(path, names) : -1;
}

int FaultFS::listxattr(QString path, char* list, unsigned int size) {
    return m_plan->passes() ? m_fs->listxattr(path, list, size) : -1;
}

int FaultFS::symlink(QString target, QString linkPath) {
    return m_plan->passes() ? m_fs->symlink(target, linkPath) : -1;
}

int FaultFS::readlink(QString path, QString& target) {
    return m_plan->passes() ? m_fs->readlink(path, target) : -1;
}

int FaultFS::readlink(QString path, char* buf, unsigned int size) {
    return m_plan->passes() ? m_fs->readlink(path, buf, size) : -1;
}

int FaultFS::truncate(QString path, long long length) {
    return m_plan->passes() ? m_fs->truncate(path, length) : -1;
}

int FaultFS::chmod(QString path, int mode) {
    return m_plan->passes() ? m_fs->chmod(path, mode) : -1;
}

int FaultFS::ioctl(QString request, QString& response) {
    return m_plan->passes() ? m_fs->ioctl(request, response) : -1;
}

} // namespace oru::io::test
