// SPDX-License-Identifier: Apache-2.0
/// \file
/// The client of the file service between processes: IPCFS, which is the file system of another
/// process as an FS, and the shared memory between client and server.
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
/// - The object is 40 bytes larger than the size of the user data. On the target (32-bit ARM) the
///   header takes 32 of these bytes. The other 8 are at the end of the object, unused.
/// - On a platform with a larger mutex the header is larger. If it exceeds 40 bytes, that many
///   bytes are missing at the end of the user data. On x86-64 the header has 56 bytes, so 16 are
///   missing.
///
/// Threads: any thread may use a block. The thread that locked a block must unlock it. While that
/// thread holds the lock, the thread must not end and the block must not be destroyed.
class ORUIO_EXPORT ShmBlock {
public:
    /// Create the object if it does not exist. Initialise it if its header is not valid.
    static constexpr unsigned int Create = 1;
    /// Remove the object in the destructor.
    static constexpr unsigned int RemoveAtClose = 2;

    /// Opens the object with `size` bytes of user data: shm_open(3), ftruncate(2), mmap(2).
    ///
    /// `flags` is 0 or a combination of Create and RemoveAtClose. Call isValid() to find out
    /// whether the constructor succeeded. A failure to create or map the object is printed on
    /// standard error, as by perror(3).
    ///
    /// - Waits up to 10 ms for the object to appear. With Create, creates it after that.
    /// - With Create: waits up to 1 s for another process that is initialising the same object.
    /// - Does not open an object of this size that a program of another ABI (32- or 64-bit) has
    ///   made: errno is EPROTO. With Create it does not initialise such an object either: errno is
    ///   EBUSY.
    ShmBlock(const char* name, unsigned int size, unsigned int flags);
    /// With RemoveAtClose, removes the object unless it has already been removed. Then unmaps the
    /// block.
    ~ShmBlock();

    /// Returns whether the block is mapped and its header is valid.
    bool isValid() const;
    /// Returns the address of the mapping, or null.
    void* base() const;

    /// Locks the mutex, waiting up to 10 s. If the holder of the mutex has died, makes the mutex
    /// consistent and locks it.
    ///
    /// \returns the user data, or null:
    /// - another holder still has the mutex locked;
    /// - the block is not valid, or was no longer valid when the mutex was locked.
    void* lock();
    /// As lock(), without waiting.
    void* tryLock();
    /// Unlocks the mutex.
    ///
    /// \returns 0, or the error number of pthread_mutex_unlock(3), such as EPERM when the calling
    /// thread has not locked the mutex. Always 0 for a block that is not valid.
    int unlock();

    /// Makes the destructor remove the object.
    void removeAtClose();
    /// Removes the object at once. After this its name is free, and no process can open or lock it.
    ///
    /// Only the holder of the lock may call this function. If another object now has the name, that
    /// object is not removed.
    ///
    /// \retval true removed
    /// \retval false nothing has changed; errno is that of shm_unlink(3)
    bool remove();

    /// Returns the time on CLOCK_REALTIME `ms` milliseconds from now.
    ///
    /// tv_nsec can be 1,000,000,000: only larger values are carried into tv_sec.
    static struct timespec abstime(int ms);

    /// Locks a block in the constructor and unlocks it in the destructor. Gives access to the user
    /// data as a T.
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
/// It contains mutexes and semaphores, one request, one response, and two data buffers of 1 MiB. An
/// IPCShm exists in shared memory only: it cannot be constructed.
///
/// Threads: any thread of any process may call any function at any time.
class ORUIO_EXPORT IPCShm {
public:
    /// Returns the size of the area in bytes.
    static unsigned int size();
    /// Returns the hexadecimal number in the environment variable IO_IPCDBG, or 0 if the variable
    /// is not set or has no number.
    ///
    /// Its bits select what is logged at level 12:
    /// - 1: requests in the server;
    /// - 2: requests in the client;
    /// - 4: the beginning and the end of sessions.
    static unsigned int debugMask();
    /// Sets `*ts` to the time on CLOCK_REALTIME `ms` milliseconds from now. \returns `ts`.
    static struct timespec* setTimeout(struct timespec* ts, unsigned long long ms);

    /// Returns data buffer `index`, or null when `index` is not 0 or 1.
    void* databufAddr(int index);
    /// Reserves a free data buffer, waiting up to `timeout` seconds for one.
    ///
    /// \returns the index of the buffer, or -1 with errno:
    /// - ETIMEDOUT: no buffer became free in time;
    /// - EAGAIN: the semaphore counted a free buffer, but none is free.
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
///   - when disconnect() is called or the IPCFS is destroyed;
///   - when the server ends;
///   - when the server has not answered a request within 10 s;
///   - when the server answers with a failure and errno ENOTCONN or ESHUTDOWN, for example because
///     a share that it serves has lost its connection.
/// - A file or directory belongs to the session that opened it. In a later session its operations
///   fail with errno EBADF. The object may outlive the IPCFS.
///
/// Open files:
///
/// - read(), write(), pread() and pwrite() transfer at most 1 MiB. If more is requested, they
///   transfer 1 MiB and return that count. So readAll() of more than 1 MiB returns an empty array.
/// - fchmod() does not change the mode: the server calls flock() with the mode as the operation.
///   Use chmod() with the path instead.
/// - fcntl() with F_SETLK or F_SETLKW takes locks whose owner is the server process.
/// - fcntl() with F_GETLK does not report the lock that it finds: the record stays unchanged.
/// - fcntl() with F_DUPFD, F_DUPFD_CLOEXEC, F_GETFD, F_SETFD, F_GETFL or F_SETFL has no effect. It
///   returns 0 if the file is open in the server.
/// - fcntl() with other commands fails with errno EOPNOTSUPP.
///
/// Extended attributes, watches and ioctl() are not implemented.
///
/// Every other operation sets liberrno: to Ok, or to the liberrno of the server's answer.
///
/// Threads:
///
/// - The shared memory has room for one request. So the callers must serialise all calls on an
///   IPCFS and on its files and directories.
/// - Any thread may make any call: one may connect, others may use the session and disconnect, and
///   each may end at any time.
/// - A session belongs to the process. For its length, a thread of the library ("oruio-session")
///   holds the mutex that keeps other clients out. The thread blocks all signals. When the process
///   ends or calls execve(2), another client can connect.
/// - A child of fork(2) cannot use the session, even after its parent has ended. Its operations
///   fail with errno ENOTCONN. It can connect when its parent has disconnected.
///
/// Time-outs are measured on CLOCK_MONOTONIC: setting the system's clock does not change them. A
/// call whose server ends during the call fails within half a second.
class ORUIO_EXPORT IPCFS : public FS {
public:
    using SPtr = QSharedPointer<IPCFS>;

    /// Why there is no session.
    enum class Unavailable {
        None,     ///< there is one, or none was asked for; or the server's file system lost its own
        NoServer, ///< no server is running, or it has ended
        Busy,     ///< another client is connected, or is connecting
        OtherAbi, ///< the server is a program of another ABI (32- or 64-bit)
        NoAnswer, ///< the server has not answered within 10 s, or is about to stop
    };

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
    /// If the server serves a PosixFS that cannot open the directory, the result is an empty
    /// directory and errno holds the reason. readdir() of the result sets errno to -1 at the end of
    /// the directory, and also when the file system of the server fails.
    ///
    /// \returns the directory; null when the request failed or the file system of the server
    /// returned no directory.
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
    ///
    /// \returns 0, not the length, or -1.
    int readlink(QString path, QString& target) override;
    /// Reads up to `size` bytes of the target of a symbolic link. Fills the rest of `buf` with
    /// NULs.
    ///
    /// \returns 0, not the length, or -1.
    int readlink(QString path, char* buf, unsigned int size) override;
    int truncate(QString path, long long length) override;
    int chmod(QString path, int mode) override;
    /// Not implemented.
    int ioctl(QString request, QString& response) override;

    /// Disconnects.
    ~IPCFS() override;

    /// Begins a session. Makes up to `tries` attempts and pauses for 1 s after each failed attempt.
    ///
    /// `props` is not read and may be null. An attempt takes up to 40 s: it waits up to 10 s for
    /// each of these:
    /// - the lock of the block;
    /// - the last request of the former session, if that session did not disconnect;
    /// - the end of that session;
    /// - the answer of the server.
    ///
    /// \returns 0 when connected, also if a session existed before the call; else -1 with errno
    /// ENOTCONN, or the errno of the server's answer. unavailable() returns the reason.
    virtual int connect(unsigned int tries, Properties* props);
    /// Ends the session, if there is one. Returns when the server has closed all files and
    /// directories of the session.
    ///
    /// Waits up to 10 s for the lock of the block, and up to 10 s for the server.
    ///
    /// \returns always 0.
    virtual int disconnect();
    /// Returns whether a session existed at the end of the last call. Sends no request, so it does
    /// not notice that the server has ended since.
    virtual bool isConnected();
    /// Returns 1 if isConnected() returns true, else 0.
    virtual int state();
    /// Returns why the last connect() failed, or why the session ended in a call.
    ///
    /// \code
    /// if (files.connect(1, nullptr) != 0 && files.unavailable() == IPCFS::Unavailable::Busy)
    ///     fprintf(stderr, "another program is connected\n");
    /// \endcode
    Unavailable unavailable() const;

    /// The session. Internal.
    class ORUIO_LOCAL Data;

private:
    const QExplicitlySharedDataPointer<Data> m_data;
};

} // namespace oru::io
