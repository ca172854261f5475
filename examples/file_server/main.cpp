// SPDX-License-Identifier: Apache-2.0
// A small file server: exports a directory to another process, which accesses it with an IPCFS.
#include "common/failure.h"
#include "common/localdirectory.h"
#include "common/program.h"
#include "common/stopsignal.h"

#include <oruio/ipc_server.h>

#include <QCommandLineParser>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <future>

namespace {

using oru::io::IPCServer;

const char description[] =
    "Exports a directory to the other processes of this system, one at a time, until Ctrl-C or\n"
    "SIGTERM. Only one file server can run on a system. \"recorder --to ipc\" records into it.\n"
    "\n"
    "Exit status: 0 orderly end, 1 failure, 2 bad command line.";

void printLine(const QString& line) {
    std::puts(qUtf8Printable(line));
    std::fflush(stdout);
}

/// Serves until the server is terminated. Throws Failure if it cannot start.
void run(IPCServer& server, const QString& directory) {
    if (server.run(nullptr) == 0)
        return;
    if (errno == EBUSY)
        throw Failure{"another file server is running"};
    throw cannot("serve " + directory);
}

/// \returns false if the server ended without serving.
bool waitUntilServing(IPCServer& server, const std::future<void>& end) {
    constexpr int serving = 2;
    while (server.state() != serving) {
        if (end.wait_for(std::chrono::milliseconds(1)) == std::future_status::ready)
            return false;
    }
    return true;
}

void serve(const QString& directory) {
    stopsignal::install();
    IPCServer server(openLocalDirectory(directory));
    std::future<void> end = std::async(std::launch::async, [&] { run(server, directory); });
    if (!waitUntilServing(server, end)) {
        end.get();
        throw Failure{"cannot serve " + directory + ": the file service did not begin"};
    }
    printLine("serving " + directory);
    stopsignal::wait();
    server.terminate();
    end.get();
    printLine(QStringLiteral("stopped"));
}

void runCommand(const QStringList& arguments) {
    QCommandLineParser parser;
    parser.setApplicationDescription(description);
    parser.addOption({{"h", "help"}, "Show this help."});
    parser.addPositionalArgument("DIRECTORY", "What to export.");
    if (!parser.parse(arguments))
        throw UsageError{parser.errorText()};
    const QStringList directories = parser.positionalArguments();
    if (parser.isSet("help"))
        std::fputs(qUtf8Printable(parser.helpText()), stdout);
    else if (directories.size() == 1 && !directories.first().isEmpty())
        serve(directories.first());
    else
        throw UsageError{"expected one directory"};
}

} // namespace

int main(int argc, char* argv[]) {
    return runProgram("file_server", argc, argv, runCommand);
}
