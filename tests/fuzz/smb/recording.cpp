// SPDX-License-Identifier: Apache-2.0
#include "fuzz/smb/recording.h"

#include "fuzz/smb/inprocessserver.h"
#include "fuzz/smb/shareclient.h"
#include "fuzz/support.h"
#include "support/system/loopback.h"
#include "support/system/smbserver.h"

#include <QDataStream>
#include <QFile>
#include <QSysInfo>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <sys/socket.h>

namespace oru::io::test {

using namespace smb2;

// Found by Qt's operators for containers, which are outside of the namespace.
static QDataStream& operator<<(QDataStream& stream, const RecordedAnswer& answer) {
    return stream << answer.operation << answer.request.command << answer.request.kind
                  << answer.message;
}

static QDataStream& operator>>(QDataStream& stream, RecordedAnswer& answer) {
    return stream >> answer.operation >> answer.request.command >> answer.request.kind >>
           answer.message;
}

namespace {

/// In the source tree.
constexpr char path[] = ORUIO_SMB_RECORDING;

bool store(const Recordings& recordings) {
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream.setVersion(QDataStream::Qt_5_15);
    stream << recordings;
    constexpr int best = 9;
    const QByteArray packed = qCompress(bytes, best);
    QFile file(path);
    return file.open(QFile::WriteOnly) && file.write(packed) == packed.size();
}

Recordings load() {
    QFile file(path);
    require(file.open(QFile::ReadOnly), "there is a recording");
    const QByteArray bytes = qUncompress(file.readAll());
    QDataStream stream(bytes);
    stream.setVersion(QDataStream::Qt_5_15);
    Recordings recordings;
    stream >> recordings;
    require(stream.status() == QDataStream::Ok && !recordings.isEmpty(), "a recording is whole");
    return recordings;
}

} // namespace

const Recordings& recordings() {
    static const auto& loaded = *new Recordings(load());
    return loaded;
}

// --- The recorder -------------------------------------------------------------------------------

namespace {

QByteArray utf16(const QString& string) {
    return {reinterpret_cast<const char*>(string.utf16()), string.size() * 2};
}

/// The answer to FSCTL_GET_REPARSE_POINT for a symbolic link, with the header of another answer.
/// Samba has no such links.
QByteArray linkAnswer(QByteArray header) {
    const QByteArray target = utf16("target");
    const auto size = static_cast<quint16>(target.size());
    constexpr int answerSize = 48;
    constexpr int linkSize = 20;
    header.truncate(headerSize);
    setField<quint32>(header, field::status, success);
    QByteArray answer(answerSize, '\0');
    setField<quint16>(answer, 0, answerSize + 1);
    setField<quint32>(answer, 4, 0x900a8);
    setField<quint32>(answer, 32, headerSize + answerSize);
    setField<quint32>(answer, 36, linkSize + 2U * size);
    QByteArray link(linkSize, '\0');
    setField<quint32>(link, 0, 0xa000000c);
    setField<quint16>(link, 4, linkSize - 8 + 2U * size);
    setField<quint16>(link, 10, size);
    setField<quint16>(link, 12, size);
    setField<quint16>(link, 14, size);
    return header + answer + link + target + target;
}

/// Passes the requests on to a real server, and records its answers.
class Recorder : public InProcessServer, public Witness {
public:
    Recorder(quint16 port, Recording& recording) : m_port(port), m_recording(recording) {}

    void beginOperation(const QByteArray& operation) override {
        m_operation = operation;
    }
    bool connectClient(int client) override {
        m_server = connectedSocket(m_port);
        return m_server.isOpen() && InProcessServer::connectClient(client);
    }

protected:
    void answer(const QByteArray& frame) override {
        const QByteArray bytes = prefixed(frame);
        if (::send(m_server.fd(), bytes.constData(), static_cast<size_t>(bytes.size()),
                   MSG_NOSIGNAL) != bytes.size()) {
            close();
            return;
        }
        QList<Request> pending;
        for (const QByteArray& message : messagesOf(frame))
            pending.append(Request(message));
        while (!pending.isEmpty()) {
            QByteArray answers;
            if (!receiveFrame(answers)) {
                close();
                return;
            }
            QList<QByteArray> messages = messagesOf(answers);
            for (QByteArray& message : messages)
                take(message, pending);
            send(frameOf(messages));
        }
    }

private:
    bool receiveFrame(QByteArray& frame) {
        while (!takeFrame(m_received, frame)) {
            char buffer[65536];
            const ssize_t count = ::recv(m_server.fd(), buffer, sizeof buffer, 0);
            if (count <= 0)
                return false;
            m_received.append(buffer, static_cast<int>(count));
        }
        return true;
    }

    void take(QByteArray& message, QList<Request>& pending) {
        if (fieldOf<quint32>(message, field::status) == smb2::pending)
            return;
        const auto id = fieldOf<quint64>(message, field::messageId);
        const auto request =
            std::find_if(pending.begin(), pending.end(),
                         [id](const Request& sent) { return sent.messageId == id; });
        if (request == pending.end())
            return;
        if (request->command == Ioctl)
            message = linkAnswer(message);
        QByteArray recorded = message;
        // A signature fits one session only. libsmb2 takes answers without one.
        setField<quint32>(recorded, field::flags,
                          fieldOf<quint32>(recorded, field::flags) & ~signedFlag);
        if (request->command == SessionSetup)
            hideHostName(recorded);
        setField<quint32>(recorded, field::nextCommand, 0);
        m_recording.append({m_operation, *request, recorded});
        pending.erase(request);
    }

    /// The server sends the name of this machine in its NTLM challenge. The client must have it,
    /// as its answer contains a checksum of the challenge.
    static void hideHostName(QByteArray& message) {
        const QString name = QSysInfo::machineHostName();
        for (const QString& form : {name, name.toLower(), name.toUpper()})
            message.replace(utf16(form), utf16(QString(name.size(), 'h')));
    }

    const quint16 m_port;
    Recording& m_recording;
    Socket m_server;
    QByteArray m_received;
    QByteArray m_operation;
};

} // namespace

bool record() {
    Recordings recordings;
    for (const char* const dialect : {"2.0.2", "2.1.0", "3.0.2", "3.1.1"}) {
        SmbServer server;
        if (!server.problem().isEmpty()) {
            std::fprintf(stderr, "%s\n", qPrintable(server.problem()));
            return false;
        }
        ShareClient::makeFiles(server.directory("rw"));
        Recorder recorder(server.port(), recordings[dialect]);
        ShareClient client({{"server", InProcessServer::address},
                            {"share", "rw"},
                            {"user", SmbServer::user},
                            {"password", SmbServer::password},
                            {"version", dialect}},
                           recorder);
        for (const QByteArray& operation : ShareClient::operations()) {
            if (!client.run(operation)) {
                std::fprintf(stderr, "%s: '%s' failed: %s\n", dialect, operation.constData(),
                             std::strerror(errno));
                return false;
            }
        }
    }
    return store(recordings);
}

} // namespace oru::io::test
