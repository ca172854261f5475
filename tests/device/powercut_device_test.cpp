// What a power cut leaves of a recording on the device's card.
//
// The recorder records to all file systems of the card and syncs every second. At random moments
// the emulator copies the card as it is: no more is there after a power cut than had reached the
// card.
#include <oruio/bdmon.h>
#include <oruio/error.h>
#include <oruio/sysutils.h>

#include "device/hardware.h"
#include "support/childprocess.h"
#include "support/files.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QVector>

#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include <xxhash.h>

namespace oru::io::test {
namespace {

constexpr int powerCuts = 20;
constexpr char clip[] = "clip";

/// One file system of the card, and the recorder that records to it.
struct Recording {
    int partition;
    const char* type;
    QString directory;
    QString log;
    std::unique_ptr<QProcess> recorder;

    qint64 mostLost = 0; ///< of what was written, in bytes
};

/// What the recorder has done by the moment of a power cut.
struct Moment {
    qint64 written = 0;
    qint64 synced = 0;
    QByteArray checksum; ///< of what is synced
};

LinuxBD deviceOf(const Recording& recording) {
    Properties props = {{"DEVNAME", Hardware::card(recording.partition)},
                        {"DEVTYPE", "partition"},
                        {"ID_FS_TYPE", recording.type}};
    return LinuxBD(props);
}

/// The file that the clip is in while it is recorded.
QString partOf(const Recording& recording) {
    return recording.directory + '/' + clip + ".part";
}

/// The last "synced BYTES CHECKSUM" of the recorder's, then what it has written.
Moment now(const Recording& recording) {
    Moment moment;
    for (const QByteArray& line : contents(recording.log).split('\n')) {
        const QList<QByteArray> words = line.split(' ');
        if (words[0] == "synced" && words.size() == 3) {
            moment.synced = words[1].toLongLong();
            moment.checksum = words[2];
        }
    }
    moment.written = QFileInfo(partOf(recording)).size();
    return moment;
}

QByteArray checksumOf(const QByteArray& bytes) {
    const XXH64_hash_t sum = XXH3_64bits(bytes.constData(), static_cast<size_t>(bytes.size()));
    return QByteArray::number(static_cast<qulonglong>(sum), 16).rightJustified(16, '0');
}

class PowerCut : public HardwareTest {
protected:
    void SetUp() override {
        HardwareTest::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        for (Recording& recording : recordings) {
            recording.directory = directory(recording.type);
            recording.log = directory("log") + recording.type;
        }
    }

    void startRecording(Recording& recording) {
        ASSERT_EQ(deviceOf(recording).mount(recording.directory, nullptr), 0) << strerror();
        QFile::remove(partOf(recording));
        recording.recorder = std::make_unique<QProcess>();
        recording.recorder->setStandardOutputFile(recording.log);
        recording.recorder->start(ORUIO_RECORDER,
                                  {"--to", recording.directory, "--name", clip, "--rate", "1",
                                   "--seconds", "3600", "--report-syncs"});
        ASSERT_TRUE(recording.recorder->waitForStarted());
        ASSERT_TRUE(eventually([&] { return now(recording).synced > 0; }, 60));
    }
    static void stopRecording(Recording& recording) {
        recording.recorder->kill();
        recording.recorder->waitForFinished();
        EXPECT_TRUE(eventually(
            [&] { return umountPath(qPrintable(recording.directory), nullptr) == 0; }, 60));
    }

    /// What the card holds after a power cut at that moment.
    void expectRecovery(Recording& recording, const Moment& moment) {
        LinuxBD device = deviceOf(recording);
        const int status = device.fsck(nullptr);
        EXPECT_EQ(status, 0);
        ASSERT_EQ(device.mount(recording.directory, nullptr), 0) << strerror();
        const QByteArray bytes = contents(partOf(recording));
        EXPECT_GE(bytes.size(), moment.synced);
        EXPECT_EQ(checksumOf(bytes.left(static_cast<int>(moment.synced))), moment.checksum);
        recording.mostLost = std::max(recording.mostLost, moment.written - bytes.size());
        EXPECT_EQ(umountPath(qPrintable(recording.directory), nullptr), 0) << strerror();
    }

    std::vector<Recording> recordings = [] {
        std::vector<Recording> all(3);
        const char* const types[] = {"vfat", "exfat", "ext4"};
        for (int i = 0; i < 3; ++i) {
            all[static_cast<size_t>(i)].partition = i + 1;
            all[static_cast<size_t>(i)].type = types[i];
        }
        return all;
    }();
};

QString copyName(int number) {
    return QStringLiteral("cut-%1").arg(number);
}

} // namespace

TEST_F(PowerCut, WhatIsSynced_IsThere) {
    const auto seed = static_cast<unsigned>(std::time(nullptr));
    std::printf("seed %u\n", seed);
    std::mt19937 random(seed);
    std::uniform_int_distribution<int> pause(200, 2000);

    for (Recording& recording : recordings)
        ASSERT_NO_FATAL_FAILURE(startRecording(recording));
    QVector<QVector<Moment>> moments;
    for (int cut = 0; cut < powerCuts; ++cut) {
        std::this_thread::sleep_for(std::chrono::milliseconds(pause(random)));
        QVector<Moment> moment;
        for (const Recording& recording : recordings)
            moment.append(now(recording));
        ASSERT_TRUE(Hardware::copyCard(copyName(cut)));
        moments.append(moment);
    }
    for (Recording& recording : recordings)
        stopRecording(recording);

    for (int cut = 0; cut < powerCuts; ++cut) {
        SCOPED_TRACE(cut);
        ASSERT_TRUE(Hardware::ejectCard());
        ASSERT_TRUE(Hardware::insertCopy(copyName(cut)));
        for (size_t i = 0; i < recordings.size(); ++i) {
            SCOPED_TRACE(recordings[i].type);
            expectRecovery(recordings[i], moments[cut][static_cast<int>(i)]);
        }
        QFile::remove(Hardware::copyOfCard(copyName(cut)));
    }
    for (const Recording& recording : recordings)
        std::printf("%s: at most %lld bytes lost of %d recordings\n", recording.type,
                    recording.mostLost, powerCuts);
    ASSERT_TRUE(Hardware::ejectCard());
}

} // namespace oru::io::test
