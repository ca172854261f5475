// SPDX-License-Identifier: Apache-2.0
#include "recordings.h"

#include <oruio/bdmon.h>
#include <oruio/error.h>
#include <oruio/sysutils.h>

#include "device/hardware.h"
#include "support/system/files.h"

#include <QFile>

#include <gtest/gtest.h>

#include <xxhash.h>

namespace oru::io::test {

namespace {

LinuxBD deviceOf(const Recording& recording) {
    Properties props = {{"DEVNAME", Hardware::card(recording.partition)},
                        {"DEVTYPE", "partition"},
                        {"ID_FS_TYPE", recording.type}};
    return LinuxBD(props);
}

QByteArray checksumOf(const QByteArray& bytes) {
    const XXH64_hash_t sum = XXH3_64bits(bytes.constData(), static_cast<size_t>(bytes.size()));
    return QByteArray::number(static_cast<qulonglong>(sum), 16).rightJustified(16, '0');
}

void expectBeginning(const QByteArray& bytes, const Synced& synced) {
    EXPECT_GE(bytes.size(), synced.bytes);
    const QByteArray beginning = bytes.left(static_cast<int>(synced.bytes));
    EXPECT_EQ(checksumOf(beginning).toStdString(), synced.checksum.toStdString());
}

} // namespace

std::vector<Recording> recordingsOfTheCard() {
    return {{1, "vfat", {}, {}}, {2, "exfat", {}, {}}, {3, "ext4", {}, {}}};
}

/// The recorders print "synced BYTES CHECKSUM" after each sync, and "verified yes" after each clip.
Reported reportedSoFar(const Recording& recording) {
    Reported reported;
    for (const QByteArray& line : contents(recording.log).split('\n')) {
        const QList<QByteArray> words = line.simplified().split(' ');
        if (words[0] == "synced" && words.size() == 3) {
            reported.next = {words[1].toLongLong(), words[2]};
        } else if (words[0] == "verified" && words[1] == "yes") {
            reported.finished.append(reported.next);
            reported.next = {};
        }
    }
    return reported;
}

QString fileOf(const Recording& recording, int clip) {
    const QString name = QString::asprintf("/clip-%04d.oru", clip + 1);
    const QString finished = recording.directory + name;
    return QFile::exists(finished) ? finished : finished + ".part";
}

void mountRecording(const Recording& recording) {
    ASSERT_EQ(deviceOf(recording).mount(recording.directory, nullptr), 0) << strerror();
}

QByteArray expectRecovered(const Recording& recording, const Reported& reported) {
    SCOPED_TRACE(recording.type);
    EXPECT_EQ(deviceOf(recording).fsck(nullptr), 0);
    mountRecording(recording);
    for (int clip = 0; clip < reported.finished.size(); ++clip) {
        SCOPED_TRACE(clip);
        const QString file = fileOf(recording, clip);
        EXPECT_FALSE(file.endsWith(".part"));
        EXPECT_EQ(contents(file).size(), reported.finished[clip].bytes);
        expectBeginning(contents(file), reported.finished[clip]);
    }
    QByteArray next = contents(fileOf(recording, reported.finished.size()));
    if (reported.next.bytes > 0)
        expectBeginning(next, reported.next);
    EXPECT_EQ(umountPath(qPrintable(recording.directory), nullptr), 0) << strerror();
    return next;
}

} // namespace oru::io::test
