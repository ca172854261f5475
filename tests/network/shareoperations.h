// Every operation on a share, for the tests that make them fail.
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

/// Who connects keeps others from it: of many at once, a slow machine would complete none within
/// the time-out.
extern std::mutex connecting;

/// A connected share, with what operations need.
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

/// An operation, and the message in whose exchange it can fail.
struct Operation {
    const char* name;
    FaultProxy::Command command;
    std::function<long long(Share&)> call; ///< negative when it failed
};

extern const std::vector<Operation> operations;

/// Everything fails at once and says nothing.
void expectGuarded(Share& share);

} // namespace oru::io::test
