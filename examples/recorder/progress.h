// The line that moves while the recorder works.
#pragma once

#include "clock.h"

#include <QString>

/// On a terminal, a bar that is redrawn in place; elsewhere a plain line every few seconds.
class Progress {
public:
    /// `activity` is what the line begins with.
    explicit Progress(const QString& activity);
    /// Wipes the bar away.
    ~Progress();

    /// Shows how far the activity is. `worstWrite` is left out when it is 0. Cheap enough to be
    /// called for every frame.
    void update(double fraction, long long bytes, Clock::duration worstWrite = {});

private:
    Q_DISABLE_COPY(Progress)

    const QString m_activity;
    const bool m_terminal;
    const Clock::time_point m_start;
    Clock::time_point m_next;
};
