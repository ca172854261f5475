// SPDX-License-Identifier: Apache-2.0
#include "program.h"

#include "failure.h"

#include <QCoreApplication>

#include <cstdio>

namespace {

/// The arguments decoded as UTF-8 in every locale, because the library encodes paths as UTF-8.
QStringList utf8Arguments(int argc, char* argv[]) {
    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments.append(QString::fromUtf8(argv[i]));
    return arguments;
}

int complain(const char* name, const QString& message, int status) {
    std::fprintf(stderr, "%s: %s\n", name, qUtf8Printable(message));
    return status;
}

} // namespace

int runProgram(const char* name, int argc, char* argv[], void (*body)(const QStringList&)) {
    const QStringList arguments = utf8Arguments(argc, argv);
    const QCoreApplication application(argc, argv);
    try {
        body(arguments);
        return 0;
    } catch (const UsageError& error) {
        return complain(name, error.message + " (--help explains)", 2);
    } catch (const Failure& failure) {
        return complain(name, failure.message, 1);
    }
}
