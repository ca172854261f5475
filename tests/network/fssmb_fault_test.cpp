// SPDX-License-Identifier: Apache-2.0
// Every operation on a share, with a connection that fails during the operation.
#include "network/fssmb_fixtures.h"
#include "network/shareoperations.h"

#include <QElapsedTimer>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>

namespace oru::io {
namespace {

using test::connectMutex;
using test::FaultProxy;
using test::login;
using test::openDescriptors;
using test::Operation;
using test::operations;
using test::Share;
using test::SmbServer;
using test::timeLimitMs;
using test::timeoutSeconds;
using Fault = FaultProxy::Fault;

struct FaultCase {
    const char* name;
    FaultProxy::Direction direction;
    Fault fault;
    int error; ///< 0: the operation succeeds
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

void tryOperation(const SmbServer& server, const FaultCase& tested, const Operation& operation,
                  int number) {
    SCOPED_TRACE(operation.name);
    FaultProxy proxy(server.port());
    const unsigned int seconds = tested.error == ETIMEDOUT ? timeoutSeconds : 20;
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
    // The connection to the server is closed; disconnect() fails with the same error.
    EXPECT_TRUE(proxy.waitUntilClosed());
    EXPECT_EQ(share.fs.disconnect(), -1);
    EXPECT_EQ(errno, tested.error);

    share.file.reset();
    share.directory.reset();
    const std::lock_guard lock(connectMutex);
    EXPECT_TRUE(test::connectEventually(share.fs, proxy.address())) << strerror();
    const auto file = share.fs.open(share.at("file"), O_RDWR, 0);
    ASSERT_TRUE(file) << strerror();
    EXPECT_EQ(file->readAll(10'000), share.content);
    EXPECT_EQ(share.fs.getDialect(), "3.1.1");
}

} // namespace

TEST_P(SmbFault, EveryOperation_FailsOrSucceedsInTime) {
    const int before = openDescriptors();
    {
        SmbServer server;
        ASSERT_EQ(server.problem(), "");
        // In parallel, because each time-out takes seconds.
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

} // namespace oru::io
