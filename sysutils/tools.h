// SPDX-License-Identifier: Apache-2.0
// Running the distribution's tools.
//
// A tool gets an environment of PATH and LC_ALL only, an empty standard input, the descriptors of
// the device, and a session of its own. Once begun it ends by itself: no signal of a terminal
// reaches it, it survives a reader of its output that has gone, and it holds the lock of the disk
// until it ends, even if the program is killed.
#pragma once

#include "device.h"

#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

namespace tools {

using Arguments = std::vector<std::string>;
using LineHandler = std::function<void(const std::string&)>;

/// The path of the tool; empty if it is not installed.
std::string find(const std::string& name);
/// Ends the program if one of them is not installed.
void require(std::initializer_list<std::string> names);

/// Runs a tool until it ends. \returns its exit status, 128 and the number of the signal that ended
/// it, or cancelled. As long as the program is not committed, a request to cancel ends the tool.
int run(const Arguments& arguments);
constexpr int cancelled = -1;

/// A pipe on which a tool writes lines.
class LinePipe {
public:
    explicit LinePipe(LineHandler handler);

    /// The descriptor to write to, also in the tool.
    int writeEnd() const {
        return m_writeEnd.get();
    }
    int readEnd() const {
        return m_readEnd.get();
    }
    /// Reads what is there, and passes on whole lines.
    void read();

private:
    LineHandler m_handler;
    std::string m_line;
    Descriptor m_readEnd;
    Descriptor m_writeEnd;
};

/// Runs a tool that inherits the device, and the pipe if there is one. Ends the program if the
/// device has been exchanged before the tool begins or when it has ended. Ends it with `ifHeld` if
/// another one holds the device exclusively: not all tools look for that themselves.
int runOn(const Device& device, const Arguments& arguments, Status ifHeld,
          LinePipe* lines = nullptr);

} // namespace tools
