// SPDX-License-Identifier: Apache-2.0
// The reason of a failed connect, by its errno and libsmb2's message.

#include "network/connectfailure_p.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace oru::io {

TEST(ConnectFailure, ErrnoAndMessage_GiveTheReason) {
    using Reason = Smb2FS::ConnectFailure::Reason;
    constexpr struct {
        int error;
        const char* message;
        Reason reason;
    } cases[] = {
        {EIO, "Invalid address:nas  Can not resolve into IPv4/v6.", Reason::HostNotFound},
        {EAGAIN, "Invalid address:nas  Can not resolve into IPv4/v6.", Reason::HostNotFound},
        {ECONNREFUSED, "", Reason::NobodyListens},
        {ECONNREFUSED, "Connect failed with errno : Connection refused(111)",
         Reason::NobodyListens},
        {EHOSTUNREACH, "Connect failed with errno : No route to host(113)", Reason::Unreachable},
        {EMFILE, "Failed to open smb2 socket. Errno:Too many open files(24).", Reason::Other},
        {EPERM, "Connect failed with errno : Operation not permitted(1)", Reason::Other},
        {EPERM, "The server encrypts its answers", Reason::Protected},
        {ETIMEDOUT, "", Reason::TimedOut},
        {ECONNRESET, "", Reason::ConnectionLost},
        {ECONNRESET, "Read from socket failed, errno:104. Closing socket.", Reason::ConnectionLost},
        {ECONNRESET, "Error when writing to socket :32 Broken pipe", Reason::ConnectionLost},
        {ECONNRESET, "smb2_service: POLLERR, Unknown socket error.", Reason::ConnectionLost},
        {ECONNRESET, "Failed to decode smb2 header: ", Reason::ProtocolError},
        {EPROTO, "", Reason::ProtocolError},
        {EACCES, "Signing required by server. Session Key is not available ", Reason::Protected},
        {EINVAL, "Negotiate failed with (0xc00000bb) STATUS_NOT_SUPPORTED. ",
         Reason::DialectRefused},
        {ECONNREFUSED, "Session setup failed with (0xc000006d) STATUS_LOGON_FAILURE",
         Reason::LoginRefused},
        {EACCES, "Session setup failed with (0xc0000022) STATUS_ACCESS_DENIED", Reason::NoAccess},
        {ENOENT, "Tree Connect failed with (0xc00000cc) STATUS_BAD_NETWORK_NAME. ",
         Reason::NoSuchShare},
        {EACCES, "Tree Connect failed with (0xc0000022) STATUS_ACCESS_DENIED. ", Reason::NoAccess},
        // A status of another request does not count.
        {EINVAL, "Tree Connect failed with (0xc00000bb) STATUS_NOT_SUPPORTED. ", Reason::Other},
        {EIO, "Negotiate failed with (", Reason::Other},
        {ENOMEM, "", Reason::Other},
    };
    for (const auto& failed : cases)
        EXPECT_EQ(reasonOf(failed.error, failed.message), failed.reason) << failed.message;
}

} // namespace oru::io
