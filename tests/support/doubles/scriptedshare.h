// SPDX-License-Identifier: Apache-2.0
// A network share that records its calls and returns scripted results; it needs no server.
#pragma once

#include "support/doubles/memfs.h"

#include <oruio/fsnfs.h>
#include <oruio/fssmb.h>

#include <QStringList>

namespace oru::io::test {

/// Records each call and returns `result`. Its files are in memory.
template <class Base>
class ScriptedShare : public Base {
public:
    using Base::Base;

    int connect(Properties props) override {
        calls += "connect " + props["server"].toString();
        isUp = result == 0;
        return result;
    }
    int disconnect() override {
        calls += "disconnect";
        if (disconnectResult == 0)
            isUp = false;
        return disconnectResult;
    }
    bool isConnected() override {
        calls += "isConnected";
        return isUp;
    }
    int unlink(QString path) override {
        calls += "unlink " + path;
        return files.unlink(path);
    }
    QSharedPointer<File> open(QString path, int flags, int mode) override {
        calls += QStringLiteral("open %1 %2 %3").arg(path).arg(flags).arg(mode, 0, 8);
        return isReadOnly ? QSharedPointer<File>() : files.open(path, flags, mode);
    }

    MemFS files;
    QStringList calls;
    int result = 0;
    int disconnectResult = 0;
    bool isUp = false;
    bool isReadOnly = false;
};

using ScriptedSmb = ScriptedShare<Smb2FS>;
using ScriptedNfs = ScriptedShare<NFS>;

} // namespace oru::io::test
