// SPDX-License-Identifier: Apache-2.0
// The check of frames: answers that libsmb2 may read, and others.

#include "network/smb2frames_p.h"

#include "support/system/childprocess.h"
#include "support/system/loopback.h"

#include <gtest/gtest.h>

#include <QByteArray>
#include <QList>
#include <QtEndian>

#include <algorithm>
#include <cerrno>
#include <initializer_list>
#include <memory>

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace oru::io {
namespace {

enum Command {
    Negotiate = 0,
    SessionSetup = 1,
    Logoff = 2,
    TreeConnect = 3,
    TreeDisconnect = 4,
    Create = 5,
    Close = 6,
    Flush = 7,
    Read = 8,
    Write = 9,
    Lock = 10,
    Ioctl = 11,
    Echo = 13,
    QueryDirectory = 14,
    QueryInfo = 16,
    SetInfo = 17,
    OplockBreak = 18,
};

constexpr quint32 pending = 0x103;
constexpr quint32 noMoreFiles = 0x80000006;
constexpr quint32 endOfFile = 0xc0000011;
constexpr quint32 moreProcessing = 0xc0000016;
constexpr quint32 accessDenied = 0xc0000022;

template <class Int>
QByteArray with(QByteArray bytes, int at, Int value) {
    qToLittleEndian(value, bytes.data() + at);
    return bytes;
}

QByteArray header(int command, quint32 status, quint64 number) {
    QByteArray bytes(64, '\0');
    bytes.replace(0, 4, "\xfeSMB");
    bytes = with<quint32>(bytes, 8, status);
    bytes = with<quint16>(bytes, 12, command);
    bytes = with<quint32>(bytes, 16, 1);
    return with<quint64>(bytes, 24, number);
}

/// An answer without a buffer.
QByteArray answer(int command, int size, quint32 status = 0, quint64 number = 0) {
    const QByteArray body(size & ~1, '\0');
    return header(command, status, number) + with<quint16>(body, 0, size);
}
QByteArray error(int command, quint32 status, quint64 number = 0) {
    return answer(command, 9, status, number) + '\0';
}

QByteArray info(int command, const QByteArray& buffer) {
    QByteArray message = answer(command, 9);
    message = with<quint16>(message, 64 + 2, 72);
    return with<quint32>(message, 64 + 4, buffer.size()) + buffer;
}
QByteArray readOf(const QByteArray& data) {
    QByteArray message = answer(Read, 17);
    message[64 + 2] = 80;
    return with<quint32>(message, 64 + 4, data.size()) + data;
}
QByteArray negotiate(quint32 transaction, quint32 read, quint32 write) {
    QByteArray message = answer(Negotiate, 65);
    message = with<quint16>(message, 64 + 4, 0x0311);
    message = with<quint32>(message, 64 + 28, transaction);
    message = with<quint32>(message, 64 + 32, read);
    return with<quint32>(message, 64 + 36, write);
}
QByteArray sessionSetup(const QByteArray& token, quint32 status = moreProcessing) {
    QByteArray message = answer(SessionSetup, 9, status);
    message = with<quint16>(message, 64 + 4, 72);
    return with<quint16>(message, 64 + 6, token.size()) + token;
}
const QByteArray challenge = QByteArray("NTLMSSP\0\2", 9) + QByteArray(39, '\0');

QByteArray allInfo(int nameSize) {
    return with<quint32>(QByteArray(100, '\0'), 96, nameSize) + QByteArray(nameSize, 'n');
}

QByteArray linkTo(quint16 targetSize, quint16 dataSize, const QByteArray& rest) {
    QByteArray buffer(8, '\0');
    buffer = with<quint32>(buffer, 0, 0xa000000c);
    buffer = with<quint16>(buffer, 4, dataSize) + QByteArray(12, '\0');
    buffer = with<quint16>(buffer, 10, targetSize);
    return with<quint16>(buffer, 14, targetSize) + rest;
}
QByteArray ioctlOf(const QByteArray& buffer, quint32 code = 0x900a8) {
    QByteArray message = answer(Command::Ioctl, 49);
    message = with<quint32>(message, 64 + 4, code);
    message = with<quint32>(message, 64 + 32, 112);
    return with<quint32>(message, 64 + 36, buffer.size()) + buffer;
}

QByteArray frame(const QByteArray& messages) {
    QByteArray prefix(4, '\0');
    qToBigEndian<quint32>(messages.size(), prefix.data());
    return prefix + messages;
}

QByteArray chain(QList<QByteArray> messages) {
    for (int i = 0; i + 1 < messages.size(); ++i) {
        messages[i].append(QByteArray(-messages[i].size() & 7, '\0'));
        messages[i] = with<quint32>(messages[i], 20, messages[i].size());
    }
    return frame(messages.join());
}

/// Checks a frame of which only what is needed has arrived. AddressSanitizer sees each access to
/// the rest. \returns ECONNRESET also when no number of bytes suffices.
int check(Smb2Frames& frames, const QByteArray& whole) {
    std::unique_ptr<std::uint8_t[]> arrived;
    const auto size = static_cast<std::size_t>(whole.size());
    std::size_t available = 0;
    for (;;) {
        const std::size_t needed = Smb2Frames::neededOf(arrived.get(), available);
        if (needed == 0)
            return ECONNRESET;
        if (needed <= available)
            return frames.check(arrived.get());
        EXPECT_LE(needed, size);
        if (needed > size)
            return -1;
        arrived.reset(new std::uint8_t[needed]);
        std::copy_n(whole.begin(), needed, arrived.get());
        available = needed;
    }
}

int whileConnecting(const QByteArray& message) {
    Smb2Frames frames;
    return check(frames, frame(message));
}
int whileConnected(const QByteArray& whole) {
    Smb2Frames frames;
    frames.setConnected();
    return check(frames, whole);
}
int ofMessage(const QByteArray& message) {
    return whileConnected(frame(message));
}

} // namespace

TEST(Smb2Frames, AnswersOfEveryCommand_Pass) {
    for (const QByteArray& message :
         {answer(Logoff, 4), answer(TreeDisconnect, 4), answer(Create, 89), answer(Close, 60),
          answer(Flush, 4), answer(Read, 17), readOf("data"), answer(Write, 17), answer(Echo, 4),
          answer(SetInfo, 2), info(QueryDirectory, QByteArray(0xffff, 'e')),
          info(QueryInfo, allInfo(0)), info(QueryInfo, allInfo(2000)),
          info(QueryInfo, QByteArray(32, '\0')), info(QueryInfo, ""),
          ioctlOf(linkTo(4, 16, "link")), ioctlOf(QByteArray("\1\2\3\xa0\0\0\0\0", 8))}) {
        EXPECT_EQ(ofMessage(message), 0) << message.toHex().constData();
        EXPECT_EQ(whileConnecting(message), ECONNRESET);
    }
    for (const QByteArray& message : {negotiate(4096, 4096, 4096), sessionSetup(challenge),
                                      sessionSetup("", 0), answer(TreeConnect, 16)}) {
        EXPECT_EQ(whileConnecting(message), 0) << message.toHex().constData();
        EXPECT_EQ(ofMessage(message), ECONNRESET);
    }
}

TEST(Smb2Frames, Errors_Pass) {
    for (const int command : {Create, Close, Read, Write, Ioctl, Echo, QueryDirectory, QueryInfo,
                              SetInfo, Flush, Logoff, TreeDisconnect}) {
        EXPECT_EQ(ofMessage(error(command, accessDenied)), 0) << command;
        EXPECT_EQ(ofMessage(error(command, pending)), 0) << command;
    }
    EXPECT_EQ(ofMessage(answer(Close, 9, accessDenied)), 0); // without the ninth byte
    EXPECT_EQ(ofMessage(error(QueryDirectory, noMoreFiles)), 0);
    EXPECT_EQ(ofMessage(error(Create, 0x8000002d)), 0); // a link on the way
}

TEST(Smb2Frames, CommandsThatWereNeverSent_AreRefused) {
    for (const int command : {10, 12, 15, int(OplockBreak), 19, 0xffff}) {
        EXPECT_EQ(ofMessage(answer(command, 24)), ECONNRESET);
        EXPECT_EQ(ofMessage(error(command, accessDenied)), ECONNRESET);
    }
}

TEST(Smb2Frames, OtherProtocolsAndRequests_AreRefused) {
    const QByteArray echo = answer(Echo, 4);
    for (const char* protocol : {"\xff"
                                 "SMB",
                                 "\xfc"
                                 "SMB",
                                 "\xfeSMC"})
        EXPECT_EQ(ofMessage(QByteArray(echo).replace(0, 4, protocol)), ECONNRESET);
    EXPECT_EQ(ofMessage(with<quint32>(echo, 16, 0)), ECONNRESET);
}

// libsmb2 writes outside of its memory if such a frame has 52 to 63 bytes.
TEST(Smb2Frames, EncryptedMessages_AreRefused) {
    for (const int size : {4, 16, 52, 53, 63, 64, 65, 66, 79, 80, 81, 100, 1000}) {
        const QByteArray message = "\xfdSMB" + QByteArray(size - 4, 'x');
        EXPECT_EQ(ofMessage(message), ECONNRESET) << size;
        EXPECT_EQ(whileConnecting(message), size < 66 ? ECONNRESET : EPERM) << size;
    }
}

TEST(Smb2Frames, FramesOfWrongSize_AreRefused) {
    const QByteArray echo = answer(Echo, 4);
    EXPECT_EQ(ofMessage(""), ECONNRESET);
    for (int size = 1; size < echo.size(); ++size)
        EXPECT_EQ(ofMessage(echo.left(size)), ECONNRESET) << size;
    QByteArray large = frame(echo);
    large[0] = 1;
    EXPECT_EQ(whileConnected(large), ECONNRESET);
    EXPECT_EQ(ofMessage(info(QueryInfo, allInfo(90'000))), ECONNRESET);
}

TEST(Smb2Frames, WrongStructureSize_IsRefused) {
    for (const int command : {Create, Close, Read, Write, Ioctl, Echo, QueryDirectory, QueryInfo,
                              SetInfo, Flush, Logoff, TreeDisconnect}) {
        EXPECT_EQ(ofMessage(answer(command, 9, accessDenied).replace(64, 1, "\x0a")), ECONNRESET);
        EXPECT_EQ(ofMessage(answer(command, 100)), ECONNRESET);
    }
}

TEST(Smb2Frames, BufferOutsideOfTheMessage_IsRefused) {
    const QByteArray listing = info(QueryDirectory, QByteArray(100, 'e'));
    const QByteArray record = info(QueryInfo, allInfo(20));
    for (const QByteArray& message : {listing, record}) {
        for (const quint16 offset : {0, 71, 73, 0x7fff, 0xffff})
            EXPECT_EQ(ofMessage(with(message, 64 + 2, offset)), ECONNRESET) << offset;
        const auto size = static_cast<quint32>(message.size() - 72);
        for (const quint32 length : {size + 1, 0x7fffffffU, 0x80000000U, 0xffffffffU})
            EXPECT_EQ(ofMessage(with(message, 64 + 4, length)), ECONNRESET) << length;
    }
    const QByteArray data = readOf("data");
    EXPECT_EQ(ofMessage(with<quint32>(data, 64 + 4, 5)), ECONNRESET);
    EXPECT_EQ(ofMessage(with<quint32>(data, 64 + 4, 0xfffffff6)), ECONNRESET);
    EXPECT_EQ(ofMessage(with<quint32>(answer(Create, 89), 64 + 84, 1)), ECONNRESET);
    EXPECT_EQ(ofMessage(with<quint32>(error(Close, accessDenied), 64 + 4, 2)), ECONNRESET);
}

TEST(Smb2Frames, ListingLongerThanAskedFor_IsRefused) {
    EXPECT_EQ(ofMessage(info(QueryDirectory, QByteArray(0x10000, 'e'))), ECONNRESET);
}

TEST(Smb2Frames, RecordsThatLibsmb2CannotRead_AreRefused) {
    for (const int size : {1, 31, 40, 64, 99})
        EXPECT_EQ(ofMessage(info(QueryInfo, QByteArray(size, '\0'))), ECONNRESET) << size;
    for (const quint32 nameSize : {21U, 0x7fffffffU, 0xffffffffU})
        EXPECT_EQ(ofMessage(info(QueryInfo, with(allInfo(20), 96, nameSize))), ECONNRESET);
}

TEST(Smb2Frames, LinksThatLibsmb2CannotRead_AreRefused) {
    for (const QByteArray& buffer :
         {QByteArray(), QByteArray(7, '\0'), linkTo(4, 17, "link"), linkTo(5, 16, "link"),
          linkTo(4, 11, "link"), linkTo(0xffff, 16, "link"), linkTo(0, 0xffff, "link")})
        EXPECT_EQ(ofMessage(ioctlOf(buffer)), ECONNRESET) << buffer.toHex().constData();
    EXPECT_EQ(ofMessage(ioctlOf(linkTo(4, 16, "link"), 0x60194)), ECONNRESET);
    const QByteArray target = ioctlOf(linkTo(4, 16, "link"));
    EXPECT_EQ(ofMessage(with<quint32>(target, 64 + 32, 0xfffffff0)), ECONNRESET);
}

TEST(Smb2Frames, ChallengesThatLibsmb2CannotRead_AreRefused) {
    EXPECT_EQ(whileConnecting(sessionSetup("")), ECONNRESET);
    EXPECT_EQ(whileConnecting(sessionSetup(challenge.left(47))), ECONNRESET);
    EXPECT_EQ(whileConnecting(sessionSetup("\xa1\x84\x7f" + QByteArray(60, 'x'))), ECONNRESET);
}

TEST(Smb2Frames, SmallSizes_AreRefusedWithEPROTO) {
    constexpr quint32 usual = 8 << 20;
    for (const quint32 size : {0, 1, 4095}) {
        EXPECT_EQ(whileConnecting(negotiate(size, usual, usual)), EPROTO);
        EXPECT_EQ(whileConnecting(negotiate(usual, size, usual)), EPROTO);
        EXPECT_EQ(whileConnecting(negotiate(usual, usual, size)), EPROTO);
    }
    EXPECT_EQ(whileConnecting(negotiate(usual, usual, usual)), 0);
    EXPECT_EQ(whileConnecting(error(Negotiate, accessDenied)), 0);
}

TEST(Smb2Frames, UnknownDialects_AreRefused) {
    for (const quint16 dialect : {0, 0x0200, 0x02ff, 0x0311, 0x8000}) {
        const QByteArray message = with(negotiate(4096, 4096, 4096), 64 + 4, dialect);
        EXPECT_EQ(whileConnecting(message), dialect == 0x0311 ? 0 : ECONNRESET) << dialect;
    }
}

// libsmb2 would decode the record and never free it.
TEST(Smb2Frames, RecordsWithAFailure_AreRefused) {
    for (const quint32 status : {1U, 0x104U, 0x80000005U, moreProcessing}) {
        for (const QByteArray& message :
             {info(QueryInfo, allInfo(6)), ioctlOf(linkTo(4, 16, "link"))})
            EXPECT_EQ(ofMessage(with(message, 8, status)), ECONNRESET) << status;
        EXPECT_EQ(ofMessage(with(info(QueryInfo, ""), 8, status)), 0);
    }
}

TEST(Smb2Frames, Chains_AreCheckedToTheirEnd) {
    const QList<QByteArray> good = {answer(Create, 89), info(QueryInfo, allInfo(6)),
                                    answer(Close, 60)};
    EXPECT_EQ(whileConnected(chain(good)), 0);
    for (int i = 0; i < good.size(); ++i) {
        QList<QByteArray> messages = good;
        messages[i][64] = 77;
        EXPECT_EQ(whileConnected(chain(messages)), ECONNRESET) << i;
    }
    const int secondAt = 64 + 88;
    for (const quint32 next : {1, 63, 65, secondAt - 8, 0x7fffffff, -1, -8}) {
        QByteArray edited = chain(good);
        EXPECT_EQ(whileConnected(with(edited, 4 + 20, next)), ECONNRESET) << next;
    }
    const auto size = static_cast<quint32>(chain(good).size() - 4);
    for (const quint32 next : {size - 65, size - 1, size, size + 1})
        EXPECT_EQ(whileConnected(with(chain(good), 4 + 20, next)), ECONNRESET) << next;
    // An interim answer takes the rest of its frame with it.
    EXPECT_EQ(
        whileConnected(chain({answer(Create, 89), error(Ioctl, pending), answer(Close, 100)})), 0);
}

TEST(Smb2Frames, EndOfFile_IsRememberedUnlessOfATransfer) {
    Smb2Frames frames;
    frames.setConnected();
    EXPECT_EQ(check(frames, frame(error(Read, endOfFile))), 0);
    EXPECT_EQ(check(frames, frame(error(Write, endOfFile))), 0);
    EXPECT_FALSE(frames.takeEndOfFile());
    EXPECT_EQ(check(frames, chain({answer(Create, 89), error(QueryInfo, endOfFile)})), 0);
    EXPECT_TRUE(frames.takeEndOfFile());
    EXPECT_FALSE(frames.takeEndOfFile());
    EXPECT_EQ(whileConnecting(error(TreeConnect, endOfFile)), ECONNRESET);
}

TEST(Smb2Frames, OrderedAnswers_MustHaveTheNextNumbers) {
    const auto prepared = [](quint64 first) {
        auto frames = std::make_unique<Smb2Frames>();
        frames->setConnected();
        EXPECT_EQ(check(*frames, frame(answer(Write, 17, 0, first - 1))), 0);
        EXPECT_FALSE(frames->isOrderKnown());
        EXPECT_EQ(check(*frames, frame(answer(Echo, 4, 0, first))), 0);
        EXPECT_TRUE(frames->isOrderKnown());
        frames->setOrdered(true);
        return frames;
    };
    const auto create = answer(Create, 89, 0, 11);
    const auto target = with<quint64>(ioctlOf(linkTo(4, 16, "link")), 24, 12);
    const auto close = answer(Close, 60, 0, 13);
    EXPECT_EQ(check(*prepared(10), chain({create, target, close})), 0);
    EXPECT_EQ(check(*prepared(10), frame(close)), ECONNRESET);
    EXPECT_EQ(check(*prepared(10), chain({create, close, target})), ECONNRESET);
    EXPECT_EQ(check(*prepared(11), chain({create, target, close})), ECONNRESET);
    const auto frames = prepared(10);
    EXPECT_EQ(check(*frames, frame(error(Create, pending, 11))), 0);
    EXPECT_EQ(check(*frames, frame(create)), 0);
    EXPECT_EQ(check(*frames, chain({target, close})), 0);
    frames->setOrdered(false);
    EXPECT_EQ(check(*frames, frame(create)), 0);
}

namespace {

/// Both ends of a connection.
class Smb2FramesOnSocket : public ::testing::Test {
protected:
    Smb2FramesOnSocket() {
        const test::Socket listener = test::listeningSocket();
        server = test::connectedSocket(listener.port());
        client = test::acceptedSocket(listener);
        frames.setConnected();
    }

    void send(const QByteArray& bytes) {
        EXPECT_EQ(::send(server.fd(), bytes.constData(), bytes.size(), MSG_NOSIGNAL), bytes.size());
    }
    /// Waits until poll(2) reports input.
    int lookWhenReady() {
        struct pollfd polled = {client.fd(), POLLIN, 0};
        EXPECT_EQ(poll(&polled, 1, 10'000), 1);
        return frames.look(client.fd());
    }
    int arrived() const {
        int count = 0;
        EXPECT_EQ(::ioctl(client.fd(), FIONREAD, &count), 0);
        return count;
    }
    QByteArray receive(int size) {
        QByteArray bytes(size, '\0');
        EXPECT_EQ(recv(client.fd(), bytes.data(), size, MSG_WAITALL), size);
        return bytes;
    }

    test::Socket server;
    test::Socket client;
    Smb2Frames frames;
};

} // namespace

TEST_F(Smb2FramesOnSocket, WholeFrames_PassOneByOne) {
    const QByteArray echo = frame(answer(Echo, 4));
    const QByteArray record = frame(info(QueryInfo, allInfo(2000)));
    send(echo + record);
    EXPECT_EQ(lookWhenReady(), 0);
    EXPECT_EQ(receive(echo.size()), echo);
    EXPECT_EQ(lookWhenReady(), 0);
    EXPECT_EQ(receive(record.size()), record);
    EXPECT_EQ(frames.look(client.fd()), EAGAIN);
}

TEST_F(Smb2FramesOnSocket, BytesOfAFrame_AreAwaited) {
    const QByteArray record = frame(info(QueryInfo, allInfo(2000)));
    int begin = 0;
    for (const int end : {1, 4, 70, 84, 600, 2000, record.size()}) {
        EXPECT_EQ(frames.look(client.fd()), EAGAIN);
        struct pollfd polled = {client.fd(), POLLIN, 0};
        EXPECT_EQ(poll(&polled, 1, 0), 0) << begin;
        send(record.mid(begin, end - begin));
        begin = end;
        if (end < record.size()) {
            EXPECT_TRUE(test::eventually([&] { return arrived() == end; }));
        }
    }
    EXPECT_EQ(lookWhenReady(), 0);
    EXPECT_EQ(receive(record.size()), record);
    send("x");
    EXPECT_EQ(lookWhenReady(), EAGAIN); // a single byte wakes up again
}

TEST_F(Smb2FramesOnSocket, RestOfAListing_IsNotChecked) {
    const QByteArray listing = frame(info(QueryDirectory, QByteArray(60'000, 'e')));
    send(listing.left(100));
    EXPECT_EQ(lookWhenReady(), 0);
    EXPECT_EQ(receive(100), listing.left(100));
    send(listing.mid(100));
    EXPECT_EQ(lookWhenReady(), 0);
    EXPECT_EQ(receive(listing.size() - 100), listing.mid(100));
    frames.setAnswered();
    send(frame("garbage"));
    EXPECT_EQ(lookWhenReady(), ECONNRESET);
}

TEST_F(Smb2FramesOnSocket, EndOfTheConnection_IsECONNRESET) {
    const QByteArray echo = frame(answer(Echo, 4));
    send(echo + echo.left(10));
    server.close();
    EXPECT_EQ(lookWhenReady(), 0);
    EXPECT_EQ(receive(echo.size()), echo);
    EXPECT_EQ(lookWhenReady(), ECONNRESET);
    receive(10);
    EXPECT_EQ(lookWhenReady(), ECONNRESET);
}

TEST_F(Smb2FramesOnSocket, ResetInAFrame_IsECONNRESET) {
    send(frame(answer(Echo, 4)).left(10));
    EXPECT_EQ(lookWhenReady(), EAGAIN);
    server.reset();
    EXPECT_EQ(lookWhenReady(), ECONNRESET);
}

} // namespace oru::io
