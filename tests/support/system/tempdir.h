// SPDX-License-Identifier: Apache-2.0
// A temporary directory.
#pragma once

#include <QString>

namespace oru::io::test {

/// Creates a directory and removes it with its contents.
class TempDir {
public:
    TempDir();
    ~TempDir();

    /// The path of the directory, without a trailing slash.
    const QString& path() const;
    /// The path of `name` in the directory.
    QString operator/(const char* name) const;

private:
    Q_DISABLE_COPY(TempDir)
    QString m_path;
};

} // namespace oru::io::test
