// SPDX-License-Identifier: Apache-2.0
// The decoder of listings: well-formed and malformed buffers of a server.

#include "network/smb2listing_p.h"

#include "network/libsmb2_p.h"

#include <gtest/gtest.h>

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>
#include <QtEndian>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <memory>

namespace oru::io {
namespace {

constexpr int nameAt = 80;

/// A record without a successor.
QByteArray record(const QString& name, quint32 attributes = 0, quint64 inode = 0) {
    QByteArray bytes(nameAt, '\0');
    qToLittleEndian(attributes, bytes.data() + 56);
    qToLittleEndian<quint32>(2 * name.size(), bytes.data() + 60);
    qToLittleEndian(inode, bytes.data() + 72);
    for (const QChar c : name)
        bytes.append(char(c.unicode() & 0xff)).append(char(c.unicode() >> 8));
    return bytes;
}

/// A buffer with these records, aligned as the protocol wants it.
QByteArray bufferOf(QList<QByteArray> records) {
    for (int i = 0; i + 1 < records.size(); ++i) {
        records[i].append(QByteArray(-records[i].size() & 7, '\0'));
        qToLittleEndian<quint32>(records[i].size(), records[i].data());
    }
    return records.join();
}

QByteArray edited(QByteArray bytes, int at, quint32 value) {
    qToLittleEndian(value, bytes.data() + at);
    return bytes;
}

/// Appends a copy of exactly the bytes, so that AddressSanitizer sees each access outside.
int append(Smb2Listing& listing, const QByteArray& bytes) {
    const auto size = static_cast<std::size_t>(bytes.size());
    const std::unique_ptr<std::uint8_t[]> copy(new std::uint8_t[size]);
    std::copy(bytes.begin(), bytes.end(), copy.get());
    return listing.append(copy.get(), size);
}

QStringList names(Smb2Listing& listing) {
    QStringList found;
    Smb2Listing::Entry entry = {};
    while (listing.next(entry))
        found += QString::fromUtf8(entry.name);
    return found;
}

/// The name as it is listed.
QString listed(const QString& name) {
    Smb2Listing listing;
    EXPECT_EQ(append(listing, bufferOf({record(name)})), 0);
    const QStringList found = names(listing);
    return found.size() == 1 ? found[0] : QString();
}

void expectMalformed(const QByteArray& bytes) {
    Smb2Listing listing;
    ASSERT_EQ(append(listing, bufferOf({record("before")})), 0);
    EXPECT_EQ(append(listing, bytes), -EBADMSG);
    EXPECT_EQ(names(listing), QStringList("before"));
}

} // namespace

TEST(Smb2Listing, Records_AreListedInTheirOrder) {
    Smb2Listing listing;
    ASSERT_EQ(append(listing, bufferOf({record("."), record(".."), record("b")})), 0);
    ASSERT_EQ(append(listing, bufferOf({record("a")})), 0);
    EXPECT_EQ(names(listing), QStringList({".", "..", "b", "a"}));
    EXPECT_EQ(names(listing), QStringList());
    ASSERT_EQ(append(listing, bufferOf({record("later")})), 0);
    EXPECT_EQ(names(listing), QStringList("later"));
}

TEST(Smb2Listing, NothingAppended_IsEmpty) {
    Smb2Listing listing;
    EXPECT_EQ(names(listing), QStringList());
}

TEST(Smb2Listing, Attributes_GiveTheType) {
    Smb2Listing listing;
    ASSERT_EQ(append(listing, bufferOf({record("file", 0x20, 5), record("directory", 0x10, 6),
                                        record("link", 0x410, ~0ULL), record("device", 0x40)})),
              0);
    Smb2Listing::Entry entry = {};
    ASSERT_TRUE(listing.next(entry));
    EXPECT_EQ(entry.type, SMB2_TYPE_FILE);
    EXPECT_EQ(entry.inode, 5U);
    ASSERT_TRUE(listing.next(entry));
    EXPECT_EQ(entry.type, SMB2_TYPE_DIRECTORY);
    EXPECT_EQ(entry.inode, 6U);
    ASSERT_TRUE(listing.next(entry));
    EXPECT_EQ(entry.type, SMB2_TYPE_LINK);
    EXPECT_EQ(entry.inode, ~0ULL);
    ASSERT_TRUE(listing.next(entry));
    EXPECT_GT(entry.type, SMB2_TYPE_LINK);
    EXPECT_FALSE(listing.next(entry));
}

TEST(Smb2Listing, Names_AreConvertedToUtf8) {
    for (const QString& name :
         {QStringLiteral("a"), QStringLiteral("\u007f\u0080\u07ff\u0800\uffff"),
          QStringLiteral("\U00010000\U0010ffff"), QStringLiteral("a\\b")})
        EXPECT_EQ(listed(name), name);
}

TEST(Smb2Listing, HalvesOfSurrogatePairs_BecomeReplacementCharacters) {
    const QChar high = QChar(0xd83c);
    const QChar low = QChar(0xdfac);
    const QChar replacement = QChar(0xfffd);
    EXPECT_EQ(listed(QString("a") + high), QString("a") + replacement);
    EXPECT_EQ(listed(QString(low) + "a"), replacement + QString("a"));
    EXPECT_EQ(listed(QString(high) + high + low), replacement + QString(high) + low);
    EXPECT_EQ(listed(QString(low) + high), QString(2, replacement));
    EXPECT_EQ(listed(QString(high) + 'x'), replacement + QString("x"));
}

TEST(Smb2Listing, LongName_IsCut) {
    EXPECT_EQ(listed(QString(255, 'n')), QString(255, 'n'));
    EXPECT_EQ(listed(QString(256, 'n')), QString(255, 'n'));
    EXPECT_EQ(listed(QString(30'000, QChar(0x5f55))), QString(85, QChar(0x5f55)));
}

TEST(Smb2Listing, NameThatNoFileHas_IsMalformed) {
    for (const QString& name : {QString(), QStringLiteral("../../etc/passwd"), QStringLiteral("/"),
                                QString("a") + QChar(0), QChar(0) + QString("a")})
        expectMalformed(bufferOf({record("good"), record(name), record("good")}));
    expectMalformed(edited(record("odd size"), 60, 3));
}

TEST(Smb2Listing, EveryCutBuffer_IsMalformed) {
    const QByteArray buffer = bufferOf({record("first"), record("second")});
    for (int size = 0; size < buffer.size(); ++size)
        expectMalformed(buffer.left(size));
}

TEST(Smb2Listing, NameLongerThanItsRecord_IsMalformed) {
    const QByteArray buffer = bufferOf({record("first"), record("second")});
    const int firstSize = qFromLittleEndian<qint32>(buffer.constData());
    for (const quint32 size :
         {quint32(firstSize - nameAt + 2), 0xffffffU, 0x7fffffffU, 0x80000000U, 0xfffffffeU}) {
        expectMalformed(edited(buffer, 60, size));
        expectMalformed(edited(buffer, firstSize + 60, size));
    }
}

TEST(Smb2Listing, DistanceOutsideOfTheBuffer_IsMalformed) {
    const QByteArray buffer = bufferOf({record("first"), record("second")});
    const auto size = static_cast<quint32>(buffer.size());
    for (const quint32 distance : {1U, 79U, 80U, size - 1, size, size + 1, 0x7fffffffU, 0x80000000U,
                                   0xfffffff8U, 0xffffffffU})
        expectMalformed(edited(buffer, 0, distance));
}

} // namespace oru::io
