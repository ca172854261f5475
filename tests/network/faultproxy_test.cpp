// SPDX-License-Identifier: Apache-2.0
// Each fault of the SMB proxy, between two sockets of the test.

#include "support/doubles/faultproxy.h"

#include "support/suite/qtprint.h"
#include "support/system/loopback.h"

#include <QtEndian>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <memory>
#include <thread>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace oru::io::test {

namespace {

using Clock = std::chrono::steady_clock;
using Fault = FaultProxy::Fault;

constexpr int mebibyte = 1024 * 1024;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

template <class Int>
void put(QByteArray& message, int offset, Int value) {
    qToLittleEndian(value, message.data() + offset);
}

/// An SMB2 message of `size` bytes.
QByteArray message(int command, int size = 200, quint32 status = 0) {
    QByteArray bytes(size, 'x');
    bytes.replace(0, 64, "\xfeSMB" + QByteArray(60, '\0'));
    put<quint32>(bytes, 8, status);
    put<quint16>(bytes, 12, static_cast<quint16>(command));
    put<quint64>(bytes, 24, 7);
    return bytes;
}

/// A READ or WRITE.
QByteArray transfer(int command, quint32 length, quint64 offset, int size = 200) {
    QByteArray bytes = message(command, size);
    put(bytes, 68, length);
    put(bytes, 72, offset);
    return bytes;
}

QByteArray chained(QByteArray first, const QByteArray& next) {
    put(first, 20, static_cast<quint32>(first.size()));
    return first + next;
}

QByteArray framed(const QByteArray& bytes) {
    QByteArray prefix(4, '\0');
    qToBigEndian(static_cast<quint32>(bytes.size()), prefix.data());
    return prefix + bytes;
}

/// Sends `bytes` from a thread, so that the other end need not receive yet.
std::thread sender(const Socket& socket, const QByteArray& bytes) {
    return std::thread([&socket, bytes] {
        EXPECT_EQ(::send(socket.fd(), bytes.constData(), static_cast<std::size_t>(bytes.size()),
                         MSG_NOSIGNAL),
                  bytes.size());
    });
}

void send(const Socket& socket, const QByteArray& bytes) {
    sender(socket, bytes).join();
}

/// The number of bytes that can be sent in 200 ms while the other end does not receive.
int sentWithoutReceiver(const Socket& socket, const QByteArray& bytes) {
    const timeval limit = {0, 200'000};
    setsockopt(socket.fd(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    const int smallBuffer = 65536;
    setsockopt(socket.fd(), SOL_SOCKET, SO_SNDBUF, &smallBuffer, sizeof smallBuffer);
    return static_cast<int>(::send(socket.fd(), bytes.constData(),
                                   static_cast<std::size_t>(bytes.size()), MSG_NOSIGNAL));
}

/// The next bytes, at most `size`. Empty at the end of the stream.
QByteArray receiveSome(const Socket& socket, int size) {
    QByteArray bytes(size, '\0');
    const ssize_t count =
        ::recv(socket.fd(), bytes.data(), static_cast<std::size_t>(bytes.size()), 0);
    bytes.resize(static_cast<int>(std::max<ssize_t>(count, 0)));
    return bytes;
}

/// The next `size` bytes; fewer at the end of the stream.
QByteArray receive(const Socket& socket, int size) {
    QByteArray all;
    while (all.size() < size) {
        const QByteArray some = receiveSome(socket, size - all.size());
        if (some.isEmpty())
            break;
        all += some;
    }
    return all;
}

bool hasEvent(const Socket& socket, int waitMs) {
    struct pollfd end = {socket.fd(), POLLIN, 0};
    return ::poll(&end, 1, waitMs) == 1;
}

/// The state of a stream:
/// - -1: there are bytes to receive,
/// - 0: the end of the stream,
/// - EAGAIN: no byte within `waitMs`,
/// - another errno of recv(2).
int stateOf(const Socket& socket, int waitMs = 5000) {
    hasEvent(socket, waitMs);
    char byte;
    const ssize_t count = ::recv(socket.fd(), &byte, 1, MSG_DONTWAIT | MSG_PEEK);
    return count == -1 ? errno : -static_cast<int>(count);
}

/// Both ends of a connection through the proxy.
struct Route {
    Route(const FaultProxy& proxy, const Socket& listener)
        : client(connectedSocket(proxy.port())), server(acceptedSocket(listener)) {
        for (const Socket* socket : {&client, &server}) {
            const timeval longest = {20, 0};
            setsockopt(socket->fd(), SOL_SOCKET, SO_RCVTIMEO, &longest, sizeof longest);
            setsockopt(socket->fd(), SOL_SOCKET, SO_SNDTIMEO, &longest, sizeof longest);
        }
    }

    void expectRequest(const QByteArray& bytes) const {
        send(client, framed(bytes));
        EXPECT_EQ(receive(server, bytes.size() + 4), framed(bytes));
    }
    void expectResponse(const QByteArray& bytes) const {
        send(server, framed(bytes));
        EXPECT_EQ(receive(client, bytes.size() + 4), framed(bytes));
    }

    Socket client;
    Socket server;
};

class FaultProxyTest : public ::testing::Test {
protected:
    const Socket listener = listeningSocket();
    FaultProxy proxy{listener.port()};
};

} // namespace

// --- Forwarding and recording -------------------------------------------------------------------

TEST_F(FaultProxyTest, NoFault_FramesPassBothWays) {
    const Route route(proxy, listener);
    route.expectRequest(message(FaultProxy::Echo));
    route.expectResponse(message(FaultProxy::Echo));
    route.expectRequest("not SMB");
    route.expectRequest("");
}

TEST_F(FaultProxyTest, FrameInPieces_Passes) {
    const Route route(proxy, listener);
    const QByteArray frame = framed(message(FaultProxy::Echo, 1000));
    for (const char byte : frame)
        send(route.client, QByteArray(1, byte));
    EXPECT_EQ(receive(route.server, frame.size()), frame);
    EXPECT_EQ(proxy.messages().size(), 1);
}

TEST_F(FaultProxyTest, ReadAndWrite_AreRecorded) {
    const Route route(proxy, listener);
    const QByteArray write = transfer(FaultProxy::Write, 100, 1ULL << 40, 400);
    route.expectRequest(write);
    route.expectResponse(transfer(FaultProxy::Write, 99, 0));
    QByteArray failed = message(FaultProxy::Read, 73, 0xc0000011);
    put<quint32>(failed, 68, 0);
    route.expectResponse(failed);

    const QList<FaultProxy::Message> messages = proxy.messages();
    ASSERT_EQ(messages.size(), 3);
    EXPECT_FALSE(messages[0].fromServer);
    EXPECT_EQ(messages[0].connection, 1);
    EXPECT_EQ(messages[0].command, FaultProxy::Write);
    EXPECT_EQ(messages[0].messageId, 7U);
    EXPECT_EQ(messages[0].length, 100U);
    EXPECT_EQ(messages[0].offset, 1ULL << 40);
    EXPECT_EQ(messages[0].size, 400);
    EXPECT_EQ(messages[0].head, write.left(256));
    EXPECT_TRUE(messages[1].fromServer);
    EXPECT_EQ(messages[1].length, 99U);
    EXPECT_EQ(messages[2].status, 0xc0000011U);
    EXPECT_EQ(messages[2].length, 0U);
    EXPECT_EQ(proxy.messages(FaultProxy::Response, FaultProxy::Read).size(), 1);

    proxy.clear();
    EXPECT_EQ(proxy.messages().size(), 0);
}

TEST_F(FaultProxyTest, Chain_EachMessageIsRecorded) {
    const Route route(proxy, listener);
    const QByteArray create = message(FaultProxy::Create, 1000);
    const QByteArray close = message(FaultProxy::Close, 88);
    route.expectRequest(chained(create, chained(close, message(FaultProxy::Echo, 68))));

    const QList<FaultProxy::Message> messages = proxy.messages();
    ASSERT_EQ(messages.size(), 3);
    EXPECT_EQ(messages[0].command, FaultProxy::Create);
    EXPECT_EQ(messages[0].size, 1000);
    EXPECT_EQ(messages[1].command, FaultProxy::Close);
    EXPECT_EQ(messages[1].at, 1000);
    EXPECT_EQ(messages[1].size, 88);
    EXPECT_EQ(messages[2].command, FaultProxy::Echo);
    EXPECT_EQ(messages[2].at, 1088);
    EXPECT_EQ(messages[2].size, 68);
}

TEST_F(FaultProxyTest, MalformedMessages_PassAsSingleMessages) {
    const Route route(proxy, listener);
    QByteArray endless = message(FaultProxy::Echo, 68);
    put<quint32>(endless, 20, 0xffffffff);
    route.expectRequest(endless);
    route.expectRequest(message(FaultProxy::Echo).left(63));

    const QList<FaultProxy::Message> messages = proxy.messages();
    ASSERT_EQ(messages.size(), 2);
    EXPECT_EQ(messages[0].command, FaultProxy::Echo);
    EXPECT_EQ(messages[1].command, FaultProxy::Opaque);
}

TEST_F(FaultProxyTest, LargeMessagesBothWays_PassInTime) {
    const Route route(proxy, listener);
    const QByteArray request = framed(transfer(FaultProxy::Write, 8 * mebibyte, 0, 8 * mebibyte));
    const QByteArray response = framed(message(FaultProxy::Read, 8 * mebibyte));
    const auto start = Clock::now();
    for (int i = 0; i < 4; ++i) {
        std::thread client = sender(route.client, request);
        std::thread server = sender(route.server, response);
        std::thread reader(
            [&] { EXPECT_TRUE(receive(route.client, response.size()) == response); });
        EXPECT_TRUE(receive(route.server, request.size()) == request);
        client.join();
        server.join();
        reader.join();
    }
    EXPECT_LT(secondsSince(start), 10);
    EXPECT_EQ(proxy.messages().size(), 8);
}

TEST_F(FaultProxyTest, ServerDoesNotReceive_ClientBlocks) {
    const Route route(proxy, listener);
    EXPECT_LT(sentWithoutReceiver(route.client, framed(message(FaultProxy::Write, 15 * mebibyte))),
              15 * mebibyte);
}

TEST_F(FaultProxyTest, HalfOfLargeMessage_IsForwarded) {
    const Route route(proxy, listener);
    const QByteArray half = framed(message(FaultProxy::Write, mebibyte)).left(mebibyte / 2);
    send(route.client, half);
    EXPECT_TRUE(receive(route.server, half.size()) == half);
}

// --- Connections --------------------------------------------------------------------------------

TEST_F(FaultProxyTest, ClientCloses_ServerGetsEndAndConnectionIsClosed) {
    Route first(proxy, listener);
    const Route second(proxy, listener);
    EXPECT_EQ(proxy.connections(), 2);
    EXPECT_EQ(proxy.openConnections(), 2);
    EXPECT_FALSE(proxy.waitUntilClosed(0));

    send(first.client, "rest");
    first.client.close();
    EXPECT_EQ(receive(first.server, 100), "rest");
    EXPECT_EQ(stateOf(first.server), 0);
    EXPECT_EQ(proxy.connections(), 2);
    EXPECT_EQ(proxy.openConnections(), 1);
    second.expectRequest(message(FaultProxy::Echo));
    EXPECT_EQ(proxy.messages().last().connection, 2);
}

TEST_F(FaultProxyTest, ServerCloses_ClientGetsEndAndConnectionStaysOpen) {
    Route route(proxy, listener);
    send(route.server, "rest");
    route.server.close();
    EXPECT_EQ(receive(route.client, 100), "rest");
    EXPECT_EQ(stateOf(route.client), 0);
    EXPECT_EQ(proxy.openConnections(), 1);
    route.client.close();
    EXPECT_TRUE(proxy.waitUntilClosed());
}

TEST_F(FaultProxyTest, ServerResets_ClientIsReset) {
    Route route(proxy, listener);
    route.server.reset();
    EXPECT_EQ(stateOf(route.client), ECONNRESET);
}

TEST(FaultProxy, ServerRefuses_ClientIsReset) {
    const Socket nobody = boundSocket();
    const FaultProxy proxy(nobody.port());
    EXPECT_EQ(stateOf(connectedSocket(proxy.port())), ECONNRESET);
    EXPECT_TRUE(proxy.waitUntilClosed());
}

TEST_F(FaultProxyTest, Refusing_ConnectionsAreRefusedUntilAccepting) {
    const Route before(proxy, listener);
    const quint16 port = proxy.port();
    proxy.refuse();
    errno = 0;
    EXPECT_FALSE(connectedSocket(port).isOpen());
    EXPECT_EQ(errno, ECONNREFUSED);
    before.expectRequest(message(FaultProxy::Echo));

    proxy.accept();
    EXPECT_EQ(proxy.port(), port);
    Route(proxy, listener).expectRequest(message(FaultProxy::Echo));
}

TEST_F(FaultProxyTest, Silent_ConnectionsAreAcceptedWithoutResponse) {
    proxy.silence();
    Socket client = connectedSocket(proxy.port());
    send(client, framed(message(FaultProxy::Negotiate)));
    EXPECT_EQ(stateOf(client, 50), EAGAIN);
    EXPECT_FALSE(hasEvent(listener, 0)); // the proxy does not connect to the server
    EXPECT_EQ(proxy.connections(), 1);
    EXPECT_EQ(proxy.openConnections(), 1);
    client.close();
    EXPECT_TRUE(proxy.waitUntilClosed());
}

TEST_F(FaultProxyTest, ResetOnConnect_ConnectionIsReset) {
    proxy.resetOnConnect();
    EXPECT_EQ(stateOf(connectedSocket(proxy.port())), ECONNRESET);
    EXPECT_EQ(proxy.connections(), 1);
    EXPECT_EQ(proxy.openConnections(), 0);
}

TEST_F(FaultProxyTest, ConnectionsDropped_BothEndsAreReset) {
    const Route first(proxy, listener);
    const Route second(proxy, listener);
    proxy.dropConnections();
    for (const Socket* socket : {&first.client, &first.server, &second.client, &second.server})
        EXPECT_EQ(stateOf(*socket), ECONNRESET);
    EXPECT_EQ(proxy.openConnections(), 0);
}

TEST_F(FaultProxyTest, Destroyed_ConnectionsEnd) {
    auto other = std::make_unique<FaultProxy>(listener.port());
    const Route route(*other, listener);
    other.reset();
    EXPECT_EQ(stateOf(route.client), 0);
    EXPECT_EQ(stateOf(route.server), 0);
}

// --- Faults -------------------------------------------------------------------------------------

TEST_F(FaultProxyTest, Reset_NoBytePassesAndBothEndsAreReset) {
    const Route route(proxy, listener);
    proxy.on({FaultProxy::Request, FaultProxy::Write}, Fault::reset());
    route.expectRequest(message(FaultProxy::Read));
    EXPECT_EQ(proxy.armed(), 1);
    send(route.client, framed(message(FaultProxy::Write)));
    EXPECT_EQ(stateOf(route.server), ECONNRESET);
    EXPECT_EQ(stateOf(route.client), ECONNRESET);
    EXPECT_EQ(proxy.armed(), 0);
    EXPECT_EQ(proxy.openConnections(), 0);
}

TEST_F(FaultProxyTest, ResetAfterBytes_ThoseBytesPass) {
    const Route route(proxy, listener);
    proxy.on({FaultProxy::Response, FaultProxy::Read}, Fault::reset(700'000));
    const QByteArray response = framed(message(FaultProxy::Read, mebibyte));
    std::thread server([&] {
        ::send(route.server.fd(), response.constData(), static_cast<std::size_t>(response.size()),
               MSG_NOSIGNAL);
    });
    EXPECT_TRUE(receive(route.client, 700'000) == response.left(700'000));
    EXPECT_EQ(stateOf(route.client), ECONNRESET);
    server.join();
}

TEST_F(FaultProxyTest, Close_BothEndsGetTheEnd) {
    Route route(proxy, listener);
    proxy.on({FaultProxy::Response, FaultProxy::Read}, Fault::close(5));
    const QByteArray response = framed(message(FaultProxy::Read));
    send(route.server, response);
    EXPECT_EQ(receive(route.client, 100), response.left(5));
    EXPECT_EQ(stateOf(route.client), 0);
    EXPECT_EQ(stateOf(route.server), 0);
    EXPECT_EQ(proxy.openConnections(), 1);
    route.client.close();
    EXPECT_TRUE(proxy.waitUntilClosed());
}

TEST_F(FaultProxyTest, Freeze_NothingPassesAndBothEndsStayConnected) {
    Route route(proxy, listener);
    proxy.on({FaultProxy::Request, FaultProxy::Write}, Fault::freeze(1000));
    const QByteArray request = framed(message(FaultProxy::Write, 2000));
    send(route.client, request);
    EXPECT_EQ(receive(route.server, 1000), request.left(1000));
    send(route.server, framed(message(FaultProxy::Echo)));
    EXPECT_EQ(stateOf(route.server, 50), EAGAIN);
    EXPECT_EQ(stateOf(route.client, 50), EAGAIN);

    EXPECT_EQ(proxy.openConnections(), 1);
    route.client.close();
    EXPECT_TRUE(proxy.waitUntilClosed());
    EXPECT_EQ(stateOf(route.server), ECONNRESET); // its response was never read
}

TEST_F(FaultProxyTest, FrozenAndServerResets_ClientGetsNothingAndProxyDoesNotSpin) {
    Route route(proxy, listener);
    proxy.on({FaultProxy::Request, FaultProxy::Write}, Fault::freeze(1));
    send(route.client, framed(message(FaultProxy::Write)));
    EXPECT_EQ(receive(route.server, 1).size(), 1);
    route.server.reset();
    const std::clock_t start = std::clock();
    EXPECT_EQ(stateOf(route.client, 300), EAGAIN);
    EXPECT_LT(std::clock() - start, CLOCKS_PER_SEC / 10);
}

TEST_F(FaultProxyTest, Freeze_ClientBlocks) {
    const Route route(proxy, listener);
    proxy.on({FaultProxy::Request, FaultProxy::Write}, Fault::freeze());
    EXPECT_LT(sentWithoutReceiver(route.client, framed(message(FaultProxy::Write, 15 * mebibyte))),
              15 * mebibyte);
}

TEST_F(FaultProxyTest, Dribble_ServerBytesPassOneByOne) {
    const Route route(proxy, listener);
    proxy.on({FaultProxy::Response, FaultProxy::Read}, Fault::dribble(10));
    route.expectResponse(message(FaultProxy::Echo));
    const QByteArray response = framed(message(FaultProxy::Read));
    send(route.server, response);
    const auto start = Clock::now();
    EXPECT_EQ(receiveSome(route.client, 100), response.left(1));
    EXPECT_EQ(receive(route.client, 20), response.mid(1, 20));
    EXPECT_GE(secondsSince(start), 0.19);
    // The bytes of the client are not delayed.
    route.expectRequest(message(FaultProxy::Write, mebibyte));
}

TEST_F(FaultProxyTest, DribbleWithoutInterval_AllBytesPass) {
    const Route route(proxy, listener);
    proxy.on({FaultProxy::Request, FaultProxy::Read}, Fault::dribble());
    route.expectRequest(message(FaultProxy::Read));
    route.expectResponse(message(FaultProxy::Read, 100'000));
}

TEST_F(FaultProxyTest, Edit_ChangedMessagePasses) {
    const Route route(proxy, listener);
    proxy.on({FaultProxy::Response, FaultProxy::Write}, Fault::edit([](QByteArray& bytes) {
                 put<quint32>(bytes, 68, 0);
                 bytes += "more";
             }));
    const QByteArray response = transfer(FaultProxy::Write, 4096, 0, 8 * mebibyte);
    QByteArray expected = response + "more";
    put<quint32>(expected, 68, 0);
    std::thread server = sender(route.server, framed(response));
    EXPECT_TRUE(receive(route.client, expected.size() + 4) == framed(expected));
    server.join();
    route.expectResponse(response.left(80));
}

TEST_F(FaultProxyTest, EditInChain_OnlyOneMessageIsChanged) {
    const Route route(proxy, listener);
    proxy.on({FaultProxy::Response, FaultProxy::QueryInfo},
             Fault::edit([](QByteArray& bytes) { bytes = bytes.left(64) + "edited"; }));
    const QByteArray create = message(FaultProxy::Create, 160);
    const QByteArray query = message(FaultProxy::QueryInfo, 120);
    send(route.server, framed(chained(create, query)));
    const QByteArray expected = framed(chained(create, query.left(64) + "edited"));
    EXPECT_EQ(receive(route.client, expected.size()), expected);
}

TEST_F(FaultProxyTest, Drop_OnlyOtherMessagesPass) {
    const Route route(proxy, listener);
    proxy.on({FaultProxy::Response, FaultProxy::Flush}, Fault::drop());
    const QByteArray before = framed(message(FaultProxy::Read));
    const QByteArray after = framed(message(FaultProxy::Write));
    send(route.server, before + framed(message(FaultProxy::Flush)) + after);
    EXPECT_EQ(receive(route.client, before.size() + after.size()), before + after);
    EXPECT_EQ(proxy.messages(FaultProxy::Response, FaultProxy::Flush).size(), 1);
}

// --- Triggers -----------------------------------------------------------------------------------

TEST_F(FaultProxyTest, Occurrence_CountsFinalResponsesOverAllConnections) {
    const Route first(proxy, listener);
    const Route second(proxy, listener);
    proxy.on({FaultProxy::Response, FaultProxy::Read, 3}, Fault::reset());
    first.expectRequest(message(FaultProxy::Read));
    first.expectResponse(message(FaultProxy::Read));
    first.expectResponse(message(FaultProxy::Read, 200, 0x103)); // STATUS_PENDING
    second.expectResponse(message(FaultProxy::Read));
    send(first.server, framed(message(FaultProxy::Read)));
    EXPECT_EQ(stateOf(first.client), ECONNRESET);
    second.expectResponse(message(FaultProxy::Read));
}

TEST_F(FaultProxyTest, SeveralFaults_EachStrikesItsMessage) {
    const Route route(proxy, listener);
    const auto mark = [](char letter) {
        return Fault::edit([letter](QByteArray& bytes) { bytes[64] = letter; });
    };
    proxy.on({FaultProxy::Request, FaultProxy::Any, 2}, mark('b'));
    proxy.on({FaultProxy::Request, FaultProxy::Any, 1}, mark('a'));
    proxy.on({FaultProxy::Request, FaultProxy::Echo, 2}, mark('c')); // is due with 'b'
    QByteArray marks;
    for (int i = 0; i < 4; ++i) {
        send(route.client, framed(message(FaultProxy::Echo)));
        marks += receive(route.server, 204).mid(68, 1);
    }
    EXPECT_EQ(marks, "abcx");
}

TEST_F(FaultProxyTest, LaterMessageOfChain_FaultStrikesTheFrame) {
    const Route route(proxy, listener);
    proxy.on({FaultProxy::Request, FaultProxy::Close}, Fault::drop());
    send(route.client, framed(chained(message(FaultProxy::Create), message(FaultProxy::Close))));
    route.expectRequest(message(FaultProxy::Echo));
}

TEST_F(FaultProxyTest, Disarmed_MessagesPass) {
    const Route route(proxy, listener);
    proxy.on({FaultProxy::Request, FaultProxy::Any}, Fault::reset());
    proxy.disarm();
    route.expectRequest(message(FaultProxy::Echo));
    EXPECT_EQ(proxy.armed(), 0);
}

} // namespace oru::io::test
