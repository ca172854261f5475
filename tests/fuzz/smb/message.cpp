// SPDX-License-Identifier: Apache-2.0
#include "fuzz/smb/message.h"

#include <algorithm>
#include <iterator>

namespace oru::io::test {

namespace smb2 {

namespace {

constexpr const char* names[] = {
    "negotiate",     "session_setup", "logoff",   "tree_connect", "tree_disconnect",
    "create",        "close",         "flush",    "read",         "write",
    "lock",          "ioctl",         "cancel",   "echo",         "query_directory",
    "change_notify", "query_info",    "set_info", "oplock_break",
};

} // namespace

const char* nameOf(int command) {
    const int count = static_cast<int>(std::size(names));
    return command >= 0 && command < count ? names[command] : "any";
}

int commandOf(const QByteArray& name) {
    const auto* const found = std::find(std::begin(names), std::end(names), name);
    return found == std::end(names) ? -1 : static_cast<int>(found - std::begin(names));
}

} // namespace smb2

using namespace smb2;

Request::Request(const QByteArray& message)
    : command(fieldOf<quint16>(message, field::command)),
      charge(fieldOf<quint16>(message, field::creditCharge)),
      messageId(fieldOf<quint64>(message, field::messageId)) {
    if (command == QueryInfo || command == SetInfo)
        kind = fieldOf<quint16>(message, headerSize + 2);
    if (command == Read || command == Write)
        length = fieldOf<quint32>(message, field::length);
}

QList<QByteArray> messagesOf(const QByteArray& frame) {
    QList<QByteArray> messages;
    qint64 at = 0;
    while (frame.size() - at >= headerSize) {
        const quint32 next = fieldOf<quint32>(frame, at + field::nextCommand);
        const bool isLast = next < headerSize || next > frame.size() - at;
        messages.append(frame.mid(static_cast<int>(at), isLast ? -1 : static_cast<int>(next)));
        if (isLast)
            break;
        at += next;
    }
    return messages;
}

QByteArray frameOf(QList<QByteArray> messages) {
    constexpr int alignment = 8;
    QByteArray frame;
    for (int i = 0; i < messages.size(); ++i) {
        QByteArray& message = messages[i];
        const bool isLast = i + 1 == messages.size();
        if (!isLast)
            message.append(QByteArray((alignment - message.size() % alignment) % alignment, '\0'));
        setField<quint32>(message, field::nextCommand,
                          isLast ? 0 : static_cast<quint32>(message.size()));
        frame += message;
    }
    return prefixed(frame);
}

QByteArray errorOf(QByteArray message) {
    constexpr char body[] = {9, 0, 0, 0, 0, 0, 0, 0, 0};
    message.truncate(headerSize);
    return message.append(body, sizeof body);
}

QByteArray prefixed(const QByteArray& frame) {
    char prefix[prefixSize];
    qToBigEndian(static_cast<quint32>(frame.size()), prefix);
    return QByteArray(prefix, prefixSize) + frame;
}

bool takeFrame(QByteArray& received, QByteArray& frame) {
    if (received.size() < prefixSize)
        return false;
    const quint32 size = qFromBigEndian<quint32>(received.constData());
    if (static_cast<quint32>(received.size() - prefixSize) < size)
        return false;
    frame = received.mid(prefixSize, static_cast<int>(size));
    received.remove(0, prefixSize + static_cast<int>(size));
    return true;
}

} // namespace oru::io::test
