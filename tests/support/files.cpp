#include "files.h"

#include <QFile>

namespace oru::io::test {

QByteArray contents(const QString& path) {
    QFile file(path);
    return file.open(QFile::ReadOnly) ? file.readAll() : QByteArray();
}

bool makeFile(const QString& path, const QByteArray& text) {
    // Unbuffered, so that what the system says of the text is known.
    QFile file(path);
    return file.open(QFile::WriteOnly | QFile::Unbuffered) && file.write(text) == text.size();
}

} // namespace oru::io::test
