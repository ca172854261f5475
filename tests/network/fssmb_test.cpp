// Shares of a real SMB server.
#include <oruio/error.h>
#include <oruio/fssmb.h>

#include "support/doubles/faultproxy.h"
#include "support/suite/fs_conformance.h"
#include "support/suite/logcapture.h"
#include "support/system/files.h"
#include "support/system/smbtest.h"
#include "support/system/tempdir.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QtEndian>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <memory>
#include <thread>
#include <vector>

#include <dlfcn.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

// libsmb2's headers want some of these first.
#include <smb2/smb2.h>

#include <smb2/libsmb2.h>

namespace {

std::atomic<bool> kindsAreUnknown = false;

/// What the setter of a flag of a context does.
enum class Setter { SetsABit, SetsNothing, SetsTwoBits, SetsTwoBytes };
std::atomic<Setter> signSetter = Setter::SetsABit;
std::atomic<Setter> sealSetter = Setter::SetsABit;

template <class Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

// libsmb2 tells three kinds of entries apart. What if there were more? The program's own
// definitions come before those of the library.

Q_DECL_EXPORT smb2dirent* smb2_readdir(smb2_context* context, smb2dir* dir) {
    static auto* const real = next<decltype(smb2_readdir)>("smb2_readdir");
    smb2dirent* const entry = real(context, dir);
    if (entry && kindsAreUnknown)
        entry->st.smb2_type = 7;
    return entry;
}

// Nor does it say whether a session is protected, apart from what its setters change. What if they
// changed something else?

Q_DECL_EXPORT void smb2_set_sign(smb2_context* context, int value) {
    static auto* const real = next<decltype(smb2_set_sign)>("smb2_set_sign");
    if (signSetter != Setter::SetsNothing)
        real(context, value);
}

Q_DECL_EXPORT void smb2_set_seal(smb2_context* context, int value) {
    static auto* const real = next<decltype(smb2_set_seal)>("smb2_set_seal");
    if (sealSetter != Setter::SetsNothing)
        real(context, value);
    if (sealSetter == Setter::SetsTwoBits)
        smb2_set_sign(context, value); // another bit of the same byte
    if (sealSetter == Setter::SetsTwoBytes)
        next<decltype(smb2_set_security_mode)>("smb2_set_security_mode")(context, value != 0);
}

namespace oru::io {
namespace {

using test::FaultProxy;
using test::LogCapture;
using test::login;
using test::Smb;
using test::SmbServer;

Properties with(Properties props, const QString& key, const QVariant& value) {
    props[key] = value;
    return props;
}

/// Connected to the share "rw".
class SmbShare : public Smb {
protected:
    void SetUp() override {
        Smb::SetUp();
        if (IsSkipped())
            return;
        ASSERT_EQ(fs.connect(login(server.address())), 0) << strerror();
    }

    QSharedPointer<File> create(const QString& path) {
        return fs.open(path, O_RDWR | O_CREAT | O_TRUNC, 0644);
    }

    Smb2FS fs{10};
};

// Where a QUERY_INFO response has the attributes: behind its header, its own fields and four times.
constexpr int attributesAt = 64 + 8 + 32;

/// Connected through a proxy that sees what travels.
class SmbWire : public Smb {
protected:
    void SetUp() override {
        Smb::SetUp();
        if (IsSkipped())
            return;
        proxy = std::make_unique<FaultProxy>(server.port());
        ASSERT_EQ(fs.connect(login(proxy->address())), 0) << strerror();
        proxy->clear();
    }

    /// The lengths of the requests of one kind.
    std::vector<quint32> lengths(FaultProxy::Command command) const {
        std::vector<quint32> found;
        for (const auto& message : proxy->messages(FaultProxy::Request, command))
            found.push_back(message.length);
        return found;
    }
    /// The path that the only CREATE request names.
    QString createdPath() const {
        const auto messages = proxy->messages(FaultProxy::Request, FaultProxy::Create);
        EXPECT_EQ(messages.size(), 1);
        if (messages.size() != 1)
            return {};
        const QByteArray& head = messages[0].head;
        const auto field = [&](int at) {
            return quint8(head[at]) | quint8(head[at + 1]) << 8; // little-endian
        };
        const QByteArray name = head.mid(field(64 + 44), field(64 + 46));
        return QString::fromUtf16(reinterpret_cast<const ushort*>(name.constData()),
                                  name.size() / 2);
    }

    std::unique_ptr<FaultProxy> proxy;
    Smb2FS fs{10};
};

QStringList names(Directory& directory) {
    QStringList found;
    while (const struct dirent* entry = directory.readdir())
        found += QString::fromUtf8(entry->d_name);
    found.sort();
    return found;
}

} // namespace

// --- Without a connection -----------------------------------------------------------------------

TEST(Smb2FS, NeverConnected_EverythingFailsENOTCONN) {
    Smb2FS fs(1);
    struct stat st;
    struct statfs sfs;
    QString target;
    char buf[8];
    const auto refused = [](long long result) {
        const int reason = errno;
        errno = 0;
        return result == -1 && reason == ENOTCONN;
    };
    errno = 0;
    EXPECT_TRUE(refused(fs.stat("/", st)));
    EXPECT_TRUE(refused(fs.lstat("/", st)));
    EXPECT_TRUE(refused(fs.statfs("/", sfs)));
    EXPECT_TRUE(refused(fs.unlink("/f")));
    EXPECT_TRUE(refused(fs.mkdir("/d", 0755)));
    EXPECT_TRUE(refused(fs.rmdir("/d")));
    EXPECT_TRUE(refused(fs.rename("/f", "/g")));
    EXPECT_TRUE(refused(fs.readlink("/f", target)));
    EXPECT_TRUE(refused(fs.readlink("/f", buf, sizeof buf)));
    EXPECT_TRUE(refused(fs.truncate("/f", 0)));
    liberrno = NotFound;
    EXPECT_TRUE(refused(fs.open("/f", O_RDONLY, 0) ? 0 : -1));
    EXPECT_EQ(liberrno, Ok);
    liberrno = NotFound;
    EXPECT_TRUE(refused(fs.opendir("/") ? 0 : -1));
    EXPECT_EQ(liberrno, Ok);
    EXPECT_FALSE(fs.isConnected());
    EXPECT_EQ(fs.getDialect(), "unknown");
    EXPECT_EQ(fs.disconnect(), 0);
    EXPECT_EQ(errno, 0);
}

TEST(Smb2FS, UnsupportedOperations_EOPNOTSUPPAndNothingIsRemembered) {
    Smb2FS fs(1);
    QVector<QString> attributes;
    char buf[8];
    liberrno = NotFound;
    const auto refused = [](int result) {
        const int reason = errno;
        errno = 0;
        return result == -1 && reason == EOPNOTSUPP;
    };
    EXPECT_TRUE(refused(fs.link("/f", "/g")));
    EXPECT_TRUE(refused(fs.symlink("/f", "/g")));
    EXPECT_TRUE(refused(fs.getxattr("/f", "user.a", buf, sizeof buf)));
    EXPECT_TRUE(refused(fs.setxattr("/f", "user.a", buf, sizeof buf, 0)));
    EXPECT_TRUE(refused(fs.removexattr("/f", "user.a")));
    EXPECT_TRUE(refused(fs.listxattr("/f", attributes)));
    EXPECT_TRUE(refused(fs.listxattr("/f", buf, sizeof buf)));
    EXPECT_TRUE(refused(fs.chmod("/f", 0644)));
    fs.sync();
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(liberrno, NotFound);
}

// They ask nobody, whatever has become of the connection.
TEST(Smb2FS, UnsupportedWhileFatal_TheSame) {
    Smb2FS fs(1);
    set_errno(&fs, -ETIMEDOUT, nullptr, "stat", "f");
    QVector<QString> attributes;
    char buf[8];
    for (const auto& call : std::vector<std::function<int()>>{
             [&] { return fs.link("/f", "/g"); }, [&] { return fs.symlink("/f", "/g"); },
             [&] { return fs.getxattr("/f", "user.a", buf, sizeof buf); },
             [&] { return fs.setxattr("/f", "user.a", buf, sizeof buf, 0); },
             [&] { return fs.removexattr("/f", "user.a"); },
             [&] { return fs.listxattr("/f", attributes); },
             [&] { return fs.listxattr("/f", buf, sizeof buf); }}) {
        errno = 0;
        EXPECT_EQ(call(), -1);
        EXPECT_EQ(errno, EOPNOTSUPP);
    }
    EXPECT_EQ(fs.addWatch("/"), -1);
    EXPECT_EQ(liberrno, NotImplemented);
    EXPECT_TRUE(fs.isConnected()); // still fatal
}

TEST(Smb2FS, DirectoryMadeWhileFatal_Closed) {
    Smb2FS fs(1);
    set_errno(&fs, -ETIMEDOUT, nullptr, "stat", "f");
    QString path = "/";
    errno = 4711;
    Smb2Dir directory(&fs, path);
    EXPECT_FALSE(directory.isOpen());
    EXPECT_EQ(errno, 4711);
}

namespace {

/// Counts what the library calls of what it may override.
class CountingSmb2FS : public Smb2FS {
public:
    using Smb2FS::Smb2FS;
    int disconnect() override {
        ++disconnects;
        return Smb2FS::disconnect();
    }
    int stat(QString path, struct stat& st) override {
        ++stats;
        return Smb2FS::stat(path, st);
    }

    int disconnects = 0;
    int stats = 0;
};

} // namespace

TEST(Smb2FS, ConnectAndLstat_CallWhatIsOverridden) {
    CountingSmb2FS fs(1);
    fs.connect({{"server", "127.0.0.1:1"}});
    EXPECT_EQ(fs.disconnects, 1);
    struct stat st;
    fs.lstat("/", st);
    EXPECT_EQ(fs.stats, 1);
}

TEST(Smb2FS, WatchesAndIoctl_NotImplemented) {
    Smb2FS fs(1);
    QString response = "as it was";
    for (const auto& call : std::vector<std::function<int()>>{
             [&] { return fs.addWatch("/"); }, [&] { return fs.remWatch("/"); },
             [&] { return fs.ioctl("anything", response); }}) {
        liberrno = Ok;
        errno = 0;
        EXPECT_EQ(call(), -1);
        EXPECT_EQ(liberrno, NotImplemented);
        EXPECT_EQ(errno, 0);
    }
    EXPECT_EQ(response, "as it was");
}

TEST(Smb2FS, SetErrno_ReportsAndRemembers) {
    Smb2FS fs(1);
    errno = 0;
    EXPECT_EQ(set_errno(&fs, 0, nullptr, "stat", "f"), 0);
    EXPECT_EQ(set_errno(&fs, 4711, nullptr, "read", "f"), 4711);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(set_errno(&fs, -ENOSPC, nullptr, "write", "f"), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(set_errno(&fs, -ECONNRESET, nullptr, "write", nullptr), -1);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_TRUE(fs.isConnected());
    // A success takes nothing back.
    EXPECT_EQ(set_errno(&fs, 0, nullptr, "stat", "f"), 0);
    EXPECT_TRUE(fs.isConnected());
    // Another failure does.
    set_errno(&fs, -ENOENT, nullptr, "stat", "f");
    EXPECT_FALSE(fs.isConnected());
}

TEST(Smb2FS, FatalErrors_AreTheseFive) {
    Smb2FS fs(1);
    std::vector<int> fatal;
    for (int error = 1; error < 200; ++error) {
        set_errno(&fs, -error, nullptr, "stat", "f");
        struct stat st;
        errno = 0;
        EXPECT_EQ(fs.stat("/f", st), -1);
        if (errno == 0)
            fatal.push_back(error);
        else
            EXPECT_EQ(errno, ENOTCONN);
    }
    EXPECT_EQ(fatal, std::vector<int>({EBUSY, ENETRESET, ECONNRESET, ETIMEDOUT, ECONNREFUSED}));
}

TEST(Smb2FS, Fatal_EverythingIsGuarded) {
    Smb2FS fs(1);
    set_errno(&fs, -ETIMEDOUT, nullptr, "stat", "f");
    errno = 4711;
    liberrno = NotFound;
    struct stat st;
    struct statfs sfs;
    QString target = "as it was";
    char buf[8];
    EXPECT_EQ(fs.stat("/", st), -1);
    EXPECT_EQ(fs.lstat("/", st), -1);
    EXPECT_EQ(fs.statfs("/", sfs), -1);
    EXPECT_EQ(fs.unlink("/f"), -1);
    EXPECT_EQ(fs.mkdir("/d", 0755), -1);
    EXPECT_EQ(fs.rmdir("/d"), -1);
    EXPECT_EQ(fs.rename("/f", "/g"), -1);
    EXPECT_EQ(fs.readlink("/f", buf, sizeof buf), -1);
    EXPECT_EQ(fs.readlink("/f", target), -1);
    EXPECT_EQ(target, "");
    EXPECT_EQ(fs.truncate("/f", 0), -1);
    EXPECT_EQ(fs.chmod("/f", 0644), -1);
    EXPECT_FALSE(fs.open("/f", O_RDONLY, 0));
    EXPECT_FALSE(fs.opendir("/"));
    EXPECT_TRUE(fs.isConnected());
    EXPECT_EQ(fs.getDialect(), "unknown");
    EXPECT_EQ(fs.disconnect(), 0);
    EXPECT_EQ(errno, 4711);
    EXPECT_EQ(liberrno, NotFound);
}

TEST(Smb2FS, PathsThatCannotTravel_Refused) {
    Smb2FS fs(1);
    struct stat st;
    EXPECT_EQ(fs.stat(QString("a") + QChar(0) + "b", st), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(fs.stat(QString(QChar(0xd800)), st), -1);
    EXPECT_EQ(errno, EILSEQ);
    EXPECT_EQ(fs.stat(QString(32768, 'a'), st), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(fs.rename("/f", QString(32768, 'a')), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(fs.rename(QString(QChar(0)), "/g"), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(Smb2FS, LoginsThatCannotTravel_Refused) {
    for (const char* key :
         {"server", "share", "user", "password", "domain", "version", "workstation"}) {
        Smb2FS fs(1);
        EXPECT_EQ(fs.connect({{key, QString(QChar(0))}}), -1) << key;
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(fs.connect({{key, QString(QChar(0xdc00))}}), -1) << key;
        EXPECT_EQ(errno, EILSEQ);
        EXPECT_EQ(fs.connect({{key, QString(1025, 'a')}}), -1) << key;
        EXPECT_EQ(errno, ENAMETOOLONG);
        EXPECT_EQ(fs.connect({{key, QString(1024, 'a')}}), -1) << key;
        EXPECT_NE(errno, ENAMETOOLONG);
    }
}

// --- Connecting ---------------------------------------------------------------------------------

TEST_F(Smb, Connect_DescribedInTheLog) {
    const QString address = server.address();
    const Properties anybody = {{"server", address}, {"share", "guest"}};
    const Properties user = login(address);
    const std::vector<std::pair<Properties, QString>> cases = {
        {anybody, "smb://anonymous@%1/guest"},
        {user, "smb://tester:****@%1/rw"},
        {with(user, "domain", "TESTGRP"), "smb://TESTGRP\\tester:****@%1/rw"},
        {with(user, "version", "3.0.2"), "smb://tester:****@%1/rw vers=3.0.2"},
        {with(user, "version", "3"), "smb://tester:****@%1/rw vers=3"},
        {with(user, "workstation", "recorder"), "smb://tester:****@%1/rw workstation=recorder"},
        {with(with(with(user, "domain", "TESTGRP"), "version", "3.0.2"), "workstation", "recorder"),
         "smb://TESTGRP\\tester:****@%1/rw vers=3.0.2 workstation=recorder"},
    };
    for (const auto& [props, description] : cases) {
        LogCapture log("libio_smb2=12");
        Smb2FS fs(10);
        EXPECT_EQ(fs.connect(props), 0) << strerror();
        EXPECT_EQ(log.messages(),
                  QStringList("libio_smb2 12 SMB Connect '" + description.arg(address) + "' OK"));
        EXPECT_TRUE(fs.isConnected());
    }
}

TEST_F(Smb, LongestLogin_Connects) {
    const auto longest = [](char c) { return QString(1024, c); };
    LogCapture log("libio_smb2=12");
    Smb2FS fs(10);
    EXPECT_EQ(fs.connect({{"server", server.address()},
                          {"share", "guest"},
                          {"domain", longest('d')},
                          {"user", longest('u')},
                          {"version", longest('v')},
                          {"workstation", longest('w')}}),
              0)
        << strerror();
    EXPECT_EQ(fs.getDialect(), "3.1.1");
    EXPECT_TRUE(fs.isConnected());
    const QString message = log.messages().value(0); // cut, as all messages are
    const QString begin = "libio_smb2 12 SMB Connect 'smb://" + longest('d').left(100);
    EXPECT_EQ(message.left(begin.size()), begin);
}

TEST_F(Smb, Version_IsTheDialect) {
    const std::vector<std::pair<const char*, const char*>> cases = {
        {"2.0.2", "2.0.2"}, {"2.1.0", "2.1.0"}, {"3.0.0", "3.0.0"}, {"3.0.2", "3.0.2"},
        {"3.1.1", "3.1.1"}, {"2.x", "2.1.0"},   {"3.x", "3.1.1"},   {"", "3.1.1"},
        {"3", "3.1.1"},     {"any", "3.1.1"},
    };
    for (const auto& [version, dialect] : cases) {
        Smb2FS fs(10);
        EXPECT_EQ(fs.connect(with(login(server.address()), "version", version)), 0) << version;
        EXPECT_EQ(fs.getDialect(), dialect) << version;
        // What is written in one dialect is what is read in it.
        const auto file = fs.open("/f", O_RDWR | O_CREAT, 0644);
        ASSERT_TRUE(file) << version;
        const QByteArray content(300'000, 'd');
        EXPECT_EQ(file->write(content.constData(), content.size()), content.size());
        file->close();
        EXPECT_EQ(getLocal("/f"), content) << version;
        EXPECT_EQ(fs.unlink("/f"), 0) << version;
        EXPECT_EQ(fs.disconnect(), 0);
        EXPECT_EQ(fs.getDialect(), "unknown");
    }
}

namespace {

/// A server that speaks SMB 2 only.
class SmbOfOld : public Smb {
protected:
    SmbOfOld() : Smb(SmbServer::Options{{"server max protocol = SMB2_10"}, {}}) {}
};

/// A server that takes signed sessions only.
class SmbSigned : public Smb {
protected:
    SmbSigned() : Smb(SmbServer::Options{{"server signing = mandatory"}, {}}) {}
};

/// A server that takes encrypted sessions only.
class SmbSealed : public Smb {
protected:
    SmbSealed() : Smb(SmbServer::Options{{"server smb encrypt = required"}, {}}) {}
};

/// A share that is encrypted, of a server that does not insist on it for others.
class SmbSealedShare : public Smb {
protected:
    SmbSealedShare()
        : Smb(SmbServer::Options{
              {}, {{"sealed", {"read only = no", "server smb encrypt = required"}}}}) {}
};

/// The outcome of connecting to a share whose session is, or may be, protected.
void expectRefused(const SmbServer& server, const QString& version, const QString& share = "rw",
                   int error = EPERM) {
    FaultProxy proxy(server.port());
    LogCapture log("libio_smb2=12");
    Smb2FS fs(10);
    EXPECT_EQ(fs.connect(with(login(proxy.address(), share), "version", version)), -1);
    EXPECT_EQ(errno, error) << std::strerror(errno);
    EXPECT_TRUE(proxy.waitUntilClosed());
    EXPECT_FALSE(fs.isConnected());
    EXPECT_EQ(fs.getDialect(), "unknown");
    EXPECT_EQ(log.messages(), QStringList());
    // Nothing fatal.
    struct stat st;
    EXPECT_EQ(fs.stat("/", st), -1);
    EXPECT_EQ(errno, ENOTCONN);
}

} // namespace

TEST_F(SmbOfOld, NewerVersion_Refused) {
    Smb2FS fs(10);
    EXPECT_EQ(fs.connect(with(login(server.address()), "version", "3.1.1")), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(fs.connect(with(login(server.address()), "version", "3.x")), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(fs.connect(login(server.address())), 0);
    EXPECT_EQ(fs.getDialect(), "2.1.0");
}

TEST_F(SmbSigned, Refused) {
    for (const char* version : {"2.0.2", "2.1.0", "3.0.2", "3.1.1"})
        expectRefused(server, version);
}

TEST_F(SmbSealed, Refused) {
    for (const char* version : {"3.0.0", "3.1.1"})
        expectRefused(server, version);
    // These have no encryption: the server itself refuses.
    for (const char* version : {"2.0.2", "2.1.0"}) {
        Smb2FS fs(10);
        EXPECT_EQ(fs.connect(with(login(server.address()), "version", version)), -1);
        EXPECT_EQ(errno, EACCES);
    }
}

TEST_F(SmbSealedShare, Refused) {
    for (const char* version : {"3.0.0", "3.1.1"})
        expectRefused(server, version, "sealed");
    Smb2FS fs(10);
    EXPECT_EQ(fs.connect(login(server.address())), 0) << strerror();
}

// A session that might be protected is not taken for one that is not.
TEST_F(Smb, ProtectionNotToBeSeen_Refused) {
    struct Case {
        const char* name;
        Setter sign;
        Setter seal;
    };
    for (const Case& tested : {Case{"sign", Setter::SetsNothing, Setter::SetsABit},
                               Case{"seal", Setter::SetsABit, Setter::SetsNothing},
                               Case{"two bits", Setter::SetsABit, Setter::SetsTwoBits},
                               Case{"two bytes", Setter::SetsABit, Setter::SetsTwoBytes}}) {
        SCOPED_TRACE(tested.name);
        signSetter = tested.sign;
        sealSetter = tested.seal;
        expectRefused(server, "3.1.1", "rw", ENOTSUP);
    }
    signSetter = Setter::SetsABit;
    sealSetter = Setter::SetsABit;
}

namespace {

QByteArray utf16(const QString& text) {
    return {reinterpret_cast<const char*>(text.utf16()), text.size() * 2};
}

} // namespace

TEST_F(Smb, Login_AsTheServerSeesIt) {
    FaultProxy proxy(server.port());
    QByteArray authentication;
    proxy.on({FaultProxy::Request, FaultProxy::SessionSetup, 2},
             FaultProxy::Fault::edit([&](QByteArray& message) { authentication = message; }));
    Properties props = login(proxy.address());
    props["domain"] = "STUDIO";
    props["workstation"] = "recorder-7";
    Smb2FS fs(10);
    EXPECT_EQ(fs.connect(props), 0) << strerror();
    for (const QString& text : {QString(SmbServer::user), QString("STUDIO"), QString("recorder-7")})
        EXPECT_TRUE(authentication.contains(utf16(text))) << text.toStdString();
    EXPECT_FALSE(authentication.contains(utf16(SmbServer::password)));
    // Signing is neither wanted nor offered.
    const auto negotiation = proxy.messages(FaultProxy::Request, FaultProxy::Negotiate);
    ASSERT_EQ(negotiation.size(), 1);
    EXPECT_EQ(negotiation[0].head[64 + 4], '\0');
    EXPECT_EQ(authentication[64 + 3], '\0');
}

TEST_F(SmbWire, Rename_BothPathsWithoutTheSlash) {
    putLocal("/from");
    ASSERT_EQ(mkdir(QFile::encodeName(local("/dir")).constData(), 0777), 0);
    EXPECT_EQ(fs.rename("/from", "/dir/to"), 0) << strerror();
    EXPECT_EQ(createdPath(), "from");
    const auto changes = proxy->messages(FaultProxy::Request, FaultProxy::SetInfo);
    ASSERT_EQ(changes.size(), 1);
    // Behind its length.
    EXPECT_TRUE(changes[0].head.contains(QByteArray("\x0c\0\0\0", 4) + utf16("dir\\to")));
}

TEST_F(Smb, LoginsRefused_WhyIsTold) {
    struct Case {
        const char* name;
        Properties props;
        int error;
    };
    const Properties good = login(server.address());
    const FaultProxy proxy(server.port());
    const std::vector<Case> cases = {
        {"wrong password", with(good, "password", "wrong"), ECONNREFUSED},
        {"missing share", with(good, "share", "missing"), ENOENT},
        {"no share", with(good, "share", ""), ENOENT},
        {"no server", with(good, "server", ""), EIO},
        {"unknown host", with(good, "server", "host.invalid"), EIO},
        {"port closed", with(good, "server", "127.0.0.1:1"), ECONNREFUSED},
        {"no address", with(good, "server", "[::1"), EINVAL},
    };
    for (const Case& refused : cases) {
        Smb2FS fs(10);
        errno = 0;
        EXPECT_EQ(fs.connect(refused.props), -1) << refused.name;
        // Without a resolver at hand, the host is not known either.
        if (refused.error == EIO && errno == EAGAIN)
            errno = EIO;
        EXPECT_EQ(errno, refused.error) << refused.name;
        EXPECT_EQ(fs.getDialect(), "unknown");
        EXPECT_EQ(fs.isConnected(), refused.error == ECONNREFUSED) << refused.name;
        EXPECT_EQ(fs.connect(good), 0) << refused.name;
        EXPECT_TRUE(fs.isConnected());
    }
}

// libsmb2 reads passwords from a file, too. That is not for programs that have their own.
TEST_F(Smb, PasswordFileOfTheEnvironment_DoesNotMatter) {
    const test::TempDir directory;
    const QString passwords = directory / "passwords";
    ASSERT_TRUE(qputenv("NTLM_USER_FILE", QFile::encodeName(passwords)));
    const Properties right = login(server.address());
    EXPECT_TRUE(test::makeFile(passwords, ":tester:wrong\n"));
    Smb2FS fs(10);
    EXPECT_EQ(fs.connect(right), 0) << strerror();
    EXPECT_EQ(fs.mkdir("/d", 0755), 0) << strerror();
    // Without a password it is nobody who connects, whatever the user.
    EXPECT_TRUE(test::makeFile(passwords, ":tester:Secret1\n"));
    EXPECT_EQ(fs.connect(with(right, "password", "")), -1);
    EXPECT_EQ(errno, EACCES);
    qunsetenv("NTLM_USER_FILE");
}

// The reason why no connection could even be tried is the system's.
TEST(Smb2FS, NoWayToTheServer_WhyIsTold) {
    const int plain = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in everybody = {};
    everybody.sin_family = AF_INET;
    everybody.sin_port = htons(445);
    everybody.sin_addr.s_addr = INADDR_BROADCAST;
    ASSERT_EQ(::connect(plain, reinterpret_cast<sockaddr*>(&everybody), sizeof everybody), -1);
    const int reason = errno;
    ::close(plain);
    Smb2FS fs(5);
    EXPECT_EQ(fs.connect(login("255.255.255.255")), -1);
    EXPECT_EQ(errno, reason);
    EXPECT_NE(reason, EIO);
}

TEST_F(Smb, Guest_ConnectsWithoutAPassword) {
    for (const char* version : {"2.0.2", "3.0.2", "3.1.1"}) {
        for (const char* user : {"", "somebody"}) {
            Smb2FS fs(10);
            ASSERT_EQ(fs.connect({{"server", server.address()},
                                  {"share", "guest"},
                                  {"user", user},
                                  {"version", version}}),
                      0)
                << version << user << strerror();
            EXPECT_EQ(fs.mkdir("/d", 0755), 0);
            EXPECT_EQ(fs.rmdir("/d"), 0);
        }
    }
}

TEST_F(Smb, ReadOnlyShare_ReadsAndRefusesTheRest) {
    Smb2FS fs(10);
    ASSERT_EQ(fs.connect(login(server.address(), "ro")), 0);
    EXPECT_EQ(fs.open("/file.txt", O_RDONLY, 0)->readAll(100), "read only file\n");
    const auto refused = [](int result) { return result == -1 && errno == EACCES; };
    EXPECT_TRUE(refused(fs.open("/file.txt", O_RDWR, 0) ? 0 : -1));
    EXPECT_TRUE(refused(fs.open("/new", O_WRONLY | O_CREAT, 0644) ? 0 : -1));
    EXPECT_TRUE(refused(fs.mkdir("/d", 0755)));
    EXPECT_TRUE(refused(fs.unlink("/file.txt")));
    EXPECT_EQ(fs.rename("/file.txt", "/other.txt"), -1);
    EXPECT_EQ(errno, EROFS);
    EXPECT_TRUE(refused(fs.truncate("/file.txt", 0)));
    EXPECT_TRUE(fs.isConnected());
    EXPECT_EQ(fs.open("/file.txt", O_RDONLY, 0)->readAll(100), "read only file\n");
}

TEST_F(Smb, ByName_AsByAddress) {
    Smb2FS fs(10);
    EXPECT_EQ(fs.connect(login("localhost:" + QString::number(server.port()))), 0) << strerror();
    EXPECT_TRUE(fs.isConnected());
}

TEST_F(SmbShare, ConnectAgain_IsANewConnection) {
    EXPECT_EQ(fs.connect(login(server.address(), "rw2")), 0);
    EXPECT_EQ(fs.mkdir("/of-the-other", 0755), 0);
    EXPECT_TRUE(QDir(server.directory("rw2") + "/of-the-other").exists());
    EXPECT_EQ(fs.connect(login(server.address())), 0);
    struct stat st;
    EXPECT_EQ(fs.stat("/of-the-other", st), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(SmbWire, Disconnect_LeavesTheShareAndEndsTheConnection) {
    EXPECT_EQ(proxy->openConnections(), 1);
    EXPECT_EQ(fs.disconnect(), 0);
    EXPECT_TRUE(proxy->waitUntilClosed());
    EXPECT_EQ(proxy->messages(FaultProxy::Request, FaultProxy::TreeDisconnect).size(), 1);
    EXPECT_EQ(proxy->messages(FaultProxy::Request, FaultProxy::Logoff).size(), 1);
    EXPECT_FALSE(fs.isConnected());
    proxy->clear();
    EXPECT_EQ(fs.disconnect(), 0);
    EXPECT_EQ(proxy->messages().size(), 0);
    struct stat st;
    EXPECT_EQ(fs.stat("/", st), -1);
    EXPECT_EQ(errno, ENOTCONN);
}

TEST_F(SmbWire, DisconnectRefused_StaysConnected) {
    proxy->on({FaultProxy::Response, FaultProxy::TreeDisconnect},
              FaultProxy::Fault::edit([](QByteArray& message) {
                  message.replace(8, 4, "\x22\x00\x00\xc0", 4); // STATUS_ACCESS_DENIED
                  message.replace(64, -1, QByteArray("\x09", 1) + QByteArray(8, '\0'));
              }));
    EXPECT_EQ(fs.disconnect(), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(fs.getDialect(), "3.1.1");
    EXPECT_EQ(proxy->openConnections(), 1);
}

TEST_F(SmbWire, Destroyed_ConnectionIsDroppedWithoutARequest) {
    {
        Smb2FS other(10);
        ASSERT_EQ(other.connect(login(proxy->address(), "rw2")), 0);
        EXPECT_EQ(proxy->openConnections(), 2);
        proxy->clear();
    }
    EXPECT_EQ(proxy->messages().size(), 0);
    fs.disconnect();
    EXPECT_TRUE(proxy->waitUntilClosed());
}

TEST_F(SmbWire, IsConnected_AsksTheServer) {
    EXPECT_TRUE(fs.isConnected());
    ASSERT_EQ(proxy->messages().size(), 2);
    EXPECT_EQ(proxy->messages()[0].command, FaultProxy::Echo);
}

// A program that the process starts would keep the connection.
TEST_F(SmbShare, Socket_IsClosedOnExec) {
    int sockets = 0;
    for (const QFileInfo& entry : QDir("/proc/self/fd").entryInfoList(QDir::System | QDir::Files)) {
        const int fd = entry.fileName().toInt();
        struct stat st;
        sockaddr_in peer = {};
        socklen_t size = sizeof peer;
        if (::fstat(fd, &st) != 0 || !S_ISSOCK(st.st_mode) ||
            getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) != 0 ||
            ntohs(peer.sin_port) != server.port())
            continue;
        ++sockets;
        EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
    }
    EXPECT_EQ(sockets, 1);
}

// --- Paths --------------------------------------------------------------------------------------

TEST_F(SmbWire, Path_LosesOneSlashInFront) {
    struct stat st;
    const std::vector<std::pair<const char*, const char*>> cases = {
        {"/a/b", "a\\b"}, {"a/b", "a\\b"}, {"//a", "\\a"}, {"/", ""}, {"", ""}};
    for (const auto& [path, sent] : cases) {
        proxy->clear();
        fs.stat(path, st);
        EXPECT_EQ(createdPath(), sent) << path;
        proxy->clear();
        fs.opendir(path);
        EXPECT_EQ(createdPath(), sent) << path;
    }
    proxy->clear();
    fs.open("/a", O_RDONLY, 0);
    EXPECT_EQ(createdPath(), "a");
}

TEST_F(SmbShare, Stat_SetsTheseFieldsOnly) {
    putLocal("/f", "12345");
    ASSERT_EQ(fs.mkdir("/d", 0700), 0);
    struct stat untouched;
    std::memset(&untouched, 0x5a, sizeof untouched);
    const auto isUntouched = [&](const struct stat& st) {
        return st.st_dev == untouched.st_dev && st.st_uid == untouched.st_uid &&
               st.st_gid == untouched.st_gid && st.st_rdev == untouched.st_rdev &&
               st.st_blksize == untouched.st_blksize && st.st_blocks == untouched.st_blocks;
    };
    const struct timespec times[2] = {{1'000'000'000, 0}, {1'100'000'000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, QFile::encodeName(this->local("/f")).constData(), times, 0), 0);
    struct stat local;
    ASSERT_EQ(::stat(QFile::encodeName(this->local("/f")).constData(), &local), 0);

    struct stat st = untouched;
    EXPECT_EQ(fs.stat("/f", st), 0);
    EXPECT_TRUE(isUntouched(st));
    EXPECT_EQ(st.st_size, 5);
    EXPECT_EQ(st.st_mode, S_IFREG | 0666U);
    EXPECT_EQ(st.st_nlink, 1U);
    EXPECT_EQ(st.st_ino, local.st_ino);
    EXPECT_EQ(st.st_mtim.tv_sec, local.st_mtim.tv_sec);
    EXPECT_NEAR(st.st_mtim.tv_nsec, local.st_mtim.tv_nsec, 1000);
    EXPECT_EQ(st.st_atim.tv_sec, local.st_atim.tv_sec);

    struct stat linked = untouched;
    EXPECT_EQ(fs.lstat("/f", linked), 0);
    EXPECT_EQ(std::memcmp(&linked, &st, sizeof st), 0);

    struct stat opened = untouched;
    const auto file = fs.open("/f", O_RDONLY, 0);
    EXPECT_EQ(file->fstat(opened), 0);
    EXPECT_EQ(std::memcmp(&opened, &st, sizeof st), 0);

    EXPECT_EQ(fs.stat("/d", st), 0);
    EXPECT_EQ(st.st_mode, S_IFDIR | 0666U);

    st = untouched;
    EXPECT_EQ(fs.stat("/missing", st), -1);
    EXPECT_EQ(std::memcmp(&st, &untouched, sizeof st), 0);
}

namespace {

std::pair<long long, long long> partsOf(const struct timespec& time) {
    return {time.tv_sec, time.tv_nsec};
}

} // namespace

TEST_F(SmbWire, Times_EachFromItsField) {
    putLocal("/f");
    const struct timespec times[2] = {{1'000'000'000, 123'456'000}, {1'100'000'000, 654'321'000}};
    ASSERT_EQ(utimensat(AT_FDCWD, QFile::encodeName(local("/f")).constData(), times, 0), 0);
    // The server at hand has no time of change of its own, and that of creation is not wanted.
    const auto setChange = FaultProxy::Fault::edit([](QByteArray& message) {
        constexpr qint64 size = 8;
        constexpr qint64 unixEpoch = 11'644'473'600; // in seconds since 1601
        constexpr qint64 change = (unixEpoch + 1'200'000'000) * 10'000'000 + 203'040;
        qToLittleEndian(change, message.data() + attributesAt - size);
        qToLittleEndian(change / 2, message.data() + attributesAt - 4 * size);
    });
    const auto expectTimes = [](const struct stat& st) {
        EXPECT_EQ(partsOf(st.st_atim), partsOf({1'000'000'000, 123'456'000}));
        EXPECT_EQ(partsOf(st.st_mtim), partsOf({1'100'000'000, 654'321'000}));
        EXPECT_EQ(partsOf(st.st_ctim), partsOf({1'200'000'000, 20'304'000}));
    };
    struct stat st;
    proxy->on({FaultProxy::Response, FaultProxy::QueryInfo}, setChange);
    EXPECT_EQ(fs.stat("/f", st), 0);
    expectTimes(st);
    const auto file = fs.open("/f", O_RDONLY, 0);
    ASSERT_TRUE(file);
    st = {};
    proxy->on({FaultProxy::Response, FaultProxy::QueryInfo}, setChange);
    EXPECT_EQ(file->fstat(st), 0);
    expectTimes(st);
}

// What a server says of a link that it does not follow.
TEST_F(SmbWire, ReparsePoint_IsALink) {
    putLocal("/f");
    const auto asLink = FaultProxy::Fault::edit([](QByteArray& message) {
        message[attributesAt] = 0;
        message[attributesAt + 1] = 4; // FILE_ATTRIBUTE_REPARSE_POINT
    });
    struct stat st;
    proxy->on({FaultProxy::Response, FaultProxy::QueryInfo}, asLink);
    EXPECT_EQ(fs.stat("/f", st), 0);
    EXPECT_EQ(st.st_mode, S_IFLNK | 0666U);
    const auto file = fs.open("/f", O_RDONLY, 0);
    proxy->on({FaultProxy::Response, FaultProxy::QueryInfo}, asLink);
    EXPECT_EQ(file->fstat(st), 0);
    EXPECT_EQ(st.st_mode, S_IFLNK | 0666U);
    proxy->on({FaultProxy::Response, FaultProxy::QueryDirectory},
              FaultProxy::Fault::edit([](QByteArray& message) {
                  message[64 + 8 + 56 + 1] = 4; // of the first entry
              }));
    const auto directory = fs.opendir("/");
    int links = 0;
    while (const struct dirent* entry = directory->readdir())
        links += entry->d_type == DT_LNK;
    EXPECT_EQ(links, 1);
}

TEST_F(SmbWire, UnknownKind_HasAllTypeBits) {
    putLocal("/f");
    proxy->on({FaultProxy::Response, FaultProxy::QueryInfo},
              FaultProxy::Fault::edit([](QByteArray& message) {
                  message[attributesAt] = 0x40; // FILE_ATTRIBUTE_DEVICE
              }));
    struct stat st;
    EXPECT_EQ(fs.stat("/f", st), 0);
    EXPECT_EQ(st.st_mode, 0170666U);
    kindsAreUnknown = true;
    const auto directory = fs.opendir("/");
    ASSERT_TRUE(directory);
    int seen = 0;
    while (const struct dirent* entry = directory->readdir()) {
        ++seen;
        EXPECT_EQ(entry->d_type, DT_UNKNOWN);
    }
    EXPECT_EQ(seen, 3);
    kindsAreUnknown = false;
}

TEST_F(SmbShare, Statfs_SizesAsTheServerHasThem) {
    struct statfs local;
    ASSERT_EQ(::statfs(QFile::encodeName(this->local("")).constData(), &local), 0);
    struct statfs st;
    std::memset(&st, 0x5a, sizeof st);
    ASSERT_EQ(fs.statfs("/", st), 0);
    EXPECT_EQ(quint64(st.f_blocks) * st.f_bsize, quint64(local.f_blocks) * local.f_bsize);
    EXPECT_GT(st.f_bfree, 0U);
    EXPECT_EQ(st.f_bfree, st.f_bavail);
    EXPECT_EQ(st.f_frsize, st.f_bsize);
    EXPECT_EQ(st.f_type, 0);
    EXPECT_EQ(st.f_files, 0U);
    EXPECT_EQ(st.f_ffree, 0U);
    EXPECT_EQ(st.f_fsid.__val[0], 0);
    EXPECT_EQ(st.f_fsid.__val[1], 0);
    EXPECT_EQ(st.f_namelen, 0);
    EXPECT_EQ(st.f_flags, 0);
}

TEST_F(SmbShare, NamesOfAllKinds_ComeBack) {
    const QStringList wanted = {
        "with blanks in it",
        "ünïcödé",
        "кино",
        "録画",
        "صوت",
        "\xf0\x9f\x8e\xac \xf0\x9f\x8e\x9e",
        "dots.and.more.dots",
        "100% & more; 'quoted' $HOME",
        QString(255, 'n'),
        QString(85, QChar(0x5f55)), // 255 bytes
    };
    ASSERT_EQ(fs.mkdir("/names", 0755), 0);
    for (const QString& name : wanted) {
        const auto file = create("/names/" + name);
        ASSERT_TRUE(file) << name.toStdString() << strerror();
        const QByteArray content = name.toUtf8();
        EXPECT_EQ(file->write(content.constData(), content.size()), content.size());
        file->close();
        EXPECT_EQ(getLocal("/names/" + name), content);
    }
    QStringList expected = wanted;
    expected << "."
             << "..";
    expected.sort();
    const auto directory = fs.opendir("/names");
    ASSERT_TRUE(directory);
    EXPECT_EQ(names(*directory), expected);
    for (const QString& name : wanted) {
        EXPECT_EQ(fs.open("/names/" + name, O_RDONLY, 0)->readAll(1000), name.toUtf8());
        EXPECT_EQ(fs.unlink("/names/" + name), 0) << name.toStdString();
    }
    EXPECT_EQ(fs.rmdir("/names"), 0);
}

// A server may have names that do not fit into the system's record.
TEST_F(SmbWire, NameOverTheRecord_IsCutAndTerminated) {
    const QString longName(200, 'n');
    putLocal("/" + longName);
    proxy->on({FaultProxy::Response, FaultProxy::QueryDirectory},
              FaultProxy::Fault::edit([&](QByteArray& message) {
                  // Two bytes of UTF-16 that become one of UTF-8, and now three.
                  QByteArray name;
                  for (const QChar c : longName)
                      name.append(char(c.unicode() & 0xff)).append(char(c.unicode() >> 8));
                  const int at = message.indexOf(name);
                  ASSERT_GT(at, 0);
                  for (int i = 0; i < name.size(); i += 2)
                      message.replace(at + i, 2, "\x55\x5f", 2);
              }));
    const auto directory = fs.opendir("/");
    ASSERT_TRUE(directory);
    size_t longest = 0;
    while (const struct dirent* entry = directory->readdir())
        longest = std::max(longest, strnlen(entry->d_name, sizeof entry->d_name));
    EXPECT_EQ(longest, 255U);
}

TEST_F(SmbShare, FiveThousandEntries_AllListed) {
    constexpr int count = 5000;
    ASSERT_EQ(fs.mkdir("/many", 0777), 0);
    for (int i = 0; i < count; ++i)
        putLocal("/many/entry-" + QString::number(i).rightJustified(6, '0'));
    Smb2FS patient(90); // for servers on slow machines
    ASSERT_EQ(patient.connect(login(server.address())), 0) << strerror();
    const auto directory = patient.opendir("/many");
    ASSERT_TRUE(directory) << strerror();
    QStringList found = names(*directory);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(found.removeDuplicates(), 0);
    EXPECT_EQ(found.size(), count + 2);
    EXPECT_EQ(found.last(), "entry-004999");
}

TEST_F(SmbShare, Readdir_SetsTheseFields) {
    putLocal("/f");
    ASSERT_EQ(fs.mkdir("/d", 0755), 0);
    struct stat local;
    ASSERT_EQ(::stat(QFile::encodeName(this->local("/f")).constData(), &local), 0);
    const auto directory = fs.opendir("/");
    int seen = 0;
    errno = 0;
    while (const struct dirent* entry = directory->readdir()) {
        ++seen;
        EXPECT_EQ(errno, ENOENT); // after a success, too
        EXPECT_EQ(entry->d_off, 0);
        EXPECT_EQ(entry->d_reclen, 0);
        const bool isFile = std::strcmp(entry->d_name, "f") == 0;
        EXPECT_EQ(entry->d_type, isFile ? DT_REG : DT_DIR);
        if (isFile) {
            EXPECT_EQ(entry->d_ino, local.st_ino);
        }
    }
    EXPECT_EQ(seen, 4); // with "." and ".."
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(SmbShare, Rewinddir_ListsAnew) {
    ASSERT_EQ(fs.mkdir("/d", 0755), 0);
    putLocal("/d/a");
    const auto directory = fs.opendir("/d");
    EXPECT_EQ(names(*directory), QStringList({".", "..", "a"}));
    putLocal("/d/b");
    EXPECT_EQ(directory->rewinddir(), 0);
    EXPECT_EQ(names(*directory), QStringList({".", "..", "a", "b"}));
    // Closed, it opens again.
    EXPECT_EQ(directory->closedir(), 0);
    EXPECT_EQ(directory->closedir(), 0);
    EXPECT_EQ(directory->readdir(), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(directory->rewinddir(), 0);
    EXPECT_EQ(names(*directory), QStringList({".", "..", "a", "b"}));
    // Gone, it is closed, and nothing but errno says so.
    ASSERT_TRUE(QDir(local("/d")).removeRecursively());
    EXPECT_EQ(directory->rewinddir(), 0);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(directory.staticCast<Smb2Dir>()->isOpen());
    EXPECT_EQ(directory->readdir(), nullptr);
}

TEST_F(SmbShare, DirectoryThatCannotBeOpened_IsClosed) {
    QString path = "/missing";
    Smb2Dir directory(&fs, path);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(directory.isOpen());
    EXPECT_EQ(directory.readdir(), nullptr);
    EXPECT_EQ(directory.closedir(), 0);
}

TEST_F(SmbShare, Opendir_OfAFile_ENOTDIR) {
    putLocal("/f");
    EXPECT_FALSE(fs.opendir("/f"));
    EXPECT_EQ(errno, ENOTDIR);
}

// --- Files --------------------------------------------------------------------------------------

TEST_F(SmbWire, Write_GoesInPiecesOf64KiB) {
    const auto file = fs.open("/f", O_RDWR | O_CREAT, 0644);
    QByteArray content;
    while (content.size() < 200'000)
        content += QByteArray::number(content.size()) + ' ';
    content.truncate(200'000);
    proxy->clear();
    EXPECT_EQ(file->write(content.constData(), content.size()), 200'000);
    EXPECT_EQ(lengths(FaultProxy::Write), (std::vector<quint32>{65536, 65536, 65536, 3392}));
    EXPECT_EQ(file->lseek(0, SEEK_CUR), 200'000);
    EXPECT_EQ(file->lseek(0, SEEK_END), 200'000);
    proxy->clear();
    EXPECT_EQ(file->pwrite(content.constData(), content.size(), 300'000), 200'000);
    EXPECT_EQ(lengths(FaultProxy::Write), (std::vector<quint32>{65536, 65536, 65536, 3392}));
    EXPECT_EQ(getLocal("/f").left(200'000), content);
    EXPECT_EQ(getLocal("/f").mid(300'000), content);
}

TEST_F(SmbWire, Read_IsOneRequest) {
    putLocal("/f", QByteArray(1 << 20, 'r'));
    const auto file = fs.open("/f", O_RDONLY, 0);
    QByteArray buf(1 << 20, '\0');
    // The server grants its credits one answer after another.
    fs.stat("/f", *std::make_unique<struct stat>());
    proxy->clear();
    EXPECT_EQ(file->read(buf.data(), buf.size()), buf.size());
    EXPECT_EQ(file->pread(buf.data(), 200'000, 100'000), 200'000);
    EXPECT_EQ(lengths(FaultProxy::Read), (std::vector<quint32>{1 << 20, 200'000}));
    EXPECT_EQ(file->lseek(0, SEEK_CUR), 1 << 20);
}

TEST_F(SmbWire, ZeroBytes_NoRequest) {
    const auto file = fs.open("/f", O_RDWR | O_CREAT, 0644);
    char buf[1];
    proxy->clear();
    liberrno = NotFound;
    EXPECT_EQ(file->read(buf, 0), 0);
    EXPECT_EQ(liberrno, Ok);
    EXPECT_EQ(file->write(buf, 0), 0);
    EXPECT_EQ(file->pread(buf, 0, 5), 0);
    EXPECT_EQ(file->pwrite(buf, 0, 5), 0);
    EXPECT_EQ(file->lseek(0, SEEK_END), 5);
    EXPECT_EQ(proxy->messages().size(), 0);
}

namespace {

/// Lets the server say that it has taken nothing.
const auto takesNothing = FaultProxy::Fault::edit(
    [](QByteArray& message) { message.replace(64 + 4, 4, QByteArray(4, '\0')); });
/// Lets it say that it has taken 1000 bytes.
const auto takesAThousand = FaultProxy::Fault::edit(
    [](QByteArray& message) { message.replace(64 + 4, 4, QByteArray("\xe8\x03\0\0", 4)); });

} // namespace

TEST_F(SmbWire, WriteOfWhichNothingIsTaken_IsSentAgain) {
    const auto file = fs.open("/f", O_RDWR | O_CREAT, 0644);
    const QByteArray content(100'000, 'w');
    proxy->clear();
    for (int i = 0; i < 5; ++i)
        proxy->on({FaultProxy::Response, FaultProxy::Write}, takesNothing);
    EXPECT_EQ(file->write(content.constData(), content.size()), content.size());
    EXPECT_EQ(lengths(FaultProxy::Write),
              (std::vector<quint32>{65536, 65536, 65536, 65536, 65536, 65536, 34464}));
    EXPECT_EQ(getLocal("/f"), content);
}

TEST_F(SmbWire, PwriteOfWhichNothingIsTaken_EndsWithSuccess) {
    const auto file = fs.open("/f", O_RDWR | O_CREAT, 0644);
    const QByteArray content(200'000, 'w');
    proxy->clear();
    proxy->on({FaultProxy::Response, FaultProxy::Write, 2}, takesNothing);
    EXPECT_EQ(file->pwrite(content.constData(), content.size(), 0), content.size());
    EXPECT_EQ(lengths(FaultProxy::Write), (std::vector<quint32>{65536, 65536}));
    EXPECT_EQ(file->lseek(0, SEEK_END), content.size());
}

TEST_F(SmbWire, WritePartlyTaken_RestIsSent) {
    const auto file = fs.open("/f", O_RDWR | O_CREAT, 0644);
    const QByteArray content = QByteArray(1000, 'a') + QByteArray(99'000, 'b');
    for (const bool positioned : {false, true}) {
        proxy->clear();
        proxy->on({FaultProxy::Response, FaultProxy::Write}, takesAThousand);
        const int size = content.size();
        EXPECT_EQ(positioned ? file->pwrite(content.constData(), size, 0)
                             : file->write(content.constData(), size),
                  size);
        EXPECT_EQ(lengths(FaultProxy::Write), (std::vector<quint32>{65536, 65536, 33464}));
        EXPECT_EQ(proxy->messages(FaultProxy::Request, FaultProxy::Write)[1].offset, 1000U);
        EXPECT_EQ(getLocal("/f"), content);
    }
}

TEST_F(SmbShare, TooLongForAResult_Refused) {
    const auto file = create("/f");
    char byte = 'x';
    EXPECT_EQ(file->write(&byte, 0x80000000U), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(file->pwrite(&byte, 0x80000000U, 0), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(file->lseek(0, SEEK_END), 0);
    EXPECT_EQ(file->pwrite(&byte, 1, -1), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(file->pread(&byte, 1, -1), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(file->pwrite(&byte, 1, std::numeric_limits<long long>::max()), -1);
    EXPECT_EQ(errno, EFBIG);
    EXPECT_EQ(file->lseek(std::numeric_limits<long long>::max(), SEEK_SET),
              std::numeric_limits<long long>::max());
    EXPECT_EQ(file->write(&byte, 1), -1);
    EXPECT_EQ(errno, EFBIG);
    EXPECT_EQ(file->ftruncate(-1), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(fs.truncate("/f", -1), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(getLocal("/f").size(), 0);
}

TEST_F(SmbShare, ReadOfMoreThanTheServerSends_IsShort) {
    const QByteArray content(20 << 20, 'r');
    putLocal("/f", content);
    const auto file = fs.open("/f", O_RDONLY, 0);
    QByteArray buf(content.size(), '\0');
    int done = 0;
    int requests = 0;
    while (done < buf.size()) {
        const int count = file->read(buf.data() + done, buf.size() - done);
        ASSERT_GT(count, 0) << strerror();
        done += count;
        ++requests;
    }
    EXPECT_GT(requests, 1);
    EXPECT_EQ(buf, content);
    EXPECT_EQ(file->read(buf.data(), 1), 0);
}

TEST_F(SmbShare, Liberrno_ClearedByTheseOnly) {
    putLocal("/f");
    putLocal("/g");
    const auto file = create("/f");
    const auto directory = fs.opendir("/");
    char byte = 0;
    struct stat st;
    struct statfs sizes;
    QString target;
    const auto clears = [](const std::function<void()>& call) {
        liberrno = NotFound;
        call();
        return liberrno == Ok;
    };
    EXPECT_TRUE(clears([&] { file->write(&byte, 1); }));
    EXPECT_TRUE(clears([&] { file->read(&byte, 1); }));
    EXPECT_TRUE(clears([&] { file->pwrite(&byte, 1, 0); }));
    EXPECT_TRUE(clears([&] { file->pread(&byte, 1, 0); }));
    EXPECT_TRUE(clears([&] { file->lseek(0, SEEK_SET); }));
    EXPECT_TRUE(clears([&] { file->ftruncate(0); }));
    EXPECT_TRUE(clears([&] { file->fsync(); }));
    EXPECT_TRUE(clears([&] { file->fdatasync(); }));
    EXPECT_FALSE(clears([&] { file->fstat(st); }));
    EXPECT_FALSE(clears([&] { file->fcntl(F_GETFL); }));
    EXPECT_TRUE(clears([&] { file->close(); }));
    EXPECT_TRUE(clears([&] { fs.open("/f", O_RDONLY, 0); }));
    EXPECT_TRUE(clears([&] { fs.opendir("/"); }));
    EXPECT_FALSE(clears([&] { directory->readdir(); }));
    EXPECT_FALSE(clears([&] { directory->rewinddir(); }));
    EXPECT_FALSE(clears([&] { directory->closedir(); }));
    EXPECT_FALSE(clears([&] { fs.stat("/f", st); }));
    EXPECT_FALSE(clears([&] { fs.statfs("/", sizes); }));
    EXPECT_FALSE(clears([&] { fs.mkdir("/d", 0755); }));
    EXPECT_FALSE(clears([&] { fs.rmdir("/d"); }));
    EXPECT_FALSE(clears([&] { fs.rename("/g", "/h"); }));
    EXPECT_FALSE(clears([&] { fs.truncate("/h", 1); }));
    EXPECT_FALSE(clears([&] { fs.unlink("/h"); }));
    EXPECT_FALSE(clears([&] { fs.readlink("/f", target); }));
    EXPECT_FALSE(clears([&] { fs.disconnect(); }));
}

TEST_F(SmbShare, AppendFlag_HasNoEffect) {
    putLocal("/f", "0123456789");
    const auto file = fs.open("/f", O_WRONLY | O_APPEND, 0);
    EXPECT_EQ(file->write("ab", 2), 2);
    EXPECT_EQ(getLocal("/f"), "ab23456789");
}

TEST_F(SmbShare, BeyondFourGiB_Sparse) {
    constexpr long long far = 5LL << 30;
    const auto file = create("/sparse");
    EXPECT_EQ(file->pwrite("far", 3, far), 3);
    EXPECT_EQ(file->lseek(0, SEEK_END), far + 3);
    EXPECT_EQ(file->lseek(far + 1, SEEK_SET), far + 1);
    char buf[4] = {};
    EXPECT_EQ(file->read(buf, 3), 2);
    EXPECT_STREQ(buf, "ar");
    EXPECT_EQ(file->lseek(far + 3, SEEK_SET), far + 3);
    EXPECT_EQ(file->write("ther", 4), 4);
    struct stat st;
    EXPECT_EQ(fs.stat("/sparse", st), 0);
    EXPECT_EQ(st.st_size, far + 7);
    EXPECT_EQ(QFileInfo(local("/sparse")).size(), far + 7);
    EXPECT_EQ(fs.truncate("/sparse", far - 1), 0);
    EXPECT_EQ(file->fstat(st), 0);
    EXPECT_EQ(st.st_size, far - 1);
    EXPECT_EQ(file->ftruncate(far + 1), 0);
    EXPECT_EQ(fs.stat("/sparse", st), 0);
    EXPECT_EQ(st.st_size, far + 1);
}

TEST_F(SmbShare, Positions_OfThisObjectOnly) {
    const auto file = create("/f");
    EXPECT_EQ(file->pwrite("0123456789", 10, 100), 10);
    EXPECT_EQ(file->lseek(0, SEEK_CUR), 0);
    EXPECT_EQ(file->lseek(0, SEEK_END), 110);
    EXPECT_EQ(file->lseek(0, SEEK_SET), 0);
    char buf[10];
    EXPECT_EQ(file->pread(buf, 5, 100), 5);
    EXPECT_EQ(file->lseek(0, SEEK_CUR), 0);
    // What pread() and pwrite() were at does not move what read() and write() are at.
    EXPECT_EQ(file->write("ab", 2), 2);
    EXPECT_EQ(file->pread(buf, 2, 0), 2);
    EXPECT_EQ(std::string(buf, 2), "ab");
    EXPECT_EQ(file->lseek(0, SEEK_CUR), 2);
    EXPECT_EQ(file->ftruncate(1000), 0);
    EXPECT_EQ(file->lseek(0, SEEK_END), 110); // not the size
}

TEST_F(SmbWire, Lseek_Table) {
    putLocal("/f", QByteArray(1000, 'x'));
    const auto file = fs.open("/f", O_RDWR, 0);
    proxy->clear();
    LogCapture log("libio_smb2=12");
    const auto fails = [&](long long offset, int whence, int error) {
        errno = 0;
        liberrno = NotFound;
        const bool failed = file->lseek(offset, whence) == -1 && errno == error;
        return failed && liberrno == Ok;
    };
    const QString negative = "libio_smb2 12 Invalid seek offset: %1";

    // The end is that of what was written through this object.
    EXPECT_EQ(file->lseek(0, SEEK_END), 0);
    EXPECT_EQ(file->lseek(7, SEEK_END), 7);
    EXPECT_EQ(file->lseek(0, SEEK_CUR), 7);
    EXPECT_EQ(file->lseek(3, SEEK_CUR), 10);
    EXPECT_EQ(file->lseek(-10, SEEK_CUR), 0);
    EXPECT_EQ(file->lseek(0, SEEK_CUR), 0);
    EXPECT_EQ(file->lseek(5'000'000'000, SEEK_SET), 5'000'000'000);
    EXPECT_EQ(file->lseek(2, SEEK_SET), 2);
    EXPECT_EQ(log.messages(), QStringList());

    // A negative position is kept.
    EXPECT_TRUE(fails(-5, SEEK_SET, EINVAL));
    EXPECT_TRUE(fails(0, SEEK_CUR, EINVAL));
    EXPECT_EQ(log.messages(), QStringList({negative.arg(-5), negative.arg(-5)}));
    EXPECT_EQ(file->lseek(10, SEEK_CUR), 5);
    EXPECT_TRUE(fails(-6, SEEK_CUR, EINVAL));
    EXPECT_EQ(file->lseek(1, SEEK_CUR), 0);
    EXPECT_TRUE(fails(-1, SEEK_END, EINVAL));
    EXPECT_EQ(log.messages(), QStringList({negative.arg(-1), negative.arg(-1)}));

    EXPECT_EQ(file->lseek(4, SEEK_SET), 4);
    for (const int whence : {3, -1, SEEK_HOLE}) {
        EXPECT_TRUE(fails(0, whence, EINVAL));
        EXPECT_EQ(log.messages(), QStringList("libio_smb2 12 Invalid lseek whence code '" +
                                              QString::number(whence) + "'"));
    }
    EXPECT_EQ(file->lseek(0, SEEK_CUR), 4);

    // What no offset can hold moves nothing.
    EXPECT_TRUE(fails(std::numeric_limits<long long>::max(), SEEK_CUR, EOVERFLOW));
    EXPECT_EQ(file->lseek(0, SEEK_CUR), 4);
    EXPECT_EQ(log.messages(), QStringList());
    EXPECT_EQ(proxy->messages().size(), 0);
}

TEST_F(SmbShare, NegativePosition_ReadsAndWritesGoOnWhereTheyWere) {
    putLocal("/f", "0123456789");
    const auto file = fs.open("/f", O_RDWR, 0);
    EXPECT_EQ(file->lseek(4, SEEK_SET), 4);
    EXPECT_EQ(file->lseek(-5, SEEK_SET), -1);
    char buf[3] = {};
    EXPECT_EQ(file->read(buf, 2), 2);
    EXPECT_STREQ(buf, "45");
    EXPECT_EQ(file->lseek(0, SEEK_CUR), -1); // at -3
    EXPECT_EQ(file->write("xy", 2), 2);
    EXPECT_EQ(getLocal("/f"), "012345xy89");
    EXPECT_EQ(file->lseek(3, SEEK_CUR), 2);
    EXPECT_EQ(file->read(buf, 2), 2);
    EXPECT_STREQ(buf, "23");
}

TEST_F(SmbShare, SeekBackToTheStart_IsWhereReadsGoOn) {
    putLocal("/f", "0123456789");
    const auto file = fs.open("/f", O_RDWR, 0);
    char buf[5] = {};
    EXPECT_EQ(file->read(buf, 4), 4);
    EXPECT_EQ(file->lseek(-4, SEEK_CUR), 0);
    EXPECT_EQ(file->read(buf, 4), 4);
    EXPECT_STREQ(buf, "0123");
}

TEST_F(SmbShare, UnsupportedOnFiles_EOPNOTSUPP) {
    const auto file = create("/f");
    const auto refused = [](int result) { return result == -1 && errno == EOPNOTSUPP; };
    liberrno = NotFound;
    EXPECT_TRUE(refused(file->fcntl(F_GETFL)));
    EXPECT_TRUE(refused(file->flock(LOCK_EX)));
    EXPECT_TRUE(refused(file->fchmod(0600)));
    EXPECT_EQ(liberrno, NotFound);
    EXPECT_TRUE(refused(file->fdatasync()));
    EXPECT_EQ(liberrno, Ok);
    EXPECT_EQ(file->fsync(), 0);
    QString response;
    EXPECT_EQ(file->ioctl("anything", response), -1);
    EXPECT_EQ(liberrno, NotImplemented);
    liberrno = Ok;
    EXPECT_EQ(fs.opendir("/")->ioctl("anything", response), -1);
    EXPECT_EQ(liberrno, NotImplemented);
}

TEST_F(SmbWire, CloseTwice_OneRequest) {
    const auto file = fs.open("/f", O_RDWR | O_CREAT, 0644);
    proxy->clear();
    EXPECT_EQ(file->close(), 0);
    EXPECT_EQ(file->close(), 0);
    EXPECT_EQ(proxy->messages(FaultProxy::Request, FaultProxy::Close).size(), 1);
    struct stat st;
    char byte;
    EXPECT_EQ(file->fstat(st), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(file->read(&byte, 1), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(SmbWire, LastHolderGone_FileIsClosed) {
    {
        const auto file = fs.open("/f", O_RDWR | O_CREAT, 0644);
        proxy->clear();
    }
    EXPECT_EQ(proxy->messages(FaultProxy::Request, FaultProxy::Close).size(), 1);
}

// --- What outlives its connection ---------------------------------------------------------------

namespace {

/// Every operation of a file and a directory whose connection is gone.
void expectStale(File& file, Directory& directory) {
    const auto stale = [](long long result) {
        const int reason = errno;
        errno = 0;
        return result == -1 && reason == EBADF;
    };
    struct stat st;
    char buf[8] = {};
    EXPECT_TRUE(stale(file.read(buf, 8)));
    EXPECT_TRUE(stale(file.write(buf, 8)));
    EXPECT_TRUE(stale(file.pread(buf, 8, 0)));
    EXPECT_TRUE(stale(file.pwrite(buf, 8, 0)));
    EXPECT_TRUE(stale(file.fstat(st)));
    EXPECT_TRUE(stale(file.ftruncate(0)));
    EXPECT_TRUE(stale(file.fsync()));
    EXPECT_TRUE(stale(file.lseek(1, SEEK_SET)));
    EXPECT_TRUE(stale(file.close()));
    EXPECT_EQ(file.close(), 0);
    EXPECT_EQ(directory.readdir(), nullptr);
    EXPECT_EQ(errno, EBADF);
    EXPECT_TRUE(stale(directory.rewinddir()));
    EXPECT_EQ(directory.closedir(), 0);
}

} // namespace

TEST_F(SmbShare, ConnectedAnew_WhatWasOpenIsStale) {
    const auto file = create("/f");
    const auto directory = fs.opendir("/");
    EXPECT_EQ(fs.connect(login(server.address())), 0);
    expectStale(*file, *directory);
    EXPECT_TRUE(fs.isConnected());
    struct stat st;
    EXPECT_EQ(fs.stat("/f", st), 0);
}

// A closed directory belongs to no connection: it opens in the one that there is.
TEST_F(SmbShare, ConnectedAnew_AClosedDirectoryOpensAgain) {
    putLocal("/f");
    const auto directory = fs.opendir("/");
    EXPECT_EQ(directory->closedir(), 0);
    EXPECT_EQ(fs.connect(login(server.address())), 0);
    EXPECT_EQ(directory->readdir(), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(directory->rewinddir(), 0);
    EXPECT_EQ(names(*directory), QStringList({".", "..", "f"}));
    // Now it belongs to that one.
    EXPECT_EQ(fs.connect(login(server.address())), 0);
    EXPECT_EQ(directory->readdir(), nullptr);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(directory->rewinddir(), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(directory->closedir(), 0);
    EXPECT_EQ(directory->rewinddir(), 0);
    EXPECT_EQ(names(*directory), QStringList({".", "..", "f"}));
}

TEST_F(SmbShare, ConnectedAnew_AClosedDirectoryThatIsGoneStaysClosed) {
    ASSERT_EQ(fs.mkdir("/d", 0755), 0);
    const auto directory = fs.opendir("/d");
    EXPECT_EQ(directory->closedir(), 0);
    ASSERT_EQ(fs.rmdir("/d"), 0);
    EXPECT_EQ(fs.connect(login(server.address())), 0);
    errno = 0;
    EXPECT_EQ(directory->rewinddir(), 0);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(directory.staticCast<Smb2Dir>()->isOpen());
}

TEST_F(SmbShare, DirectoryMadeWhileFatal_OpensOnceConnected) {
    putLocal("/f");
    set_errno(&fs, -ETIMEDOUT, nullptr, "stat", "f");
    QString path = "/";
    Smb2Dir directory(&fs, path);
    EXPECT_EQ(fs.connect(login(server.address())), 0);
    EXPECT_EQ(directory.readdir(), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(directory.rewinddir(), 0);
    EXPECT_EQ(names(directory), QStringList({".", "..", "f"}));
}

TEST_F(Smb, ShareDestroyed_WhatWasOpenIsStale) {
    auto fs = std::make_unique<Smb2FS>(10);
    ASSERT_EQ(fs->connect(login(server.address())), 0);
    const auto file = fs->open("/f", O_RDWR | O_CREAT, 0644);
    const auto directory = fs->opendir("/");
    fs.reset();
    expectStale(*file, *directory);
}

TEST_F(SmbShare, Disconnected_WhatWasOpenIsNotConnected) {
    const auto file = create("/f");
    const auto directory = fs.opendir("/");
    EXPECT_EQ(fs.disconnect(), 0);
    char byte = 0;
    struct stat st;
    const auto isNotConnected = [](long long result) {
        const int reason = errno;
        errno = 0;
        return result == -1 && reason == ENOTCONN;
    };
    EXPECT_TRUE(isNotConnected(file->write(&byte, 1)));
    EXPECT_TRUE(isNotConnected(file->read(&byte, 1)));
    EXPECT_TRUE(isNotConnected(file->pwrite(&byte, 1, 0)));
    EXPECT_TRUE(isNotConnected(file->pread(&byte, 1, 0)));
    EXPECT_TRUE(isNotConnected(file->fstat(st)));
    EXPECT_TRUE(isNotConnected(file->ftruncate(0)));
    EXPECT_TRUE(isNotConnected(file->fsync()));
    EXPECT_EQ(file->write(&byte, 0), 0);
    EXPECT_EQ(file->pwrite(&byte, 0, -1), 0);
    LogCapture log("libio_smb2=12");
    errno = 0;
    EXPECT_EQ(file->lseek(1, SEEK_SET), -ENOTCONN); // the code itself, and errno stays
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(log.messages(), QStringList("libio_smb2 10 smb lseek failed\n"));
    EXPECT_EQ(directory->readdir(), nullptr);
    EXPECT_EQ(directory->closedir(), 0);
    EXPECT_EQ(file->close(), -1);
    EXPECT_EQ(errno, ENOTCONN);
}

// --- Threads and signals ------------------------------------------------------------------------

TEST_F(Smb, TwoSharesEightThreads_EachGetsItsOwn) {
    Smb2FS first(20);
    Smb2FS second(20);
    ASSERT_EQ(first.connect(login(server.address())), 0);
    ASSERT_EQ(second.connect(login(server.address(), "rw2")), 0);
    const auto work = [&](Smb2FS& fs, int number) {
        const QString path = "/thread-" + QString::number(number);
        for (int round = 0; round < 10; ++round) {
            const QByteArray content(70'000 + number, char('a' + (number + round) % 26));
            const auto file = fs.open(path, O_RDWR | O_CREAT | O_TRUNC, 0644);
            ASSERT_TRUE(file) << strerror();
            ASSERT_EQ(file->write(content.constData(), content.size()), content.size());
            QByteArray back(content.size(), '\0');
            ASSERT_EQ(file->pread(back.data(), back.size(), 0), back.size()) << strerror();
            ASSERT_EQ(back, content);
            ASSERT_EQ(file->close(), 0);
            struct stat st;
            ASSERT_EQ(fs.stat(path, st), 0);
            ASSERT_EQ(st.st_size, content.size());
            ASSERT_TRUE(fs.opendir("/"));
            ASSERT_EQ(fs.unlink(path), 0) << strerror();
            ASSERT_EQ(fs.stat(path, st), -1);
            ASSERT_EQ(errno, ENOENT);
        }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&, i] { work(i % 2 ? first : second, i); });
    for (std::thread& thread : threads)
        thread.join();
}

TEST_F(Smb, ConnectedFromManyThreads_ContextsAreMadeOneByOne) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < 5; ++round) {
                Smb2FS fs(20);
                ASSERT_EQ(fs.connect(login(server.address())), 0) << strerror();
                struct stat st;
                ASSERT_EQ(fs.stat("/", st), 0);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
}

namespace {

/// Interrupts the process all the time.
class Interruptions {
public:
    Interruptions() {
        struct sigaction action = {};
        action.sa_handler = [](int) {}; // without SA_RESTART
        sigaction(SIGALRM, &action, &m_before);
        const struct itimerval often = {{0, 500}, {0, 500}};
        setitimer(ITIMER_REAL, &often, nullptr);
    }
    ~Interruptions() {
        const struct itimerval never = {};
        setitimer(ITIMER_REAL, &never, nullptr);
        sigaction(SIGALRM, &m_before, nullptr);
    }

private:
    struct sigaction m_before;
};

} // namespace

TEST_F(SmbShare, Interrupted_NothingFails) {
    const Interruptions interruptions;
    const auto file = create("/f");
    ASSERT_TRUE(file);
    QByteArray content(1 << 20, 'i');
    for (int i = 0; i < 32; ++i)
        ASSERT_EQ(file->write(content.constData(), content.size()), content.size()) << strerror();
    EXPECT_EQ(file->lseek(0, SEEK_SET), 0);
    for (int i = 0; i < 32; ++i)
        ASSERT_EQ(file->read(content.data(), content.size()), content.size()) << strerror();
    struct stat st;
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(fs.stat("/f", st), 0) << strerror();
    EXPECT_EQ(fs.connect(login(server.address())), 0);
}

// --- Conformance --------------------------------------------------------------------------------

namespace {

test::Backend shareBackend() {
    test::Backend backend;
    backend.skipReason = SmbServer::missing().toStdString();
    if (!backend.skipReason.empty())
        return backend;
    const SmbServer& server = SmbServer::shared();
    EXPECT_EQ(server.problem(), "");
    const auto fs = QSharedPointer<Smb2FS>::create(10);
    EXPECT_EQ(fs->connect(login(server.address())), 0) << strerror();
    backend.fs = fs;
    using test::Answer;
    using test::Op;
    backend.can.type = "Smb2FS";
    backend.can.fileType = "Smb2File";
    backend.can.directoryType = "Smb2Directory";
    backend.can.closedirAgain = 0;
    backend.can.readlinkPads = true;
    backend.can.keepsModes = false;
    backend.can.appends = false;
    backend.can.caseSensitive = false;
    for (const Op op : {Op::Link, Op::Symlink, Op::Xattr, Op::Listxattr, Op::Chmod, Op::FileFchmod,
                        Op::FileFlock, Op::FileFcntlFlags, Op::FileFcntlLock})
        backend.can.answers[op] = Answer::fails(EOPNOTSUPP);
    backend.can.anyCharacter = false;
    backend.can.answers[Op::FileFdatasync] = Answer::fails(EOPNOTSUPP);
    backend.can.answers[Op::LseekFromEnd] = Answer::isSomethingElse();
    // What the server's answers are in libsmb2's translation.
    backend.can.answers[Op::OpenDirectoryForWriting] = Answer::fails(EPERM);
    backend.can.answers[Op::OpenThroughFile] = Answer::fails(ENOENT);
    backend.can.answers[Op::NameTooLong] = Answer::fails(EIO);
    backend.can.answers[Op::StatNameTooLong] = Answer::fails(EIO);
    backend.can.answers[Op::OddCharacter] = Answer::fails(EIO);
    backend.can.answers[Op::ReadWriteOnlyFile] = Answer::fails(EACCES);
    backend.can.answers[Op::WriteReadOnlyFile] = Answer::fails(EACCES);
    backend.can.answers[Op::RenameOntoExisting] = Answer::fails(EEXIST);
    backend.can.answers[Op::UnlinkDirectory] = Answer::fails(EPERM);
    backend.can.answers[Op::UnlinkOpenFile] = Answer::fails(ETXTBSY);
    backend.can.answers[Op::OpenDirectory] = Answer::fails(EPERM);
    return backend;
}

} // namespace

namespace test {

ORUIO_CONFORMS(Smb2FS, shareBackend);

} // namespace test
} // namespace oru::io
