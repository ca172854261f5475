// SPDX-License-Identifier: Apache-2.0
// BDMon: its meta-object and its virtual function table.

#include "bdmontest.h"
#include "support/suite/slots.h"
#include "support/system/isolation.h"

#include <QCoreApplication>
#include <QMetaMethod>

#include <cstring>

namespace oru::io::test {
namespace {

TEST_F(BDMonTest, MetaObject_Methods_OneSignalAndOneSlot) {
    const QMetaObject& meta = BDMon::staticMetaObject;
    QStringList methods;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        const QMetaMethod method = meta.method(i);
        methods += QStringLiteral("%1 %2 %3")
                       .arg(int{method.methodType()})
                       .arg(method.typeName(), method.methodSignature().constData());
        EXPECT_EQ(method.access(), QMetaMethod::Public);
    }
    const QString signal = QString::number(QMetaMethod::Signal);
    const QString slot = QString::number(QMetaMethod::Slot);
    EXPECT_EQ(methods, QStringList({signal + " void notify(oru::io::BDMon::EventListSPtr,"
                                             "oru::io::BDMon::EventListByDeviceSPtr)",
                                    slot + " int update(uint)", slot + " int update()"}));
    EXPECT_STREQ(meta.className(), "oru::io::BDMon");
    EXPECT_STREQ(meta.superClass()->className(), "QObject");
}

TEST_F(BDMonTest, MetaObject_UpdateWithoutArgument_WaitsHalfASecond) {
    const QString disk = testbed.addDisk("sda", "usb-1");
    startAndForget();
    testbed.send(disk, "change");
    int result = -1;
    const milliseconds taken = durationOf([&] {
        EXPECT_TRUE(QMetaObject::invokeMethod(monitor, "update", Qt::DirectConnection,
                                              Q_RETURN_ARG(int, result)));
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(batches.size(), 1);
    EXPECT_GE(taken, milliseconds(500));
    EXPECT_LT(taken, milliseconds(500) + atOnce);
}

TEST_F(BDMonTest, MetaObject_UpdateWithArgument_WaitsThatLong) {
    const QString disk = testbed.addDisk("sda", "usb-1");
    startAndForget();
    testbed.send(disk, "change");
    const milliseconds taken = durationOf([&] {
        EXPECT_TRUE(QMetaObject::invokeMethod(monitor, "update", Qt::DirectConnection,
                                              Q_ARG(unsigned int, 900)));
    });
    EXPECT_EQ(batches.size(), 1);
    EXPECT_GE(taken, milliseconds(900));
}

TEST_F(BDMonTest, MetaObject_SignalParameters_AreRegisteredTypes) {
    const int notify = BDMon::staticMetaObject.indexOfSignal(
        "notify(oru::io::BDMon::EventListSPtr,oru::io::BDMon::EventListByDeviceSPtr)");
    ASSERT_NE(notify, -1);
    const QMetaMethod signal = BDMon::staticMetaObject.method(notify);
    EXPECT_EQ(signal.parameterType(0), qMetaTypeId<BDMon::EventListSPtr>());
    EXPECT_EQ(signal.parameterType(1), qMetaTypeId<BDMon::EventListByDeviceSPtr>());
}

template <class Base>
struct Extended : Base {
    virtual void next();
};

TEST(Slots, BDMon_FollowQObjectsInOrder) {
    int slot = slotOf(&Extended<QObject>::next);
    EXPECT_EQ(slotOf(&BDMon::update), slot++);
    EXPECT_EQ(slotOf(&BDMon::start), slot++);
    EXPECT_EQ(slotOf(&BDMon::stop), slot++);
    EXPECT_EQ(slotOf(&BDMon::isRunning), slot++);
    EXPECT_EQ(slotOf(&Extended<BDMon>::next), slot);
}

} // namespace
} // namespace oru::io::test

#if defined(__SANITIZE_THREAD__)
// These libraries are not instrumented, so the sanitizer does not see their locks, nor the data
// that they pass to another thread: umockdev passes ioctl results, Qt the arguments of queued
// calls.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions() {
    return "called_from_lib:libumockdev.so\n"
           "called_from_lib:libumockdev-preload.so\n"
           "called_from_lib:libudev.so\n"
           "called_from_lib:libglib-2.0.so\n"
           "called_from_lib:libgobject-2.0.so\n"
           "called_from_lib:libgio-2.0.so\n"
           "race:handleIoctl\n"
           "race:QObject::event\n";
}
#endif

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "--role") == 0)
        return oru::io::test::runRole(argv[2]);
    // Without a private network namespace, only the tests that need one are skipped.
    oru::io::test::isolate(oru::io::test::Namespaces::MountAndNetwork);
    const QCoreApplication application(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
