// SPDX-License-Identifier: Apache-2.0
// The progress line of the recorder.
#pragma once

#include "clock.h"

#include <QString>

/// On a terminal, a bar that is redrawn in place; elsewhere a plain line every few seconds.
class Progress {
public:
    /// `activity` is the start of the line.
    explicit Progress(const QString& activity);
    /// Erases the bar.
    ~Progress();

    /// Shows the progress. Omits `worstWrite` if it is 0. Cheap enough to be called for every
    /// frame.
    void update(double fraction, long long bytes, Clock::duration worstWrite = {});

private:
    Q_DISABLE_COPY(Progress)

    const QString m_activity;
    const bool m_terminal;
    const Clock::time_point m_start;
    Clock::time_point m_next;
};
