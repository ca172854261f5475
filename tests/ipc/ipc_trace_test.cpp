// SPDX-License-Identifier: Apache-2.0
// The record of a session: the checker accepts it, and refuses it when a step is missing.

#include "support/ipc/ipcservice.h"
#include "support/ipc/tracetest.h"
#include "support/system/childprocess.h"
#include "support/system/tempdir.h"

#include <oruio/fsipc.h>

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>

namespace oru::io {

using test::checkTrace;
using test::ChildProcess;
using test::ServerProcess;
using test::TempDir;
using test::Trace;
using test::TraceOfTest;
using test::Verdict;

namespace {

/// Two sessions. \returns 0, or the number of the step that failed.
int useService(IPCFS& fs) {
    std::vector<char> frame(70'000, 'f');
    for (int session = 0; session < 2; ++session) {
        if (fs.connect(1, nullptr) != 0)
            return 1;
        const auto file = fs.open("/clip", O_RDWR | O_CREAT | O_TRUNC, 0644);
        if (!file || file->write(frame.data(), frame.size()) != static_cast<int>(frame.size()))
            return 2;
        std::vector<char> back(frame.size());
        if (file->pread(back.data(), back.size(), 0) != static_cast<int>(back.size()))
            return 3;
        struct stat st;
        if (fs.stat("/clip", st) != 0 || fs.stat("/missing", st) != -1 || file->close() != 0)
            return 4;
        fs.disconnect();
    }
    return 0;
}

class IpcTrace : public ::testing::Test {
protected:
    /// Records the sessions of one client, or of two, one after the other.
    Trace record(int clients) {
        ServerProcess server{dir.path()};
        EXPECT_TRUE(server.awaitReady());
        for (int i = 0; i < clients; ++i) {
            ChildProcess client([] {
                IPCFS fs;
                return useService(fs);
            });
            EXPECT_EQ(client.wait(), 0);
        }
        EXPECT_EQ(server.terminate(), 0);
        return trace.read();
    }

    TempDir dir;
    TraceOfTest trace{1U << 16};
};

} // namespace

TEST_F(IpcTrace, TwoClientsOneAfterTheOther_Accepted) {
    EXPECT_GT(record(2).events.size(), 300U);
    trace.expectAccepted();
}

TEST_F(IpcTrace, OneEventDropped_Refused) {
    const Trace whole = record(2);
    ASSERT_TRUE(checkTrace(whole).isAccepted());
    for (std::size_t dropped = 0; dropped < whole.events.size(); ++dropped) {
        Trace shorter = whole;
        shorter.events.erase(shorter.events.begin() + static_cast<std::ptrdiff_t>(dropped));
        EXPECT_FALSE(checkTrace(shorter).isAccepted()) << describe(whole.events[dropped]);
    }
}

TEST_F(IpcTrace, OneEventRepeated_Refused) {
    const Trace whole = record(1);
    for (std::size_t i = 0; i < whole.events.size(); ++i) {
        Trace longer = whole;
        longer.events.insert(longer.events.begin() + static_cast<std::ptrdiff_t>(i),
                             whole.events[i]);
        EXPECT_FALSE(checkTrace(longer).isAccepted()) << describe(whole.events[i]);
    }
}

TEST_F(IpcTrace, EmptyOrMissingFile_Refused) {
    EXPECT_EQ(checkTrace(Trace{}).rule, "Record");
    EXPECT_EQ(test::checkTraceFile(qPrintable(dir / "missing")).rule, "Record");
}

} // namespace oru::io
