// The messages that the library logs while a test looks on.
#pragma once

#include "support/suite/qtprint.h"

#include <QMutex>
#include <QStringList>

struct oruLogMsg;

namespace oru::io::test {

class LogCapture {
public:
    /// Sets the thresholds for as long as the capture lives, such as "libio=12".
    explicit LogCapture(const char* thresholds);
    ~LogCapture();

    /// The messages since the last call, each as "channel level text", in the order they were
    /// logged.
    QStringList messages();

private:
    Q_DISABLE_COPY(LogCapture)

    static void take(const oruLogMsg* msg, const char* channel, void* capture);

    QMutex m_mutex; // guards m_messages
    QStringList m_messages;
};

} // namespace oru::io::test
