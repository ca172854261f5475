// SPDX-License-Identifier: Apache-2.0
// Recordings on the device's card after simulated power cuts.
//
// On each file system of the card, recorders record one short clip after the other and sync every
// second. At random moments the emulator copies the card: the copy has only the data that had
// reached the card, as after a power cut.
#include <oruio/error.h>
#include <oruio/sysutils.h>

#include "device/hardware.h"
#include "device/recordings.h"
#include "support/system/childprocess.h"
#include "support/system/files.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <thread>

namespace oru::io::test {
namespace {

constexpr int powerCuts = 20;

/// Suffix to the name of a log: the file of that name stops its recorders.
constexpr char stopped[] = ".stopped";

/// One power cut, for one recording.
struct Moment {
    Reported reported;
    qint64 written = 0; ///< size of the clip after the finished ones, read after the copy
};

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

    static void startRecording(const Recording& recording, QProcess& recorders) {
        ASSERT_NO_FATAL_FAILURE(mountRecording(recording));
        QDir directory(recording.directory);
        for (const QString& old : directory.entryList({"clip-*"}))
            ASSERT_TRUE(directory.remove(old));
        recorders.setStandardOutputFile(recording.log);
        recorders.start("bash",
                        {"-c", "until [[ -e $0 ]]; do \"$@\" || exit; done",
                         recording.log + stopped, ORUIO_RECORDER, "--to", recording.directory,
                         "--rate", "1", "--seconds", "3", "--report-syncs"});
        ASSERT_TRUE(recorders.waitForStarted());
        ASSERT_TRUE(eventually([&] { return reportedSoFar(recording).next.bytes > 0; }, 60));
    }
    /// Stops after the current clip. \returns the contents of all clips.
    static QVector<QByteArray> stopRecording(const Recording& recording, QProcess& recorders) {
        EXPECT_TRUE(makeFile(recording.log + stopped, ""));
        EXPECT_TRUE(recorders.waitForFinished(60'000));
        QVector<QByteArray> clips;
        for (int clip = 0; clip < reportedSoFar(recording).finished.size(); ++clip)
            clips.append(contents(fileOf(recording, clip)));
        EXPECT_EQ(umountPath(qPrintable(recording.directory), nullptr), 0) << strerror();
        return clips;
    }

    std::vector<Recording> recordings = recordingsOfTheCard();
};

QString copyName(int number) {
    return QStringLiteral("cut-%1").arg(number);
}

} // namespace

TEST_F(PowerCut, FinishedAndSyncedData_Recovered) {
    const size_t count = recordings.size();
    std::vector<QProcess> recorders(count);
    for (size_t i = 0; i < count; ++i)
        ASSERT_NO_FATAL_FAILURE(startRecording(recordings[i], recorders[i]));

    std::mt19937 random{std::random_device{}()};
    std::uniform_int_distribution<int> pause(200, 2000);
    std::vector<std::vector<Moment>> cuts;
    for (int cut = 0; cut < powerCuts; ++cut) {
        std::this_thread::sleep_for(std::chrono::milliseconds(pause(random)));
        std::vector<Moment> moments;
        for (const Recording& recording : recordings)
            moments.push_back({reportedSoFar(recording)});
        ASSERT_TRUE(Hardware::copyCard(copyName(cut)));
        for (size_t i = 0; i < count; ++i) {
            const int finished = moments[i].reported.finished.size();
            moments[i].written = QFileInfo(fileOf(recordings[i], finished)).size();
        }
        cuts.push_back(moments);
    }
    std::vector<QVector<QByteArray>> clips;
    for (size_t i = 0; i < count; ++i)
        clips.push_back(stopRecording(recordings[i], recorders[i]));

    std::vector<qint64> mostLost(count, 0);
    for (int cut = 0; cut < powerCuts; ++cut) {
        SCOPED_TRACE(cut);
        ASSERT_TRUE(Hardware::ejectCard());
        ASSERT_TRUE(Hardware::insertCopy(copyName(cut)));
        for (size_t i = 0; i < count; ++i) {
            const Moment& moment = cuts[static_cast<size_t>(cut)][i];
            const QByteArray left = expectRecovered(recordings[i], moment.reported);
            const QByteArray whole = clips[i].value(moment.reported.finished.size());
            const auto right =
                std::mismatch(left.begin(), left.end(), whole.begin(), whole.end()).first;
            mostLost[i] = std::max<qint64>(mostLost[i], moment.written - (right - left.begin()));
        }
        QFile::remove(Hardware::copyOfCard(copyName(cut)));
    }
    for (size_t i = 0; i < count; ++i)
        std::printf("%s: at most %lld bytes lost in %d power cuts, of %d clips\n",
                    recordings[i].type, static_cast<long long>(mostLost[i]), powerCuts,
                    clips[i].size());
    ASSERT_TRUE(Hardware::ejectCard());
}

} // namespace oru::io::test
