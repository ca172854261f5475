// SPDX-License-Identifier: Apache-2.0
#include "locations/mountpoint_p.h"

#include "core/mounttable_p.h"

#include <QFile>

#include <cstdlib>
#include <memory>

#include <sys/mount.h>

namespace oru::io {

namespace {

struct Freer {
    void operator()(char* string) const {
        std::free(string);
    }
};

/// Replaces the table's escapes, such as "\040" for a blank.
QByteArray unescaped(const QByteArray& word) {
    QByteArray result;
    for (int i = 0; i < word.size(); ++i) {
        bool isEscape = false;
        const int code = word[i] == '\\' ? word.mid(i + 1, 3).toInt(&isEscape, 8) : 0;
        result += isEscape ? static_cast<char>(code) : word[i];
        i += isEscape ? 3 : 0;
    }
    return result;
}

bool hasOption(const QByteArray& options, const char* option) {
    return options.split(',').contains(option);
}

} // namespace

MountPoint::MountPoint(const QString& directory) {
    SystemText path;
    if (!tableMountPoint(directory, path))
        return;
    const std::unique_ptr<char, Freer> resolved(::realpath(path.constData(), nullptr));
    m_path = resolved ? resolved.get() : path.constData();
    if (m_path == "/")
        m_path.clear();
}

bool MountPoint::isUsable() const {
    return !m_path.isEmpty();
}

/// A line is "ID PARENT MAJOR:MINOR ROOT DIRECTORY OPTIONS TAG... - TYPE SOURCE OPTIONS".
QList<KernelMount> MountPoint::mounts() const {
    constexpr int directoryWord = 4;
    constexpr int wordsAfterDash = 4;
    QList<KernelMount> found;
    QFile table(QStringLiteral("/proc/self/mountinfo"));
    if (m_path.isEmpty() || !table.open(QFile::ReadOnly | QFile::Unbuffered))
        return found;
    for (const QByteArray& line : table.readAll().split('\n')) {
        const QList<QByteArray> words = line.split(' ');
        const int dash = words.indexOf("-", directoryWord + 2);
        if (dash == -1 || words.size() < dash + wordsAfterDash ||
            unescaped(words[directoryWord]) != m_path)
            continue;
        KernelMount mount;
        mount.id = words[0].toInt();
        mount.number = words[2];
        mount.source = unescaped(words[dash + 2]);
        mount.isReadOnly =
            hasOption(words[directoryWord + 1], "ro") || hasOption(words[dash + 3], "ro");
        found.append(mount);
    }
    return found;
}

int MountPoint::unmountLast(int flags) const {
    return ::umount2(m_path.constData(), flags);
}

} // namespace oru::io
