// SPDX-License-Identifier: Apache-2.0
// Files and directories opened through an IPCFS.
#pragma once

#include "ipc/ipcsession_p.h"

namespace oru::io {

/// A file that is open in the server, by its descriptor there.
class IPCFS::Data::File : public oru::io::File {
public:
    File(int fd, Data* data);

    int read(void* buf, unsigned int len) override;
    int write(const void* buf, unsigned int len) override;
    int pread(void* buf, unsigned int len, long long offset) override;
    int pwrite(const void* buf, unsigned int len, long long offset) override;
    long long lseek(long long offset, int whence) override;
    int fstat(struct stat& st) override;
    int ftruncate(long long length) override;
    int fsync() override;
    int fdatasync() override;
    int fcntl(int cmd, ...) override;
    int flock(int operation) override;
    int fchmod(int mode) override;
    int close() override;
    int ioctl(QString request, QString& response) override;
    ~File() override;

    /// Whether the file is open in the current session. Sets errno to EBADF when it is not.
    virtual bool isValid();

private:
    template <class Request>
    int fetch(void* buf, unsigned int len, Request request);
    template <class Request>
    int deliver(const void* buf, unsigned int len, Request request);

    int m_fd;
    const QExplicitlySharedDataPointer<Data> m_data;
    const unsigned int m_session;
};

/// A directory that is open in the server, by its handle there.
class IPCFS::Data::Dir : public Directory {
public:
    Dir(void* handle, Data* data);

    struct dirent* readdir() override;
    int rewinddir() override;
    int closedir() override;
    int ioctl(QString request, QString& response) override;
    ~Dir() override;

    /// Whether the directory is open in the current session. Sets errno to EBADF when it is not.
    virtual bool isValid();

private:
    void* m_handle;
    const QExplicitlySharedDataPointer<Data> m_data;
    const unsigned int m_session;
    struct dirent m_entry = {};
};

} // namespace oru::io
