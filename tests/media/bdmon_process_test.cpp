// SPDX-License-Identifier: Apache-2.0
// BDMon in a process of its own: loading, failures and the debug variable.

#include "bdmontest.h"
#include "support/suite/logcapture.h"

#include <QProcess>
#include <QRegularExpression>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

namespace oru::io::test {

int runRole(const char* role) {
    if (std::strcmp(role, "idle") == 0) {
        std::printf("%d descriptors, %d threads\n", openDescriptors(),
                    QDir("/proc/self/task").entryList(QDir::Dirs | QDir::NoDotAndDotDot).size());
        return 0;
    }
    if (std::strcmp(role, "types") == 0) {
        for (const char* name : {"BDMon::EventListSPtr", "BDMon::EventListByDeviceSPtr",
                                 "BlockDevice::SPtr", "BDMon::NoSuchType"}) {
            const int type = QMetaType::type(QByteArray("oru::io::") + name);
            std::printf("%s %d\n", name, type != QMetaType::UnknownType);
        }
        return 0;
    }
    if (std::strcmp(role, "start-logged") == 0) {
        static LogCapture log("libio=12");
        std::atexit([] {
            for (const QString& message : log.messages())
                std::fputs(qPrintable(message), stdout);
        });
        BDMon::instance()->start();
        return 0;
    }
    if (std::strcmp(role, "watch") == 0) {
        BDMon::instance()->start();
        std::fputs("started\n", stderr);
        if (std::getchar() != '\n')
            return 2;
        BDMon::instance()->update(0);
        return 0;
    }
    return 3;
}

namespace {

/// Starts this program again with "--role ROLE".
class Program {
public:
    explicit Program(const QString& role, const char* variable = nullptr, const char* value = "") {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.remove("ORUIO_UDEVDBG");
        if (variable)
            environment.insert(variable, value);
        m_process.setProcessEnvironment(environment);
        close_range(3, ~0U, CLOSE_RANGE_CLOEXEC); // also descriptors that this program inherited
        m_process.start("/proc/self/exe", {"--role", role});
    }

    /// Waits for a line on standard error.
    QByteArray readErrorLine() {
        m_process.setReadChannel(QProcess::StandardError);
        while (!m_process.canReadLine() && m_process.waitForReadyRead())
            continue;
        return m_process.readLine();
    }
    void proceed() {
        m_process.write("\n");
    }
    int exitStatus() {
        if (!m_process.waitForFinished(60000) || m_process.exitStatus() != QProcess::NormalExit)
            return -1;
        return m_process.exitCode();
    }
    QByteArray output() {
        return m_process.readAllStandardOutput();
    }
    QByteArray errors() {
        return m_process.readAllStandardError();
    }

private:
    QProcess m_process;
};

TEST(BDMonProcess, Loaded_NoDescriptorAndNoThread) {
    Program program("idle");
    EXPECT_EQ(program.exitStatus(), 0);
    // The three standard descriptors, and the directory that openDescriptors() reads.
    EXPECT_EQ(program.output(), "4 descriptors, 1 threads\n");
}

// In a new process, because the use of a type in a connection also registers it with Qt.
TEST(BDMonProcess, Loaded_TypesRegisteredByName) {
    Program program("types");
    EXPECT_EQ(program.exitStatus(), 0);
    EXPECT_EQ(program.output(), "BDMon::EventListSPtr 1\nBDMon::EventListByDeviceSPtr 1\n"
                                "BlockDevice::SPtr 1\nBDMon::NoSuchType 0\n");
}

TEST(BDMonProcess, UdevContextFails_ExitsWithStatus1) {
    Program program("idle", "ORUIO_TEST_FAILS", "udev_new");
    EXPECT_EQ(program.exitStatus(), 1);
    EXPECT_EQ(program.errors(), "Fatal: Failed to create udev context\n");
    EXPECT_EQ(program.output(), "");
}

TEST(BDMonProcess, UdevMonitorFails_ExitsWithStatus1) {
    Program program("start-logged", "ORUIO_TEST_FAILS", "udev_monitor_new_from_netlink");
    EXPECT_EQ(program.exitStatus(), 1);
    EXPECT_EQ(program.output(), "libio 12 Fatal: Failed to create udev monitor\n");
}

TEST(BDMonProcess, Start_Succeeds_LogsNothing) {
    const UdevTestbed testbed;
    Program program("start-logged");
    EXPECT_EQ(program.exitStatus(), 0);
    EXPECT_EQ(program.output(), "");
}

class BDMonDebug : public ::testing::TestWithParam<const char*> {};

TEST_P(BDMonDebug, VariableSet_PrintsEveryDevice) {
    UdevTestbed testbed;
    const QString disk = testbed.addDisk("sda", "usb-1", {{"UDISKS_PRESENTATION_NOPOLICY", "a b"}});
    const QString ram = testbed.addDisk("ram0", "");
    Program program("watch", "ORUIO_UDEVDBG", GetParam());
    ASSERT_EQ(program.readErrorLine(), "started\n");
    testbed.send(ram, "change");
    testbed.send(disk, "remove");
    program.proceed();
    ASSERT_EQ(program.exitStatus(), 0);
    QString output = program.output();
    output.replace(QRegularExpression("SEQNUM               [0-9]+"), "SEQNUM               N");
    EXPECT_EQ(output, R"(
*** DEVICE ***
  DEVNAME              /dev/ram0
  DEVPATH              /devices/ram0
  DEVTYPE              disk
  SUBSYSTEM            block

*** END DEVICE ***

*** DEVICE ***
  DEVNAME              /dev/sda
  DEVPATH              /devices/sda
  DEVTYPE              disk
  ID_PATH              usb-1
  SUBSYSTEM            block
  UDISKS_PRESENTATION_NOPOLICY a b

*** END DEVICE ***

*** DEVICE ***
  ACTION               change
  DEVNAME              /dev/ram0
  DEVPATH              /devices/ram0
  DEVTYPE              disk
  SEQNUM               N
  SUBSYSTEM            block

*** END DEVICE ***

*** DEVICE ***
  ACTION               remove
  DEVNAME              /dev/sda
  DEVPATH              /devices/sda
  DEVTYPE              disk
  ID_PATH              usb-1
  SEQNUM               N
  SUBSYSTEM            block
  UDISKS_PRESENTATION_NOPOLICY a b

*** END DEVICE ***
)");
}

INSTANTIATE_TEST_SUITE_P(AnyValue, BDMonDebug, ::testing::Values("1", "0", ""));

TEST(BDMonProcess, DebugVariableUnset_PrintsNothing) {
    UdevTestbed testbed;
    const QString disk = testbed.addDisk("sda", "usb-1");
    Program program("watch");
    ASSERT_EQ(program.readErrorLine(), "started\n");
    testbed.send(disk, "remove");
    program.proceed();
    EXPECT_EQ(program.exitStatus(), 0);
    EXPECT_EQ(program.output(), "");
}

} // namespace
} // namespace oru::io::test
