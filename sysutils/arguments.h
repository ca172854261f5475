// SPDX-License-Identifier: Apache-2.0
// The arguments of a command.
#pragma once

#include <string>
#include <vector>

using Words = std::vector<std::string>;

namespace arguments {

/// Ends the program if the command has too few or too many arguments.
void requireCount(const std::string& command, const Words& words, std::size_t minimum,
                  std::size_t maximum);
/// Ends the program if an argument begins with a hyphen: a tool would take it for an option.
void requireNoOptions(const Words& words);
/// Removes the option if it is the first argument. \returns whether it is.
bool take(Words& words, const std::string& option);
void requireRoot();

/// [-t [TYPE]] DEVICE [OPTIONS]
struct ForFileSystem {
    std::string type; ///< empty if it is not given
    std::string device;
    Words options;
};
ForFileSystem ofFileSystem(const std::string& command, Words words);

/// Ends the program if the type is unknown or its tool, such as "mkfs." and the type, is missing.
void requireType(const std::string& command, const std::string& type);
bool isFat(const std::string& type);

} // namespace arguments
