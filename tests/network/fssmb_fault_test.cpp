// What becomes of a share when the connection, the server or the resolver fails.
#include <oruio/error.h>
#include <oruio/fssmb.h>

#include "support/doubles/faultproxy.h"
#include "support/system/childprocess.h"
#include "support/system/loopback.h"
#include "support/system/smbtest.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QtEndian>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <semaphore.h>
#include <sys/socket.h>
#include <sys/uio.h>

namespace {

std::atomic<bool> pipeIsBroken = false;
std::atomic<int> slowLookups = 0;
std::atomic<int> lookupsOfOnce = 0;
std::atomic<bool> answersPileUp = false;
std::atomic<int> socketError = 0; // 0: there are sockets
sem_t slowResolver;               // outlives every lookup

} // namespace

// The program's own definitions come before those of the C library, for libsmb2 as well.

extern "C" Q_DECL_EXPORT ssize_t writev(int fd, const struct iovec* parts, int count) {
    using Function = ssize_t(int, const struct iovec*, int);
    static auto* const real = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, "writev"));
    if (!pipeIsBroken.exchange(false))
        return real(fd, parts, count);
    // As the kernel does it.
    pthread_kill(pthread_self(), SIGPIPE);
    errno = EPIPE;
    return -1;
}

extern "C" Q_DECL_EXPORT int socket(int family, int type, int protocol) noexcept {
    using Function = int(int, int, int);
    static auto* const real = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, "socket"));
    if (socketError == 0)
        return real(family, type, protocol);
    errno = socketError;
    return -1;
}

// Waits so long that all is there that comes within that time, as on a busy machine.
extern "C" Q_DECL_EXPORT int poll(struct pollfd* polled, nfds_t count, int limit) {
    using Function = int(struct pollfd*, nfds_t, int);
    static auto* const real = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, "poll"));
    if (answersPileUp && count == 1 && polled->events == POLLIN)
        real(nullptr, 0, 200);
    return real(polled, count, limit);
}

extern "C" Q_DECL_EXPORT int getaddrinfo(const char* host, const char* service,
                                         const struct addrinfo* hints, struct addrinfo** found) {
    using Function = int(const char*, const char*, const struct addrinfo*, struct addrinfo**);
    static auto* const real = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, "getaddrinfo"));
    const bool isNumeric = hints && (hints->ai_flags & AI_NUMERICHOST);
    if (!isNumeric && host && std::strcmp(host, "slow.test") == 0) {
        ++slowLookups;
        while (sem_wait(&slowResolver) != 0)
            continue;
        return EAI_AGAIN;
    }
    if (!isNumeric && host && std::strcmp(host, "once.test") == 0)
        return ++lookupsOfOnce == 1 ? real("127.0.0.1", service, hints, found) : EAI_FAIL;
    if (isNumeric || !host || std::strncmp(host, "addresses-", 10) != 0)
        return real(host, service, hints, found);
    // A server with as many addresses as the name says, of which the last one is 127.0.0.1.
    struct addrinfo** next = found;
    for (int number = std::atoi(host + 10); number > 0; --number) {
        const std::string address = "127.0.0." + std::to_string(number);
        struct addrinfo stream = {};
        stream.ai_socktype = SOCK_STREAM;
        const int result = real(address.c_str(), service, &stream, next);
        if (result != 0)
            return result;
        next = &(*next)->ai_next;
    }
    return 0;
}

namespace oru::io {
namespace {

using test::FaultProxy;
using test::login;
using test::SmbServer;
using Fault = FaultProxy::Fault;
using namespace std::chrono_literals;

int openDescriptors() {
    return QDir("/proc/self/fd").entryList(QDir::System | QDir::Files | QDir::AllDirs).size();
}

// Long enough for all that a busy machine does well within it, as a request that no fault strikes.
constexpr unsigned int timeout = 5;
constexpr qint64 timeLimitMs = (timeout + 1) * 1000;

/// Who connects keeps others from it: of many at once, a slow machine would complete none within
/// the time-out.
std::mutex connecting;

/// A connected share, with what operations need.
struct Share {
    explicit Share(const QString& address, const QString& name, unsigned int seconds)
        : fs(seconds), directoryPath('/' + name) {
        const std::lock_guard lock(connecting);
        EXPECT_EQ(fs.connect(login(address)), 0) << strerror();
        EXPECT_EQ(fs.mkdir(directoryPath, 0755), 0) << strerror();
        EXPECT_EQ(fs.mkdir(at("empty"), 0755), 0) << strerror();
        file = fs.open(at("file"), O_RDWR | O_CREAT, 0644);
        EXPECT_TRUE(file) << strerror();
        if (!file)
            return;
        EXPECT_EQ(file->pwrite(content.constData(), content.size(), 0), content.size());
        EXPECT_TRUE(fs.open(at("other"), O_RDWR | O_CREAT, 0644)) << strerror();
        directory = fs.opendir(directoryPath);
        EXPECT_TRUE(directory) << strerror();
    }

    QString at(const char* name) const {
        return directoryPath + '/' + name;
    }

    Smb2FS fs;
    const QString directoryPath;
    const QByteArray content = QByteArray(8000, 'c');
    QSharedPointer<File> file;
    QSharedPointer<Directory> directory;
    QByteArray buffer = QByteArray(8000, '\0');
};

/// An operation, and the message in whose exchange it can fail.
struct Operation {
    const char* name;
    FaultProxy::Command command;
    std::function<long long(Share&)> call; ///< negative when it failed
};

const std::vector<Operation> operations = {
    {"stat", FaultProxy::Create,
     [](Share& s) {
         struct stat st;
         return s.fs.stat(s.at("file"), st);
     }},
    {"statfs", FaultProxy::Create,
     [](Share& s) {
         struct statfs st;
         return s.fs.statfs("/", st);
     }},
    {"open", FaultProxy::Create,
     [](Share& s) { return s.fs.open(s.at("file"), O_RDONLY, 0) ? 0 : -1; }},
    {"opendir", FaultProxy::Create,
     [](Share& s) { return s.fs.opendir(s.directoryPath) ? 0 : -1; }},
    {"opendir's listing", FaultProxy::QueryDirectory,
     [](Share& s) { return s.fs.opendir(s.directoryPath) ? 0 : -1; }},
    {"mkdir", FaultProxy::Create, [](Share& s) { return s.fs.mkdir(s.at("new"), 0755); }},
    {"rmdir", FaultProxy::Create, [](Share& s) { return s.fs.rmdir(s.at("empty")); }},
    {"unlink", FaultProxy::Create, [](Share& s) { return s.fs.unlink(s.at("other")); }},
    {"rename", FaultProxy::Create,
     [](Share& s) { return s.fs.rename(s.at("other"), s.at("renamed")); }},
    {"truncate", FaultProxy::Create, [](Share& s) { return s.fs.truncate(s.at("other"), 10); }},
    {"readlink", FaultProxy::Create,
     [](Share& s) {
         // The server has no links. What it says of that is its answer.
         QString target;
         return s.fs.readlink(s.at("other"), target) < 0 && errno != EINVAL ? -1 : 0;
     }},
    {"read", FaultProxy::Read,
     [](Share& s) { return s.file->read(s.buffer.data(), s.buffer.size()); }},
    {"pread", FaultProxy::Read,
     [](Share& s) { return s.file->pread(s.buffer.data(), s.buffer.size(), 0); }},
    {"write", FaultProxy::Write,
     [](Share& s) { return s.file->write(s.content.constData(), s.content.size()); }},
    {"pwrite", FaultProxy::Write,
     [](Share& s) { return s.file->pwrite(s.content.constData(), s.content.size(), 0); }},
    {"fsync", FaultProxy::Flush, [](Share& s) { return s.file->fsync(); }},
    {"ftruncate", FaultProxy::SetInfo, [](Share& s) { return s.file->ftruncate(8000); }},
    {"fstat", FaultProxy::QueryInfo,
     [](Share& s) {
         struct stat st;
         return s.file->fstat(st);
     }},
    {"close", FaultProxy::Close, [](Share& s) { return s.file->close(); }},
    {"disconnect", FaultProxy::TreeDisconnect, [](Share& s) { return s.fs.disconnect(); }},
};

struct FaultCase {
    const char* name;
    FaultProxy::Direction direction;
    Fault fault;
    int error; ///< 0: the operation succeeds all the same
};

void PrintTo(const FaultCase& tested, std::ostream* out) {
    *out << tested.name;
}

class SmbFault : public ::testing::TestWithParam<FaultCase> {
protected:
    void SetUp() override {
        if (!SmbServer::missing().isEmpty())
            GTEST_SKIP() << SmbServer::missing().toStdString();
    }
};

/// Everything fails at once and says nothing.
void expectGuarded(Share& share) {
    errno = 4711;
    liberrno = NotFound;
    for (const Operation& operation : operations) {
        const bool isDisconnect = std::strcmp(operation.name, "disconnect") == 0;
        if (!isDisconnect) {
            EXPECT_LT(operation.call(share), 0) << operation.name;
        }
    }
    EXPECT_EQ(share.file->lseek(0, SEEK_SET), -1);
    EXPECT_EQ(share.file->fdatasync(), -1);
    EXPECT_EQ(share.file->fcntl(F_GETFL), -1);
    EXPECT_EQ(share.directory->readdir(), nullptr);
    EXPECT_EQ(share.directory->rewinddir(), -1);
    EXPECT_EQ(share.directory->closedir(), -1);
    EXPECT_TRUE(share.fs.isConnected());
    EXPECT_EQ(share.fs.getDialect(), "unknown");
    EXPECT_EQ(errno, 4711);
    EXPECT_EQ(liberrno, NotFound);
}

void tryOperation(const SmbServer& server, const FaultCase& tested, const Operation& operation,
                  int number) {
    SCOPED_TRACE(operation.name);
    FaultProxy proxy(server.port());
    const unsigned int seconds = tested.error == ETIMEDOUT ? timeout : 20;
    Share share(proxy.address(), QStringLiteral("op-%1").arg(number), seconds);
    ASSERT_TRUE(share.file && share.directory);

    proxy.on({tested.direction, operation.command}, tested.fault);
    QElapsedTimer timer;
    timer.start();
    errno = 0;
    const long long result = operation.call(share);
    const int error = errno;
    EXPECT_LT(timer.elapsed(), timeLimitMs + (tested.error == 0 ? 10'000 : 0));
    EXPECT_EQ(proxy.armed(), 0);
    if (tested.error == 0) {
        EXPECT_GE(result, 0) << std::strerror(error);
        return;
    }
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, tested.error) << std::strerror(error);
    expectGuarded(share);
    // Leaving what is gone tells so again, and the connection with the server is closed already.
    EXPECT_TRUE(proxy.waitUntilClosed());
    EXPECT_EQ(share.fs.disconnect(), -1);
    EXPECT_EQ(errno, tested.error);

    share.file.reset();
    share.directory.reset();
    const std::lock_guard lock(connecting);
    EXPECT_EQ(share.fs.connect(login(proxy.address())), 0) << strerror();
    const auto file = share.fs.open(share.at("file"), O_RDWR, 0);
    ASSERT_TRUE(file) << strerror();
    EXPECT_EQ(file->readAll(10'000), share.content);
    EXPECT_EQ(share.fs.getDialect(), "3.1.1");
}

} // namespace

TEST_P(SmbFault, EveryOperation) {
    const int before = openDescriptors();
    {
        SmbServer server;
        ASSERT_EQ(server.problem(), "");
        // All at once: a time-out takes its time.
        std::vector<std::thread> threads;
        for (size_t i = 0; i < operations.size(); ++i) {
            threads.emplace_back(
                [&, i] { tryOperation(server, GetParam(), operations[i], static_cast<int>(i)); });
        }
        for (std::thread& thread : threads)
            thread.join();
    }
    EXPECT_EQ(openDescriptors(), before);
}

INSTANTIATE_TEST_SUITE_P(
    , SmbFault,
    ::testing::Values(
        FaultCase{"ResetAtTheRequest", FaultProxy::Request, Fault::reset(), ECONNRESET},
        FaultCase{"ResetInTheRequest", FaultProxy::Request, Fault::reset(40), ECONNRESET},
        FaultCase{"ResetInTheResponse", FaultProxy::Response, Fault::reset(40), ECONNRESET},
        FaultCase{"ClosedAtTheRequest", FaultProxy::Request, Fault::close(), ECONNRESET},
        FaultCase{"ClosedInTheResponse", FaultProxy::Response, Fault::close(60), ECONNRESET},
        FaultCase{"FrozenAtTheRequest", FaultProxy::Request, Fault::freeze(), ETIMEDOUT},
        FaultCase{"FrozenInTheResponse", FaultProxy::Response, Fault::freeze(40), ETIMEDOUT},
        FaultCase{"DribbledTooSlowly", FaultProxy::Response, Fault::dribble(200), ETIMEDOUT},
        FaultCase{"Dribbled", FaultProxy::Response, Fault::dribble(), 0},
        FaultCase{"Lost", FaultProxy::Response, Fault::drop(), ETIMEDOUT}),
    [](const auto& tested) { return std::string(tested.param.name); });

namespace {

/// Holds an answer up.
Fault late(std::chrono::milliseconds time) {
    return Fault::edit([time](QByteArray&) { std::this_thread::sleep_for(time); });
}

class SmbConnectFault : public test::Smb {
protected:
    /// Connects through `proxy`, which makes that fail; then without that.
    void expectFailure(FaultProxy& proxy, int error) {
        Smb2FS fs(timeout);
        QElapsedTimer timer;
        timer.start();
        EXPECT_EQ(fs.connect(login(proxy.address())), -1);
        EXPECT_EQ(errno, error) << std::strerror(errno);
        EXPECT_LT(timer.elapsed(), timeLimitMs);
        EXPECT_TRUE(fs.isConnected()); // fatal
        EXPECT_EQ(fs.getDialect(), "unknown");
        EXPECT_TRUE(proxy.waitUntilClosed());
        proxy.accept();
        proxy.disarm();
        EXPECT_EQ(fs.connect(login(proxy.address())), 0) << strerror();
        EXPECT_TRUE(fs.isConnected());
    }
};

} // namespace

TEST_F(SmbConnectFault, Refused) {
    FaultProxy proxy(server.port());
    proxy.refuse();
    expectFailure(proxy, ECONNREFUSED);
}

TEST_F(SmbConnectFault, Silent) {
    FaultProxy proxy(server.port());
    proxy.silence();
    expectFailure(proxy, ETIMEDOUT);
}

TEST_F(SmbConnectFault, ResetAtOnce) {
    FaultProxy proxy(server.port());
    proxy.resetOnConnect();
    expectFailure(proxy, ECONNRESET);
}

TEST_F(SmbConnectFault, EachStep) {
    struct Step {
        FaultProxy::Direction direction;
        FaultProxy::Command command;
        int occurrence;
    };
    for (const auto& [fault, error] :
         {std::pair(Fault::reset(), ECONNRESET), std::pair(Fault::reset(30), ECONNRESET),
          std::pair(Fault::close(70), ECONNRESET), std::pair(Fault::freeze(), ETIMEDOUT),
          std::pair(Fault::dribble(200), ETIMEDOUT)}) {
        std::vector<std::thread> threads;
        for (const Step& step : {Step{FaultProxy::Response, FaultProxy::Negotiate, 1},
                                 Step{FaultProxy::Response, FaultProxy::SessionSetup, 1},
                                 Step{FaultProxy::Response, FaultProxy::SessionSetup, 2},
                                 Step{FaultProxy::Response, FaultProxy::TreeConnect, 1}}) {
            threads.emplace_back([this, fault = fault, error = error, step] {
                FaultProxy proxy(server.port());
                proxy.on({step.direction, step.command, step.occurrence}, fault);
                expectFailure(proxy, error);
            });
        }
        for (std::thread& thread : threads)
            thread.join();
    }
}

TEST_F(SmbConnectFault, Dribbled_Connects) {
    FaultProxy proxy(server.port());
    proxy.on({FaultProxy::Response, FaultProxy::Negotiate}, Fault::dribble());
    Smb2FS fs(20);
    EXPECT_EQ(fs.connect(login(proxy.address())), 0) << strerror();
    EXPECT_TRUE(fs.isConnected());
}

// Leaving the frozen connection may take all of the time, not twice that.
TEST_F(SmbConnectFault, ConnectAgainWhileFrozen_InTime) {
    FaultProxy proxy(server.port());
    Smb2FS fs(timeout);
    ASSERT_EQ(fs.connect(login(proxy.address())), 0);
    proxy.on({FaultProxy::Request, FaultProxy::TreeDisconnect}, Fault::freeze());
    proxy.on({FaultProxy::Request, FaultProxy::Negotiate}, Fault::freeze());
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(fs.connect(login(proxy.address())), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_LT(timer.elapsed(), timeLimitMs);
    EXPECT_EQ(proxy.armed(), 0);   // so the former share was left
    EXPECT_EQ(fs.disconnect(), 0); // and is not left again
    EXPECT_EQ(fs.connect(login(proxy.address())), 0);
}

// To connect has one time-out, whatever it takes.
TEST_F(SmbConnectFault, SlowAnswers_TimesOut) {
    FaultProxy proxy(server.port());
    for (int i = 0; i < 4; ++i)
        proxy.on({FaultProxy::Response, FaultProxy::Any}, late(1500ms));
    expectFailure(proxy, ETIMEDOUT);
}

// The time-out is that of a request. How many a listing takes is up to the server.
TEST_F(SmbConnectFault, ListingOfSlowAnswers_TakesLongerThanTheTimeout) {
    constexpr int count = 300;
    for (int i = 0; i < count; ++i)
        putLocal('/' + QString::number(i).rightJustified(200, 'n'));
    FaultProxy proxy(server.port());
    Smb2FS fs(timeout);
    ASSERT_EQ(fs.connect(login(proxy.address())), 0) << strerror();
    proxy.clear();
    // To the opening, three parts of the listing, its end, and the closing.
    constexpr int answers = 6;
    for (int i = 0; i < answers; ++i)
        proxy.on({FaultProxy::Response, FaultProxy::Any}, late(1s));
    QElapsedTimer timer;
    timer.start();
    const auto directory = fs.opendir("/");
    ASSERT_TRUE(directory) << strerror();
    EXPECT_GT(timer.elapsed(), timeout * 1000);
    EXPECT_EQ(proxy.armed(), 0);
    int found = 0;
    while (directory->readdir())
        ++found;
    EXPECT_EQ(found, count + 2);
    EXPECT_TRUE(fs.isConnected());
}

TEST_F(SmbConnectFault, NoTimeout_TakesAsLongAsItTakes) {
    FaultProxy proxy(server.port());
    proxy.on({FaultProxy::Response, FaultProxy::Negotiate}, Fault::dribble());
    Smb2FS fs(0);
    EXPECT_EQ(fs.connect(login(proxy.address())), 0) << strerror();
    struct stat st;
    EXPECT_EQ(fs.stat("/", st), 0);
    EXPECT_EQ(fs.disconnect(), 0);
}

TEST_F(SmbConnectFault, EchoLost_NotConnectedThenFatal) {
    for (const auto& [fault, error] :
         {std::pair(Fault::reset(), ECONNRESET), std::pair(Fault::freeze(), ETIMEDOUT)}) {
        FaultProxy proxy(server.port());
        Smb2FS fs(timeout);
        ASSERT_EQ(fs.connect(login(proxy.address())), 0);
        proxy.on({FaultProxy::Request, FaultProxy::Echo}, fault);
        const auto file = fs.open("/f", O_RDWR | O_CREAT, 0644);
        EXPECT_FALSE(fs.isConnected()); // remembers nothing
        EXPECT_FALSE(fs.isConnected());
        struct stat st;
        EXPECT_EQ(file->fstat(st), -1);
        EXPECT_EQ(errno, error);
        EXPECT_EQ(fs.disconnect(), -1);
        EXPECT_TRUE(fs.isConnected()); // now it does
        set_errno(&fs, -ENOENT, nullptr, "stat", "f");
        EXPECT_EQ(fs.stat("/", st), -1);
        EXPECT_EQ(errno, error);
        EXPECT_TRUE(fs.isConnected());
    }
}

TEST_F(SmbConnectFault, RewindLost_ReturnsZeroThenFatal) {
    FaultProxy proxy(server.port());
    Smb2FS fs(timeout);
    ASSERT_EQ(fs.connect(login(proxy.address())), 0);
    const auto directory = fs.opendir("/");
    proxy.on({FaultProxy::Request, FaultProxy::Create}, Fault::reset());
    EXPECT_EQ(directory->rewinddir(), 0);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_EQ(directory->rewinddir(), -1);
}

// --- Answers ------------------------------------------------------------------------------------

namespace {

/// Connected through a proxy that changes what the server says.
class SmbAnswer : public SmbConnectFault {
protected:
    void SetUp() override {
        SmbConnectFault::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        proxy = std::make_unique<FaultProxy>(server.port());
        ASSERT_EQ(fs.connect(login(proxy->address())), 0) << strerror();
        file = fs.open("/file", O_RDWR | O_CREAT, 0644);
        ASSERT_TRUE(file);
        proxy->clear();
    }

    void edit(FaultProxy::Command command, std::function<void(QByteArray&)> editor) {
        proxy->on({FaultProxy::Response, command}, Fault::edit(std::move(editor)));
    }
    void expectUsable() {
        struct stat st;
        EXPECT_EQ(fs.stat("/file", st), 0) << strerror();
        EXPECT_EQ(proxy->armed(), 0);
    }

    std::unique_ptr<FaultProxy> proxy;
    Smb2FS fs{timeout};
    QSharedPointer<File> file;
};

void put(QByteArray& message, int at, quint32 value) {
    qToLittleEndian(value, message.data() + at);
}

// Where a response has its status, and the length of what it tells.
constexpr int statusAt = 8;
constexpr int infoLengthAt = 64 + 4;

/// Makes a response one that refuses.
auto refuseWith(quint32 status) {
    return [status](QByteArray& message) {
        message.truncate(64);
        put(message, statusAt, status);
        put(message, 20, 0); // nothing follows
        message.append("\x09\0\0\0\0\0\0\0\0", 9);
    };
}

} // namespace

TEST_F(SmbAnswer, SuccessThatTellsNothing_BadMessage) {
    const auto tellNothing = [](QByteArray& message) { put(message, infoLengthAt, 0); };
    struct stat st;
    struct statfs sizes;
    edit(FaultProxy::QueryInfo, tellNothing);
    EXPECT_EQ(fs.stat("/file", st), -1);
    EXPECT_EQ(errno, EBADMSG);
    edit(FaultProxy::QueryInfo, tellNothing);
    EXPECT_EQ(fs.statfs("/", sizes), -1);
    EXPECT_EQ(errno, EBADMSG);
    edit(FaultProxy::QueryInfo, tellNothing);
    EXPECT_EQ(file->fstat(st), -1);
    EXPECT_EQ(errno, EBADMSG);
    expectUsable();
}

// What the server says decides, not whether it can be reached.
TEST_F(SmbAnswer, FatalStatus_GuardsALivingConnection) {
    edit(FaultProxy::Write, refuseWith(0xc000009a)); // STATUS_INSUFFICIENT_RESOURCES
    EXPECT_EQ(file->write("x", 1), -1);
    EXPECT_EQ(errno, EBUSY);
    proxy->clear();
    struct stat st;
    EXPECT_EQ(fs.stat("/", st), -1);
    EXPECT_TRUE(fs.isConnected());
    EXPECT_TRUE(proxy->messages().isEmpty());
    EXPECT_EQ(fs.disconnect(), 0);
    EXPECT_EQ(proxy->messages(FaultProxy::Request, FaultProxy::TreeDisconnect).size(), 1);
    EXPECT_TRUE(fs.isConnected()); // leaving mends nothing
    EXPECT_EQ(fs.connect(login(proxy->address())), 0);
    EXPECT_EQ(fs.stat("/", st), 0);
}

TEST_F(SmbAnswer, FailedTransfer_MovesNothing) {
    const QByteArray content(100'000, 'x');
    const auto refuse = refuseWith(0xc000007f); // STATUS_DISK_FULL
    EXPECT_EQ(file->pwrite("abc", 3, 50), 3);
    proxy->on({FaultProxy::Response, FaultProxy::Write, 2}, Fault::edit(refuse));
    EXPECT_EQ(file->write(content.constData(), content.size()), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(file->lseek(0, SEEK_CUR), 0);
    EXPECT_EQ(file->lseek(0, SEEK_END), 53);
    proxy->on({FaultProxy::Response, FaultProxy::Write}, Fault::edit(refuse));
    EXPECT_EQ(file->pwrite("abc", 3, 1000), -1);
    EXPECT_EQ(file->lseek(0, SEEK_END), 53);
    EXPECT_EQ(file->pwrite("abc", 3, 10), 3);
    EXPECT_EQ(file->lseek(0, SEEK_END), 53);
}

// Asking where one is moves nothing, also where the next write is to go elsewhere.
TEST_F(SmbAnswer, AskingForTheBeginning_MovesNothing) {
    const QByteArray content(65536 + 10, 'x');
    proxy->on({FaultProxy::Response, FaultProxy::Write, 2}, Fault::edit(refuseWith(0xc000007f)));
    EXPECT_EQ(file->write(content.constData(), content.size()), -1);
    EXPECT_EQ(file->lseek(0, SEEK_CUR), 0);
    EXPECT_EQ(file->write("behind", 6), 6);
    QFile local(server.directory("rw") + "/file");
    ASSERT_TRUE(local.open(QFile::ReadOnly) && local.seek(65536));
    EXPECT_EQ(local.read(6), "behind");
}

TEST_F(SmbAnswer, Refused_RecordsStayAsTheyWere) {
    struct stat st;
    struct statfs sizes;
    std::memset(&st, 0x5a, sizeof st);
    std::memset(&sizes, 0x5a, sizeof sizes);
    const struct stat stBefore = st;
    const struct statfs sizesBefore = sizes;
    edit(FaultProxy::QueryInfo, refuseWith(0xc0000022)); // STATUS_ACCESS_DENIED
    EXPECT_EQ(file->fstat(st), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(std::memcmp(&st, &stBefore, sizeof st), 0);
    EXPECT_EQ(fs.statfs("/missing", sizes), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(std::memcmp(&sizes, &sizesBefore, sizeof sizes), 0);
    expectUsable();
}

// No server at hand has links: the answer is made here.
TEST_F(SmbAnswer, Readlink_TargetAndNoLength) {
    const auto isLinkTo = [](const QByteArray& target) {
        return [target](QByteArray& message) {
            QByteArray name;
            for (const char c : target)
                name.append(c).append('\0');
            QByteArray reparse(20, '\0');
            put(reparse, 0, 0xa000000c); // a symbolic link
            reparse[4] = char(12 + 2 * name.size());
            reparse[10] = char(name.size());
            reparse[12] = char(name.size());
            reparse[14] = char(name.size());
            reparse += name + name;
            QByteArray body(48, '\0');
            body[0] = 49;
            put(body, 4, 0x900a8); // FSCTL_GET_REPARSE_POINT
            put(body, 24, 112);
            put(body, 32, 112);
            put(body, 36, reparse.size());
            const bool isLast = qFromLittleEndian<quint32>(message.constData() + 20) == 0;
            message = message.left(64) + body + reparse;
            put(message, statusAt, 0);
            message.append(QByteArray(-message.size() & 7, '\0'));
            if (!isLast)
                put(message, 20, message.size());
        };
    };
    QString target;
    edit(FaultProxy::Ioctl, isLinkTo("target"));
    EXPECT_EQ(fs.readlink("/file", target), 0) << strerror();
    EXPECT_EQ(target, "target");
    char buf[10];
    std::memset(buf, '#', sizeof buf);
    edit(FaultProxy::Ioctl, isLinkTo("target"));
    EXPECT_EQ(fs.readlink("/file", buf, sizeof buf), 0);
    EXPECT_EQ(std::memcmp(buf, "target\0\0\0\0", sizeof buf), 0);
    edit(FaultProxy::Ioctl, isLinkTo("a longer target"));
    EXPECT_EQ(fs.readlink("/file", buf, sizeof buf), 0);
    EXPECT_EQ(std::memcmp(buf, "a longer t", sizeof buf), 0);
}

// Of the commands of one request the first to fail says why, whatever becomes of the others.
TEST_F(SmbAnswer, CloseOfWhatWasNotOpened_DoesNotHideWhy) {
    ASSERT_EQ(fs.mkdir("/d", 0755), 0);
    edit(FaultProxy::Close, [](QByteArray& message) {
        message.truncate(64);
        put(message, statusAt, 0);
        message.append(QByteArray(60, '\0'));
        message[64] = 60;
    });
    EXPECT_EQ(fs.mkdir("/d", 0755), -1);
    EXPECT_EQ(errno, EEXIST);
    edit(FaultProxy::Close, [](QByteArray& message) {
        put(message, statusAt, 0xc0000128); // STATUS_FILE_CLOSED
    });
    EXPECT_EQ(fs.rmdir("/missing"), -1);
    EXPECT_EQ(errno, ENOENT);
    expectUsable();
}

TEST_F(SmbAnswer, SomeCommandsUnanswered_TimesOut) {
    edit(FaultProxy::Create, [](QByteArray& message) {
        // In place of all three answers only that to the last one.
        const quint64 id = qFromLittleEndian<quint64>(message.constData() + 24);
        message.truncate(64);
        message[12] = FaultProxy::Close;
        put(message, statusAt, 0);
        put(message, 20, 0); // no other follows
        qToLittleEndian(id + 2, message.data() + 24);
        message.append(QByteArray(60, '\0'));
        message[64] = 60;
    });
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(fs.unlink("/file"), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_LT(timer.elapsed(), timeLimitMs);
}

// libsmb2 hands a count on as it is, where an error would be negative.
TEST_F(SmbAnswer, CountThatReadsLikeAnErrno_IsNone) {
    edit(FaultProxy::Write, [](QByteArray& message) { put(message, infoLengthAt, 0xffff0000); });
    EXPECT_EQ(file->write("x", 1), -1);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_TRUE(proxy->waitUntilClosed());
}

TEST_F(SmbAnswer, AnsweredThenReset_TheAnswerIsTold) {
    answersPileUp = true;
    proxy->on({FaultProxy::Response, FaultProxy::Create}, Fault::reset(1 << 20));
    struct stat st;
    EXPECT_EQ(fs.stat("/missing", st), -1);
    EXPECT_EQ(errno, ENOENT);
    answersPileUp = false;
    EXPECT_EQ(fs.stat("/missing", st), -1);
    EXPECT_EQ(errno, ECONNRESET);
}

TEST_F(SmbAnswer, ConnectRefused_TheShareIsNotConnected) {
    Properties missing = login(proxy->address());
    missing["share"] = "missing";
    EXPECT_EQ(fs.connect(missing), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(fs.unlink("/file"), -1);
    EXPECT_EQ(errno, ENOTCONN);
}

TEST_F(SmbAnswer, SessionSetupUnreadable_ConnectionReset) {
    edit(FaultProxy::SessionSetup, [](QByteArray& message) {
        message.replace(72, message.size() - 72, QByteArray(message.size() - 72, 'x'));
    });
    EXPECT_EQ(fs.connect(login(proxy->address())), -1);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_EQ(fs.connect(login(proxy->address())), 0) << strerror();
}

// Those who wait for the lock while a broken share is connected anew use the new connection.
TEST_F(SmbAnswer, ConnectWhileOthersWait_TheShareIsUsable) {
    for (int round = 0; round < 20; ++round) {
        std::atomic<bool> isOver = false;
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&] {
                struct stat st;
                while (!isOver)
                    fs.stat("/", st);
            });
        }
        proxy->dropConnections();
        struct stat st;
        while (fs.stat("/", st) == 0)
            continue;
        EXPECT_EQ(fs.connect(login(proxy->address())), 0) << strerror();
        EXPECT_EQ(fs.stat("/", st), 0) << strerror();
        isOver = true;
        for (std::thread& thread : threads)
            thread.join();
    }
}

TEST_F(SmbAnswer, DirectoryAskedWhileItIsRewound_IsOpenOrNot) {
    const auto directory = fs.opendir("/").staticCast<Smb2Dir>();
    std::atomic<bool> isOver = false;
    std::thread rewinding([&] {
        for (int i = 0; i < 50; ++i)
            EXPECT_EQ(directory->rewinddir(), 0);
        isOver = true;
    });
    while (!isOver)
        directory->isOpen();
    rewinding.join();
    EXPECT_TRUE(directory->isOpen());
}

// --- The server itself --------------------------------------------------------------------------

namespace {

using SmbServerFault = SmbConnectFault;

} // namespace

TEST_F(SmbServerFault, KilledAndRestarted) {
    Share share(server.address(), "d", 10);
    ASSERT_TRUE(share.file);
    server.kill();
    EXPECT_EQ(share.file->write("x", 1), -1);
    EXPECT_EQ(errno, ECONNRESET);
    expectGuarded(share);
    EXPECT_EQ(share.fs.connect(login(server.address())), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    ASSERT_TRUE(server.restart());
    EXPECT_EQ(share.fs.connect(login(server.address())), 0) << strerror();
    const auto file = share.fs.open(share.at("file"), O_RDONLY, 0);
    ASSERT_TRUE(file);
    EXPECT_EQ(file->readAll(10'000), share.content);
}

TEST_F(SmbServerFault, KilledWhileRecording) {
    Share share(server.address(), "d", 10);
    ASSERT_TRUE(share.file);
    std::atomic<qint64> written = 0;
    std::thread recorder([&] {
        const QByteArray block(1 << 20, 'r');
        while (share.file->write(block.constData(), block.size()) == block.size())
            written += block.size();
        EXPECT_EQ(errno, ECONNRESET);
    });
    QElapsedTimer timer;
    timer.start();
    while (written < (8 << 20) && timer.elapsed() < 60'000)
        std::this_thread::yield();
    server.kill();
    recorder.join();
    // All that was reported as written had reached the server.
    EXPECT_GE(QFileInfo(server.directory("rw") + "/d/file").size(), written);
}

TEST_F(SmbServerFault, Stopped_TimesOutAndComesBack) {
    Share share(server.address(), "d", timeout);
    ASSERT_TRUE(share.file);
    server.stop();
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(share.file->write("x", 1), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_LT(timer.elapsed(), timeLimitMs);
    timer.start();
    EXPECT_EQ(share.fs.connect(login(server.address())), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_LT(timer.elapsed(), timeLimitMs);
    server.cont();
    EXPECT_EQ(share.fs.connect(login(server.address())), 0) << strerror();
    EXPECT_TRUE(share.fs.isConnected());
}

// Who waits for the share's lock meanwhile learns why, whatever it wants to do.
TEST_F(SmbServerFault, ManyThreadsWait_AllTimeOut) {
    Share share(server.address(), "d", timeout);
    ASSERT_TRUE(share.file);
    const auto closed = share.fs.open(share.at("other"), O_RDONLY, 0);
    ASSERT_TRUE(closed);
    server.stop();
    const std::vector<std::function<long long()>> calls = {
        [&] {
            struct stat st;
            return share.fs.stat("/", st);
        },
        [&] { return share.fs.open(share.at("file"), O_RDONLY, 0) ? 0 : -1; },
        [&] { return share.fs.rename(share.at("file"), share.at("g")); },
        [&] {
            struct stat st;
            return share.file->fstat(st);
        },
        [&] { return share.file->write("x", 1); },
        [&] { return closed->close(); },
    };
    std::atomic<int> timedOut = 0;
    QElapsedTimer timer;
    timer.start();
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        struct stat st;
        EXPECT_EQ(share.fs.stat("/", st), -1); // has the lock
    });
    for (const auto& call : calls) {
        threads.emplace_back([&] {
            errno = 0;
            EXPECT_EQ(call(), -1);
            timedOut += errno == ETIMEDOUT;
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(timedOut, static_cast<int>(calls.size()));
    EXPECT_LT(timer.elapsed(), timeLimitMs);
    server.cont();
}

// --- Signals and names --------------------------------------------------------------------------

namespace {

bool isPending(int signal) {
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, signal) == 1;
}

} // namespace

// The guard is in front of the lock.
TEST_F(SmbServerFault, BrokenWhileSomebodyWaits_OthersFailAtOnce) {
    FaultProxy proxy(server.port());
    Share share(proxy.address(), "d", timeout);
    ASSERT_TRUE(share.file);
    proxy.on({FaultProxy::Request, FaultProxy::Create}, Fault::freeze());
    QElapsedTimer timer;
    timer.start();
    std::thread waiting([&] {
        struct stat st;
        EXPECT_EQ(share.fs.stat("/", st), -1);
        EXPECT_EQ(errno, ETIMEDOUT);
        EXPECT_GE(timer.elapsed(), timeout * 1000 - 100);
    });
    // From here on it has the lock, until it times out.
    EXPECT_TRUE(test::eventually([&] { return proxy.armed() == 0; }));
    set_errno(&share.fs, -ECONNRESET, nullptr, "read", "f");
    expectGuarded(share);
    EXPECT_LT(timer.elapsed(), timeout * 1000 - 100);
    waiting.join();
}

TEST_F(SmbServerFault, BrokenPipe_NoSignal) {
    Share share(server.address(), "d", 10);
    ASSERT_TRUE(share.file);
    pipeIsBroken = true;
    EXPECT_EQ(share.file->write("x", 1), -1); // the signal would end the test here
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_FALSE(pipeIsBroken);
    EXPECT_FALSE(isPending(SIGPIPE));
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGPIPE), 0);
}

TEST_F(SmbServerFault, BrokenPipeWhileBlocked_ASignalOfSomebodyElseStays) {
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    {
        Share share(server.address(), "d", 10);
        ASSERT_TRUE(share.file);
        pipeIsBroken = true;
        EXPECT_EQ(share.file->write("x", 1), -1);
        EXPECT_FALSE(isPending(SIGPIPE));
    }
    {
        Share share(server.address(), "e", 10);
        pthread_kill(pthread_self(), SIGPIPE);
        pipeIsBroken = true;
        EXPECT_EQ(share.file->write("x", 1), -1);
        EXPECT_TRUE(isPending(SIGPIPE));
    }
    const struct timespec now = {};
    EXPECT_EQ(sigtimedwait(&pipe, nullptr, &now), SIGPIPE);
    pthread_sigmask(SIG_UNBLOCK, &pipe, nullptr);
}

TEST(SmbResolver, Slow_TimesOut) {
    slowLookups = 0;
    ASSERT_EQ(sem_init(&slowResolver, 0, 0), 0);
    Smb2FS fs(timeout);
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(fs.connect(login("slow.test:445")), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(timer.elapsed(), timeout * 1000 - 100);
    EXPECT_LT(timer.elapsed(), timeLimitMs);
    EXPECT_EQ(slowLookups, 1);
    // A resolver that gives up says so.
    sem_post(&slowResolver); // to the lookup that goes on
    sem_post(&slowResolver);
    EXPECT_EQ(fs.connect(login("slow.test")), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(slowLookups, 2);
}

TEST_F(SmbServerFault, SeveralAddresses_TheOneThatServesIsFound) {
    for (const char* host : {"addresses-2:", "addresses-12:"}) {
        Smb2FS fs(10);
        QElapsedTimer timer;
        timer.start();
        EXPECT_EQ(fs.connect(login(host + QString::number(server.port()))), 0) << strerror();
        EXPECT_TRUE(fs.isConnected());
        EXPECT_LT(timer.elapsed(), 5000);
    }
}

// What takes connections at an address of this machine but answers to none any more.
class SilentAddress {
public:
    SilentAddress(const char* address, quint16 port) : m_listener(bound(address, port)) {
        listen(m_listener.fd(), 0);
        // Its queue of one, and then some.
        for (test::Socket& waiting : m_queue) {
            waiting = test::Socket(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
            struct sockaddr_in to = {};
            socklen_t size = sizeof to;
            getsockname(m_listener.fd(), reinterpret_cast<sockaddr*>(&to), &size);
            const int result = connect(waiting.fd(), reinterpret_cast<sockaddr*>(&to), size);
            EXPECT_TRUE(result == 0 || errno == EINPROGRESS);
        }
    }

private:
    static test::Socket bound(const char* address, quint16 port) {
        test::Socket made(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const int on = 1;
        setsockopt(made.fd(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        struct sockaddr_in at = {};
        at.sin_family = AF_INET;
        at.sin_port = htons(port);
        inet_pton(AF_INET, address, &at.sin_addr);
        EXPECT_EQ(bind(made.fd(), reinterpret_cast<const sockaddr*>(&at), sizeof at), 0);
        return made;
    }

    test::Socket m_listener;
    std::array<test::Socket, 4> m_queue;
};

TEST_F(SmbServerFault, SilentAddresses_TheOneThatServesIsFound) {
    const int before = openDescriptors();
    {
        const SilentAddress third("127.0.0.3", server.port());
        const SilentAddress second("127.0.0.2", server.port());
        Smb2FS fs(timeout);
        QElapsedTimer timer;
        timer.start();
        EXPECT_EQ(fs.connect(login("addresses-3:" + QString::number(server.port()))), 0)
            << strerror();
        EXPECT_GE(timer.elapsed(), 1000); // an eighth of the time, and one of the rest
        EXPECT_LT(timer.elapsed(), timeLimitMs);
        EXPECT_TRUE(fs.isConnected());
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(SmbServerFault, OnlyASilentAddress_TimesOut) {
    const SilentAddress address("127.0.0.2", server.port());
    Smb2FS fs(1);
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(fs.connect(login("127.0.0.2:" + QString::number(server.port()))), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(timer.elapsed(), 900);
    EXPECT_LT(timer.elapsed(), 2000);
}

TEST_F(SmbServerFault, Name_IsLookedUpOnce) {
    lookupsOfOnce = 0;
    Smb2FS fs(10);
    EXPECT_EQ(fs.connect(login("once.test:" + QString::number(server.port()))), 0) << strerror();
    EXPECT_EQ(lookupsOfOnce, 1);
}

TEST(SmbResolver, SeveralAddressesThatRefuse_Refused) {
    Smb2FS fs(10);
    EXPECT_EQ(fs.connect(login("addresses-3:1")), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
}

// libsmb2 takes the lack of a socket for an error of input or output.
TEST(SmbResolver, NoSocketToBeHad_WhyIsTold) {
    for (const int error : {EMFILE, EAFNOSUPPORT}) {
        Smb2FS fs(timeout);
        socketError = error;
        EXPECT_EQ(fs.connect(login("127.0.0.1:1")), -1);
        EXPECT_EQ(errno, error) << std::strerror(errno);
        socketError = 0;
        EXPECT_FALSE(fs.isConnected()); // not fatal
    }
}

TEST(SmbResolver, BracketsAndPorts_AreNotTheName) {
    Smb2FS fs(timeout);
    // Nobody listens there; were the port taken for a part of the name, it would not be known.
    for (const char* server : {"127.0.0.1:1", "[::1]:1", "[127.0.0.1]:1", "localhost:1"}) {
        EXPECT_EQ(fs.connect(login(server)), -1) << server;
        EXPECT_TRUE(errno == ECONNREFUSED || errno == EADDRNOTAVAIL || errno == ENETUNREACH)
            << server << ": " << std::strerror(errno);
    }
}

} // namespace oru::io
