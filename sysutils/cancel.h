// SPDX-License-Identifier: Apache-2.0
// Cancelling the program, and the point after which it cannot be cancelled.
#pragma once

namespace cancel {

/// Lets SIGTERM, SIGINT and SIGHUP cancel the program. An ignored SIGINT or SIGHUP stays ignored.
void watch();

bool isRequested();
bool isCommitted();

/// Ends the program with Status::Cancelled if that is requested.
void check();
[[noreturn]] void end();

/// The point of no return: reports it, and ignores the signals from then on. Ends the program
/// instead if it is cancelled, or if the process that the caller knows has been killed: a disk is
/// not changed for a caller that cannot learn of it.
void commit();

} // namespace cancel
