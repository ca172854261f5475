// Recordings on the file systems of the device's card, and what is left of them after a power cut.
#pragma once

#include <QByteArray>
#include <QString>
#include <QVector>

#include <vector>

namespace oru::io::test {

/// One file system of the card, to which recorders record one clip after the other.
struct Recording {
    int partition;
    const char* type;
    QString directory; ///< where it is mounted
    QString log;       ///< what the recorders tell: the file is that of their standard output
};

/// Those of the card, without a directory and a log yet.
std::vector<Recording> recordingsOfTheCard();

/// The beginning of a clip.
struct Synced {
    qint64 bytes = 0;
    QByteArray checksum;
};

/// What the recorders have told by some moment.
struct Told {
    QVector<Synced> finished; ///< clips
    Synced next;              ///< of the clip after those
};

Told toldSoFar(const Recording& recording);

/// The file of a clip, counted from 0, or the one that it is in while it is recorded.
QString fileOf(const Recording& recording, int clip);

/// Mounts it as the library does.
void mountRecording(const Recording& recording);

/// Expects all that the recorders had told of, after the card has been checked and mounted through
/// the library. \returns what is there of the clip after the finished ones.
QByteArray expectRecovered(const Recording& recording, const Told& told);

} // namespace oru::io::test
