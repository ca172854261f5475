// SPDX-License-Identifier: Apache-2.0
// The reader of the kernel's mount table. An input is a table.

#include "core/mounttable_p.h"
#include "fuzz/support.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

namespace {

using oru::io::MountTable;
using oru::io::test::require;

/// A mount table in memory.
class Table {
public:
    Table(const std::uint8_t* data, std::size_t size) : m_fd(memfd_create("table", MFD_CLOEXEC)) {
        require(write(m_fd, data, size) == static_cast<ssize_t>(size), "a table is written");
    }
    ~Table() {
        close(m_fd);
    }
    std::string path() const {
        return "/proc/self/fd/" + std::to_string(m_fd);
    }

private:
    Q_DISABLE_COPY(Table)
    const int m_fd;
};

bool isWord(const char* string) {
    return *string != '\0' && std::strpbrk(string, " \n") == nullptr;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const Table file(data, size);
    MountTable table(file.path().c_str());
    require(table.isRead(), "a table is read");
    std::size_t lines = 1;
    for (std::size_t i = 0; i < size; ++i)
        lines += data[i] == '\n';
    std::size_t mounts = 0;
    while (const MountTable::Mount* mount = table.next()) {
        require(isWord(mount->device) && isWord(mount->mountPoint),
                "the fields of a mount are words");
        ++mounts;
    }
    require(mounts <= lines, "a line has at most one mount");
    require(table.next() == nullptr, "no mount follows the last one");
    return 0;
}
