// SPDX-License-Identifier: Apache-2.0
#include "support/system/tempdir.h"

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace oru::io::test {

TempDir::TempDir() {
    std::error_code ignored;
    std::string name = std::filesystem::temp_directory_path(ignored) / "oruio-test-XXXXXX";
    if (!mkdtemp(name.data()))
        std::abort();
    m_path = QString::fromStdString(name);
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path.toStdString(), ignored);
}

const QString& TempDir::path() const {
    return m_path;
}

QString TempDir::operator/(const char* name) const {
    return m_path + QLatin1Char('/') + QString::fromUtf8(name);
}

} // namespace oru::io::test
