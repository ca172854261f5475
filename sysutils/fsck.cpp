// SPDX-License-Identifier: Apache-2.0
// The command fsck.
#include "commands.h"

#include "cancel.h"
#include "progress.h"
#include "signatures.h"
#include "supervisor.h"
#include "tools.h"

#include <algorithm>
#include <cstdio>

namespace {

class Check {
public:
    Check(const Device& device, std::string type, Words options)
        : m_device(device), m_type(std::move(type)), m_options(std::move(options)) {}

    void run();

private:
    /// The checker of ext and exFAT first runs with -p, which makes safe repairs only: this writes
    /// least, and after a power cut it is mostly enough. If errors are left, it runs with -y: no
    /// user can answer questions, and a recorder cannot use a card with errors.
    void runInTwoSteps();
    /// The checker of FAT has only one way to repair, -a. Its status 1 means corrected or
    /// uncorrected errors: a second run with -n distinguishes them.
    void runFat();

    /// \returns the status of the checker with this option, and then the options of the caller.
    int check(const std::string& phase, const char* mode, bool hasOptions = true) const;
    bool has(const char* option) const;
    /// Whether the options say how to handle errors.
    bool hasMode() const;
    /// The lines of e2fsck: pass, current, maximum, device.
    void reportProgress(const std::string& phase, const std::string& line, int& pass) const;
    [[noreturn]] void failToCheck(int status) const;
    void failWithErrorsLeft() const;

    const Device& m_device;
    std::string m_type;
    Words m_options;
};

void Check::run() {
    m_device.requireUnclaimed(Status::InUse);
    // With -n nothing is changed: this can be cancelled at any time.
    if (!has("-n"))
        cancel::commit();
    if (arguments::isFat(m_type))
        runFat();
    else
        runInTwoSteps();
}

void Check::runInTwoSteps() {
    int status = check("checking", hasMode() ? nullptr : "-p");
    if (!hasMode() && (status & 4) != 0)
        status = check("repairing", "-y");
    if ((status & ~7) != 0) // 1 and 2: errors were corrected
        failToCheck(status);
    if ((status & 4) != 0)
        failWithErrorsLeft();
}

void Check::runFat() {
    int status = check("checking", hasMode() ? nullptr : "-a");
    if (status == 1) {
        status = check("checking", "-n", false);
        if (status == 1)
            failWithErrorsLeft();
    }
    if (status != 0)
        failToCheck(status);
}

int Check::check(const std::string& phase, const char* mode, bool hasOptions) const {
    progress::phase(phase);
    int pass = 0;
    tools::LinePipe lines([&](const std::string& line) { reportProgress(phase, line, pass); });
    Words words{"fsck." + m_type};
    const bool hasProgress = progress::isWanted() && m_type.rfind("ext", 0) == 0;
    if (hasProgress)
        words.insert(words.end(), {"-C", std::to_string(lines.writeEnd())});
    if (mode)
        words.emplace_back(mode);
    // The device precedes the options, so that a word that is not an option cannot replace it.
    words.push_back(m_device.path());
    if (hasOptions)
        words.insert(words.end(), m_options.begin(), m_options.end());
    const int status =
        tools::runOn(m_device, words, Status::NotChecked, hasProgress ? &lines : nullptr);
    if (status == tools::cancelled)
        cancel::end();
    return status;
}

void Check::reportProgress(const std::string& phase, const std::string& line, int& pass) const {
    int current = 0;
    unsigned long long done = 0;
    unsigned long long maximum = 0;
    if (std::sscanf(line.c_str(), "%d %llu %llu", &current, &done, &maximum) != 3 || maximum == 0)
        return;
    if (current != pass)
        progress::phase(phase + ", pass " + std::to_string(current));
    pass = current;
    progress::permille(std::min(done, maximum) * 1000 / maximum);
}

bool Check::has(const char* option) const {
    return std::find(m_options.begin(), m_options.end(), option) != m_options.end();
}

bool Check::hasMode() const {
    return has("-a") || has("-n") || has("-p") || has("-y");
}

void Check::failToCheck(int status) const {
    fail(Status::NotChecked, m_device.name() + " cannot be checked: fsck." + m_type +
                                 " ended with status " + std::to_string(status));
}

void Check::failWithErrorsLeft() const {
    fail(Status::ErrorsLeft, m_device.name() + " still has errors");
}

} // namespace

void runFsck(const Words& words, const Environment& environment) {
    const arguments::ForFileSystem wanted = arguments::ofFileSystem("fsck", words);
    if (!wanted.type.empty())
        arguments::requireType("fsck", wanted.type);
    arguments::requireRoot();
    supervisor::begin();
    const Device device = lockForFileSystem(wanted.device, environment);
    std::string type = wanted.type;
    if (type.empty()) {
        type = signatures::on(device).fileSystem;
        if (type.empty())
            fail(Status::NoFileSystem, device.name() + " has no file system");
        arguments::requireType("fsck", type);
    }
    Check(device, type, wanted.options).run();
}
