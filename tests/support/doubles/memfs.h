// SPDX-License-Identifier: Apache-2.0
// A small FS in memory, which needs no disk.
//
// It has directories, files, hard and symbolic links, modes, times and extended attributes. flock()
// and the lock commands of fcntl() are not implemented. All operations are thread-safe.
#pragma once

#include <oruio/fs.h>

#include <memory>

namespace oru::io::test {

class MemFS : public FS {
public:
    MemFS();
    ~MemFS() override;

    int addWatch(QString path) override;
    int remWatch(QString path) override;
    QSharedPointer<File> open(QString path, int flags, int mode) override;
    /// Null on failure, unlike the local backend.
    QSharedPointer<Directory> opendir(QString path) override;
    int lstat(QString path, struct stat& st) override;
    int stat(QString path, struct stat& st) override;
    int statfs(QString path, struct statfs& st) override;
    int link(QString oldPath, QString newPath) override;
    int unlink(QString path) override;
    int mkdir(QString path, int mode) override;
    int rmdir(QString path) override;
    int rename(QString oldPath, QString newPath) override;
    void sync() override;
    int getxattr(QString path, QString name, void* value, unsigned int size) override;
    int setxattr(QString path, QString name, void* value, unsigned int size, int flags) override;
    int removexattr(QString path, QString name) override;
    int listxattr(QString path, QVector<QString>& names) override;
    int listxattr(QString path, char* list, unsigned int size) override;
    int symlink(QString target, QString linkPath) override;
    int readlink(QString path, QString& target) override;
    int readlink(QString path, char* buf, unsigned int size) override;
    int truncate(QString path, long long length) override;
    int chmod(QString path, int mode) override;
    int ioctl(QString request, QString& response) override;

    struct Data;

private:
    const std::shared_ptr<Data> m_data;
};

} // namespace oru::io::test
