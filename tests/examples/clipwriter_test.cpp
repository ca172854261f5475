// The recorder's ClipWriter on a storage that fails.

#include "common/failure.h"
#include "recorder/clipwriter.h"

#include "support/doubles/faultfs.h"
#include "support/system/tempdir.h"

#include <oruio/fsswitch.h>
#include <oruio/posixfs.h>

#include <QDir>
#include <QFile>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <cerrno>

namespace oru::io::test {
namespace {

/// Of the calls that begin a clip: its part is created, the clip is looked for, and its directory
/// is opened, synced and closed.
constexpr int openDirectory = 3;
constexpr int syncDirectory = 4;

class ClipWriterTest : public testing::Test {
protected:
    ClipWriterTest() : m_destination(optionsFor(m_directory.path())) {
        // In place of the destination's own; who removes that removes this one.
        FSSwitch::rootfs()->remove(m_destination.directory());
        FSSwitch::rootfs()->add(m_destination.directory(), m_fs);
    }

    /// Begins a clip while the given call fails. \returns why that failed, empty when it did not.
    QString failureOf(int call, int error) {
        m_fs->plan().failCall(call, error);
        try {
            ClipWriter::create(m_destination, "clip");
        } catch (const Failure& failure) {
            return failure.message;
        }
        return {};
    }

    /// Finishes a clip while the given call fails. \returns as failureOf().
    QString failureToFinish(int call, int error = EIO) {
        const auto clip = ClipWriter::create(m_destination, "clip");
        clip->write("frame", 5);
        m_fs->plan().failCall(call, error);
        try {
            clip->finish();
        } catch (const Failure& failure) {
            return failure.message;
        }
        return {};
    }

    QStringList namesLeft() {
        QStringList names = QDir(m_directory.path()).entryList(QDir::Files, QDir::Name);
        for (const QString& name : names)
            QFile::remove(m_directory.path() + QLatin1Char('/') + name);
        return names;
    }

private:
    static Options optionsFor(const QString& directory) {
        Options options;
        options.destination = directory;
        return options;
    }

    const TempDir m_directory;
    const QSharedPointer<FaultFS> m_fs =
        QSharedPointer<FaultFS>::create(PosixFS::SPtr::create(m_directory.path()));
    const Destination m_destination;
};

TEST_F(ClipWriterTest, DirectoryCannotBeSynced_IsAFailure) {
    for (const int call : {openDirectory, syncDirectory}) {
        const QString message = failureOf(call, EIO);
        EXPECT_TRUE(message.startsWith("cannot sync the directory /")) << qPrintable(message);
        EXPECT_TRUE(message.endsWith(": Input/output error")) << qPrintable(message);
    }
}

TEST_F(ClipWriterTest, StorageSyncsNoDirectories_IsNoFailure) {
    for (const int error : {EINVAL, EOPNOTSUPP}) {
        EXPECT_EQ(failureOf(openDirectory, error), QString());
        EXPECT_EQ(failureOf(syncDirectory, error), QString());
    }
    for (const int error : {EISDIR, EPERM, EACCES}) {
        EXPECT_EQ(failureOf(openDirectory, error), QString());
        EXPECT_NE(failureOf(syncDirectory, error), QString());
    }
}

/// The file before its directory: a name must not be durable before what it names.
TEST_F(ClipWriterTest, AnyCallOfFinishFails_TheClipHasItsNameOrLeavesNothing) {
    const char* const actions[] = {"sync .*/clip\\.part",
                                   "close .*/clip\\.part",
                                   "look for .*/clip",
                                   "rename to .*/clip",
                                   "sync .*/clip",
                                   "sync .*/clip",
                                   nullptr,
                                   "sync the directory .*",
                                   "sync the directory .*",
                                   nullptr};
    constexpr int naming = 4; // the fourth call
    int call = 0;
    for (const char* action : actions) {
        SCOPED_TRACE(++call);
        const QString pattern =
            action ? QString("cannot %1: Input/output error").arg(action) : QString();
        const QString message = failureToFinish(call);
        EXPECT_TRUE(QRegularExpression('^' + pattern + '$').match(message).hasMatch())
            << qPrintable(message);
        EXPECT_EQ(namesLeft(), call <= naming ? QStringList() : QStringList("clip"));
    }
    // As of a clip that its mode lets nobody write.
    EXPECT_EQ(failureToFinish(naming + 1, EACCES), QString());
    EXPECT_EQ(namesLeft(), QStringList("clip"));
}

} // namespace
} // namespace oru::io::test
