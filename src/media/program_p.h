// SPDX-License-Identifier: Apache-2.0
// One process of the maintenance program.
#pragma once

#include "media/progresslines_p.h"

#include <oruio/properties.h>

#include <QByteArray>
#include <QDeadlineTimer>
#include <QProcess>
#include <QStringList>

namespace oru::io {

/// What a program writes on one stream: a file in memory.
///
/// Unlike a pipe it needs no reader. So a program that outlives its reader does not block and gets
/// no SIGPIPE, which would end it in the middle of a repair.
class OutputFile {
public:
    /// How much of the beginning of a stream is kept, for the log.
    static constexpr int longestBeginning = 1 << 20;

    OutputFile() = default;
    ~OutputFile();

    /// \returns false with an errno of memfd_create(2) or fcntl(2).
    bool open();
    /// The descriptor; -1 before open().
    int descriptor() const;
    /// The first `longestBeginning` bytes.
    QByteArray beginning() const;
    /// The last lines that are not empty, at most `count`.
    QStringList lastLines(int count) const;
    /// Frees the memory between the first `kept` bytes and the last lines. \returns whether that
    /// was much, so that the program writes fast.
    bool trim(int kept);

private:
    Q_DISABLE_COPY(OutputFile)

    qint64 size() const;
    QByteArray read(qint64 from, int count) const;

    int m_fd = -1;
    qint64 m_trimmedTo = 0;
};

/// A pipe through which the program reports its progress. Both ends do not block.
class ProgressPipe {
public:
    ProgressPipe() = default;
    ~ProgressPipe();

    /// \returns false with an errno of pipe2(2).
    bool open();
    void closeWriteEnd();
    /// The write end; -1 when it is not open.
    int writeEnd() const;
    /// Reads what is there, at most 64 KiB, into `lines`.
    void read(ProgressLines& lines) const;

private:
    Q_DISABLE_COPY(ProgressPipe)

    int m_readEnd = -1;
    int m_writeEnd = -1;
};

/// A process of the maintenance program. It has a session of its own, so that no signal of a
/// terminal reaches it. It inherits the standard descriptors and the write end of the progress pipe
/// only, and no blocked signals.
class Program : public QProcess {
public:
    Program();
    /// Leaves a program that has started to itself: it runs to its end. Kills a process in which
    /// execve(2) has not returned yet.
    ~Program() override;

    /// Starts the program, without waiting until it has started. \returns false with errno, when
    /// nothing was started.
    bool begin(const QStringList& arguments, const Properties& environment, bool reportsProgress);
    /// Whether the program has ended, or will not start any more.
    bool hasEnded() const;
    /// Whether execve(2) has succeeded.
    bool hasStarted() const;
    /// Waits until it is known whether the program has started.
    void awaitStart();
    /// Reads the lines about its progress that are there.
    void readProgress();

    OutputFile output;
    OutputFile errors;
    ProgressLines progress;

protected:
    // Runs in the child, between fork(2) and exec(3).
    void setupChildProcess() override;

private:
    void setVariables(const Properties& variables);

    ProgressPipe m_pipe;
    QDeadlineTimer m_startDeadline;
    bool m_hasStarted = false;
};

} // namespace oru::io
