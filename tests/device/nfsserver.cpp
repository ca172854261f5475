// SPDX-License-Identifier: Apache-2.0
#include "nfsserver.h"

#include "support/system/files.h"
#include "support/system/loopdisk.h"

#include <QFile>

namespace oru::io::test {

namespace {

constexpr char threadsFile[] = "/proc/fs/nfsd/threads";

bool setThreads(const char* count) {
    return makeFile(threadsFile, count) && contents(threadsFile).trimmed() == count;
}

} // namespace

QString NfsServer::missing() {
    const QString tool = missingTool({"nfs-up", "mount.nfs"});
    return tool.isEmpty() ? QString() : tool + " is not installed";
}

bool NfsServer::start() {
    // Output is discarded: the daemons would keep the test's pipes open.
    return QFile::exists(threadsFile) ? setThreads("2")
                                      : runTool({"sh", "-c", "nfs-up >/dev/null 2>&1"}).status == 0;
}

bool NfsServer::stop() {
    return setThreads("0");
}

QString NfsServer::directory() {
    return QStringLiteral("/srv/nfs");
}

QString NfsServer::target() {
    return QStringLiteral("127.0.0.1:/");
}

} // namespace oru::io::test
