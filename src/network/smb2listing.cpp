// SPDX-License-Identifier: Apache-2.0
#include "network/smb2listing_p.h"

#include "network/libsmb2_p.h"

#include <QtEndian>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace oru::io {

namespace {

template <class Int>
Int field(const std::uint8_t* record, std::size_t at) {
    return qFromLittleEndian<Int>(record + at);
}

/// A record of the class FileIdFullDirectoryInformation.
struct Record {
    static constexpr std::size_t nameAt = 80;

    std::uint32_t next; // the distance to the next record; 0 in the last one
    std::uint32_t attributes;
    std::uint64_t inode;
    const std::uint8_t* name; // in UTF-16
    std::size_t nameSize;     // in bytes

    /// \returns whether there is a record with its name in the `size` bytes at `from`.
    bool read(const std::uint8_t* from, std::size_t size) {
        if (size < nameAt)
            return false;
        next = field<std::uint32_t>(from, 0);
        attributes = field<std::uint32_t>(from, 56);
        nameSize = field<std::uint32_t>(from, 60);
        inode = field<std::uint64_t>(from, 72);
        name = from + nameAt;
        const std::size_t limit = next != 0 ? next : size;
        return limit <= size && limit >= nameAt && nameSize <= limit - nameAt;
    }
};

/// The name of a record in UTF-8, cut to longestName bytes.
class Name {
public:
    /// \returns false for a name that no file can have.
    bool read(const Record& record) {
        m_size = 0;
        const std::size_t units = record.nameSize / 2;
        if (record.nameSize % 2 != 0 || units == 0)
            return false;
        for (std::size_t i = 0; i < units; ++i) {
            char32_t c = unitAt(record, i);
            if (c == 0 || c == '/')
                return false;
            if (isSurrogate(c)) {
                const char32_t second = i + 1 < units ? unitAt(record, i + 1) : 0;
                if (c < 0xdc00 && second >= 0xdc00 && second < 0xe000) {
                    c = 0x10000 + ((c & 0x3ff) << 10) + (second & 0x3ff);
                    ++i;
                } else {
                    c = 0xfffd;
                }
            }
            add(c);
        }
        return true;
    }
    const char* bytes() const {
        return m_bytes;
    }
    std::size_t size() const {
        return m_size;
    }

private:
    static char32_t unitAt(const Record& record, std::size_t i) {
        return field<std::uint16_t>(record.name, 2 * i);
    }
    static bool isSurrogate(char32_t c) {
        return c >= 0xd800 && c < 0xe000;
    }

    void add(char32_t c) {
        if (c < 0x80) {
            addByte(c);
            return;
        }
        if (c < 0x800) {
            addByte(0xc0 | c >> 6);
        } else {
            if (c < 0x10000) {
                addByte(0xe0 | c >> 12);
            } else {
                addByte(0xf0 | c >> 18);
                addByte(0x80 | (c >> 12 & 0x3f));
            }
            addByte(0x80 | (c >> 6 & 0x3f));
        }
        addByte(0x80 | (c & 0x3f));
    }
    void addByte(char32_t byte) {
        if (m_size < Smb2Listing::longestName)
            m_bytes[m_size++] = static_cast<char>(byte);
    }

    char m_bytes[Smb2Listing::longestName];
    std::size_t m_size = 0;
};

/// Calls `call(record, name)` for all records of a buffer. \returns whether all are well-formed.
template <class Call>
bool forEachRecord(const std::uint8_t* buffer, std::size_t size, Call call) {
    Record record = {};
    Name name;
    do {
        buffer += record.next;
        size -= record.next;
        if (!record.read(buffer, size) || !name.read(record))
            return false;
        call(record, name);
    } while (record.next != 0);
    return true;
}

// A stored entry: its inode, its type, its name with a NUL. Not aligned.
constexpr std::size_t typeAt = sizeof(std::uint64_t);
constexpr std::size_t nameAt = typeAt + 1;

} // namespace

std::uint8_t typeOfAttributes(std::uint32_t attributes) {
    constexpr std::uint32_t device = 0x40;
    constexpr std::uint8_t otherType = SMB2_TYPE_LINK + 1;
    if (attributes & SMB2_FILE_ATTRIBUTE_REPARSE_POINT)
        return SMB2_TYPE_LINK;
    if (attributes & SMB2_FILE_ATTRIBUTE_DIRECTORY)
        return SMB2_TYPE_DIRECTORY;
    return attributes & device ? otherType : SMB2_TYPE_FILE;
}

/// The entries of one buffer.
struct Smb2Listing::Block {
    Block* next;
    std::size_t size; // of the entries, which follow

    char* entries() {
        return reinterpret_cast<char*>(this + 1);
    }
};

Smb2Listing::~Smb2Listing() {
    while (m_first)
        std::free(std::exchange(m_first, m_first->next));
}

int Smb2Listing::append(const std::uint8_t* buffer, std::size_t size) {
    // The first pass checks the buffer and adds up what the second one stores.
    std::size_t needed = 0;
    const bool isWellFormed = forEachRecord(
        buffer, size, [&](const Record&, const Name& name) { needed += nameAt + name.size() + 1; });
    if (!isWellFormed)
        return -EBADMSG;
    auto* const block = static_cast<Block*>(std::malloc(sizeof(Block) + needed));
    if (!block)
        return -ENOMEM;
    *block = {nullptr, needed};
    char* to = block->entries();
    forEachRecord(buffer, size, [&to](const Record& record, const Name& name) {
        std::memcpy(to, &record.inode, sizeof record.inode);
        to[typeAt] = static_cast<char>(typeOfAttributes(record.attributes));
        std::memcpy(to + nameAt, name.bytes(), name.size());
        to[nameAt + name.size()] = '\0';
        to += nameAt + name.size() + 1;
    });
    (m_last ? m_last->next : m_first) = block;
    m_last = block;
    return 0;
}

bool Smb2Listing::next(Entry& entry) {
    if (!m_current)
        m_current = m_first;
    if (m_current && m_at == m_current->size && m_current->next) {
        m_current = m_current->next;
        m_at = 0;
    }
    if (!m_current || m_at == m_current->size)
        return false;
    const char* const from = m_current->entries() + m_at;
    std::memcpy(&entry.inode, from, sizeof entry.inode);
    entry.type = static_cast<std::uint8_t>(from[typeAt]);
    entry.name = from + nameAt;
    m_at += nameAt + std::strlen(entry.name) + 1;
    return true;
}

} // namespace oru::io
