// SPDX-License-Identifier: Apache-2.0
// Writes with several requests under way, and the credits that permit them.
#include "network/fssmb_fixtures.h"

#include "support/system/childprocess.h"

#include <QElapsedTimer>
#include <QtEndian>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>

namespace oru::io {
namespace {

using test::FaultProxy;
using test::login;
using test::Smb;
using test::SmbServer;
using Fault = FaultProxy::Fault;

constexpr int piece = 65536;
constexpr int window = 16;

// Offsets in messages.
constexpr int statusAt = 8;
constexpr int chargeAt = 6;   // of a request, in credits
constexpr int creditsAt = 14; // that a response grants
constexpr int countAt = 64 + 4;
constexpr int dataOffsetAt = 64 + 2; // in a WRITE request

constexpr quint32 statusEndOfFile = 0xc0000011;

void put(QByteArray& message, int at, quint32 value) {
    qToLittleEndian(value, message.data() + at);
}

/// Different in each piece, so that a piece at the wrong place shows.
QByteArray contentOf(int size) {
    QByteArray content(size, '\0');
    for (int i = 0; i < size; ++i)
        content[i] = static_cast<char>(i / piece * 7 + i % 251);
    return content;
}

/// With `fs` connected to the share "rw" through a proxy, and an empty file.
class SmbWindow : public Smb {
protected:
    explicit SmbWindow(unsigned int timeout = 20) : fs(timeout) {}
    explicit SmbWindow(const SmbServer::Options& options) : Smb(options), fs(20) {}

    void SetUp() override {
        Smb::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        proxy = std::make_unique<FaultProxy>(server.port());
        connect();
    }
    /// Connects, and makes the file empty.
    void connect(const QString& version = {}) {
        const Properties properties = test::with(login(proxy->address()), "version", version);
        ASSERT_TRUE(test::eventually([&] { return fs.connect(properties) == 0; })) << strerror();
        file = fs.open("/file", O_RDWR | O_CREAT | O_TRUNC, 0644);
        ASSERT_TRUE(file) << strerror();
    }
    int write(const QByteArray& content) {
        return file->write(content.constData(), content.size());
    }
    int pwrite(const QByteArray& content, long long offset) {
        return file->pwrite(content.constData(), content.size(), offset);
    }
    std::vector<quint64> offsets() const {
        std::vector<quint64> found;
        for (const auto& message : proxy->messages(FaultProxy::Request, FaultProxy::Write))
            found.push_back(message.offset);
        return found;
    }
    /// The largest number of WRITE requests without an answer, as the proxy has seen them.
    int mostUnderWay() const {
        int underWay = 0;
        int most = 0;
        for (const auto& message : proxy->messages()) {
            if (message.command != FaultProxy::Write || message.isInterim())
                continue;
            underWay += message.fromServer ? -1 : 1;
            most = std::max(most, underWay);
        }
        return most;
    }
    int answers() const {
        const auto found = proxy->messages(FaultProxy::Response, FaultProxy::Write);
        return static_cast<int>(std::count_if(
            found.begin(), found.end(), [](const auto& message) { return !message.isInterim(); }));
    }
    /// Lets no answer of this connection arrive any more.
    void holdAnswers() {
        proxy->on({FaultProxy::Response, FaultProxy::Write}, Fault::dribble(1'000'000));
    }
    void edit(FaultProxy::Direction direction, int occurrence,
              std::function<void(QByteArray&)> editor) {
        proxy->on({direction, FaultProxy::Write, occurrence}, Fault::edit(std::move(editor)));
    }
    /// Has the server refuse a request with EINVAL: the place of the data in it is wrong.
    void refuse(int occurrence) {
        edit(FaultProxy::Request, occurrence,
             [](QByteArray& message) { message[dataOffsetAt] = 1; });
    }
    /// Makes the next answer to a command grant `count` credits.
    static void grant(FaultProxy& at, int command, quint16 count) {
        at.on({FaultProxy::Response, command}, Fault::edit([count](QByteArray& message) {
                  qToLittleEndian(count, message.data() + creditsAt);
              }));
    }
    /// Lets a client connect and open a file, which leaves it `count` credits.
    static void grantOnce(FaultProxy& at, quint16 count = 0) {
        for (const auto command : {FaultProxy::Negotiate, FaultProxy::SessionSetup,
                                   FaultProxy::SessionSetup, FaultProxy::TreeConnect})
            grant(at, command, 1);
        grant(at, FaultProxy::Create, count);
    }

    std::unique_ptr<FaultProxy> proxy;
    Smb2FS fs;
    QSharedPointer<File> file;
};

/// With a time-out that passes soon.
class SmbWindowTimeout : public SmbWindow {
protected:
    SmbWindowTimeout() : SmbWindow(1) {}
};

} // namespace

// --- How many requests are under way ------------------------------------------------------------

TEST_F(SmbWindowTimeout, NoAnswers_SixteenRequestsAreUnderWayInOrder) {
    holdAnswers();
    EXPECT_EQ(write(contentOf(4 << 20)), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    std::vector<quint64> expected;
    for (int i = 0; i < window; ++i)
        expected.push_back(static_cast<quint64>(i) * piece);
    EXPECT_EQ(offsets(), expected);
}

TEST_F(SmbWindowTimeout, LostWithSeveralUnderWay_NextConnectionWritesSingly) {
    const QByteArray content = contentOf(20 * piece);
    proxy->on({FaultProxy::Request, FaultProxy::Write, 5}, Fault::reset());
    EXPECT_EQ(write(content), -1);
    EXPECT_EQ(errno, ECONNRESET);
    // A connect that fails in between does not matter.
    proxy->refuse();
    EXPECT_EQ(fs.connect(login(proxy->address())), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    proxy->accept();
    connect();
    proxy->clear();
    EXPECT_EQ(write(content), content.size());
    EXPECT_EQ(mostUnderWay(), 1);
    EXPECT_EQ(getLocal("/file"), content);
    EXPECT_EQ(fs.disconnect(), 0);

    connect();
    proxy->clear();
    holdAnswers();
    EXPECT_EQ(write(content), -1);
    EXPECT_EQ(offsets().size(), std::size_t{window});
}

TEST_F(SmbWindow, Dialect202_WritesSingly) {
    connect("2.0.2");
    const QByteArray content = contentOf(20 * piece + 5);
    EXPECT_EQ(write(content), content.size());
    EXPECT_EQ(mostUnderWay(), 1);
    EXPECT_EQ(getLocal("/file"), content);
    QByteArray back(piece, '\0');
    EXPECT_EQ(file->pread(back.data(), back.size(), piece), piece);
    EXPECT_EQ(back, content.mid(piece, piece));
}

TEST_F(SmbWindow, OtherDialects_WriteTheContent) {
    for (const char* version : {"2.1.0", "3.0.0", "3.0.2", "3.1.1"}) {
        connect(version);
        const QByteArray content = contentOf(40 * piece + 1234);
        EXPECT_EQ(write(content), content.size()) << version;
        EXPECT_EQ(pwrite(content, 10), content.size()) << version;
        EXPECT_EQ(getLocal("/file"), content.left(10) + content);
        EXPECT_EQ(file->lseek(0, SEEK_CUR), content.size());
        EXPECT_EQ(file->lseek(0, SEEK_END), content.size() + 10);
    }
}

// --- Refused pieces -----------------------------------------------------------------------------

TEST_F(SmbWindow, PieceRefused_FailsAndNextWriteContinuesThere) {
    const QByteArray content = contentOf(8 * piece);
    refuse(3);
    EXPECT_EQ(write(content), -1);
    EXPECT_EQ(errno, EINVAL) << std::strerror(errno);
    EXPECT_EQ(offsets().size(), 8U);
    EXPECT_EQ(file->lseek(0, SEEK_CUR), 0);
    // The pieces after the refused one are on the server.
    QByteArray expected = content;
    expected.replace(2 * piece, piece, QByteArray(piece, '\0'));
    EXPECT_EQ(getLocal("/file"), expected);

    proxy->clear();
    const QByteArray rest = content.mid(2 * piece);
    EXPECT_EQ(write(rest), rest.size());
    EXPECT_EQ(offsets().at(0), quint64{2 * piece});
    EXPECT_EQ(getLocal("/file"), content);
    EXPECT_EQ(file->close(), 0);
}

TEST_F(SmbWindow, SeveralRefused_ReturnsErrnoOfTheLowest) {
    // The answer to the lowest piece arrives last.
    const QByteArray content = contentOf(4 * piece);
    for (const bool positioned : {false, true}) {
        proxy->clear();
        std::vector<quint64> ids; // used by the proxy thread only
        for (int i = 1; i <= 4; ++i) {
            edit(FaultProxy::Request, 1, [&ids](QByteArray& message) {
                ids.push_back(qFromLittleEndian<quint64>(message.constData() + 24));
            });
            edit(FaultProxy::Response, 1, [&ids, i](QByteArray& message) {
                constexpr quint32 statuses[] = {0xc000007f, 0xc0000022, 0, 0};
                qToLittleEndian(ids.at(static_cast<std::size_t>(4 - i)), message.data() + 24);
                const quint32 status = statuses[4 - i]; // disk full; access denied
                put(message, statusAt, status);
                if (status != 0)
                    message = message.left(64) + QByteArray("\x09\0\0\0\0\0\0\0\0", 9);
            });
        }
        server.stop();
        std::thread writer([&] {
            EXPECT_EQ(positioned ? pwrite(content, 0) : write(content), -1);
            EXPECT_EQ(errno, ENOSPC) << std::strerror(errno);
        });
        EXPECT_TRUE(test::eventually([&] { return offsets().size() == 4; }));
        server.cont();
        writer.join();
        EXPECT_EQ(proxy->armed(), 0);
        EXPECT_EQ(file->lseek(0, SEEK_END), 0);
    }
}

TEST_F(SmbWindow, Refused_NothingMoreIsSentAndEveryAnswerIsTaken) {
    const QByteArray content = contentOf(64 * piece);
    refuse(1);
    EXPECT_EQ(pwrite(content, 0), -1);
    EXPECT_EQ(errno, EINVAL);
    const auto sent = offsets().size();
    EXPECT_GE(sent, std::size_t{window});
    EXPECT_LT(sent, 64U);
    EXPECT_EQ(answers(), static_cast<int>(sent));
    EXPECT_EQ(write(content), content.size());
    EXPECT_EQ(getLocal("/file"), content);
}

// --- Short answers ------------------------------------------------------------------------------

TEST_F(SmbWindow, ShortAndZeroAnswers_RestIsSentAgain) {
    const QByteArray content = contentOf(24 * piece + 99);
    for (const quint32 count : {1U, 0U, 4096U, 65535U, 0U}) {
        for (int i = 1; i <= 24; i += 5) {
            edit(FaultProxy::Response, i, [count](QByteArray& message) {
                const auto all = qFromLittleEndian<quint32>(message.constData() + countAt);
                put(message, countAt, std::min(all, count));
            });
        }
        EXPECT_EQ(file->lseek(0, SEEK_SET), 0);
        proxy->clear();
        EXPECT_EQ(write(content), content.size());
        EXPECT_GT(offsets().size(), 25U);
        EXPECT_EQ(file->lseek(0, SEEK_CUR), content.size());
        EXPECT_EQ(getLocal("/file"), content);
    }
}

TEST_F(SmbWindow, SmallWriteSizeNegotiated_PiecesAreOfThatSize) {
    proxy->on({FaultProxy::Response, FaultProxy::Negotiate},
              Fault::edit([](QByteArray& message) { put(message, 64 + 36, 4096); }));
    connect("3.0.2"); // 3.1.1 protects the negotiation
    const QByteArray content = contentOf(100'000);
    EXPECT_EQ(write(content), content.size());
    const auto requests = proxy->messages(FaultProxy::Request, FaultProxy::Write);
    ASSERT_EQ(requests.size(), 25);
    EXPECT_EQ(requests[0].length, 4096U);
    EXPECT_EQ(requests[24].length, 100'000U % 4096);
    EXPECT_EQ(getLocal("/file"), content);
}

// --- Answers that are none ----------------------------------------------------------------------

TEST_F(SmbWindow, WriteAnsweredWithEndOfFile_FailsWithEBADMSG) {
    edit(FaultProxy::Response, 2, [](QByteArray& message) {
        put(message, statusAt, statusEndOfFile);
        message = message.left(64) + QByteArray("\x09\0\0\0\0\0\0\0\0", 9);
    });
    EXPECT_EQ(pwrite(contentOf(4 * piece), 0), -1);
    EXPECT_EQ(errno, EBADMSG);
    EXPECT_EQ(write("x"), 1);
}

TEST_F(SmbWindow, MoreWrittenThanRequested_FailsWithECONNRESET) {
    edit(FaultProxy::Response, 2, [](QByteArray& message) { put(message, countAt, piece + 1); });
    EXPECT_EQ(write(contentOf(4 * piece)), -1);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_TRUE(proxy->waitUntilClosed());
}

TEST_F(SmbWindow, ReadSucceedsWithoutBytes_FailsWithEBADMSG) {
    EXPECT_EQ(write("content"), 7);
    char buf[10];
    const auto withoutBytes = Fault::edit([](QByteArray& message) {
        put(message, countAt, 0);
        message.truncate(64 + 17);
    });
    proxy->on({FaultProxy::Response, FaultProxy::Read}, withoutBytes);
    EXPECT_EQ(file->pread(buf, sizeof buf, 0), -1);
    EXPECT_EQ(errno, EBADMSG);
    EXPECT_EQ(file->lseek(0, SEEK_SET), 0);
    proxy->on({FaultProxy::Response, FaultProxy::Read}, withoutBytes);
    EXPECT_EQ(file->read(buf, sizeof buf), -1);
    EXPECT_EQ(errno, EBADMSG);
    // The server does say where the end is.
    EXPECT_EQ(file->read(buf, sizeof buf), 7);
    EXPECT_EQ(file->read(buf, sizeof buf), 0);
    EXPECT_EQ(file->pread(buf, sizeof buf, 7), 0);
}

// --- Credits ------------------------------------------------------------------------------------

TEST_F(SmbWindowTimeout, NoCredits_TransfersTimeOutWithoutARequest) {
    const std::vector<std::function<int(File&, char* buf)>> transfers = {
        [](File& of, char* buf) { return of.read(buf, 100); },
        [](File& of, char* buf) { return of.pread(buf, 100, 0); },
        [](File& of, char* buf) { return of.write(buf, 100); },
        [](File& of, char* buf) { return of.pwrite(buf, 100, 0); },
    };
    const auto expectTimeout = [&](const std::function<int(File&, char*)>& transfer) {
        FaultProxy ungenerous(server.port());
        grantOnce(ungenerous);
        Smb2FS share(2);
        ASSERT_EQ(share.connect(test::with(login(ungenerous.address()), "version", "3.0.2")), 0);
        const auto opened = share.open("/file", O_RDWR, 0);
        ASSERT_TRUE(opened) << strerror();
        ungenerous.clear();
        char buf[100] = {};
        QElapsedTimer timer;
        timer.start();
        EXPECT_EQ(transfer(*opened, buf), -1);
        EXPECT_EQ(errno, ETIMEDOUT);
        EXPECT_GE(timer.elapsed(), 1900);
        EXPECT_LT(timer.elapsed(), 10'000);
        EXPECT_TRUE(ungenerous.messages().isEmpty());
    };
    std::vector<std::thread> threads; // as each waits for its time-out
    for (const auto& transfer : transfers)
        threads.emplace_back([&] { expectTimeout(transfer); });
    for (std::thread& thread : threads)
        thread.join();
}

TEST_F(SmbWindowTimeout, CreditsEndWithinAWrite_RestTimesOut) {
    // Interim responses would grant credits, too.
    SmbServer withoutInterim({{"aio write size = 0"}, {}});
    ASSERT_EQ(withoutInterim.problem(), "");
    proxy = std::make_unique<FaultProxy>(withoutInterim.port());
    grantOnce(*proxy, 3);
    connect("3.0.2");
    for (int i = 0; i < 3; ++i)
        grant(*proxy, FaultProxy::Write, 0);
    EXPECT_EQ(write(contentOf(8 * piece)), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(offsets(), (std::vector<quint64>{0, piece, 2 * piece}));
}

namespace {

/// With a server that grants at most a number of credits; 0 for its default.
class SmbCredits : public SmbWindow, public ::testing::WithParamInterface<int> {
protected:
    SmbCredits() : SmbWindow(options()) {}

    static SmbServer::Options options() {
        SmbServer::Options options;
        if (GetParam() != 0)
            options.global += QStringLiteral("smb2 max credits = %1").arg(GetParam());
        return options;
    }
    /// The fewest credits that the client had left after a request, as the proxy has seen them.
    int fewestCredits() const {
        int credits = 1;
        int fewest = 1;
        for (const auto& message : proxy->messages()) {
            const auto field = [&](int at) {
                return qFromLittleEndian<quint16>(message.head.constData() + at);
            };
            credits += message.fromServer ? field(creditsAt) : -std::max(1, int{field(chargeAt)});
            fewest = std::min(fewest, credits);
        }
        return fewest;
    }
};

} // namespace

TEST_P(SmbCredits, WritesAndReads_StayWithinThem) {
    const QByteArray content = contentOf(100 * piece + 77);
    EXPECT_EQ(write(content), content.size()) << strerror();
    for (int at = 0; at < content.size(); at += 10 * piece)
        EXPECT_EQ(pwrite(content.mid(at, 10 * piece), at), content.mid(at, 10 * piece).size());
    QByteArray back;
    while (back.size() < content.size()) {
        QByteArray buf(1 << 20, '\0');
        const int count = file->pread(buf.data(), buf.size(), back.size());
        ASSERT_GT(count, 0) << strerror();
        back += buf.left(count);
    }
    EXPECT_EQ(back, content);
    EXPECT_GE(fewestCredits(), 0);
    EXPECT_EQ(file->close(), 0);
}

INSTANTIATE_TEST_SUITE_P(, SmbCredits, ::testing::Values(1, 2, 8, 9, 16, 0),
                         [](const auto& tested) {
                             return tested.param == 0 ? std::string("Default")
                                                      : "Max" + std::to_string(tested.param);
                         });

// --- Time-outs ----------------------------------------------------------------------------------

// The whole write takes longer than the time-out, but no answer does.
TEST_F(SmbWindow, SlowAnswers_EachStartsTheTimeoutAgain) {
    Smb2FS slow(2);
    ASSERT_EQ(slow.connect(login(proxy->address())), 0);
    const auto clip = slow.open("/slow", O_WRONLY | O_CREAT, 0644);
    ASSERT_TRUE(clip);
    proxy->on({FaultProxy::Response, FaultProxy::Write}, Fault::dribble(4)); // 0.4 s per answer
    const QByteArray content = contentOf(6 * piece);
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(clip->write(content.constData(), content.size()), content.size()) << strerror();
    EXPECT_GT(timer.elapsed(), 2000);
    EXPECT_EQ(getLocal("/slow"), content);
}

TEST_F(SmbWindowTimeout, AnswerLost_TimesOutAfterTheLastOne) {
    proxy->on({FaultProxy::Response, FaultProxy::Write, 3}, Fault::drop());
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(write(contentOf(8 * piece)), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(timer.elapsed(), 900);
    EXPECT_LT(timer.elapsed(), 10'000);
    EXPECT_TRUE(proxy->waitUntilClosed());
}

// --- Threads ------------------------------------------------------------------------------------

TEST_F(SmbWindow, TwoThreadsOnTwoFiles_WriteTheirContent) {
    const QByteArray content = contentOf(40 * piece);
    const auto other = fs.open("/other", O_RDWR | O_CREAT, 0644);
    ASSERT_TRUE(other);
    std::thread thread([&] {
        for (int i = 0; i < 5; ++i)
            EXPECT_EQ(other->pwrite(content.constData(), content.size(), 1), content.size());
    });
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(pwrite(content, 0), content.size());
    thread.join();
    EXPECT_EQ(getLocal("/file"), content);
    EXPECT_EQ(getLocal("/other").mid(1), content);
}

TEST_F(SmbWindowTimeout, ConnectDuringWrites_WriteIsWholeAndTheNextFails) {
    const QByteArray content = contentOf(window * piece);
    qint64 written = 0;
    std::thread writer([&] {
        while (write(content) == content.size())
            written += content.size();
        EXPECT_EQ(errno, EBADF) << strerror();
    });
    EXPECT_TRUE(test::eventually(
        [&] { return proxy->messages(FaultProxy::Response, FaultProxy::Write).size() > window; }));
    EXPECT_EQ(fs.connect(login(proxy->address())), 0) << strerror();
    writer.join();
    EXPECT_EQ(getLocal("/file").size(), written);
    // The connection was not lost: the next one is as fast.
    connect();
    proxy->clear();
    holdAnswers();
    EXPECT_EQ(write(content + content), -1);
    EXPECT_EQ(offsets().size(), std::size_t{window});
}

} // namespace oru::io
