// SPDX-License-Identifier: Apache-2.0
// Recordings on the file systems of the device's card, and their state after a power cut.
#pragma once

#include <QByteArray>
#include <QString>
#include <QVector>

#include <vector>

namespace oru::io::test {

/// One file system of the card. Recorders record one clip after the other on it.
struct Recording {
    int partition;
    const char* type;
    QString directory; ///< mount point
    QString log;       ///< file with the standard output of the recorders
};

/// The recordings of the card, without directory and log.
std::vector<Recording> recordingsOfTheCard();

/// The part of a clip that is synced, from its beginning.
struct Synced {
    qint64 bytes = 0;
    QByteArray checksum;
};

/// What the recorders have reported up to some moment.
struct Reported {
    QVector<Synced> finished; ///< clips
    Synced next;              ///< of the clip after the finished ones
};

/// Reads the log.
Reported reportedSoFar(const Recording& recording);

/// The file of a clip, counted from 0. While the clip is recorded, its name ends in ".part".
QString fileOf(const Recording& recording, int clip);

/// Mounts the file system through the library.
void mountRecording(const Recording& recording);

/// Checks and mounts the file system through the library, and expects all data in `reported`.
/// \returns the contents of the clip after the finished ones.
QByteArray expectRecovered(const Recording& recording, const Reported& reported);

} // namespace oru::io::test
