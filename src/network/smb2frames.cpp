// SPDX-License-Identifier: Apache-2.0
#include "network/smb2frames_p.h"

#include <QtEndian>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <utility>
#include <vector>

#include <poll.h>
#include <sys/socket.h>

namespace oru::io {

namespace {

constexpr std::size_t prefixSize = 4;
constexpr std::size_t headerSize = 64;
// The shortest message, an answer to SET_INFO.
constexpr std::size_t shortestMessage = headerSize + 2;
// Of a READ or QUERY_DIRECTORY that is alone in its frame, this is checked.
constexpr std::size_t headSize = prefixSize + headerSize + 16;
// All other frames must have arrived as a whole. The longest is a stat of a path of 64 KiB.
constexpr std::size_t longestWhole = 80 << 10;

enum Command : std::uint16_t {
    Negotiate,
    SessionSetup,
    Logoff,
    TreeConnect,
    TreeDisconnect,
    Create,
    Close,
    Flush,
    Read,
    Write,
    Lock,
    Ioctl,
    Cancel,
    Echo,
    QueryDirectory,
    ChangeNotify,
    QueryInfo,
    SetInfo,
    Commands,
};

enum Status : std::uint32_t {
    Success = 0,
    Pending = 0x103,
    StoppedOnSymlink = 0x8000002d,
    EndOfFile = 0xc0000011,
    MoreProcessingRequired = 0xc0000016,
};

/// How the body of an answer begins. Where it has a buffer: the places of the buffer's offset, from
/// the start of the message, and of its length.
struct Layout {
    std::uint16_t structureSize; // as in the protocol: odd if a buffer follows; 0: not allowed
    std::uint8_t offsetAt;
    std::uint8_t offsetSize;
    std::uint8_t lengthAt;
    std::uint8_t lengthSize;

    std::size_t fixedSize() const {
        return structureSize & ~1U;
    }
};

constexpr Layout errorLayout = {9, 0, 0, 4, 4}; // its buffer begins after the fixed part

constexpr std::array<Layout, Commands> layouts = {{
    {65, 56, 2, 58, 2}, // Negotiate
    {9, 4, 2, 6, 2},    // SessionSetup
    {4, 0, 0, 0, 0},    // Logoff
    {16, 0, 0, 0, 0},   // TreeConnect
    {4, 0, 0, 0, 0},    // TreeDisconnect
    {89, 80, 4, 84, 4}, // Create
    {60, 0, 0, 0, 0},   // Close
    {4, 0, 0, 0, 0},    // Flush
    {17, 2, 1, 4, 4},   // Read
    {17, 0, 0, 0, 0},   // Write
    {},                 // Lock
    {49, 32, 4, 36, 4}, // Ioctl
    {},                 // Cancel
    {4, 0, 0, 0, 0},    // Echo
    {9, 2, 2, 4, 4},    // QueryDirectory
    {},                 // ChangeNotify
    {9, 2, 2, 4, 4},    // QueryInfo
    {2, 0, 0, 0, 0},    // SetInfo
}};

template <class Int>
Int field(const std::uint8_t* bytes, std::size_t at) {
    return qFromLittleEndian<Int>(bytes + at);
}

std::size_t frameSizeOf(const std::uint8_t* frame) {
    return prefixSize + qFromBigEndian<std::uint32_t>(frame);
}

} // namespace

/// A message of the server, at least its header.
class Smb2Frames::Message {
public:
    Message(const std::uint8_t* bytes, std::size_t size) : m_bytes(bytes), m_size(size) {
        const std::uint32_t next = this->next();
        m_isChainBroken = next != 0 && (next < shortestMessage || next > size - shortestMessage);
        if (next != 0 && !m_isChainBroken)
            m_size = next;
    }

    bool begins(const char* protocol) const {
        return std::memcmp(m_bytes, protocol, 4) == 0;
    }
    /// Whether this is the header of an answer, inside of its frame.
    bool isAnswer() const {
        constexpr std::uint32_t fromServer = 1;
        return begins("\xfeSMB") && (field<std::uint32_t>(m_bytes, 16) & fromServer) != 0 &&
               !m_isChainBroken;
    }
    std::uint32_t status() const {
        return field<std::uint32_t>(m_bytes, 8);
    }
    std::uint16_t command() const {
        return field<std::uint16_t>(m_bytes, 12);
    }
    std::uint32_t next() const {
        return field<std::uint32_t>(m_bytes, 20);
    }
    std::uint64_t number() const {
        return field<std::uint64_t>(m_bytes, 24);
    }
    std::size_t size() const {
        return m_size;
    }

    bool isInterim() const {
        return status() == Pending;
    }
    /// Whether libsmb2 expects the body of an error.
    bool isError() const {
        const bool isSevere = status() >> 30 == 3;
        return isInterim() || status() == StoppedOnSymlink ||
               (isSevere && status() != MoreProcessingRequired);
    }
    template <class Int>
    Int bodyField(std::size_t at) const {
        return field<Int>(m_bytes, headerSize + at);
    }

    /// Finds the buffer. \returns whether the body is well-formed.
    bool readBody() {
        const Layout layout = isError()              ? errorLayout
                              : command() < Commands ? layouts[command()]
                                                     : Layout{};
        const std::size_t bufferAt = headerSize + layout.fixedSize();
        if (layout.structureSize == 0 || m_size < bufferAt ||
            bodyField<std::uint16_t>(0) != layout.structureSize)
            return false;
        m_bufferSize = number(layout.lengthAt, layout.lengthSize);
        if (m_bufferSize == 0)
            return true;
        m_bufferAt = layout.offsetSize ? number(layout.offsetAt, layout.offsetSize) : bufferAt;
        return m_bufferAt >= bufferAt && m_bufferAt <= m_size &&
               m_bufferSize <= m_size - m_bufferAt;
    }
    const std::uint8_t* buffer() const {
        return m_bytes + m_bufferAt;
    }
    std::size_t bufferSize() const {
        return m_bufferSize;
    }

private:
    std::size_t number(std::size_t at, std::size_t size) const {
        switch (size) {
        case 1:
            return bodyField<std::uint8_t>(at);
        case 2:
            return bodyField<std::uint16_t>(at);
        case 4:
            return bodyField<std::uint32_t>(at);
        default:
            return 0;
        }
    }

    const std::uint8_t* m_bytes;
    std::size_t m_size;
    bool m_isChainBroken;
    std::size_t m_bufferAt = 0;
    std::size_t m_bufferSize = 0;
};

namespace {

bool isDialect(std::uint16_t number) {
    constexpr std::uint16_t dialects[] = {0x0202, 0x0210, 0x0300, 0x0302, 0x0311};
    return std::find(std::begin(dialects), std::end(dialects), number) != std::end(dialects);
}

/// Whether libsmb2 can read the challenge of an NTLM server.
bool isChallenge(const std::uint8_t* token, std::size_t size) {
    constexpr std::size_t shortest = 48;
    return size >= shortest && std::memcmp(token, "NTLMSSP", 8) == 0;
}

/// Whether libsmb2 can read a record: FileFsFullSizeInformation, or the longer FileAllInformation,
/// which ends with a name.
bool isInfo(const std::uint8_t* record, std::size_t size) {
    constexpr std::size_t fullSizeInfo = 32;
    constexpr std::size_t longestFullSizeInfo = 40;
    constexpr std::size_t nameAt = 100;
    if (size < nameAt)
        return size >= fullSizeInfo && size < longestFullSizeInfo;
    return field<std::uint32_t>(record, nameAt - 4) <= size - nameAt;
}

/// Whether libsmb2 can read the target of a link.
bool isReparsePoint(const std::uint8_t* buffer, std::size_t size) {
    constexpr std::size_t head = 8;
    constexpr std::size_t symlinkHead = 12;
    constexpr std::uint32_t symlink = 0xa000000c;
    if (size < head)
        return false;
    const std::size_t dataSize = field<std::uint16_t>(buffer, 4);
    if (dataSize > size - head)
        return false;
    if (field<std::uint32_t>(buffer, 0) != symlink)
        return true;
    if (dataSize < symlinkHead)
        return false;
    const auto isInside = [&](std::size_t at) {
        return std::size_t{field<std::uint16_t>(buffer, at)} +
                   field<std::uint16_t>(buffer, at + 2) <=
               dataSize - symlinkHead;
    };
    return isInside(8) && isInside(12);
}

} // namespace

std::size_t Smb2Frames::neededOf(const std::uint8_t* frame, std::size_t available) {
    if (available < prefixSize)
        return prefixSize;
    const std::size_t size = frameSizeOf(frame);
    constexpr std::size_t longestFrame = prefixSize + 0xffffff;
    if (size < prefixSize + shortestMessage || size > longestFrame)
        return 0;
    if (size <= headSize)
        return size;
    if (available < headSize)
        return headSize;
    const Message message(frame + prefixSize, size - prefixSize);
    const bool isTransfer = message.command() == Read || message.command() == QueryDirectory;
    if (isTransfer && message.next() == 0 && !message.isError())
        return headSize;
    // Other protocols, such as encrypted messages, are refused by their first bytes.
    if (!message.isAnswer())
        return headSize;
    return size <= longestWhole ? size : 0;
}

int Smb2Frames::check(const std::uint8_t* frame) {
    const std::uint8_t* at = frame + prefixSize;
    const std::uint8_t* const end = frame + frameSizeOf(frame);
    for (;;) {
        Message message(at, static_cast<std::size_t>(end - at));
        if (m_isConnecting && message.begins("\xfdSMB"))
            return EPERM;
        if (!message.isAnswer() || !message.readBody())
            return ECONNRESET;
        // libsmb2 skips an interim answer with all of its frame.
        if (message.isInterim())
            return 0;
        const int refused = checkMessage(message);
        if (refused != 0 || message.next() == 0)
            return refused;
        at += message.next();
    }
}

int Smb2Frames::checkMessage(const Message& message) {
    if (!isExpected(message))
        return ECONNRESET;
    if (message.status() == EndOfFile && message.command() != Read && message.command() != Write) {
        if (m_isConnecting)
            return ECONNRESET;
        m_hasEndOfFile = true;
    }
    if (message.isError())
        return 0;
    const std::uint8_t* const buffer = message.buffer();
    const std::size_t size = message.bufferSize();
    const bool isSuccess = message.status() == Success;
    bool isReadable = true;
    switch (message.command()) {
    case Negotiate:
        for (const std::size_t at : {28, 32, 36}) { // of transactions, reads and writes
            if (message.bodyField<std::uint32_t>(at) < smallestSize)
                return EPROTO;
        }
        isReadable = isDialect(message.bodyField<std::uint16_t>(4));
        break;
    case SessionSetup:
        isReadable = message.status() != MoreProcessingRequired || isChallenge(buffer, size);
        break;
    case Ioctl: {
        constexpr std::uint32_t getReparsePoint = 0x900a8;
        // With a failure, libsmb2 would never free the record.
        isReadable = isSuccess ? message.bodyField<std::uint32_t>(4) == getReparsePoint &&
                                     isReparsePoint(buffer, size)
                               : size == 0;
        break;
    }
    case QueryDirectory:
        isReadable = size <= longestListing;
        break;
    case QueryInfo:
        isReadable = size == 0 || (isSuccess && isInfo(buffer, size));
        break;
    default:
        break;
    }
    return isReadable ? 0 : ECONNRESET;
}

bool Smb2Frames::isExpected(const Message& message) {
    const std::uint16_t command = message.command();
    const bool isOfConnecting =
        command == Negotiate || command == SessionSetup || command == TreeConnect;
    const bool isSent = command < Commands && layouts[command].structureSize != 0;
    if (!isSent || isOfConnecting != m_isConnecting)
        return false;
    if (m_isOrdered && message.number() != m_next)
        return false;
    // A READ or WRITE may take several numbers, by its size.
    m_isNextKnown = command != Read && command != Write;
    m_next = message.number() + 1;
    return true;
}

int Smb2Frames::look(int socket) {
    if (m_isInside)
        return 0;
    std::array<std::uint8_t, 512> head;
    std::vector<std::uint8_t> whole;
    std::uint8_t* frame = head.data();
    std::size_t room = head.size();
    std::size_t available = 0;
    for (bool hasEnded = false;;) {
        const ssize_t count = recv(socket, frame, room, MSG_PEEK | MSG_DONTWAIT);
        if (count < 0 && (errno == EAGAIN || errno == EINTR))
            return EAGAIN;
        if (count <= 0)
            return lossOf(count < 0 ? errno : 0);
        available = static_cast<std::size_t>(count);
        const std::size_t needed = neededOf(frame, available);
        m_hasRefused = needed == 0;
        if (m_hasRefused)
            return ECONNRESET;
        if (available >= needed)
            break;
        if (available == room) {
            whole.resize(needed);
            frame = whole.data();
            room = needed;
            continue;
        }
        if (hasEnded)
            return lossOf(0);
        struct pollfd ending = {socket, POLLRDHUP, 0};
        hasEnded = poll(&ending, 1, 0) > 0;
        if (!hasEnded) {
            setLowWater(socket, static_cast<int>(needed));
            return EAGAIN;
        }
    }
    setLowWater(socket, 1);
    const int refused = check(frame);
    m_hasRefused = refused != 0;
    if (m_hasRefused)
        return refused;
    m_isInside = frameSizeOf(frame) > available;
    return 0;
}

/// Lets poll(2) wait for `size` bytes.
void Smb2Frames::setLowWater(int socket, int size) {
    if (size != m_lowWater)
        setsockopt(socket, SOL_SOCKET, SO_RCVLOWAT, &size, sizeof size);
    m_lowWater = size;
}

void Smb2Frames::setAnswered() {
    m_isInside = false;
}

void Smb2Frames::setConnected() {
    m_isConnecting = false;
}

void Smb2Frames::setOrdered(bool isOrdered) {
    m_isOrdered = isOrdered;
}

bool Smb2Frames::isOrderKnown() const {
    return m_isNextKnown;
}

bool Smb2Frames::hasRefused() const {
    return m_hasRefused;
}

bool Smb2Frames::takeEndOfFile() {
    return std::exchange(m_hasEndOfFile, false);
}

} // namespace oru::io
