// SPDX-License-Identifier: Apache-2.0
#include "sharestate.h"

#include <QStringList>

namespace {

using oru::io::Smb2FS;

QString meaningOf(Smb2FS::ConnectFailure::Reason reason) {
    using Reason = Smb2FS::ConnectFailure::Reason;
    switch (reason) {
    case Reason::None:
        return "it has not failed";
    case Reason::BadProperties:
        return "a part of the login cannot be used";
    case Reason::HostNotFound:
        return "the name of the server cannot be resolved";
    case Reason::Unreachable:
        return "there is no route to the server";
    case Reason::NobodyListens:
        return "nothing listens there";
    case Reason::TimedOut:
        return "the server does not answer";
    case Reason::ConnectionLost:
        return "the server has ended the connection";
    case Reason::ProtocolError:
        return "an answer of the server is not understood";
    case Reason::DialectRefused:
        return "the server does not support the version of the protocol";
    case Reason::LoginRefused:
        return "the server refuses the user or the password";
    case Reason::NoSuchShare:
        return "the server has no such share";
    case Reason::NoAccess:
        return "the user has no access";
    case Reason::Protected:
        return "the server insists on signed or encrypted sessions, which are not supported";
    case Reason::Other:
        break;
    }
    return "the server or this system refuses";
}

} // namespace

QString describe(const Smb2FS::ConnectFailure& failure) {
    QString description = meaningOf(failure.reason) + " (" + failure.message.trimmed() + ')';
    if (!failure.unknownKeys.isEmpty())
        description += "; unknown properties: " + failure.unknownKeys.join(", ");
    return description;
}
