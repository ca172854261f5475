// SPDX-License-Identifier: Apache-2.0
// SMB2 messages, as bytes.
//
// A connection carries frames: four bytes with the length of the rest, then a message or a chain of
// messages. All fields of a message are little-endian.
#pragma once

#include <QByteArray>
#include <QList>
#include <QtEndian>

#include <cstring>

namespace oru::io::test {

namespace smb2 {

constexpr int prefixSize = 4; ///< the length in front of a frame
constexpr int headerSize = 64;

// Offsets in the header.
namespace field {

constexpr int creditCharge = 6;
constexpr int status = 8;
constexpr int command = 12;
constexpr int credits = 14;
constexpr int flags = 16;
constexpr int nextCommand = 20;
constexpr int messageId = 24;
constexpr int asyncId = 32;
constexpr int sessionId = 40;
/// READ and WRITE: how many bytes, in requests and answers.
constexpr int length = headerSize + 4;

} // namespace field

// Bits of `field::flags`.
constexpr quint32 asyncFlag = 2;
constexpr quint32 signedFlag = 8;

enum Command : quint16 {
    Negotiate,
    SessionSetup,
    Logoff,
    TreeConnect,
    TreeDisconnect,
    Create,
    Close,
    Flush,
    Read,
    Write,
    Lock,
    Ioctl,
    Cancel,
    Echo,
    QueryDirectory,
    ChangeNotify,
    QueryInfo,
    SetInfo,
    OplockBreak,
};

// Values of `field::status`.
constexpr quint32 success = 0;
constexpr quint32 pending = 0x103;
constexpr quint32 noMoreFiles = 0x80000006;
constexpr quint32 noSuchFile = 0xc000000f; ///< also the first answer of an empty directory
constexpr quint32 endOfFile = 0xc0000011;

/// A name such as "query_info"; "any" for a number that is not a Command.
const char* nameOf(int command);
/// The number of a name; -1 for "any" and for other words.
int commandOf(const QByteArray& name);

} // namespace smb2

/// The field at `offset`; 0 beyond the end.
template <class Int>
Int fieldOf(const QByteArray& message, qint64 offset) {
    if (offset < 0 || offset + static_cast<qint64>(sizeof(Int)) > message.size())
        return 0;
    return qFromLittleEndian<Int>(message.constData() + offset);
}

/// Sets the field at `offset`; does nothing beyond the end.
template <class Int>
void setField(QByteArray& message, qint64 offset, Int value) {
    if (offset >= 0 && offset + static_cast<qint64>(sizeof(Int)) <= message.size())
        qToLittleEndian<Int>(value, message.data() + offset);
}

/// What a request asks for.
struct Request {
    quint16 command = 0;
    quint16 kind = 0; ///< QUERY_INFO and SET_INFO: type and class of the information
    quint16 charge = 0;
    quint64 messageId = 0;
    quint32 length = 0; ///< READ and WRITE: how many bytes

    explicit Request(const QByteArray& message = {});
    bool isLike(const Request& other) const {
        return command == other.command && kind == other.kind;
    }
};

/// The messages of a frame, which is given without its prefix.
QList<QByteArray> messagesOf(const QByteArray& frame);
/// A frame with its prefix. Sets `field::nextCommand` and pads the messages.
QByteArray frameOf(QList<QByteArray> messages);
/// An error with the header of a message.
QByteArray errorOf(QByteArray message);
/// Prefixes the length of a frame.
QByteArray prefixed(const QByteArray& frame);
/// Removes the first frame from `received`, if it has arrived whole, and stores it in `frame`
/// without its prefix. \returns whether it has.
bool takeFrame(QByteArray& received, QByteArray& frame);

} // namespace oru::io::test
