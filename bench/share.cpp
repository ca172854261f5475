// SPDX-License-Identifier: Apache-2.0
#include "share.h"

#include "clip.h"
#include "files.h"
#include "placement.h"
#include "report.h"

#include "support/system/childprocess.h"

#include <QDir>
#include <QFile>
#include <QList>
#include <QProcess>

#include <chrono>
#include <ctime>

// libsmb2's headers need these first.
#include <smb2/smb2.h>

#include <smb2/libsmb2.h>

namespace {

using oru::io::Smb2FS;
using oru::io::test::SmbServer;

constexpr char shareName[] = "clips";
constexpr int timeoutSeconds = 30;

/// Starts a server for `directory`, with a clip in it, on the processor of the helpers.
SmbServer serve(QTemporaryDir& directory) {
    makeFile(directory, QStringLiteral("/") + Share::clip, clipSize);
    SmbServer::Options options;
    options.shares[shareName] = QStringList{"path = " + directory.path(), "read only = no"};
    const Placement placement(Placement::Together);
    return SmbServer(options);
}

} // namespace

void Share::ContextDeleter::operator()(smb2_context* context) const {
    smb2_destroy_context(context);
}

Share& Share::instance() {
    static Share share;
    return share;
}

Share::Share()
    : m_directory(directoryTemplate()), m_server(serve(m_directory)),
      m_idleProcesses(m_server.processes().size()), m_lastError(m_server.problem().toStdString()) {}

const std::string& Share::lastError() const {
    return m_lastError;
}

bool Share::makeTakes() {
    const QString path = m_directory.filePath(takes);
    if (QDir(path).exists())
        return true;
    bool isMade = QDir().mkdir(path);
    for (int i = 0; i < takeCount && isMade; ++i) {
        QFile take(path + QStringLiteral("/take-%1.mov").arg(i, 6, 10, QLatin1Char('0')));
        isMade = take.open(QFile::WriteOnly);
    }
    return isMade;
}

void Share::awaitIdleServer() const {
    oru::io::test::eventually([this] { return m_server.processes().size() <= m_idleProcesses; });
}

QString Share::clipFile() const {
    return m_directory.filePath(clip);
}

/// The port of a line with this round trip, which is made at the first call.
quint16 Share::port(int roundTripMs) {
    if (roundTripMs == 0)
        return m_server.port();
    const auto line =
        m_lines.try_emplace(roundTripMs, m_server.port(), std::chrono::milliseconds(roundTripMs));
    return line.first->second.port();
}

std::unique_ptr<Smb2FS> Share::connect(int roundTripMs) {
    awaitIdleServer();
    auto fs = std::make_unique<Smb2FS>(timeoutSeconds);
    const int result = fs->connect({
        {"server", QStringLiteral("127.0.0.1:%1").arg(port(roundTripMs))},
        {"share", shareName},
        {"user", SmbServer::user},
        {"password", SmbServer::password},
        {"version", "3.1.1"},
    });
    return result == 0 ? std::move(fs) : nullptr;
}

Share::Context Share::connectLibsmb2(int roundTripMs) {
    awaitIdleServer();
    Context context(smb2_init_context());
    if (!context)
        return nullptr;
    constexpr int ntlmssp = 1;
    smb2_set_authentication(context.get(), ntlmssp);
    smb2_set_timeout(context.get(), timeoutSeconds);
    smb2_set_version(context.get(), SMB2_VERSION_0311);
    smb2_set_password(context.get(), SmbServer::password);
    const QByteArray server = "127.0.0.1:" + QByteArray::number(port(roundTripMs));
    if (smb2_connect_share(context.get(), server, shareName, SmbServer::user) != 0)
        return nullptr;
    return context;
}

double Share::runSmbclient(benchmark::State& state, const QString& command, int roundTripMs) {
    QProcess smbclient;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("LC_ALL", "C");
    smbclient.setProcessEnvironment(environment);
    smbclient.setProcessChannelMode(QProcess::MergedChannels);
    smbclient.start("smbclient",
                    {QStringLiteral("//127.0.0.1/") + shareName,
                     QStringLiteral("--port=%1").arg(port(roundTripMs)),
                     QStringLiteral("--user=%1%%2").arg(SmbServer::user, SmbServer::password),
                     "--configfile=/dev/null", "-c", command});
    if (!smbclient.waitForStarted()) {
        skip(state, "comparison with smbclient: smbclient is not installed");
        return 0;
    }
    smbclient.waitForFinished();
    // The output ends with "(average 842023.5 kb/s)" or the like, in KiB.
    const QByteArray output = smbclient.readAll();
    const QList<QByteArray> words = output.simplified().split(' ');
    const double speed = words.value(words.size() - 2).toDouble();
    if (speed > 0 && smbclient.exitCode() == 0)
        return speed;
    state.SkipWithError(("smbclient failed: " + output.toStdString()).c_str());
    return 0;
}
