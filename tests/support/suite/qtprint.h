// Makes a failed expectation show the texts of Qt, not their bytes.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <ostream>

QT_BEGIN_NAMESPACE

inline void PrintTo(const QString& text, std::ostream* out) {
    *out << '"' << text.toStdString() << '"';
}

inline void PrintTo(const QByteArray& bytes, std::ostream* out) {
    *out << '"' << bytes.toStdString() << '"';
}

inline void PrintTo(const QStringList& texts, std::ostream* out) {
    for (const QString& text : texts)
        *out << "\n    \"" << text.toStdString() << '"';
}

QT_END_NAMESPACE
