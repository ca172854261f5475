// SPDX-License-Identifier: Apache-2.0
// The conformance suite: its fixture, and the references to its parts.
#include "support/suite/fs_conformance.h"

#include <cstring>

#include <fcntl.h>

namespace oru::io::test {

// The linker takes only referenced objects from a static library. These references add all parts of
// the suite to a program that uses it.
extern const char conformanceOfDirectories;
extern const char conformanceOfFiles;
extern const char conformanceOfPaths;
extern const char conformanceOfThreads;
extern const char* const conformanceParts[];
const char* const conformanceParts[] = {&conformanceOfDirectories, &conformanceOfFiles,
                                        &conformanceOfPaths, &conformanceOfThreads};

std::ostream& operator<<(std::ostream& out, const BackendMaker& maker) {
    return out << maker.name;
}

void FSConformance::SetUp() {
    m_backend = GetParam().make();
    if (!m_backend.skipReason.empty())
        GTEST_SKIP() << m_backend.skipReason;
    liberrno = Ok;
    errno = 0;
}

QString FSConformance::at(const QString& name) const {
    return m_backend.root + QLatin1Char('/') + name;
}

QString FSConformance::at(const char* name) const {
    return at(QString::fromUtf8(name));
}

Answer FSConformance::answer(Op op) const {
    const auto found = can().answers.find(op);
    return found == can().answers.end() ? Answer::works() : found->second;
}

bool FSConformance::provides(Op op) const {
    return answer(op).kind == Answer::Works;
}

bool FSConformance::works(Op op, long long result) const {
    const Error seen;
    const Answer expected = answer(op);
    if (expected.kind == Answer::Works) {
        EXPECT_NE(result, -1) << seen.strerror();
        return result != -1;
    }
    if (expected.kind == Answer::IsSomethingElse)
        return false;
    EXPECT_EQ(result, -1);
    if (expected.kind == Answer::NotImplementedHere) {
        EXPECT_EQ(seen.code, NotImplemented);
    } else {
        EXPECT_EQ(seen.code, Ok);
        EXPECT_EQ(seen.sysErrno, expected.error) << std::strerror(seen.sysErrno);
    }
    return false;
}

void FSConformance::put(const char* name, const QByteArray& content) {
    const auto file = fs().open(at(name), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_TRUE(file) << strerror();
    int written = 0;
    while (written < content.size()) {
        const int count = file->write(content.constData() + written, content.size() - written);
        ASSERT_GT(count, 0) << strerror();
        written += count;
    }
    ASSERT_EQ(file->close(), 0) << strerror();
}

QByteArray FSConformance::get(const char* name) {
    const auto file = fs().open(at(name), O_RDONLY, 0);
    EXPECT_TRUE(file) << strerror();
    if (!file)
        return {};
    QByteArray content;
    QByteArray chunk(65536, Qt::Uninitialized);
    for (;;) {
        const int count = file->read(chunk.data(), chunk.size());
        EXPECT_NE(count, -1) << strerror();
        if (count <= 0)
            return content;
        content.append(chunk.constData(), count);
    }
}

bool FSConformance::exists(const QString& name) {
    struct stat st;
    return fs().lstat(at(name), st) == 0;
}

QStringList FSConformance::list(const QString& path) {
    const auto dir = fs().opendir(path);
    EXPECT_TRUE(dir);
    QStringList names;
    while (struct dirent* entry = dir ? dir->readdir() : nullptr)
        names.append(QString::fromUtf8(entry->d_name));
    names.sort();
    return names;
}

QByteArray FSConformance::pattern(int size, int seed) {
    QByteArray bytes(size, Qt::Uninitialized);
    unsigned state = 2463534242U + static_cast<unsigned>(seed);
    for (int i = 0; i < size; ++i) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        bytes[i] = static_cast<char>(state);
    }
    return bytes;
}

QByteArray FSConformance::readFully(File& file, int size) {
    QByteArray bytes(size, '\0');
    int done = 0;
    while (done < size) {
        const int count = file.read(bytes.data() + done, size - done);
        if (count <= 0)
            break;
        done += count;
    }
    bytes.truncate(done);
    return bytes;
}

void FSConformance::expectRefusal(int error) {
    const Error seen;
    EXPECT_EQ(seen.code, Ok);
    EXPECT_EQ(seen.sysErrno, error) << std::strerror(seen.sysErrno);
}

// Programs that link the suite need not instantiate it.
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(FSConformance);

} // namespace oru::io::test
