// SPDX-License-Identifier: Apache-2.0
// A helper process of a benchmark.
#pragma once

#include <QProcess>

/// The process ends with this object. It also ends if the benchmarks die first.
class Helper : public QProcess {
public:
    ~Helper() override;

    /// Starts a program that prints a line when it is ready and exits at the end of its standard
    /// input. \returns whether it is ready.
    bool startUntilReady(const QString& program, const QStringList& arguments);

protected:
    void setupChildProcess() override;
};
