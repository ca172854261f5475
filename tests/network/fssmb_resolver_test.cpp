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
std::atomic<int> lookupsOfOnce = 0;
std::atomic<int> socketError = 0; // 0: there are sockets
sem_t slowResolver;               // outlives every lookup

} // namespace

// The program's own definitions come before those of the C library, for libsmb2 as well.

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

using test::login;
using test::openDescriptors;
using test::timeLimitMs;
using test::timeout;
using SmbServerFault = test::Smb;

} // namespace

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
