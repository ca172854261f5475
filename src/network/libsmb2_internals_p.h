// SPDX-License-Identifier: Apache-2.0
// What the library must know of the inside of libsmb2, as its interface does not offer it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct smb2_context;

namespace oru::io::libsmb2 {

/// smb2_init_context(3) and smb2_destroy_context(3). libsmb2 keeps a list of all contexts without a
/// lock, so these two take one. Any thread may call them.
smb2_context* makeContext();
void destroyContext(smb2_context* context);

/// The place of a flag in a context. Found by setting the flag in a context of its own and
/// comparing the bytes before and after.
class Flag {
public:
    explicit Flag(void (*set)(smb2_context*, int));

    /// 1 or 0; -ENOTSUP when the flag was not found: when setting it changes no bit or several.
    int of(const smb2_context* context) const;

private:
    std::size_t m_offset = 0;
    unsigned char m_mask = 0;
};

/// Whether the session of `context` signs or encrypts its messages. libsmb2 has functions that set
/// these two flags and none that read them. Their places are found once per process. \returns 1 or
/// 0, or -ENOTSUP when the flag was not found in this version of libsmb2.
int isSigned(const smb2_context* context);
int isSealed(const smb2_context* context);

/// Finds where contexts count their credits, the requests that the server still permits: libsmb2
/// has no function that returns the number. A request of up to 64 KiB costs one.
class CreditSearch {
public:
    /// Keeps the bytes of `context`. To be called before requests are sent.
    explicit CreditSearch(const smb2_context* context);
    /// Compares them. When one request was sent, exactly one number is smaller by one: this is the
    /// place. To be called before anything is received.
    ~CreditSearch();

private:
    const smb2_context* const m_context;
    std::vector<unsigned char> m_before; // empty when the place is known
};

/// The credits of `context`; -ENOTSUP until they are found. A context of the dialect 2.0.2 does not
/// count them.
int credits(const smb2_context* context);

/// Why smb2_connect_share_async(3), which has returned `result`, could not try any address. The
/// socket is closed by then, so only libsmb2's message contains the errno. \returns a negative
/// errno; `result` when the message contains none.
int connectError(smb2_context* context, int result);

/// The message of a session that the server encrypts while it begins. Not libsmb2's.
constexpr char encryptedMessage[] = "The server encrypts its answers";

/// What libsmb2's message of a failed connect is about. The callback of a connect only gets an
/// errno.
struct ConnectMessage {
    enum Subject {
        Nothing,      ///< the message is empty
        Resolver,     ///< the server's name cannot be resolved
        Connection,   ///< the connection has ended
        Protection,   ///< the server requires a signed or an encrypted session
        Negotiate,    ///< the server refuses this request, with `status`
        SessionSetup, ///< the same
        TreeConnect,  ///< the same
        Other,
    };
    Subject subject = Other;
    std::uint32_t status = 0; ///< the NT status
};
ConnectMessage parseConnectMessage(const std::string& message);

} // namespace oru::io::libsmb2
