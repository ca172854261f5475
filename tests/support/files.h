// Whole files at once, for what a test looks at from outside.
#pragma once

#include <QByteArray>
#include <QString>

namespace oru::io::test {

/// What is in a file of the system; nothing when it cannot be read.
QByteArray contents(const QString& path);
/// Makes a file of the system, or makes it anew. \returns whether that worked.
bool makeFile(const QString& path, const QByteArray& text = {});

} // namespace oru::io::test
