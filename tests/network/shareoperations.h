// SPDX-License-Identifier: Apache-2.0
// Every operation on a share, for tests of failing connections.
#pragma once

#include "support/doubles/faultproxy.h"

#include <oruio/fssmb.h>

#include <QByteArray>
#include <QSharedPointer>
#include <QString>

#include <functional>
#include <mutex>
#include <vector>

namespace oru::io::test {

/// Held while connecting. On a slow machine, many connections at once would all time out.
extern std::mutex connectMutex;

/// A connected share with the files and directories that the operations use.
struct Share {
    Share(const QString& address, const QString& name, unsigned int seconds);

    QString at(const char* name) const {
        return directoryPath + '/' + name;
    }

    Smb2FS fs;
    const QString directoryPath;
    const QByteArray content = QByteArray(8000, 'c');
    QSharedPointer<File> file;
    QSharedPointer<Directory> directory;
    QByteArray buffer = QByteArray(8000, '\0');
};

/// An operation, and the SMB command that a fault can strike.
struct Operation {
    const char* name;
    FaultProxy::Command command;
    std::function<long long(Share&)> call; ///< negative on failure
};

extern const std::vector<Operation> operations;

/// Expects every call to fail at once, as after a fatal error, and to keep errno and liberrno.
void expectGuarded(Share& share);

} // namespace oru::io::test
