#include "core/systemtext_p.h"
#include "support/system/localecodec.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace oru::io {

TEST(SystemText, ToSystem_Utf8) {
    SystemText utf8;
    EXPECT_TRUE(toSystem(QStringLiteral("/plain"), utf8));
    EXPECT_STREQ(utf8.constData(), "/plain");
    EXPECT_TRUE(toSystem(QString::fromUtf8("/Ä/録画/🎬"), utf8));
    EXPECT_STREQ(utf8.constData(), "/Ä/録画/🎬");
    EXPECT_TRUE(toSystem(QString(), utf8));
    EXPECT_STREQ(utf8.constData(), "");
    EXPECT_TRUE(toSystem(QString(1, QChar(0x7f)), utf8));
    EXPECT_STREQ(utf8.constData(), "\x7f");
    EXPECT_TRUE(toSystem(QString(1, QChar(0x80)), utf8));
    EXPECT_STREQ(utf8.constData(), "\xc2\x80");
}

TEST(SystemText, ToSystemOfAnyLength_WholeAndTerminated) {
    SystemText utf8;
    for (const int length : {254, 255, 256, 257, 5000}) {
        EXPECT_TRUE(toSystem(QString(length, 'x'), utf8));
        EXPECT_EQ(QByteArray(utf8.constData()), QByteArray(length, 'x'));
        EXPECT_TRUE(toSystem(QString(length, QChar(0xe4)), utf8));
        EXPECT_EQ(QByteArray(utf8.constData()), QByteArray("\xc3\xa4").repeated(length));
    }
}

TEST(SystemText, ToSystemWithNul_EINVAL) {
    SystemText utf8;
    for (const int at : {0, 1, 2}) {
        QString text = "ab";
        text.insert(at, QChar(QChar::Null));
        errno = 0;
        EXPECT_FALSE(toSystem(text, utf8));
        EXPECT_EQ(errno, EINVAL);
    }
}

TEST(SystemText, ToSystemInvalidUtf16_EILSEQ) {
    SystemText utf8;
    const QChar high(0xd83c);
    const QChar low(0xdfac);
    for (const QString& text : {QString(high), QString(low), QString(low) + high,
                                QStringLiteral("a") + high + QStringLiteral("b")}) {
        errno = 0;
        EXPECT_FALSE(toSystem(text, utf8));
        EXPECT_EQ(errno, EILSEQ);
    }
    EXPECT_TRUE(toSystem(QString(high) + low, utf8));
}

TEST(SystemText, CrossesThroughQt_WhatTheLocaleWritesAsUtf8) {
    const QString umlauts = QString::fromUtf8("bä");
    {
        const test::LocaleCodec latin("ISO-8859-1");
        EXPECT_TRUE(checkQtEncoding(QString()));
        EXPECT_TRUE(checkQtEncoding("/plain"));
        errno = 0;
        EXPECT_FALSE(checkQtEncoding(umlauts));
        EXPECT_EQ(errno, EILSEQ);
    }
    const test::LocaleCodec utf8("UTF-8");
    EXPECT_TRUE(checkQtEncoding(umlauts));
    EXPECT_TRUE(checkQtEncoding(QChar(QChar::ByteOrderMark) + umlauts));
    errno = 0;
    EXPECT_FALSE(checkQtEncoding(umlauts + QChar(QChar::Null)));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_FALSE(checkQtEncoding(QChar(0xd800)));
    EXPECT_EQ(errno, EILSEQ);
}

TEST(SystemText, FromSystem_RoundTrip) {
    for (const char* utf8 : {"", "/plain", "/Ä/録画/🎬", "\xEF\xBB\xBFmark", "\xEF\xBF\xBD"}) {
        QString text = "before";
        EXPECT_TRUE(fromSystem(utf8, text)) << utf8;
        EXPECT_EQ(text.toUtf8(), utf8);
    }
}

TEST(SystemText, FromSystemNull_EFAULT) {
    QString text = "before";
    errno = 0;
    EXPECT_FALSE(fromSystem(nullptr, text));
    EXPECT_EQ(errno, EFAULT);
    EXPECT_EQ(text, "before");
}

TEST(SystemText, FromSystemEndless_ENAMETOOLONG) {
    const QByteArray longest(1 << 20, 'x');
    QString text = "before";
    EXPECT_TRUE(fromSystem(longest.constData(), text));
    EXPECT_EQ(text.size(), longest.size());
    text = "before";
    errno = 0;
    EXPECT_FALSE(fromSystem((longest + 'x').constData(), text));
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(text, "before");
}

TEST(SystemText, FromSystemInvalidUtf8_EILSEQ) {
    const char* const invalid[] = {
        "\xff",             // never a part of UTF-8
        "a\x80",            // a continuation without its start
        "\xc3",             // cut off
        "\xc0\xaf",         // a slash, too long
        "\xed\xa0\x80",     // half a surrogate pair
        "\xf4\x90\x80\x80", // beyond U+10FFFF
    };
    for (const char* utf8 : invalid) {
        QString text = "before";
        errno = 0;
        EXPECT_FALSE(fromSystem(utf8, text));
        EXPECT_EQ(errno, EILSEQ);
        EXPECT_EQ(text, "before");
    }
}

TEST(SystemText, Decoded_AllOfItWithReplacements) {
    EXPECT_EQ(decoded("", 0), QString(""));
    EXPECT_EQ(decoded("plain/Ä", 8), QString::fromUtf8("plain/Ä"));
    EXPECT_EQ(decoded("plainly", 5), QString("plain"));
    EXPECT_EQ(decoded("\xEF\xBB\xBFmark", 7), QChar(0xfeff) + QString("mark"));
    EXPECT_EQ(decoded("\xEF\xBB\xBF", 3), QString(QChar(0xfeff)));
    const QChar replacement(QChar::ReplacementCharacter);
    EXPECT_EQ(decoded("a\xff"
                      "b",
                      3),
              QString("a") + replacement + "b");
    EXPECT_EQ(decoded("\xc0\xafz", 3), QString(2, replacement) + "z");
    EXPECT_EQ(decoded("a\xc3", 2), QString("a") + replacement);
}

} // namespace oru::io
