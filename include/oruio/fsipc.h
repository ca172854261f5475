// The file service between processes, client side: another process's file system as an FS, and the
// shared-memory block through which the two ends meet.
#pragma once

#include <oruio/fs.h>
#include <oruio/properties.h>

#include <QExplicitlySharedDataPointer>
#include <QSharedPointer>

#include <ctime>
#include <utility>

namespace oru::io {

/// A named block of POSIX shared memory with a header and a robust, process-shared mutex.
///
/// The object is named "/_blk_" and the block's name, and is as large as the user data and 40 bytes
/// more: those of the header in front (32 on the target) and an unused tail. Where the platform's
/// mutex is larger than the target's, the header takes what is missing from the end of the user
/// data: 16 bytes on x86-64.
///
/// Threads: any thread may use a block; whoever has locked it unlocks it again, and a thread must
/// not end or lose the block while it holds the lock.
class ORUIO_EXPORT ShmBlock {
public:
    /// Create the object when there is none, and initialise it anew when its header is not valid.
    static constexpr unsigned int Create = 1;
    /// Remove the object with this block.
    static constexpr unsigned int RemoveAtClose = 2;

    /// Opens the object, and with Create makes it, for `size` bytes of user data; `flags` are
    /// Create and RemoveAtClose. Without Create, waits up to 10 ms for it to appear. Whether it
    /// worked, isValid() says; failures to create or map go to standard error as of perror(3). An
    /// object of this size that is of a program of another word size is neither opened nor made
    /// anew: EBUSY.
    /// Mirrors shm_open(3), ftruncate(2) and mmap(2).
    ShmBlock(const char* name, unsigned int size, unsigned int flags);
    /// Unmaps the block, after removing the object if that was asked for and nobody else did.
    ~ShmBlock();

    /// Whether the block is mapped and its header intact.
    bool isValid() const;
    /// The address of the mapping, null when there is none.
    void* base() const;

    /// Takes the block's mutex, within 10 s. A holder that died is no obstacle. \returns the user
    /// data, or null when the block is not valid, also by the time it is locked, or still locked.
    void* lock();
    /// As lock(), without waiting.
    void* tryLock();
    /// Releases the mutex. \returns 0, or the error of pthread_mutex_unlock(3), which is EPERM for
    /// a thread that has not locked it. Of a block that is not valid, always 0.
    int unlock();

    /// Makes the destructor remove the object.
    void removeAtClose();
    /// Removes the object at once: its name is free, and no further process can open or lock it.
    /// An object that has got the name meanwhile keeps it. Only for the holder of the lock.
    /// \returns whether that worked; if not, all is as it was and errno says why, as of
    /// shm_unlink(3).
    bool remove();

    /// The time on CLOCK_REALTIME in `ms` milliseconds. A full second of nanoseconds is carried
    /// only when there is more than that, so that tv_nsec can be 1,000,000,000.
    static struct timespec abstime(int ms);

    /// Holds a block locked and gives its user data as a T.
    template <class T>
    class Access {
    public:
        /// Locks the block, and keeps it from being closed.
        explicit Access(QSharedPointer<ShmBlock> block)
            : m_block(std::move(block)), m_data(m_block ? m_block->lock() : nullptr) {}
        ~Access() {
            if (m_data)
                m_block->unlock();
        }

        /// The user data, null when the block could not be locked.
        T* data() const {
            return static_cast<T*>(m_data);
        }
        /// The block.
        const QSharedPointer<ShmBlock>& block() const {
            return m_block;
        }

    private:
        Q_DISABLE_COPY(Access)
        const QSharedPointer<ShmBlock> m_block;
        void* const m_data;
    };

private:
    Q_DISABLE_COPY(ShmBlock)

    int openObject() const;
    void openExisting();
    bool create();
    bool map(int fd);
    void unmap();
    bool isReady(int fd) const;
    bool isNamed() const;
    bool initialise(int fd);
    bool initialiseHeader();
    void* lockedData(int lockResult);

    char* m_name;
    void* m_base = nullptr;
    unsigned int m_size;
    unsigned int m_flags;
    int m_descriptor = 0; // of the object that this block has made; 0 is none
    ino_t m_object = 0;   // which object is mapped
};

/// The user data of the file service's block: mutexes and semaphores, the texts of one request and
/// one response, and two data buffers of 1 MiB. Exists in shared memory only.
///
/// Threads and processes: any may call any function at the same time.
class ORUIO_EXPORT IPCShm {
public:
    /// The size of the area, in bytes.
    static unsigned int size();
    /// The hexadecimal number in the environment variable IO_IPCDBG, 0 without one. Of its bits, 1
    /// traces requests in the server, 2 in the client, and 4 logs how sessions begin and end.
    static unsigned int debugMask();
    /// Sets `*ts` to CLOCK_REALTIME in `ms` milliseconds. \returns `ts`.
    static struct timespec* setTimeout(struct timespec* ts, unsigned long long ms);

    /// The data buffer `index`, null unless that is 0 or 1.
    void* databufAddr(int index);
    /// Reserves a free data buffer, waiting up to `timeout` seconds for one. \returns its index, or
    /// -1 with errno ETIMEDOUT when none became free, EAGAIN when buffers were given back that
    /// nobody had.
    int allocDataBuf(unsigned int timeout);
    /// Releases data buffer `index`. \returns 0; -1 with errno EINVAL when that is not 0 or 1, and
    /// with ETIMEDOUT when the buffers stay locked for 10 s.
    int freeDataBuf(int index);

private:
    Q_DISABLE_COPY(IPCShm)
    IPCShm() = delete;
    ~IPCShm() = delete;
};

/// The file system that an IPCServer in another process serves.
///
/// Every operation is one request to the server, and fails with errno ENOTCONN while there is no
/// session. The session ends with disconnect(), when the server goes away, when it has not answered
/// within 10 s, and with any answer whose errno is ENOTCONN or ESHUTDOWN, such as that of a served
/// file system that has lost a connection of its own; connect() then begins a new one. Files and
/// directories belong to the session that opened them: in a later one they answer EBADF. They may
/// outlive the IPCFS.
///
/// Of a file, read(), write(), pread() and pwrite() carry at most 1 MiB and come back short when
/// asked for more, so that readAll() of more than that is empty. fchmod() is flock() with the mode
/// for its operation. fcntl() takes locks (F_SETLK, F_SETLKW) for the server's process; F_GETLK
/// does not tell which lock it found: the record stays as it was. F_DUPFD, F_DUPFD_CLOEXEC,
/// F_GETFD, F_SETFD, F_GETFL and F_SETFL change nothing and give 0 for any file that is open in the
/// server; other commands fail with errno EOPNOTSUPP.
///
/// One IPCFS at a time can be connected, of those in all processes. Extended attributes, watches
/// and ioctl() are not implemented.
///
/// Threads: the request area holds one request, so calls on an IPCFS and on its files and
/// directories must not overlap; callers serialise them. The thread that connects holds a lock for
/// the whole session: it should live as long, and be the one that disconnects. When it ends before,
/// another client may take the session's place, and the server, which looks every 30 s, makes it
/// free; this client then answers ENOTCONN. When the session ends on another thread, others can
/// connect only after the thread that connected has ended or connected anew. A child of fork(2) has
/// no part in the session, also when its parent is no more.
///
/// Time-outs are measured on CLOCK_REALTIME: setting it forward cuts them short, setting it back
/// makes them longer.
class ORUIO_EXPORT IPCFS : public FS {
public:
    using SPtr = QSharedPointer<IPCFS>;

    /// Not connected.
    IPCFS();

    /// Not implemented.
    int addWatch(QString path) override;
    /// Not implemented.
    int remWatch(QString path) override;
    /// A file of descriptor 0 in the server cannot be used: its operations answer EBADF.
    QSharedPointer<File> open(QString path, int flags, int mode) override;
    /// Null when the request failed or the server's file system gave no directory. Over a server's
    /// local backend a directory that cannot be opened is an empty one, and errno tells why. Its
    /// readdir() leaves -1 in errno at the end, and also when the server's file system cannot go
    /// on.
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
    /// Not implemented.
    int getxattr(QString path, QString name, void* value, unsigned int size) override;
    /// Not implemented.
    int setxattr(QString path, QString name, void* value, unsigned int size, int flags) override;
    /// Not implemented.
    int removexattr(QString path, QString name) override;
    /// Not implemented.
    int listxattr(QString path, QVector<QString>& names) override;
    /// Not implemented.
    int listxattr(QString path, char* list, unsigned int size) override;
    int symlink(QString target, QString linkPath) override;
    /// `target` stays as it was when the call fails.
    int readlink(QString path, QString& target) override;
    /// What is left of `buf` behind the target is filled with NULs.
    int readlink(QString path, char* buf, unsigned int size) override;
    int truncate(QString path, long long length) override;
    int chmod(QString path, int mode) override;
    /// Not implemented.
    int ioctl(QString request, QString& response) override;

    /// Disconnects.
    ~IPCFS() override;

    /// Begins a session, in up to `tries` attempts, with a pause of 1 s after each that failed.
    /// `props` is not read and may be null. \returns 0 when connected, also if it was before, else
    /// -1 with errno ENOTCONN, or why the server refused. An attempt takes up to 40 s: 10 s each
    /// for the block, for the last request of a former session, for the end of that session, and
    /// for the server's answer.
    virtual int connect(unsigned int tries, Properties* props);
    /// Ends the session, if there is one. Returns when the server has closed all that the session
    /// had open; does not wait longer than 10 s for the block, and as long for the server.
    /// \returns 0.
    virtual int disconnect();
    /// Whether there is a session, as far as the last call could tell.
    virtual bool isConnected();
    /// 1 when connected, else 0.
    virtual int state();

    /// The session. The library's own.
    class ORUIO_LOCAL Data;

private:
    const QExplicitlySharedDataPointer<Data> m_data;
};

} // namespace oru::io
