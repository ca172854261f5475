// SPDX-License-Identifier: Apache-2.0
// Messages, child processes, and main() of the tests of the logging service.
#include "orulog_fixtures.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

namespace orulog::test {

int registerChannel(const char* name) {
    return __oruLogChanReg(name, "src/some.cpp", 1, name);
}

void fill(oruLogMsg& msg, int channel, int level, const std::string& text) {
    msg.channel = channel;
    msg.level = level;
    msg.tid = 4711;
    msg.line = 102;
    msg.file = "src/some.cpp";
    msg.time = messageTime;
    msg.length = snprintf(msg.text, sizeof msg.text, "%s", text.c_str());
}

bool log(int channel, int level, const std::string& text) {
    oruLogMsg* msg = oruLogMsgAlloc();
    if (!msg)
        return false;
    fill(*msg, channel, level, text);
    oruLogMsgPush(msg);
    return true;
}

void logOrWait(int channel, int level, const std::string& text) {
    while (!log(channel, level, text))
        oruLogFlush();
}

std::string lineOf(const char* level, const char* channel, const std::string& text) {
    return std::string("2024-05-01 12:34:56.123456 ") + level + ' ' + channel + messagePlace +
           text + '\n';
}

std::string contentOf(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    std::ostringstream content;
    content << stream.rdbuf();
    return content.str();
}

Strings messagesIn(const std::string& lines) {
    Strings texts;
    std::istringstream stream(lines);
    for (std::string line; std::getline(stream, line);) {
        const auto place = line.find(messagePlace);
        if (place != line.npos)
            texts.push_back(line.substr(place + strlen(messagePlace)));
    }
    return texts;
}

Strings numbered(const std::string& stem, int first, int end) {
    Strings texts;
    for (int i = first; i < end; ++i)
        texts.push_back(stem + std::to_string(i));
    return texts;
}

int thresholdOf(int channel) {
    return __atomic_load_n(&oruLogLevel[channel], __ATOMIC_RELAXED);
}

std::vector<oruLogMsg*> takeAll() {
    std::vector<oruLogMsg*> taken;
    while (oruLogMsg* msg = oruLogMsgAlloc())
        taken.push_back(msg);
    return taken;
}

[[noreturn]] void failScenario(const char* file, int line, const char* condition) {
    fprintf(stderr, "%s:%d: failed: %s (errno %d)\n", file, line, condition, errno);
    fflush(stderr);
    _exit(1);
}

const char* scenarioDirectory() {
    return getenv("ORULOG_TEST_DIRECTORY");
}

void setDeadline() {
    alarm(60);
}

namespace {

std::string thisProgram;

std::string readAll(int fd) {
    std::string all;
    char part[4096];
    for (ssize_t size; (size = read(fd, part, sizeof part)) != 0;) {
        if (size > 0)
            all.append(part, static_cast<size_t>(size));
        else if (errno != EINTR)
            break;
    }
    return all;
}

} // namespace

Outcome run(const std::string& scenario, Strings variables) {
    variables.push_back("ORULOG_TEST_SCENARIO=" + scenario);
    for (char** variable = environ; *variable; ++variable) {
        if (strncmp(*variable, "ORULOG_", strlen("ORULOG_")) != 0)
            variables.emplace_back(*variable);
    }
    std::vector<char*> environment;
    for (auto& variable : variables)
        environment.push_back(variable.data());
    environment.push_back(nullptr);
    char* const arguments[] = {thisProgram.data(), nullptr};

    int ends[2];
    if (pipe2(ends, O_CLOEXEC) == -1)
        return {errno, 0, {}};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDERR_FILENO);
    Outcome outcome{};
    pid_t child = 0;
    outcome.error =
        posix_spawn(&child, thisProgram.c_str(), &actions, nullptr, arguments, environment.data());
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    if (outcome.error == 0) {
        outcome.standardError = readAll(ends[0]);
        waitpid(child, &outcome.status, 0);
    }
    close(ends[0]);
    return outcome;
}

bool canRun() {
    const Outcome outcome = run("nothing");
    return outcome.error != ENOEXEC && !outcome.exitedWith(127);
}

} // namespace orulog::test

int main(int argc, char** argv) {
    // Lines hold the local time.
    setenv("TZ", "UTC", 1);
    tzset();
    if (const char* name = getenv("ORULOG_TEST_SCENARIO")) {
        orulog::test::setDeadline();
        if (strcmp(name, "nothing") != 0)
            orulog::test::scenarios.at(name)();
        return 0;
    }
    orulog::test::thisProgram = std::filesystem::canonical(argv[0]);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
