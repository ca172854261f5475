// SPDX-License-Identifier: Apache-2.0
#include "fuzz/smb/cannedserver.h"

#include <algorithm>

namespace oru::io::test {

using namespace smb2;

namespace {

/// More than any operation needs, but an end to requests that are repeated for ever.
constexpr int maxAnswers = 400;

/// An answer to a request that the client sends now.
QByteArray addressed(QByteArray message, const Request& request) {
    setField<quint16>(message, field::creditCharge, request.charge);
    setField<quint64>(message, field::messageId, request.messageId);
    if (fieldOf<quint32>(message, field::status) != success)
        return message;
    // The client may transfer in other pieces than when it was recorded.
    if (request.command == Write)
        setField<quint32>(message, field::length, request.length);
    if (request.command == Read && fieldOf<quint32>(message, field::length) > request.length) {
        setField<quint32>(message, field::length, request.length);
        constexpr int readData = headerSize + 16;
        message.truncate(readData + static_cast<int>(request.length));
    }
    return message;
}

QByteArray interimOf(QByteArray message) {
    setField<quint32>(message, field::status, pending);
    setField<quint32>(message, field::flags, fieldOf<quint32>(message, field::flags) | asyncFlag);
    setField<quint32>(message, field::nextCommand, 0);
    setField<quint64>(message, field::asyncId, 1);
    return errorOf(message);
}

QByteArray transformFrame(quint64 size) {
    QByteArray frame(static_cast<int>(std::min<quint64>(size, 1 << 16)), '\1');
    return frame.replace(0, std::min(4, frame.size()), "\xfdSMB", std::min(4, frame.size()));
}

} // namespace

CannedServer::CannedServer(const Script& script)
    : m_script(script), m_recording(*recordings().constFind(script.dialect)) {}

void CannedServer::beginOperation(const QByteArray& operation) {
    m_operation = operation;
    m_next.clear();
    m_counts.clear();
    beginCall();
}

void CannedServer::beginCall() {
    m_requests.clear();
    m_answers.clear();
}

QList<QByteArray> CannedServer::answersTo(const Request& request) const {
    QList<QByteArray> found;
    for (const QByteArray& message : m_answers) {
        if (fieldOf<quint64>(message, field::messageId) == request.messageId)
            found.append(message);
    }
    return found;
}

QList<QByteArray> CannedServer::answersTo(int command) const {
    QList<QByteArray> found;
    for (const Request& request : m_requests) {
        if (request.command == command)
            found += answersTo(request);
    }
    return found;
}

bool CannedServer::isGranted() const {
    return std::all_of(m_requests.cbegin(), m_requests.cend(), [this](const Request& request) {
        const QList<QByteArray> found = answersTo(request);
        return std::any_of(found.cbegin(), found.cend(), [](const QByteArray& message) {
            return fieldOf<quint32>(message, field::status) == success;
        });
    });
}

/// Calls `found` with the answers to requests that transfer bytes. \returns whether it returned
/// true once.
template <class Found>
bool CannedServer::hasTransferred(int command, Found found) const {
    for (const Request& request : m_requests) {
        if (request.command != command || request.length == 0)
            continue;
        for (const QByteArray& message : answersTo(request)) {
            const auto count = fieldOf<quint32>(message, field::length);
            if (found(fieldOf<quint32>(message, field::status), count, request.length))
                return true;
        }
    }
    return false;
}

bool CannedServer::hasRead(qint64 count) const {
    return hasTransferred(Read, [count](quint32 result, quint32 length, quint32) {
        const bool isEnd = result == endOfFile || (result == success && length == 0);
        return count == 0 ? isEnd : length >= count && (result == success || result == endOfFile);
    });
}

bool CannedServer::hasWritten(qint64 count) const {
    qint64 written = 0;
    return hasTransferred(Write, [&](quint32 result, quint32 length, quint32 sent) {
        if (result == success)
            written += std::min(length, sent);
        return written >= count;
    });
}

bool CannedServer::hasWrittenNothing() const {
    return hasTransferred(Write, [](quint32 result, quint32 length, quint32) {
        return result == success && length == 0;
    });
}

bool CannedServer::hasListed() const {
    const QList<QByteArray> listings = answersTo(QueryDirectory);
    if (listings.isEmpty())
        return false;
    const auto last = fieldOf<quint32>(listings.last(), field::status);
    return last == noMoreFiles || (last == noSuchFile && listings.size() == 1);
}

/// Whether a request of a command was answered with a success.
bool CannedServer::hasGranted(int command) const {
    const QList<QByteArray> found = answersTo(command);
    return std::any_of(found.cbegin(), found.cend(), [](const QByteArray& message) {
        return fieldOf<quint32>(message, field::status) == success;
    });
}

bool CannedServer::hasLink() const {
    return hasGranted(Ioctl);
}

bool CannedServer::hasConnected() const {
    return hasGranted(Negotiate) && hasGranted(SessionSetup) && hasGranted(TreeConnect);
}

bool CannedServer::connectClient(int client) {
    m_held.clear();
    return InProcessServer::connectClient(client);
}

/// The next answer to such a request in the operation, else in the session.
const RecordedAnswer* CannedServer::find(const Request& request) {
    int& next = m_next[{request.command, request.kind}];
    for (const bool isAnyOperation : {false, true}) {
        for (int i = 0; i < m_recording.size(); ++i) {
            const int at = (next + i) % m_recording.size();
            const RecordedAnswer& recorded = m_recording[at];
            if (recorded.request.isLike(request) &&
                (isAnyOperation || recorded.operation == m_operation)) {
                next = at + 1;
                return &recorded;
            }
        }
    }
    return nullptr;
}

QList<Fault> CannedServer::faultsOf(const Request& request) {
    const int ofCommand = ++m_counts[request.command];
    const int ofAll = ++m_counts[-1];
    QList<Fault> faults;
    for (const Fault& fault : m_script.faults) {
        const bool isHere = fault.operation == m_operation || fault.operation == "any";
        const bool isAny = fault.command == -1;
        const int number = isAny ? ofAll : ofCommand;
        if (isHere && (isAny || fault.command == request.command) &&
            (fault.number == 0 || fault.number == number))
            faults.append(fault);
    }
    return faults;
}

void CannedServer::answer(const QByteArray& frame) {
    QList<QByteArray> messages;
    QList<QList<Fault>> faults;
    QList<Fault> frameFaults;
    for (const QByteArray& message : messagesOf(frame)) {
        const Request request(message);
        m_requests.append(request);
        const RecordedAnswer* const recorded = find(request);
        if (!recorded || ++m_answered > maxAnswers) {
            close();
            return;
        }
        messages.append(addressed(recorded->message, request));
        faults.append(faultsOf(request));
    }
    // The fields of the chain are set before the faults, which may change them.
    messages = messagesOf(frameOf(messages).mid(prefixSize));
    QByteArray answers;
    for (int i = 0; i < messages.size(); ++i) {
        const int before = messages[i].size();
        for (const Fault& fault : std::as_const(faults[i])) {
            if (fault.concernsFrame())
                frameFaults.append(fault);
            else
                fault.apply(messages[i]);
        }
        if (messages[i].size() != before && i + 1 < messages.size() &&
            fieldOf<quint32>(messages[i], field::nextCommand) == static_cast<quint32>(before))
            setField<quint32>(messages[i], field::nextCommand,
                              static_cast<quint32>(messages[i].size()));
        answers += messages[i];
    }
    deliver(answers, frameFaults);
}

void CannedServer::deliver(QByteArray frame, const QList<Fault>& faults) {
    QByteArray bytes = prefixed(frame);
    int copies = 1;
    bool isHeld = false;
    int part = 0;
    int last = -1; // how many bytes the client gets; -1: all
    for (const Fault& fault : faults) {
        const quint64 argument = fault.arguments[0];
        const int limited = static_cast<int>(std::min<quint64>(argument, 1 << 20));
        switch (fault.change) {
        case Fault::Length:
            qToBigEndian(static_cast<quint32>(argument), bytes.data());
            break;
        case Fault::Short:
            last = limited;
            break;
        case Fault::Split:
            part = limited;
            break;
        case Fault::Drop:
            copies = 0;
            break;
        case Fault::Double:
            copies = 2;
            break;
        case Fault::Hold:
            isHeld = true;
            break;
        case Fault::Pending:
            for (int i = 0; i < std::min(limited, 8); ++i)
                transmit(prefixed(interimOf(frame)));
            break;
        case Fault::Unasked: {
            QByteArray unasked = frame;
            Fault put = fault;
            put.change = Fault::Put;
            put.apply(unasked);
            transmit(prefixed(unasked));
            break;
        }
        case Fault::Transform:
            transmit(prefixed(transformFrame(argument)));
            break;
        case Fault::Close:
            last = 0;
            break;
        default:
            break;
        }
    }
    if (isHeld) {
        m_held.append(bytes);
        return;
    }
    for (int i = 0; i < copies; ++i) {
        if (last >= 0 && last < bytes.size()) {
            send(bytes.left(last));
            close();
        } else {
            transmit(bytes, std::min(part, bytes.size()));
        }
    }
    const QList<QByteArray> held = std::move(m_held);
    m_held.clear();
    for (const QByteArray& later : held)
        transmit(later);
}

/// Sends a frame. `part` is where it is divided, 0 if it is not.
void CannedServer::transmit(const QByteArray& bytes, int part) {
    for (const QByteArray& message : messagesOf(bytes.mid(prefixSize))) {
        if (fieldOf<quint32>(message, field::status) != pending)
            m_answers.append(message);
    }
    if (part > 0)
        send(bytes.left(part), true);
    send(bytes.mid(part));
}

void CannedServer::idle() {
    if (m_held.isEmpty()) {
        InProcessServer::idle();
        return;
    }
    const QList<QByteArray> held = std::move(m_held);
    m_held.clear();
    for (const QByteArray& later : held)
        transmit(later);
}

} // namespace oru::io::test
