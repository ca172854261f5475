// SPDX-License-Identifier: Apache-2.0
#include "localdirectory.h"

#include "failure.h"

#include <oruio/posixfs.h>

QSharedPointer<oru::io::FS> openLocalDirectory(const QString& path) {
    QString root = path;
    while (root.endsWith('/'))
        root.chop(1);
    auto fs = oru::io::PosixFS::SPtr::create(root);
    struct stat st;
    if (fs->stat(QStringLiteral("/"), st) != 0)
        throw cannot("use " + path);
    return fs;
}
