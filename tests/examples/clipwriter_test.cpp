// SPDX-License-Identifier: Apache-2.0
// The recorder's ClipWriter on storage that fails.

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

// The numbers of calls that begin a clip. They create the part, look for the clip, and open, sync
// and close the directory.
constexpr int openDirectory = 3;
constexpr int syncDirectory = 4;

class ClipWriterTest : public testing::Test {
protected:
    ClipWriterTest() : m_destination(optionsFor(m_directory.path())) {
        // Replaces the file system of the destination, which removes this one at its end.
        FSSwitch::rootfs()->remove(m_destination.directory());
        FSSwitch::rootfs()->add(m_destination.directory(), m_fs);
    }

    /// Begins a clip while the given call fails. \returns the message of the failure; empty on
    /// success.
    QString failureOf(int call, int error) {
        m_fs->plan().failCall(call, error);
        try {
            ClipWriter::create(m_destination, "clip");
        } catch (const Failure& failure) {
            return failure.message;
        }
        return {};
    }

    /// Finishes a clip while the given call fails. \returns the same as failureOf().
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

TEST_F(ClipWriterTest, DirectorySyncFails_ClipFails) {
    for (const int call : {openDirectory, syncDirectory}) {
        const QString message = failureOf(call, EIO);
        EXPECT_TRUE(message.startsWith("cannot sync the directory /")) << qPrintable(message);
        EXPECT_TRUE(message.endsWith(": Input/output error")) << qPrintable(message);
    }
}

TEST_F(ClipWriterTest, DirectorySyncUnsupported_ClipSucceeds) {
    for (const int error : {EINVAL, EOPNOTSUPP}) {
        EXPECT_EQ(failureOf(openDirectory, error), QString());
        EXPECT_EQ(failureOf(syncDirectory, error), QString());
    }
    for (const int error : {EISDIR, EPERM, EACCES}) {
        EXPECT_EQ(failureOf(openDirectory, error), QString());
        EXPECT_NE(failureOf(syncDirectory, error), QString());
    }
}

// The file is synced before its directory: a name must not be durable before its content.
TEST_F(ClipWriterTest, CallOfFinishFails_ClipHasItsNameOrIsRemoved) {
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
    // EACCES: the mode of the clip permits nobody to write.
    EXPECT_EQ(failureToFinish(naming + 1, EACCES), QString());
    EXPECT_EQ(namesLeft(), QStringList("clip"));
}

} // namespace
} // namespace oru::io::test
