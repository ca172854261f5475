// SPDX-License-Identifier: Apache-2.0
// The answers of a real server to the operations of a ShareClient.
#pragma once

#include "fuzz/smb/message.h"

#include <QByteArray>
#include <QMap>
#include <QVector>

namespace oru::io::test {

struct RecordedAnswer {
    QByteArray operation; ///< of a ShareClient, which caused it
    Request request;      ///< what it answers
    QByteArray message;   ///< one SMB2 message, never interim
};

/// The answers in one dialect, in the order of their arrival.
using Recording = QVector<RecordedAnswer>;
/// The recordings of all dialects, by the names that Smb2FS::connect() takes.
using Recordings = QMap<QByteArray, Recording>;

/// The recordings in the source tree. Ends the process when they cannot be read.
const Recordings& recordings();

/// Starts a server, carries out all operations of a ShareClient on it in each dialect, and stores
/// the answers in the source tree. \returns whether it succeeded; prints the reason if not.
bool record();

} // namespace oru::io::test
