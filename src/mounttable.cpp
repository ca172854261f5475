#include "mounttable_p.h"

#include <cstdlib>
#include <cstring>

namespace oru::io {

MountTable::MountTable(const char* path) : m_file(std::fopen(path, "re")) {}

MountTable::~MountTable() {
    std::free(m_line);
}

void MountTable::Closer::operator()(FILE* file) const {
    std::fclose(file);
}

bool MountTable::isOpen() const {
    return m_file != nullptr;
}

const MountTable::Mount* MountTable::next() {
    while (m_file && getline(&m_line, &m_size, m_file.get()) != -1) {
        char* rest = nullptr;
        m_mount.device = strtok_r(m_line, " \n", &rest);
        m_mount.mountPoint = strtok_r(nullptr, " \n", &rest);
        if (m_mount.mountPoint)
            return &m_mount;
    }
    return nullptr;
}

} // namespace oru::io
