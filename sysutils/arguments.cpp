// SPDX-License-Identifier: Apache-2.0
// The arguments of a command.
#include "arguments.h"

#include "status.h"
#include "tools.h"

#include <algorithm>
#include <set>

#include <unistd.h>

namespace {

/// Words separated by blanks; nothing in them is evaluated.
Words split(const std::string& options) {
    constexpr char blanks[] = " \t\n";
    Words words;
    std::size_t begin = 0;
    while ((begin = options.find_first_not_of(blanks, begin)) != std::string::npos) {
        const std::size_t end = std::min(options.find_first_of(blanks, begin), options.size());
        words.push_back(options.substr(begin, end - begin));
        begin = end;
    }
    return words;
}

} // namespace

void arguments::requireCount(const std::string& command, const Words& words, std::size_t minimum,
                             std::size_t maximum) {
    if (words.size() < minimum)
        fail(Status::ArgumentCount, command + " has too few arguments");
    if (words.size() > maximum)
        fail(Status::ArgumentCount, command + " has too many arguments");
}

void arguments::requireNoOptions(const Words& words) {
    for (const std::string& word : words) {
        if (word[0] == '-')
            fail(Status::BadOption, "bad option " + word);
    }
}

bool arguments::take(Words& words, const std::string& option) {
    if (words.empty() || words[0] != option)
        return false;
    words.erase(words.begin());
    return true;
}

void arguments::requireRoot() {
    if (geteuid() != 0)
        fail(Status::NotRoot, "only root may do that");
}

arguments::ForFileSystem arguments::ofFileSystem(const std::string& command, Words words) {
    ForFileSystem result;
    // A caller that does not know the type passes "-t" without it: a device contains a slash, a
    // type does not.
    if (take(words, "-t") && !words.empty() && words[0].find('/') == std::string::npos) {
        result.type = words[0];
        words.erase(words.begin());
    }
    requireCount(command, words, 1, 2);
    requireNoOptions({words[0]});
    result.device = words[0];
    result.options = split(words.size() > 1 ? words[1] : "");
    if (!result.options.empty() && result.options[0][0] != '-')
        fail(Status::BadOption, result.options[0] + " is not an option of " + command);
    return result;
}

void arguments::requireType(const std::string& command, const std::string& type) {
    static const std::set<std::string> types{"ext2", "ext3", "ext4", "vfat", "fat", "exfat"};
    if (types.count(type) == 0)
        fail(Status::UnknownType, "unknown file-system type " + type);
    tools::require({command + '.' + type});
}

bool arguments::isFat(const std::string& type) {
    return type == "fat" || type == "vfat";
}
