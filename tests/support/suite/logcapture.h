// SPDX-License-Identifier: Apache-2.0
// Captures the messages that the library logs during a test.
#pragma once

#include "support/suite/qtprint.h"

#include <QMutex>
#include <QStringList>

struct oruLogMsg;

namespace oru::io::test {

class LogCapture {
public:
    /// Sets the thresholds, such as "libio=12", until the destruction.
    explicit LogCapture(const char* thresholds);
    ~LogCapture();

    /// The messages since the last call, each as "channel level message", in their order.
    QStringList messages();

private:
    Q_DISABLE_COPY(LogCapture)

    static void take(const oruLogMsg* msg, const char* channel, void* capture);

    QMutex m_mutex; // guards m_messages
    QStringList m_messages;
};

} // namespace oru::io::test
