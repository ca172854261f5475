// SPDX-License-Identifier: Apache-2.0
// Definitions of libudev functions and poll(2) that precede the real ones in test programs: they
// count the objects that the library holds, and can fail.
//
// The function named in the environment variable ORUIO_TEST_FAILS fails: udev_new,
// udev_monitor_new_from_netlink or udev_monitor_enable_receiving. The variable may be set before
// the program starts.
#pragma once

#include <QByteArray>

#include <functional>

namespace oru::io::test {

/// The number of libudev objects that the library holds.
int heldUdevObjects();

/// The source of messages ("udev" or "kernel") of the last monitor.
QByteArray udevMonitorSource();

/// The number of devices that udev_monitor_receive_device() has returned.
int receivedUdevDevices();

/// Hides this device from udev_device_new_from_syspath(). An empty path hides none.
void hideUdevDevice(const QByteArray& syspath);

/// The next `times` calls of udev_monitor_receive_device() fail with `error`.
void failUdevReceive(int error, int times);

/// The next `count` messages are lost, as when the queue is full: udev_monitor_receive_device()
/// fails once with ENOBUFS.
void loseUdevMessages(int count);

/// The next `times` calls of poll(2) with the longest time-out return 0 at once.
void shortenLongestPolls(int times);

/// Calls `call`, unless empty, before the library enumerates devices.
void beforeUdevEnumerates(std::function<void()> call);

} // namespace oru::io::test
