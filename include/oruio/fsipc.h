// SPDX-License-Identifier: Apache-2.0
/// \file
/// The file service between processes, client side: the file system of another process as an FS,
/// and the shared memory between client and server.
///
/// \code
/// IPCFS files;
/// if (files.connect(3, nullptr) != 0)
///     fprintf(stderr, "no server: %s\n", oru::io::strerror());
/// \endcode
#pragma once

#include <oruio/fs.h>
#include <oruio/properties.h>

#include <QExplicitlySharedDataPointer>
#include <QSharedPointer>

#include <ctime>
#include <utility>

namespace oru::io {

/// A named block of POSIX shared memory: a header with a robust, process-shared mutex, then the
/// user data.
///
/// - The object is named "/_blk_" followed by the name of the block.
/// - It is 40 bytes larger than the user data. On the target the header has 32 of them; the other 8
///   follow the user data, unused.
/// - Where the mutex of the platform is larger than that of the target, so is the header. The end
///   of the user data is then shorter by what the 40 bytes lack: by 16 bytes on x86-64.
///
/// Threads: any thread may use a block. The thread that locked a block must unlock it. While it
/// holds the lock, it must not end and the block must not be destroyed.
class ORUIO_EXPORT ShmBlock {
public:
    /// Create the object if it does not exist. Initialise it if its header is not valid.
    static constexpr unsigned int Create = 1;
    /// Remove the object in the destructor.
    static constexpr unsigned int RemoveAtClose = 2;

    /// Opens the object with `size` bytes of user data: shm_open(3), ftruncate(2), mmap(2).
    ///
    /// `flags` is 0 or a combination of Create and RemoveAtClose. isValid() returns whether it
    /// worked. A failure to create or map the object is printed on standard error, as by perror(3).
    ///
    /// - Without Create: waits up to 10 ms for the object to appear.
    /// - With Create: waits up to 1 s for another process that initialises the same object.
    /// - An object of this size that belongs to a program of another ABI (32- or 64-bit) is not
    ///   opened. With Create it is not initialised either, and errno is EBUSY.
    ShmBlock(const char* name, unsigned int size, unsigned int flags);
    /// Unmaps the block. With RemoveAtClose, removes the object before, unless it has been removed.
    ~ShmBlock();

    /// Returns whether the block is mapped and its header is valid.
    bool isValid() const;
    /// Returns the address of the mapping, or null.
    void* base() const;

    /// Locks the mutex, waiting up to 10 s. Recovers it from a holder that has died.
    ///
    /// \returns the user data, or null:
    /// - the mutex is still locked by another holder;
    /// - the block is not valid, or was no longer valid when the mutex was locked.
    void* lock();
    /// As lock(), without waiting.
    void* tryLock();
    /// Unlocks the mutex.
    ///
    /// \returns 0, or the error number of pthread_mutex_unlock(3): EPERM for a thread that has not
    /// locked it. Always 0 for a block that is not valid.
    int unlock();

    /// Makes the destructor remove the object.
    void removeAtClose();
    /// Removes the object at once: its name is free, and no process can open or lock it any more.
    ///
    /// Only the holder of the lock may call it. If another object has taken the name, that one is
    /// kept.
    ///
    /// \retval true removed
    /// \retval false nothing has changed; errno is that of shm_unlink(3)
    bool remove();

    /// Returns the time on CLOCK_REALTIME `ms` milliseconds from now.
    ///
    /// tv_nsec can be 1,000,000,000: nanoseconds are carried only above a full second.
    static struct timespec abstime(int ms);

    /// Locks a block for its own lifetime and gives access to the user data as a T.
    template <class T>
    class Access {
    public:
        /// Locks the block and holds a reference to it, so that it stays mapped.
        explicit Access(QSharedPointer<ShmBlock> block)
            : m_block(std::move(block)), m_data(m_block ? m_block->lock() : nullptr) {}
        ~Access() {
            if (m_data)
                m_block->unlock();
        }

        /// Returns the user data, or null when the block could not be locked.
        T* data() const {
            return static_cast<T*>(m_data);
        }
        /// Returns the block.
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
    int m_descriptor = 0; // of the object, if this block created it; else 0
    ino_t m_object = 0;   // inode of the mapped object
};

/// The user data of the block that client and server of the file service share.
///
/// It holds mutexes and semaphores, one request, one response, and two data buffers of 1 MiB. It
/// exists in shared memory only.
///
/// Threads: any thread of any process may call any function at any time.
class ORUIO_EXPORT IPCShm {
public:
    /// Returns the size of the area in bytes.
    static unsigned int size();
    /// Returns the hexadecimal number in the environment variable IO_IPCDBG, 0 without one.
    ///
    /// Its bits select what is logged: 1 requests in the server, 2 requests in the client, 4 the
    /// beginning and end of sessions.
    static unsigned int debugMask();
    /// Sets `*ts` to the time on CLOCK_REALTIME `ms` milliseconds from now. \returns `ts`.
    static struct timespec* setTimeout(struct timespec* ts, unsigned long long ms);

    /// Returns data buffer `index`, or null when `index` is not 0 or 1.
    void* databufAddr(int index);
    /// Reserves a free data buffer, waiting up to `timeout` seconds for one.
    ///
    /// \returns the index of the buffer, or -1 with errno:
    /// - ETIMEDOUT: no buffer became free in time;
    /// - EAGAIN: no buffer is free although the semaphore counted one.
    int allocDataBuf(unsigned int timeout);
    /// Releases data buffer `index`.
    ///
    /// \returns 0, or -1 with errno:
    /// - EINVAL: `index` is not 0 or 1;
    /// - ETIMEDOUT: the buffers stayed locked for 10 s.
    int freeDataBuf(int index);

private:
    Q_DISABLE_COPY(IPCShm)
    IPCShm() = delete;
    ~IPCShm() = delete;
};

/// The file system that an IPCServer in another process serves.
///
/// Sessions:
///
/// - connect() begins a session. Only one IPCFS on the system can be connected at a time.
/// - Every operation is one request to the server. Without a session it fails with errno ENOTCONN.
/// - The session ends:
///   - with disconnect();
///   - when the server ends;
///   - when the server has not answered a request within 10 s;
///   - with an answer whose errno is ENOTCONN or ESHUTDOWN, such as when a served share has lost
///     its connection.
/// - A file or directory belongs to the session that opened it. In a later session it fails with
///   errno EBADF. It may outlive the IPCFS.
///
/// Open files:
///
/// - read(), write(), pread() and pwrite() transfer at most 1 MiB. When asked for more, they return
///   a short count; readAll() of more than 1 MiB is therefore empty.
/// - fchmod() calls flock() in the server, with the mode as the operation.
/// - fcntl() with F_SETLK or F_SETLKW takes locks on behalf of the server process.
/// - fcntl() with F_GETLK does not report the lock that it found: the record stays unchanged.
/// - fcntl() with F_DUPFD, F_DUPFD_CLOEXEC, F_GETFD, F_SETFD, F_GETFL or F_SETFL has no effect. It
///   returns 0 if the file is open in the server.
/// - fcntl() with other commands fails with errno EOPNOTSUPP.
///
/// Extended attributes, watches and ioctl() are not implemented.
///
/// Threads:
///
/// - Calls on an IPCFS and on its files and directories must not overlap: the callers serialise
///   them. The shared memory has room for one request.
/// - The thread that calls connect() holds a lock for the whole session. It should live as long as
///   the session, and be the one that calls disconnect().
/// - When that thread ends before the session, another client may take over. The server checks
///   every 30 s and frees the place. This client then fails with errno ENOTCONN.
/// - When another thread ends the session, clients can connect only after the connecting thread has
///   ended or connected again.
/// - A child of fork(2) has no part in the session, even after its parent has ended.
///
/// Time-outs are measured on CLOCK_REALTIME: setting the clock forward shortens them, setting it
/// back extends them.
class ORUIO_EXPORT IPCFS : public FS {
public:
    using SPtr = QSharedPointer<IPCFS>;

    /// Makes a file system that is not connected.
    IPCFS();

    /// Not implemented.
    int addWatch(QString path) override;
    /// Not implemented.
    int remWatch(QString path) override;
    /// Opens a file. If the server assigns descriptor 0, the operations of the file fail with errno
    /// EBADF.
    QSharedPointer<File> open(QString path, int flags, int mode) override;
    /// Opens a directory.
    ///
    /// When a PosixFS in the server cannot open the directory, the result is an empty directory and
    /// errno holds the reason. readdir() sets errno to -1 at the end of a directory, and when the
    /// server's file system fails.
    ///
    /// \returns null when the request failed or the server's file system returned no directory.
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
    /// Reads the target of a symbolic link. `target` is unchanged after a failure.
    int readlink(QString path, QString& target) override;
    /// Reads the target of a symbolic link. Fills the rest of `buf` after it with NULs.
    int readlink(QString path, char* buf, unsigned int size) override;
    int truncate(QString path, long long length) override;
    int chmod(QString path, int mode) override;
    /// Not implemented.
    int ioctl(QString request, QString& response) override;

    /// Disconnects.
    ~IPCFS() override;

    /// Begins a session, in up to `tries` attempts, with a pause of 1 s after each that failed.
    ///
    /// `props` is not read and may be null. An attempt takes up to 40 s, 10 s for each of these:
    /// - the lock of the block;
    /// - the last request of a former session;
    /// - the end of that session;
    /// - the answer of the server.
    ///
    /// \returns 0 when connected, also if it was connected before; else -1 with errno ENOTCONN or
    /// the errno of the server's answer.
    virtual int connect(unsigned int tries, Properties* props);
    /// Ends the session, if there is one. Returns when the server has closed all that the session
    /// opened.
    ///
    /// Waits up to 10 s for the lock of the block, and up to 10 s for the server.
    ///
    /// \returns always 0.
    virtual int disconnect();
    /// Returns whether there was a session after the last call. Sends no request.
    virtual bool isConnected();
    /// Returns 1 when isConnected(), else 0.
    virtual int state();

    /// The session. Internal.
    class ORUIO_LOCAL Data;

private:
    const QExplicitlySharedDataPointer<Data> m_data;
};

} // namespace oru::io
