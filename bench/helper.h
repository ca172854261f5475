// Another program that takes part in a benchmark.
#pragma once

#include <QProcess>

/// Ends with this object, and also when the benchmarks end without destroying it.
class Helper : public QProcess {
public:
    ~Helper() override;

    /// Starts a program that prints a line when it is ready and ends with its standard input.
    /// \returns whether it came so far.
    bool startUntilReady(const QString& program, const QStringList& arguments);

protected:
    void setupChildProcess() override;
};
