// SPDX-License-Identifier: Apache-2.0
#include "output_p.h"

#include <orulog/control.h>

#include <spdlog/details/log_msg.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/sinks/syslog_sink.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <new>
#include <string>
#include <string_view>
#include <system_error>

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

namespace orulog {

namespace {

constexpr std::string_view filePrefix = "file:";
constexpr char messagePattern[] = "%l %n %g:%# [%t] %v";

Sink standardError() {
    auto sink = std::make_shared<spdlog::sinks::stderr_sink_st>();
    sink->set_pattern(std::string("%Y-%m-%d %H:%M:%S.%f ") + messagePattern);
    return sink;
}

Sink systemLog() {
    // With an empty name, syslog keeps the name that the program may have set with openlog(3).
    auto sink = std::make_shared<spdlog::sinks::syslog_sink_st>("", LOG_PID, LOG_USER, true);
    sink->set_formatter(std::make_unique<spdlog::pattern_formatter>(
        messagePattern, spdlog::pattern_time_type::local, std::string()));
    return sink;
}

/// Returns whether `path` can be opened for appending. If not, errno holds the reason.
///
/// The sink does not report this: it retries for a while, makes missing directories, and waits for
/// the reader of a pipe.
bool canAppend(const char* path) {
    const int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK | O_CLOEXEC, 0666);
    if (fd == -1)
        return false;
    close(fd);
    return true;
}

Sink rotatingFile(std::string_view name) {
    if (name.empty()) {
        errno = EINVAL;
        return nullptr;
    }
    // Each rotation opens the file again, and the program may have changed its working directory.
    const std::string path = std::filesystem::absolute(name).string();
    if (!canAppend(path.c_str()))
        return nullptr;
    spdlog::file_event_handlers handlers;
    handlers.after_open = [](const spdlog::filename_t&, std::FILE* file) {
        fcntl(fileno(file), F_SETFD, FD_CLOEXEC);
    };
    auto sink = std::make_shared<spdlog::sinks::rotating_file_sink_st>(
        path, ORULOG_FILE_SIZE, ORULOG_FILES_KEPT, false, handlers);
    sink->set_pattern(std::string("%Y-%m-%d %H:%M:%S.%f ") + messagePattern);
    return sink;
}

spdlog::level::level_enum levelOf(const oruLogMsg& msg) {
    constexpr int critical = 8;
    constexpr int trace = 13;
    return static_cast<spdlog::level::level_enum>(
        spdlog::level::critical - (std::clamp<int>(msg.level, critical, trace) - critical));
}

std::string_view textOf(const oruLogMsg& msg) {
    std::string_view text(msg.text, strnlen(msg.text, sizeof msg.text));
    if (!text.empty() && text.back() == '\n')
        text.remove_suffix(1);
    return text;
}

spdlog::log_clock::time_point timeOf(const oruLogMsg& msg) {
    using namespace std::chrono;
    // The caller fills in the time: clamp it so that the sum cannot overflow.
    constexpr auto last = duration_cast<seconds>(nanoseconds::max()).count() - 1;
    const seconds whole(std::clamp<int64_t>(msg.time.tv_sec, 0, last));
    const nanoseconds part(std::clamp<int64_t>(msg.time.tv_nsec, 0, 999'999'999));
    return spdlog::log_clock::time_point(duration_cast<spdlog::log_clock::duration>(whole + part));
}

spdlog::details::log_msg lineOf(const oruLogMsg& msg, const char* channel) {
    spdlog::details::log_msg line;
    line.logger_name = channel;
    line.level = levelOf(msg);
    line.time = timeOf(msg);
    line.thread_id = msg.tid;
    line.source = spdlog::source_loc(msg.file ? msg.file : "?", msg.line, "");
    const auto text = textOf(msg);
    line.payload = spdlog::string_view_t(text.data(), text.size());
    return line;
}

bool tryWrite(Sink& sink, const spdlog::details::log_msg& line) {
    try {
        if (!sink)
            sink = standardError();
        sink->log(line);
        // At once: a forked child would write a buffered line again.
        sink->flush();
        return true;
    } catch (const std::exception& error) {
        fprintf(stderr, "orulog: %s\n", error.what());
        return false;
    }
}

} // namespace

Sink openSink(const char* name) {
    const std::string_view output = name ? name : "";
    try {
        if (output == "stderr")
            return standardError();
        if (output == "syslog")
            return systemLog();
        if (output.substr(0, filePrefix.size()) == filePrefix)
            return rotatingFile(output.substr(filePrefix.size()));
        errno = EINVAL;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
    } catch (const std::exception&) {
        errno = EIO;
    }
    return nullptr;
}

std::string absoluteName(const char* name) {
    std::string output = name;
    if (output.compare(0, filePrefix.size(), filePrefix) != 0)
        return output;
    const std::filesystem::path path = output.substr(filePrefix.size());
    return std::string(filePrefix) + std::filesystem::absolute(path).string();
}

void write(Sink& sink, const oruLogMsg& msg, const char* channel) noexcept {
    const auto line = lineOf(msg, channel);
    if (tryWrite(sink, line))
        return;
    // A file sink that has failed may crash when it is used again.
    sink.reset();
    if (!tryWrite(sink, line))
        fprintf(stderr, "%.*s\n", static_cast<int>(line.payload.size()), line.payload.data());
}

} // namespace orulog
