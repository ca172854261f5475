// SPDX-License-Identifier: Apache-2.0
// Connecting to a share, when the connection fails or is slow.
#include "network/fssmb_fixtures.h"

#include <QElapsedTimer>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>

namespace oru::io {
namespace {

using test::connectEventually;
using test::FaultProxy;
using test::login;
using test::timeLimitMs;
using test::timeoutSeconds;
using Fault = FaultProxy::Fault;
using namespace std::chrono_literals;

/// Delays a response.
Fault delay(std::chrono::milliseconds time) {
    return Fault::edit([time](QByteArray&) { std::this_thread::sleep_for(time); });
}

class SmbConnectFault : public test::Smb {
protected:
    /// Expects that connecting through `proxy` fails with `error`, and succeeds without the fault.
    void expectFailure(FaultProxy& proxy, int error) {
        Smb2FS fs(timeoutSeconds);
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
        EXPECT_TRUE(connectEventually(fs, proxy.address())) << strerror();
        EXPECT_TRUE(fs.isConnected());
    }
};

} // namespace

TEST_F(SmbConnectFault, ConnectionRefused_FailsWithECONNREFUSED) {
    FaultProxy proxy(server.port());
    proxy.refuse();
    expectFailure(proxy, ECONNREFUSED);
}

TEST_F(SmbConnectFault, SilentServer_TimesOut) {
    FaultProxy proxy(server.port());
    proxy.silence();
    expectFailure(proxy, ETIMEDOUT);
}

TEST_F(SmbConnectFault, ResetAfterAccept_FailsWithECONNRESET) {
    FaultProxy proxy(server.port());
    proxy.resetOnConnect();
    expectFailure(proxy, ECONNRESET);
}

TEST_F(SmbConnectFault, FaultAtEachStep_FailsWithItsErrno) {
    struct Step {
        FaultProxy::Direction direction;
        FaultProxy::Command command;
        int occurrence;
    };
    const Step steps[] = {{FaultProxy::Response, FaultProxy::Negotiate, 1},
                          {FaultProxy::Response, FaultProxy::SessionSetup, 1},
                          {FaultProxy::Response, FaultProxy::SessionSetup, 2},
                          {FaultProxy::Response, FaultProxy::TreeConnect, 1}};
    const auto expectFailureAt = [this](const Step& step, const Fault& fault, int error) {
        FaultProxy proxy(server.port());
        proxy.on({step.direction, step.command, step.occurrence}, fault);
        expectFailure(proxy, error);
    };
    for (const Fault& fault : {Fault::reset(), Fault::reset(30), Fault::close(70)}) {
        for (const Step& step : steps)
            expectFailureAt(step, fault, ECONNRESET);
    }
    // At the same time, as each takes a time-out.
    std::vector<std::thread> threads;
    for (const Fault& fault : {Fault::freeze(), Fault::dribble(200)}) {
        for (const Step& step : steps)
            threads.emplace_back([=] { expectFailureAt(step, fault, ETIMEDOUT); });
    }
    for (std::thread& thread : threads)
        thread.join();
}

TEST_F(SmbConnectFault, ResponseByteByByte_Connects) {
    FaultProxy proxy(server.port());
    proxy.on({FaultProxy::Response, FaultProxy::Negotiate}, Fault::dribble());
    Smb2FS fs(20);
    EXPECT_EQ(fs.connect(login(proxy.address())), 0) << strerror();
    EXPECT_TRUE(fs.isConnected());
}

// One time-out covers both the disconnecting of the frozen connection and the new connection.
TEST_F(SmbConnectFault, ConnectAgainWhileFrozen_TimesOutOnce) {
    FaultProxy proxy(server.port());
    Smb2FS fs(timeoutSeconds);
    ASSERT_TRUE(connectEventually(fs, proxy.address()));
    proxy.on({FaultProxy::Request, FaultProxy::TreeDisconnect}, Fault::freeze());
    proxy.on({FaultProxy::Request, FaultProxy::Negotiate}, Fault::freeze());
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(fs.connect(login(proxy.address())), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_LT(timer.elapsed(), timeLimitMs);
    EXPECT_EQ(proxy.armed(), 0);   // connect() sent the TREE_DISCONNECT
    EXPECT_EQ(fs.disconnect(), 0); // and disconnect() sends none
    EXPECT_TRUE(connectEventually(fs, proxy.address())) << strerror();
}

// One time-out covers all steps of connecting.
TEST_F(SmbConnectFault, SlowResponses_TimeOut) {
    FaultProxy proxy(server.port());
    for (int i = 0; i < 4; ++i)
        proxy.on({FaultProxy::Response, FaultProxy::Any}, delay(1500ms));
    expectFailure(proxy, ETIMEDOUT);
}

// The time-out applies to each request. A listing takes several.
TEST_F(SmbConnectFault, ListingInSlowResponses_SucceedsAfterTheTimeout) {
    constexpr int count = 300;
    for (int i = 0; i < count; ++i)
        putLocal('/' + QString::number(i).rightJustified(200, 'n'));
    FaultProxy proxy(server.port());
    Smb2FS fs(timeoutSeconds);
    ASSERT_TRUE(connectEventually(fs, proxy.address())) << strerror();
    proxy.clear();
    // For the opening, three parts of the listing, its end, and the closing.
    constexpr int responses = 6;
    for (int i = 0; i < responses; ++i)
        proxy.on({FaultProxy::Response, FaultProxy::Any}, delay(1s));
    QElapsedTimer timer;
    timer.start();
    const auto directory = fs.opendir("/");
    ASSERT_TRUE(directory) << strerror();
    EXPECT_GT(timer.elapsed(), timeoutSeconds * 1000);
    EXPECT_EQ(proxy.armed(), 0);
    int found = 0;
    while (directory->readdir())
        ++found;
    EXPECT_EQ(found, count + 2);
    EXPECT_TRUE(fs.isConnected());
}

TEST_F(SmbConnectFault, NoTimeout_WaitsForSlowServer) {
    FaultProxy proxy(server.port());
    proxy.on({FaultProxy::Response, FaultProxy::Negotiate}, Fault::dribble());
    Smb2FS fs(0);
    EXPECT_EQ(fs.connect(login(proxy.address())), 0) << strerror();
    struct stat st;
    EXPECT_EQ(fs.stat("/", st), 0);
    EXPECT_EQ(fs.disconnect(), 0);
}

TEST_F(SmbConnectFault, EchoFails_IsNotConnectedThenFatal) {
    for (const auto& [fault, error] :
         {std::pair(Fault::reset(), ECONNRESET), std::pair(Fault::freeze(), ETIMEDOUT)}) {
        FaultProxy proxy(server.port());
        Smb2FS fs(timeoutSeconds);
        ASSERT_TRUE(connectEventually(fs, proxy.address()));
        proxy.on({FaultProxy::Request, FaultProxy::Echo}, fault);
        const auto file = fs.open("/f", O_RDWR | O_CREAT, 0644);
        EXPECT_FALSE(fs.isConnected()); // does not record the failure
        EXPECT_FALSE(fs.isConnected());
        struct stat st;
        EXPECT_EQ(file->fstat(st), -1);
        EXPECT_EQ(errno, error);
        EXPECT_EQ(fs.disconnect(), -1);
        EXPECT_TRUE(fs.isConnected()); // disconnect() recorded the failure
        set_errno(&fs, -ENOENT, nullptr, "stat", "f");
        EXPECT_EQ(fs.stat("/", st), -1);
        EXPECT_EQ(errno, error);
        EXPECT_TRUE(fs.isConnected());
    }
}

TEST_F(SmbConnectFault, ConnectionLostInRewinddir_ReturnsZeroThenFails) {
    FaultProxy proxy(server.port());
    Smb2FS fs(timeoutSeconds);
    ASSERT_TRUE(connectEventually(fs, proxy.address()));
    const auto directory = fs.opendir("/");
    proxy.on({FaultProxy::Request, FaultProxy::Create}, Fault::reset());
    EXPECT_EQ(directory->rewinddir(), 0);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_EQ(directory->rewinddir(), -1);
}

} // namespace oru::io
