// SPDX-License-Identifier: Apache-2.0
#include "support/doubles/recordingfs.h"

#include <cstdarg>
#include <utility>

namespace oru::io::test {

namespace {

QString hex(const void* pointer) {
    return QString::number(reinterpret_cast<quintptr>(pointer), 16);
}

int noteCall(Record& record, const QString& call) {
    record.calls.append(call);
    return record.answer;
}

class RecordingFile : public File {
public:
    explicit RecordingFile(QSharedPointer<Record> record)
        : File(QStringLiteral("RecordingFile")), m_record(std::move(record)) {}
    ~RecordingFile() override {
        note("~file");
    }

    int read(void* buf, unsigned int len) override {
        return note(QStringLiteral("read %1 %2").arg(hex(buf)).arg(len));
    }
    int write(const void* buf, unsigned int len) override {
        return note(QStringLiteral("write %1 %2").arg(hex(buf)).arg(len));
    }
    int pread(void* buf, unsigned int len, long long offset) override {
        return note(QStringLiteral("pread %1 %2 %3").arg(hex(buf)).arg(len).arg(offset));
    }
    int pwrite(const void* buf, unsigned int len, long long offset) override {
        return note(QStringLiteral("pwrite %1 %2 %3").arg(hex(buf)).arg(len).arg(offset));
    }
    long long lseek(long long offset, int whence) override {
        return note(QStringLiteral("lseek %1 %2").arg(offset).arg(whence));
    }
    int fstat(struct stat& st) override {
        return note(QStringLiteral("fstat %1").arg(hex(&st)));
    }
    int ftruncate(long long length) override {
        return note(QStringLiteral("ftruncate %1").arg(length));
    }
    int fsync() override {
        return note("fsync");
    }
    int fdatasync() override {
        return note("fdatasync");
    }
    int fcntl(int cmd, ...) override {
        va_list args;
        va_start(args, cmd);
        void* argument = va_arg(args, void*);
        va_end(args);
        return note(QStringLiteral("fcntl %1 %2").arg(cmd).arg(hex(argument)));
    }
    int flock(int operation) override {
        return note(QStringLiteral("flock %1").arg(operation));
    }
    int fchmod(int mode) override {
        return note(QStringLiteral("fchmod %1").arg(mode));
    }
    int close() override {
        return note("close");
    }
    int ioctl(QString request, QString& response) override {
        response = QStringLiteral("answer to ") + request;
        return note(QStringLiteral("ioctl ") + request);
    }

private:
    int note(const QString& call) {
        return noteCall(*m_record, call);
    }

    const QSharedPointer<Record> m_record;
};

class RecordingDir : public Directory {
public:
    explicit RecordingDir(QSharedPointer<Record> record)
        : Directory(QStringLiteral("RecordingDirectory")), m_record(std::move(record)) {}
    ~RecordingDir() override {
        noteCall(*m_record, "~directory");
    }

    struct dirent* readdir() override {
        noteCall(*m_record, "readdir");
        return m_record->answer == -1 ? nullptr : &m_entry;
    }
    int rewinddir() override {
        return noteCall(*m_record, "rewinddir");
    }
    int closedir() override {
        return noteCall(*m_record, "closedir");
    }
    int ioctl(QString request, QString&) override {
        return noteCall(*m_record, QStringLiteral("ioctl ") + request);
    }

private:
    const QSharedPointer<Record> m_record;
    struct dirent m_entry = {};
};

} // namespace

RecordingFS::RecordingFS() : FS(QStringLiteral("RecordingFS")), m_record(new Record) {}

RecordingFS::~RecordingFS() = default;

QStringList RecordingFS::take() {
    return std::exchange(m_record->calls, {});
}

void RecordingFS::answerWith(int answer) {
    m_record->answer = answer;
}

int RecordingFS::note(const QString& call) {
    return noteCall(*m_record, call);
}

int RecordingFS::addWatch(QString path) {
    return note(QStringLiteral("addWatch ") + path);
}

int RecordingFS::remWatch(QString path) {
    return note(QStringLiteral("remWatch ") + path);
}

QSharedPointer<File> RecordingFS::open(QString path, int flags, int mode) {
    if (note(QStringLiteral("open %1 %2 %3").arg(path).arg(flags).arg(mode)) == -1)
        return {};
    return QSharedPointer<RecordingFile>::create(m_record);
}

QSharedPointer<Directory> RecordingFS::opendir(QString path) {
    if (note(QStringLiteral("opendir ") + path) == -1)
        return {};
    return QSharedPointer<RecordingDir>::create(m_record);
}

int RecordingFS::lstat(QString path, struct stat& st) {
    return note(QStringLiteral("lstat %1 %2").arg(path, hex(&st)));
}

int RecordingFS::stat(QString path, struct stat& st) {
    return note(QStringLiteral("stat %1 %2").arg(path, hex(&st)));
}

int RecordingFS::statfs(QString path, struct statfs& st) {
    return note(QStringLiteral("statfs %1 %2").arg(path, hex(&st)));
}

int RecordingFS::link(QString oldPath, QString newPath) {
    return note(QStringLiteral("link %1 %2").arg(oldPath, newPath));
}

int RecordingFS::unlink(QString path) {
    return note(QStringLiteral("unlink ") + path);
}

int RecordingFS::mkdir(QString path, int mode) {
    return note(QStringLiteral("mkdir %1 %2").arg(path).arg(mode));
}

int RecordingFS::rmdir(QString path) {
    return note(QStringLiteral("rmdir ") + path);
}

int RecordingFS::rename(QString oldPath, QString newPath) {
    return note(QStringLiteral("rename %1 %2").arg(oldPath, newPath));
}

void RecordingFS::sync() {
    note("sync");
}

int RecordingFS::getxattr(QString path, QString name, void* value, unsigned int size) {
    return note(QStringLiteral("getxattr %1 %2 %3 %4").arg(path, name, hex(value)).arg(size));
}

int RecordingFS::setxattr(QString path, QString name, void* value, unsigned int size, int flags) {
    return note(
        QStringLiteral("setxattr %1 %2 %3 %4 %5").arg(path, name, hex(value)).arg(size).arg(flags));
}

int RecordingFS::removexattr(QString path, QString name) {
    return note(QStringLiteral("removexattr %1 %2").arg(path, name));
}

int RecordingFS::listxattr(QString path, QVector<QString>& names) {
    names.append(QStringLiteral("listed"));
    return note(QStringLiteral("listxattr-names ") + path);
}

int RecordingFS::listxattr(QString path, char* list, unsigned int size) {
    return note(QStringLiteral("listxattr %1 %2 %3").arg(path, hex(list)).arg(size));
}

int RecordingFS::symlink(QString target, QString linkPath) {
    return note(QStringLiteral("symlink %1 %2").arg(target, linkPath));
}

int RecordingFS::readlink(QString path, QString& target) {
    target = QStringLiteral("linked");
    return note(QStringLiteral("readlink-text ") + path);
}

int RecordingFS::readlink(QString path, char* buf, unsigned int size) {
    return note(QStringLiteral("readlink %1 %2 %3").arg(path, hex(buf)).arg(size));
}

int RecordingFS::truncate(QString path, long long length) {
    return note(QStringLiteral("truncate %1 %2").arg(path).arg(length));
}

int RecordingFS::chmod(QString path, int mode) {
    return note(QStringLiteral("chmod %1 %2").arg(path).arg(mode));
}

int RecordingFS::ioctl(QString request, QString&) {
    return note(QStringLiteral("ioctl ") + request);
}

} // namespace oru::io::test
