// SPDX-License-Identifier: Apache-2.0
// An FS that only records its calls, and returns a result that the test sets.
#pragma once

#include <oruio/fs.h>

#include <QStringList>

namespace oru::io::test {

/// Shared by a RecordingFS, its files and its directories: the calls so far, and the result.
struct Record {
    QStringList calls; ///< such as "rename /a /b"
    int answer = 0;
};

class RecordingFS : public FS {
public:
    RecordingFS();
    ~RecordingFS() override;

    /// The calls since the last take().
    QStringList take();
    /// Sets the result of all following calls; open() and opendir() return null when it is -1.
    void answerWith(int answer);

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
    int note(const QString& call);

    const QSharedPointer<Record> m_record;
};

} // namespace oru::io::test
