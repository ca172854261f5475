// A private directory of a test, removed with all it holds when the test ends.
#pragma once

#include <QString>

namespace oru::io::test {

class TempDir {
public:
    TempDir();
    ~TempDir();

    /// The directory, without a slash at the end.
    const QString& path() const;
    /// The system path of `name` within the directory.
    QString operator/(const char* name) const;

private:
    Q_DISABLE_COPY(TempDir)
    QString m_path;
};

} // namespace oru::io::test
