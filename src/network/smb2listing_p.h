// SPDX-License-Identifier: Apache-2.0
// The entries of a directory of a share.
#pragma once

#include <QtGlobal>

#include <cstddef>
#include <cstdint>
#include <memory>

namespace oru::io {

/// The type of a file with these attributes: SMB2_TYPE_FILE, SMB2_TYPE_DIRECTORY or SMB2_TYPE_LINK;
/// for a device another one.
std::uint8_t typeOfAttributes(std::uint32_t attributes);

/// A listing, from the buffers with which a server answers QUERY_DIRECTORY. Checks every offset and
/// length in them. Uses ten bytes per entry besides its name.
class Smb2Listing {
public:
    struct Entry {
        std::uint64_t inode;
        std::uint8_t type; ///< as typeOfAttributes()
        const char* name;  ///< in UTF-8; valid as long as the listing
    };

    Smb2Listing() = default;
    ~Smb2Listing();

    /// The longest name that is kept, in bytes. Longer ones are cut.
    static constexpr std::size_t longestName = 255;

    /// Appends the entries of a buffer of the class FileIdFullDirectoryInformation. A surrogate
    /// without its other half becomes U+FFFD. \returns 0 or a negative errno, and then appends
    /// nothing:
    ///  - EBADMSG: the buffer is not a list of entries, or a name is empty or contains a NUL or a
    ///    slash
    ///  - ENOMEM
    int append(const std::uint8_t* buffer, std::size_t size);

    /// Gets the next entry, in the order in which the server sent them. \returns false at the end.
    bool next(Entry& entry);

private:
    Q_DISABLE_COPY(Smb2Listing)

    struct Block;

    Block* m_first = nullptr;
    Block* m_last = nullptr;
    Block* m_current = nullptr; // that of the next entry; null before the first one
    std::size_t m_at = 0;       // where the next entry begins in it
};

} // namespace oru::io
