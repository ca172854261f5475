// SPDX-License-Identifier: Apache-2.0
// The client's end of a share: answers of a server with any faults.
//
// An input is a script (smb/script.h). The server answers as Samba did when the recording was made,
// apart from the faults of the script.
//
//     smb_answers_fuzz --record               records a server in the source tree
//     smb_answers_fuzz --from SEED --to SEED  runs the scripts of these seeds, and goes on after a
//                                             failure; with --findings DIRECTORY stores the script
//                                             and the messages of each failure there
//     smb_answers_fuzz --print SEED           prints the script of a seed
//
// With other arguments it is an ordinary libFuzzer program.

#include "fuzz/smb/cannedserver.h"
#include "fuzz/smb/recording.h"
#include "fuzz/smb/script.h"
#include "fuzz/smb/shareclient.h"
#include "fuzz/support.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sanitizer/allocator_interface.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace oru::io::test {

namespace {

/// What became of a session.
struct Result {
    QByteArray differing; ///< the first operation without the result that it has without faults
    bool isConnectionKept;
};

Result run(const Script& script) {
    CannedServer server(script);
    ShareClient client({{"server", InProcessServer::address},
                        {"share", "rw"},
                        {"user", "tester"},
                        {"password", "Secret1"},
                        {"version", script.dialect}},
                       server);
    QByteArray differing;
    for (const QByteArray& operation : script.operations) {
        if (!client.run(operation) && differing.isEmpty())
            differing = operation;
    }
    return {differing, client.isConnectionKept()};
}

/// Runs a script. Also requires that a session that kept its connection leaves no memory: when an
/// answer ends the connection, libsmb2 loses what it was decoding.
void runWithChecks(const Script& script) {
    constexpr int enough = 4; // the first sessions of a kind fill caches
    for (int i = 0; i < enough; ++i) {
        const std::size_t before = __sanitizer_get_current_allocated_bytes();
        const Result result = run(script);
        if (!result.isConnectionKept || __sanitizer_get_current_allocated_bytes() <= before)
            return;
    }
    require(false, "a session leaves no memory: see ASAN_OPTIONS=detect_leaks=1");
}

/// Without faults each operation must succeed.
void checkRecordings() {
    for (const QByteArray& dialect : recordings().keys()) {
        Script script;
        script.dialect = dialect;
        script.operations = ShareClient::operations();
        const QByteArray differing = run(script).differing;
        if (!differing.isEmpty())
            std::fprintf(stderr, "%s, %s:\n", dialect.constData(), differing.constData());
        require(differing.isEmpty(),
                "the recording fits the requests of the library; else use --record");
    }
}

// --- Seeds --------------------------------------------------------------------------------------

/// Runs the scripts of a range of seeds in child processes, and goes on with a new one after a
/// failure.
class SeedRun {
public:
    SeedRun(std::uint64_t from, std::uint64_t to, QString findings)
        : m_next(from), m_last(to), m_findings(std::move(findings)) {
        void* const memory = mmap(nullptr, sizeof m_current, PROT_READ | PROT_WRITE,
                                  MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        require(memory != MAP_FAILED, "memory can be shared");
        m_current = static_cast<volatile std::uint64_t*>(memory);
    }

    int run() {
        const std::uint64_t count = m_last - m_next + 1;
        int failures = 0;
        QElapsedTimer time;
        time.start();
        while (m_next <= m_last && !runChild()) {
            ++failures;
            report(*m_current);
            m_next = *m_current + 1;
        }
        const double seconds = std::max(static_cast<double>(time.elapsed()) / 1000, 0.001);
        std::printf("%llu sessions, %d failures, %.0f sessions/s\n",
                    static_cast<unsigned long long>(count), failures,
                    static_cast<double>(count) / seconds);
        return failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
    }

private:
    QString log() const {
        return m_findings + "/messages";
    }

    /// \returns whether all sessions of the rest succeeded.
    bool runChild() const {
        std::fflush(stdout);
        const pid_t child = ::fork();
        require(child != -1, "a process can be started");
        if (child == 0)
            runSessions();
        int status = 0;
        ::waitpid(child, &status, 0);
        return status == 0;
    }

    [[noreturn]] void runSessions() const {
        if (!m_findings.isEmpty()) {
            const int file =
                ::open(qPrintable(log()), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
            require(file != -1 && ::dup2(file, STDERR_FILENO) != -1, "findings can be stored");
        }
        constexpr unsigned int longest = 30; // seconds, for one session
        for (std::uint64_t seed = m_next; seed <= m_last; ++seed) {
            *m_current = seed;
            ::alarm(longest);
            runWithChecks(Script::ofSeed(seed));
        }
        std::_Exit(EXIT_SUCCESS);
    }

    void report(std::uint64_t seed) const {
        const std::string script = Script::ofSeed(seed).toString();
        std::printf("seed %llu fails\n", static_cast<unsigned long long>(seed));
        if (m_findings.isEmpty()) {
            std::fputs(script.c_str(), stdout);
            return;
        }
        const QString path = QStringLiteral("%1/%2").arg(m_findings).arg(seed);
        QFile file(path);
        file.open(QFile::WriteOnly);
        file.write(script.data(), static_cast<qint64>(script.size()));
        QFile::remove(path + ".messages");
        QFile::rename(log(), path + ".messages");
    }

    std::uint64_t m_next;
    const std::uint64_t m_last;
    const QString m_findings;
    volatile std::uint64_t* m_current; // the seed of the child
};

/// The value of an option; null if it is missing.
const char* optionOf(int count, char** arguments, const char* name) {
    for (int i = 1; i + 1 < count; ++i) {
        if (std::strcmp(arguments[i], name) == 0)
            return arguments[i + 1];
    }
    return nullptr;
}

std::uint64_t numberOf(const char* option) {
    return option ? std::strtoull(option, nullptr, 0) : 0;
}

/// Carries out the program's own options.
void runOptions(int count, char** arguments) {
    if (count > 1 && std::strcmp(arguments[1], "--record") == 0)
        std::exit(record() ? EXIT_SUCCESS : EXIT_FAILURE);
    if (const char* const seed = optionOf(count, arguments, "--print")) {
        std::fputs(Script::ofSeed(numberOf(seed)).toString().c_str(), stdout);
        std::exit(EXIT_SUCCESS);
    }
    checkRecordings();
    if (const char* const from = optionOf(count, arguments, "--from")) {
        const char* const to = optionOf(count, arguments, "--to");
        const QString findings = QString::fromLocal8Bit(optionOf(count, arguments, "--findings"));
        if (!findings.isEmpty())
            QDir().mkpath(findings);
        SeedRun run(numberOf(from), numberOf(to ? to : from), findings);
        std::exit(run.run());
    }
}

} // namespace

} // namespace oru::io::test

// --- The fuzzer ---------------------------------------------------------------------------------

// A server may make libsmb2 ask for any amount of memory, which malloc(3) may refuse. Leaks are
// looked for here. The others are for speed.
extern "C" const char* __asan_default_options() {
    return "allocator_may_return_null=1:detect_leaks=0:malloc_context_size=12:"
           "quarantine_size_mb=16";
}

extern "C" int LLVMFuzzerInitialize(int* count, char*** arguments) {
    oru::io::test::runOptions(*count, *arguments);
    static char unlimited[] = "-malloc_limit_mb=0";
    static std::vector<char*> all(*arguments, *arguments + *count);
    all.push_back(unlimited);
    *count = static_cast<int>(all.size());
    all.push_back(nullptr);
    *arguments = all.data();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t size) {
    oru::io::test::runWithChecks(oru::io::test::Script::parsed(input, size));
    return 0;
}

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* input, std::size_t size,
                                               std::size_t maxSize, unsigned int seed) {
    using oru::io::test::Script;
    const std::string script = Script::parsed(input, size).varied(seed).toString();
    // A script that is too long ends with a line that is cut, which is ignored.
    const std::size_t copied = std::min(script.size(), maxSize);
    std::memcpy(input, script.data(), copied);
    return copied;
}
