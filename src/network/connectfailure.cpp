// SPDX-License-Identifier: Apache-2.0
#include "network/connectfailure_p.h"

#include "network/libsmb2_internals_p.h"
#include "network/libsmb2_p.h"

#include <cerrno>
#include <cstdint>

namespace oru::io {

namespace {

using Reason = Smb2FS::ConnectFailure::Reason;
using libsmb2::ConnectMessage;

Reason reasonOfAccess(std::uint32_t status) {
    const bool isDenied =
        status == SMB2_STATUS_ACCESS_DENIED || status == SMB2_STATUS_NETWORK_ACCESS_DENIED;
    return isDenied ? Reason::NoAccess : Reason::Other;
}

/// The server has refused the login with `status`.
Reason reasonOfLogin(std::uint32_t status) {
    switch (status) {
    case SMB2_STATUS_NO_SUCH_USER:
    case SMB2_STATUS_WRONG_PASSWORD:
    case SMB2_STATUS_LOGON_FAILURE:
    case SMB2_STATUS_ACCOUNT_RESTRICTION:
    case SMB2_STATUS_INVALID_LOGON_HOURS:
    case SMB2_STATUS_INVALID_WORKSTATION:
    case SMB2_STATUS_PASSWORD_EXPIRED:
    case SMB2_STATUS_ACCOUNT_DISABLED:
    case SMB2_STATUS_LOGON_TYPE_NOT_GRANTED:
    case SMB2_STATUS_ACCOUNT_EXPIRED:
    case SMB2_STATUS_PASSWORD_MUST_CHANGE:
    case SMB2_STATUS_ACCOUNT_LOCKED_OUT:
        return Reason::LoginRefused;
    default:
        return reasonOfAccess(status);
    }
}

/// The connection has failed with `error`, or an answer has.
Reason reasonOfErrno(int error, ConnectMessage::Subject subject) {
    switch (error) {
    case ECONNREFUSED:
        return Reason::NobodyListens;
    case EHOSTDOWN:
    case EHOSTUNREACH:
    case ENETDOWN:
    case ENETUNREACH:
        return Reason::Unreachable;
    case ETIMEDOUT:
        return Reason::TimedOut;
    case ECONNRESET:
        // The same errno if libsmb2 cannot parse an answer.
        return subject == ConnectMessage::Other ? Reason::ProtocolError : Reason::ConnectionLost;
    case EPROTO:
        return Reason::ProtocolError;
    default:
        return Reason::Other;
    }
}

} // namespace

Reason reasonOf(int error, const std::string& message) {
    const ConnectMessage parsed = libsmb2::parseConnectMessage(message);
    switch (parsed.subject) {
    case ConnectMessage::Resolver:
        return Reason::HostNotFound;
    case ConnectMessage::Protection:
        return Reason::Protected;
    case ConnectMessage::Negotiate:
        return parsed.status == SMB2_STATUS_NOT_SUPPORTED ? Reason::DialectRefused : Reason::Other;
    case ConnectMessage::SessionSetup:
        return reasonOfLogin(parsed.status);
    case ConnectMessage::TreeConnect:
        return parsed.status == SMB2_STATUS_BAD_NETWORK_NAME ? Reason::NoSuchShare
                                                             : reasonOfAccess(parsed.status);
    case ConnectMessage::Nothing:
    case ConnectMessage::Connection:
    case ConnectMessage::Other:
        break;
    }
    return reasonOfErrno(error, parsed.subject);
}

} // namespace oru::io
