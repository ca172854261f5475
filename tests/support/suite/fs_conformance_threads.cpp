// SPDX-License-Identifier: Apache-2.0
// The conformance suite: several open files and threads.
#include "support/suite/fs_conformance.h"

#include <atomic>
#include <thread>
#include <vector>

#include <fcntl.h>

namespace oru::io::test {

// Referenced by fs_conformance.cpp, for the linker.
extern const char conformanceOfThreads = 0;

TEST_P(FSConformance, TwoOpenFiles_ReaderSeesWrittenBytes) {
    const auto writer = fs().open(at("f"), O_WRONLY | O_CREAT, 0644);
    const auto reader = fs().open(at("f"), O_RDONLY, 0);
    ASSERT_TRUE(writer);
    ASSERT_TRUE(reader);
    EXPECT_EQ(writer->write("abc", 3), 3);
    EXPECT_EQ(readFully(*reader, 3), "abc");
}

TEST_P(FSConformance, FourThreadsWithOwnFiles_AllSucceed) {
    if (!can().threadSafe)
        GTEST_SKIP() << "the backend leaves locking to its callers";
    constexpr int rounds = 25;
    std::vector<std::thread> threads;
    std::atomic<int> good{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            const QByteArray content = pattern(3000, t);
            for (int i = 0; i < rounds; ++i) {
                const QString path = at(QStringLiteral("t%1-%2").arg(t).arg(i));
                const auto file = fs().open(path, O_RDWR | O_CREAT, 0644);
                const bool written = file && file->write(content.constData(), 3000) == 3000 &&
                                     file->lseek(0, SEEK_SET) == 0 &&
                                     readFully(*file, 3000) == content && file->close() == 0;
                good += written && fs().unlink(path) == 0;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(good, 4 * rounds);
    EXPECT_EQ(list(at("")), QStringList({".", ".."}));
}

} // namespace oru::io::test
