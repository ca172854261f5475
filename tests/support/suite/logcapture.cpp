// SPDX-License-Identifier: Apache-2.0
#include "support/suite/logcapture.h"

#include <orulog/control.h>

#include <cstdlib>
#include <utility>

namespace oru::io::test {

LogCapture::LogCapture(const char* thresholds) {
    if (oruLogSetThresholds(thresholds) != 0)
        std::abort();
    oruLogSetHook(&LogCapture::take, this);
}

LogCapture::~LogCapture() {
    oruLogFlush();
    oruLogSetHook(nullptr, nullptr);
    oruLogSetThresholds("10");
}

QStringList LogCapture::messages() {
    oruLogFlush();
    const QMutexLocker lock(&m_mutex);
    return std::exchange(m_messages, {});
}

void LogCapture::take(const oruLogMsg* msg, const char* channel, void* user) {
    auto* const capture = static_cast<LogCapture*>(user);
    const QMutexLocker lock(&capture->m_mutex);
    capture->m_messages.append(QStringLiteral("%1 %2 %3")
                                   .arg(QString::fromUtf8(channel))
                                   .arg(msg->level)
                                   .arg(QString::fromUtf8(msg->text)));
}

} // namespace oru::io::test
