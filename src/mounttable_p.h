// Reading the kernel's table of mounts, proc(5).
#pragma once

#include <QtGlobal>

#include <cstddef>
#include <cstdio>
#include <memory>

namespace oru::io {

/// Goes through a table line by line. Lines may have any length and content.
class MountTable {
public:
    /// The first two words of a line, as they stand there: a blank in a name is "\040".
    struct Mount {
        const char* device;
        const char* mountPoint;
    };

    /// With errno when the table cannot be opened.
    explicit MountTable(const char* path = "/proc/mounts");
    ~MountTable();

    bool isOpen() const;
    /// The next line that has two words; its texts are valid until the next call. Null at the end.
    const Mount* next();

private:
    Q_DISABLE_COPY(MountTable)

    struct Closer {
        void operator()(FILE* file) const;
    };

    std::unique_ptr<FILE, Closer> m_file;
    char* m_line = nullptr; // of malloc(3), as getline(3) wants it
    std::size_t m_size = 0;
    Mount m_mount = {};
};

} // namespace oru::io
