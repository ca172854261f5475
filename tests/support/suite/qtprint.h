// SPDX-License-Identifier: Apache-2.0
// Makes failed expectations print Qt strings as characters, not as bytes.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <ostream>

QT_BEGIN_NAMESPACE

inline void PrintTo(const QString& string, std::ostream* out) {
    *out << '"' << string.toStdString() << '"';
}

inline void PrintTo(const QByteArray& bytes, std::ostream* out) {
    *out << '"' << bytes.toStdString() << '"';
}

inline void PrintTo(const QStringList& strings, std::ostream* out) {
    for (const QString& string : strings)
        *out << "\n    \"" << string.toStdString() << '"';
}

QT_END_NAMESPACE
