// SPDX-License-Identifier: Apache-2.0
// The exit statuses of the program, and the way it ends with one. oruio_sysutils(8) describes them.
#pragma once

#include <string>

enum class Status {
    BadOption = 2,
    ArgumentCount = 3,
    UnknownCommand = 4,
    UnknownType = 5,
    NotRoot = 10,
    NoTool = 11,
    NoDevice = 20,
    WrongKind = 21,
    SystemDisk = 22,
    InUse = 23,
    Locked = 24,
    WrongSize = 25,
    Protected = 26,
    NotFreed = 27,
    NoFileSystem = 28,
    BadTarget = 29,
    NoDirectory = 30,
    Cancelled = 31,
    ErrorsLeft = 40,
    NotChecked = 41,
    NotMade = 42,
    NotPartitioned = 43,
    NoPartition = 44,
    NotMounted = 45,
};

/// Prints "oruio_sysutils: MESSAGE" as one line on standard error and exits with the status.
/// Control characters and backslashes of the message are printed as octal escapes.
[[noreturn]] void fail(Status status, const std::string& message);
