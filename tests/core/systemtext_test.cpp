// SPDX-License-Identifier: Apache-2.0
// Conversion of strings between Qt and the system.
#include "core/systemtext_p.h"
#include "support/system/localecodec.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace oru::io {

TEST(SystemText, ToSystem_EncodesAsUtf8) {
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

TEST(SystemText, ToSystemOfAnyLength_IsCompleteAndTerminated) {
    SystemText utf8;
    for (const int length : {254, 255, 256, 257, 5000}) {
        EXPECT_TRUE(toSystem(QString(length, 'x'), utf8));
        EXPECT_EQ(QByteArray(utf8.constData()), QByteArray(length, 'x'));
        EXPECT_TRUE(toSystem(QString(length, QChar(0xe4)), utf8));
        EXPECT_EQ(QByteArray(utf8.constData()), QByteArray("\xc3\xa4").repeated(length));
    }
}

TEST(SystemText, ToSystemWithNul_FailsWithEINVAL) {
    SystemText utf8;
    for (const int at : {0, 1, 2}) {
        QString string = "ab";
        string.insert(at, QChar(QChar::Null));
        errno = 0;
        EXPECT_FALSE(toSystem(string, utf8));
        EXPECT_EQ(errno, EINVAL);
    }
}

TEST(SystemText, ToSystemInvalidUtf16_FailsWithEILSEQ) {
    SystemText utf8;
    const QChar high(0xd83c);
    const QChar low(0xdfac);
    for (const QString& string : {QString(high), QString(low), QString(low) + high,
                                  QStringLiteral("a") + high + QStringLiteral("b")}) {
        errno = 0;
        EXPECT_FALSE(toSystem(string, utf8));
        EXPECT_EQ(errno, EILSEQ);
    }
    EXPECT_TRUE(toSystem(QString(high) + low, utf8));
}

TEST(SystemText, QtEncodesAsUtf8_DependsOnTheLocale) {
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

TEST(SystemText, FromSystem_DecodesUtf8) {
    for (const char* utf8 : {"", "/plain", "/Ä/録画/🎬", "\xEF\xBB\xBFmark", "\xEF\xBF\xBD"}) {
        QString string = "before";
        EXPECT_TRUE(fromSystem(utf8, string)) << utf8;
        EXPECT_EQ(string.toUtf8(), utf8);
    }
}

TEST(SystemText, FromSystemNull_FailsWithEFAULT) {
    QString string = "before";
    errno = 0;
    EXPECT_FALSE(fromSystem(nullptr, string));
    EXPECT_EQ(errno, EFAULT);
    EXPECT_EQ(string, "before");
}

TEST(SystemText, FromSystemTooLong_FailsWithENAMETOOLONG) {
    const QByteArray longest(1 << 20, 'x');
    QString string = "before";
    EXPECT_TRUE(fromSystem(longest.constData(), string));
    EXPECT_EQ(string.size(), longest.size());
    string = "before";
    errno = 0;
    EXPECT_FALSE(fromSystem((longest + 'x').constData(), string));
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(string, "before");
}

TEST(SystemText, FromSystemInvalidUtf8_FailsWithEILSEQ) {
    const char* const invalid[] = {
        "\xff",             // never a part of UTF-8
        "a\x80",            // a continuation byte without a start
        "\xc3",             // truncated
        "\xc0\xaf",         // a slash, overlong
        "\xed\xa0\x80",     // a surrogate
        "\xf4\x90\x80\x80", // beyond U+10FFFF
    };
    for (const char* utf8 : invalid) {
        QString string = "before";
        errno = 0;
        EXPECT_FALSE(fromSystem(utf8, string));
        EXPECT_EQ(errno, EILSEQ);
        EXPECT_EQ(string, "before");
    }
}

TEST(SystemText, Decoded_ReplacesInvalidBytes) {
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
