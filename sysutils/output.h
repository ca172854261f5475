// SPDX-License-Identifier: Apache-2.0
// The output of the tools on its way to standard output.
//
// All tools write to one pipe, which the program reads and passes on. So a tool neither dies nor
// stops if the reader of standard output has gone or does not read any more; then its output is
// discarded. The program never holds more than one piece of it.
#pragma once

#include <string>

#include <poll.h>

namespace output {

/// Makes the pipe. Called before the program forks, as both processes need it.
void open();
int readEnd();
int writeEnd();
void closeWriteEnd();

/// Prepares to wait for the next step: `toRead` for the pipe, `toWrite` for standard output.
void prepare(pollfd& toRead, pollfd& toWrite);
/// Does what can be done without waiting.
void relay(const pollfd& toRead, const pollfd& toWrite);

/// Passes on what is in the pipe now.
void drain();
/// Passes on what writers write until all of them have closed the pipe.
void drainToEnd();
/// Waits until standard output has taken what is held, as long as its reader reads.
void flush();

/// Adds a line of the program's own to standard output.
void print(const std::string& line);

/// Writes to a descriptor as far as its reader takes it within a few seconds. \returns whether all
/// is written.
bool write(int fd, const std::string& bytes);

} // namespace output
