// SPDX-License-Identifier: Apache-2.0
#include "helper.h"

#include "placement.h"

#include <csignal>

#include <sys/prctl.h>

Helper::~Helper() {
    if (state() == NotRunning)
        return;
    closeWriteChannel();
    if (!waitForFinished(5000))
        kill();
    waitForFinished();
}

bool Helper::startUntilReady(const QString& program, const QStringList& arguments) {
    setProcessChannelMode(ForwardedErrorChannel);
    start(program, arguments);
    return waitForReadyRead();
}

void Helper::setupChildProcess() {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    Placement::bind(Placement::Together);
}
