// SPDX-License-Identifier: Apache-2.0
// The exit statuses of the program, and the way it ends with one.
#include "status.h"

#include "output.h"

#include <cstdio>
#include <cstdlib>

#include <unistd.h>

namespace {

/// The message without characters that would end the line or change a terminal.
std::string printable(const std::string& message) {
    std::string result;
    for (const char each : message) {
        const auto code = static_cast<unsigned char>(each);
        if (code < ' ' || code == 0x7f || code == '\\') {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\%03o", code);
            result += escape;
        } else {
            result += each;
        }
    }
    return result;
}

} // namespace

void fail(Status status, const std::string& message) {
    output::flush();
    output::write(STDERR_FILENO, "oruio_sysutils: " + printable(message) + '\n');
    std::exit(static_cast<int>(status));
}
