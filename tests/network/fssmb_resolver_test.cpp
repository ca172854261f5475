// SPDX-License-Identifier: Apache-2.0
// The names and addresses of SMB servers.
#include "network/fssmb_fixtures.h"
#include "support/system/loopback.h"

#include <QElapsedTimer>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <netdb.h>
#include <netinet/in.h>
#include <semaphore.h>
#include <sys/socket.h>

namespace {

std::atomic<int> slowLookups = 0;
std::atomic<int> onceLookups = 0;
std::atomic<int> socketError = 0; // errno of socket(); 0: it works
sem_t slowResolver;               // must outlive every lookup

} // namespace

// These definitions precede those of the C library, for libsmb2 as well.

extern "C" Q_DECL_EXPORT int socket(int family, int type, int protocol) noexcept {
    using Function = int(int, int, int);
    static auto* const real = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, "socket"));
    if (socketError == 0)
        return real(family, type, protocol);
    errno = socketError;
    return -1;
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
        return ++onceLookups == 1 ? real("127.0.0.1", service, hints, found) : EAI_FAIL;
    if (isNumeric || !host || std::strncmp(host, "addresses-", 10) != 0)
        return real(host, service, hints, found);
    // "addresses-N" has N addresses: 127.0.0.N first, 127.0.0.1 last.
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

using test::login;
using test::openDescriptors;
using test::timeLimitMs;
using test::timeoutSeconds;
using SmbServerFault = test::Smb;

} // namespace

TEST(SmbResolver, SlowLookup_TimesOut) {
    slowLookups = 0;
    ASSERT_EQ(sem_init(&slowResolver, 0, 0), 0);
    Smb2FS fs(timeoutSeconds);
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(fs.connect(login("slow.test:445")), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(timer.elapsed(), timeoutSeconds * 1000 - 100);
    EXPECT_LT(timer.elapsed(), timeLimitMs);
    EXPECT_EQ(fs.connectFailure().reason, Smb2FS::ConnectFailure::Reason::TimedOut);
    EXPECT_EQ(slowLookups, 1);
    // A lookup that fails within the time-out is reported.
    sem_post(&slowResolver); // for the first lookup, which still runs
    sem_post(&slowResolver);
    EXPECT_EQ(fs.connect(login("slow.test")), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(fs.connectFailure().reason, Smb2FS::ConnectFailure::Reason::HostNotFound);
    EXPECT_EQ(slowLookups, 2);
}

TEST_F(SmbServerFault, SeveralAddresses_ConnectsToTheListeningOne) {
    for (const char* host : {"addresses-2:", "addresses-12:"}) {
        Smb2FS fs(10);
        QElapsedTimer timer;
        timer.start();
        EXPECT_EQ(fs.connect(login(host + QString::number(server.port()))), 0) << strerror();
        EXPECT_TRUE(fs.isConnected());
        EXPECT_LT(timer.elapsed(), 5000);
    }
}

// Listens on a local address with a full queue: further connections get no response.
class SilentAddress {
public:
    SilentAddress(const char* address, quint16 port) : m_listener(bound(address, port)) {
        listen(m_listener.fd(), 0);
        // More connections than fit into the queue, which has one place.
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

TEST_F(SmbServerFault, SilentAddressesFirst_ConnectsToTheListeningOne) {
    const int before = openDescriptors();
    {
        const SilentAddress third("127.0.0.3", server.port());
        const SilentAddress second("127.0.0.2", server.port());
        Smb2FS fs(timeoutSeconds);
        QElapsedTimer timer;
        timer.start();
        EXPECT_EQ(fs.connect(login("addresses-3:" + QString::number(server.port()))), 0)
            << strerror();
        EXPECT_GE(timer.elapsed(), 1000); // an eighth of the time-out, then an eighth of the rest
        EXPECT_LT(timer.elapsed(), timeLimitMs);
        EXPECT_TRUE(fs.isConnected());
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(SmbServerFault, OnlySilentAddress_TimesOut) {
    const SilentAddress address("127.0.0.2", server.port());
    Smb2FS fs(1);
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(fs.connect(login("127.0.0.2:" + QString::number(server.port()))), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(timer.elapsed(), 900);
    EXPECT_LT(timer.elapsed(), 2000);
}

TEST_F(SmbServerFault, HostName_IsLookedUpOnce) {
    onceLookups = 0;
    Smb2FS fs(10);
    EXPECT_EQ(fs.connect(login("once.test:" + QString::number(server.port()))), 0) << strerror();
    EXPECT_EQ(onceLookups, 1);
}

TEST(SmbResolver, AllAddressesRefuse_FailsWithECONNREFUSED) {
    Smb2FS fs(10);
    EXPECT_EQ(fs.connect(login("addresses-3:1")), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
}

// libsmb2 reports a failure of socket() as EIO.
TEST(SmbResolver, SocketFails_FailsWithItsErrno) {
    for (const int error : {EMFILE, EAFNOSUPPORT}) {
        Smb2FS fs(timeoutSeconds);
        socketError = error;
        EXPECT_EQ(fs.connect(login("127.0.0.1:1")), -1);
        EXPECT_EQ(errno, error) << std::strerror(errno);
        socketError = 0;
        EXPECT_FALSE(fs.isConnected()); // not fatal
    }
}

TEST(SmbResolver, BracketsAndPorts_AreNotPartOfTheName) {
    Smb2FS fs(timeoutSeconds);
    // Nothing listens on port 1. If the port were parsed as part of the name, the lookup would
    // fail.
    for (const char* server : {"127.0.0.1:1", "[::1]:1", "[127.0.0.1]:1", "localhost:1"}) {
        EXPECT_EQ(fs.connect(login(server)), -1) << server;
        EXPECT_TRUE(errno == ECONNREFUSED || errno == EADDRNOTAVAIL || errno == ENETUNREACH)
            << server << ": " << std::strerror(errno);
    }
}

} // namespace oru::io
