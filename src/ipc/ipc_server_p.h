// SPDX-License-Identifier: Apache-2.0
// The server: its life, its session with the client, and what it does for each request.
#pragma once

#include <oruio/fdadapter.h>
#include <oruio/fsipc.h>
#include <oruio/ipc_server.h>

#include "ipc/ipcsync_p.h"
#include "ipc/ipcwire_p.h"

#include <QList>
#include <QMap>

#include <atomic>
#include <mutex>
#include <optional>

namespace oru::io {

/// The log channel "fsipcsrv".
extern const int fsipcsrvLogChannel;

/// The client gets the descriptors and handles of this adapter. Only those that the session opened
/// are accepted from it.
class IPCServer::Data : public FDAdapter {
public:
    enum State : int { Stopped = 0, Initialising = 1, Serving = 2, Terminating = 3 };

    explicit Data(QSharedPointer<FS> fs);
    ~Data() override;

    int run(Properties* props);
    int terminate();
    /// Terminates, lets no further run() begin, and waits until run() has returned.
    void finish();
    bool isInherited() const;

    /// Creates the block and becomes its server. The block stays locked until m_beginning is reset.
    /// \returns its area, or null; then nothing has changed.
    IPCShm* init(Properties* props);
    /// Closes what the session has open and resets the area. \returns 0 or -1.
    int resetSession();
    /// Waits until the client has posted a request or run() has to return. \returns 0.
    int getRequest(IPCShm* area);
    /// Executes `request` and answers it.
    void process();

    /// Answers with a result, errno and liberrno, and a string unless `format` is null. \returns 0,
    /// or -1 when the string does not fit; then the answer is a failure with errno E2BIG.
    int sendResponse(IPCShm* area, int result, const char* format, ...)
        __attribute__((format(printf, 4, 5)));
    /// The same with a record of `length` bytes.
    int sendBufResponse(IPCShm* area, int result, const void* data, unsigned int length);

    std::atomic<int> state{Stopped};
    QSharedPointer<ShmBlock> block; ///< guarded by m_blockMutex; changed by run() only
    IPCShm* shm = nullptr;
    QList<int> files;  ///< the descriptors that the session has opened
    QList<void*> dirs; ///< the directory handles that it has opened
    QMap<QString, int (Data::*)(const char* args)> handlers;
    ipcwire::Text request; ///< the current one. The handlers get its arguments.

private:
    Q_DISABLE_COPY(Data)

    ipcwire::Area& area();
    QSharedPointer<ShmBlock> currentBlock();
    void setBlock(QSharedPointer<ShmBlock> newBlock);
    int retirePredecessor();
    IPCShm* takeOver(const ShmBlock::Access<IPCShm>& access);
    bool initialiseMutexes(ipcwire::AreaControl& control);
    bool begin(Properties* props);
    int serve();
    bool isServing() const;
    void answerCancelled(IPCShm* to);
    void answerLateRequest(IPCShm* to);
    int tearDown();
    void stop(const QSharedPointer<ShmBlock>& current);
    void closeSession();
    bool probeClient();
    int replaceTooLong(IPCShm* to);

    bool checkOpen(int fd);
    bool checkOpen(void* handle);
    const char* secondString(const char* first) const;
    void* dataBuffer(int index, std::size_t count);

    int respond(int result);
    int respondCount(ssize_t count);
    int refuse(int reason);
    template <class Operation>
    int onPath(const char* args, Operation operation);
    template <class Operation>
    int onTwoStrings(const char* args, Operation operation);
    template <class Number, class Operation>
    int onNumberAndPath(const char* args, Operation operation);
    template <class Operation>
    int onFile(const char* args, Operation operation);
    template <class Number, class Operation>
    int onFileAndNumber(const char* args, Operation operation);
    template <class Record, class Operation>
    int forRecord(Operation operation);
    template <class Record, class Operation>
    int onPathForRecord(const char* args, Operation operation);
    void* openHandle(const char* args);
    struct Transfer;
    template <class Operation>
    ssize_t move(const Transfer& transfer, Operation operation);
    template <class Operation>
    int moveOut(const Transfer& transfer, Operation operation);

    int rq_connect(const char* args);
    int rq_disconnect(const char* args);
    int rq_mkdir(const char* args);
    int rq_rmdir(const char* args);
    int rq_statfs(const char* args);
    int rq_stat(const char* args);
    int rq_lstat(const char* args);
    int rq_link(const char* args);
    int rq_symlink(const char* args);
    int rq_unlink(const char* args);
    int rq_readlink(const char* args);
    int rq_rename(const char* args);
    int rq_chmod(const char* args);
    int rq_truncate(const char* args);
    int rq_sync(const char* args);
    int rq_opendir(const char* args);
    int rq_readdir(const char* args);
    int rq_rewinddir(const char* args);
    int rq_closedir(const char* args);
    int rq_open(const char* args);
    int rq_read(const char* args);
    int rq_write(const char* args);
    int rq_pread(const char* args);
    int rq_pwrite(const char* args);
    int rq_lseek(const char* args);
    int rq_ftruncate(const char* args);
    int rq_fsync(const char* args);
    int rq_fdatasync(const char* args);
    int rq_fstat(const char* args);
    int rq_fcntl(const char* args);
    int rq_flock(const char* args);
    int rq_fchmod(const char* args);
    int rq_close(const char* args);
    int rq_notfound(const char* args);

    std::optional<ShmBlock::Access<IPCShm>> m_beginning;
    ipcwire::SpinWaiter m_spinWaiter;
    std::mutex m_running;    // held by run()
    std::mutex m_blockMutex; // guards block
    std::atomic<bool> m_isFinished{false};
    std::atomic<long long> m_startedIn{-1}; // processGeneration() when run() was called last
};

} // namespace oru::io
