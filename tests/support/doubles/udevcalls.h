// Stands between the library and libudev, and poll(2), in test programs that compile this in:
// counts what the library holds, and makes its calls fail.
//
// As long as the environment has ORUIO_TEST_FAILS, which may be from the start, the function named
// there fails: udev_new, udev_monitor_new_from_netlink or udev_monitor_enable_receiving.
#pragma once

#include <QByteArray>

#include <functional>

namespace oru::io::test {

/// Objects that libudev has given out and not got back.
int heldUdevObjects();

/// The source of messages that the last monitor was asked for.
QByteArray udevMonitorSource();

/// How many devices udev_monitor_receive_device() has returned.
int receivedUdevDevices();

/// udev_device_new_from_syspath() does not find this device; with an empty path, it finds all.
void hideUdevDevice(const QByteArray& syspath);

/// The next calls of udev_monitor_receive_device(), as many as told, fail with `error`.
void failUdevReceive(int error, int times);

/// The next waits by poll(2) for the longest time that it can take, as many as told, end at once.
void shortenLongestPolls(int times);

/// Calls this when the library is about to enumerate devices; nothing, if it is empty.
void beforeUdevEnumerates(std::function<void()> call);

} // namespace oru::io::test
