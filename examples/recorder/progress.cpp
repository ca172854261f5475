// SPDX-License-Identifier: Apache-2.0
#include "progress.h"

#include <algorithm>
#include <cstdio>

#include <unistd.h>

namespace {

constexpr auto terminalInterval = std::chrono::milliseconds(100);
constexpr auto plainInterval = std::chrono::seconds(5);

QString bar(double fraction) {
    constexpr int width = 24;
    const int done = static_cast<int>(fraction * width);
    return '[' + QString(done, '#') + QString(width - done, '.') + ']';
}

} // namespace

Progress::Progress(const QString& activity)
    : m_activity(activity), m_terminal(isatty(STDOUT_FILENO) == 1), m_start(Clock::now()),
      m_next(m_start + (m_terminal ? terminalInterval : plainInterval)) {}

Progress::~Progress() {
    if (!m_terminal)
        return;
    std::fputs("\r\033[K", stdout);
    std::fflush(stdout);
}

void Progress::update(double fraction, long long bytes, Clock::duration worstWrite) {
    const auto now = Clock::now();
    if (now < m_next)
        return;
    m_next = now + (m_terminal ? terminalInterval : plainInterval);

    const double shown = std::clamp(fraction, 0.0, 1.0);
    QString line = QString::asprintf("%3.0f %%  %.1f MB/s", shown * 100,
                                     megabytesPerSecond(bytes, now - m_start));
    if (worstWrite > Clock::duration::zero())
        line += QString::asprintf("  worst write %.1f ms", toMilliseconds(worstWrite));
    if (m_terminal)
        line = '\r' + m_activity + ' ' + bar(shown) + ' ' + line + "\033[K";
    else
        line = m_activity + ' ' + line + '\n';
    std::fputs(qUtf8Printable(line), stdout);
    std::fflush(stdout);
}
