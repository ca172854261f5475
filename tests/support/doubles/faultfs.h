// SPDX-License-Identifier: Apache-2.0
// An FS that forwards all calls to another FS, except a chosen call, which fails.
//
// Every operation of the file system and of its open files and directories counts as one call. A
// failing call does not reach the other file system.
#pragma once

#include <oruio/fs.h>

#include <atomic>
#include <memory>

namespace oru::io::test {

/// Which call fails, and how. Shared by a FaultFS with its files and directories.
class FaultPlan {
public:
    /// The `call`-th call from now on (1 is the next) fails with `error`; later calls succeed.
    void failCall(int call, int error);
    /// The number of calls since failCall().
    int calls() const;
    /// Counts a call. \returns false, with errno, when the call must fail.
    bool passes();

private:
    std::atomic<int> m_calls{0};
    std::atomic<int> m_failing{0};
    std::atomic<int> m_error{0};
};

class FaultFS : public FS {
public:
    explicit FaultFS(QSharedPointer<FS> fs);
    ~FaultFS() override;

    FaultPlan& plan();

    int addWatch(QString path) override;
    int remWatch(QString path) override;
    QSharedPointer<File> open(QString path, int flags, int mode) override;
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

private:
    const QSharedPointer<FS> m_fs;
    const std::shared_ptr<FaultPlan> m_plan;
};

} // namespace oru::io::test
