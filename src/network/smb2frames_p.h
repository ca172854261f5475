// SPDX-License-Identifier: Apache-2.0
// Checks the server's answers before libsmb2 reads them.
//
// libsmb2 trusts many offsets and lengths in an answer. With wrong ones it reads or writes outside
// of its buffers, frees memory twice or calls a null pointer. So Smb2Frames looks at the bytes of
// each frame while they are still in the socket, and lets libsmb2 read a frame only if every
// message in it is a well-formed answer to a command that Smb2Session sends.
//
// A frame is four bytes with the length of the rest, then a message or a chain of messages.
#pragma once

#include <QtGlobal>

#include <cerrno>
#include <cstddef>
#include <cstdint>

namespace oru::io {

/// Why a connection ended, by the error of its socket; 0 when the server has closed it.
inline int lossOf(int error) {
    return error == ETIMEDOUT ? ETIMEDOUT : ECONNRESET;
}

/// What the server sends on one connection, from its first byte on.
class Smb2Frames {
public:
    Smb2Frames() = default;

    /// To be called before each call that lets libsmb2 read from `socket`. Only looks at the bytes.
    /// \returns 0 if libsmb2 may read, or an errno:
    ///  - EAGAIN: too little of the frame has arrived. poll(2) reports input when there is more.
    ///  - others: why the connection must end, as check() says; or the error of the socket, where
    ///    ECONNRESET is also its end.
    int look(int socket);
    /// To be called when a request has been answered: look() cannot see where libsmb2 stops reading
    /// in the frame of a READ or a QUERY_DIRECTORY.
    void setAnswered();

    /// Ends the phase in which the answers of connecting are the only allowed ones.
    void setConnected();
    /// Whether answers must come in the order of their requests. isOrderKnown() must be true.
    void setOrdered(bool isOrdered);
    /// Whether the number of the next request is known.
    bool isOrderKnown() const;

    /// Returns whether a command other than READ and WRITE was answered with "end of file" since
    /// the last call. libsmb2 takes this status for a success.
    bool takeEndOfFile();
    /// Whether look() has refused a frame.
    bool hasRefused() const;

    /// How many bytes of a frame check() needs, if the first `available` ones are at `frame`.
    /// \returns 0 for a frame that must be refused.
    static std::size_t neededOf(const std::uint8_t* frame, std::size_t available);
    /// Checks a frame of which neededOf() bytes have arrived. \returns 0 or the errno with which
    /// the connection must end:
    ///  - ECONNRESET: the frame breaks the protocol
    ///  - EPERM: the server encrypts the session while it begins
    ///  - EPROTO: the server offers to move less than `smallestSize` bytes at a time
    int check(const std::uint8_t* frame);

    static constexpr std::uint32_t smallestSize = 4096;
    /// The longest answer to a QUERY_DIRECTORY, in bytes.
    static constexpr std::uint32_t longestListing = 0xffff;

private:
    Q_DISABLE_COPY(Smb2Frames)

    class Message;

    int checkMessage(const Message& message);
    bool isExpected(const Message& message);
    void setLowWater(int socket, int size);

    bool m_isConnecting = true;
    bool m_isInside = false; // libsmb2 has not read the whole of the current frame
    bool m_isOrdered = false;
    bool m_hasEndOfFile = false;
    bool m_hasRefused = false;
    bool m_isNextKnown = true;
    std::uint64_t m_next = 0; // the number of the next request
    int m_lowWater = 1;       // SO_RCVLOWAT of the socket
};

} // namespace oru::io
