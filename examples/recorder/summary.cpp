// SPDX-License-Identifier: Apache-2.0
#include "summary.h"

#include <cstdio>

namespace {

QString describeFrames(const Recording& recording) {
    QString result = QString::number(recording.frames);
    if (recording.lateFrames > 0)
        result += QStringLiteral(", %1 of them late").arg(recording.lateFrames);
    return result;
}

QString describeLatency(const LatencyHistogram& latency) {
    return QString::asprintf(
        "p50 %.2f ms, p99 %.2f ms, max %.2f ms", toMilliseconds(latency.percentile(0.50)),
        toMilliseconds(latency.percentile(0.99)), toMilliseconds(latency.max()));
}

} // namespace

void printRow(const char* label, const QString& value) {
    std::printf("%-10s %s\n", label, qUtf8Printable(value));
    std::fflush(stdout);
}

void printSummary(const Destination& destination, const Recording& recording,
                  const ReadBack& readBack) {
    const auto& written = recording.clip->statistics();
    if (recording.stopped)
        std::puts("Stopped early; the clip is complete up to there.");
    QString clip = destination.shown(recording.clip->name());
    if (!destination.isKept())
        clip += " (temporary, removed at the end; --keep keeps it)";
    printRow("clip", clip);
    printRow("size",
             QString::asprintf("%lld bytes (%.1f MiB)", static_cast<long long>(written.bytes),
                               static_cast<double>(written.bytes) / (1 << 20)));
    printRow("frames", describeFrames(recording));
    printRow("duration", QString::asprintf("%.2f s", toSeconds(recording.duration)));
    printRow("sustained", QString::asprintf("%.1f MB/s over the time in write and fsync",
                                            megabytesPerSecond(written.bytes, written.busy)));
    printRow("write", describeLatency(written.writes));
    printRow("fsync",
             QString::asprintf("worst %.2f ms of %llu", toMilliseconds(written.syncs.max()),
                               static_cast<unsigned long long>(written.syncs.count())));
    printRow("read back",
             QString::asprintf("%.1f MB/s", megabytesPerSecond(readBack.bytes, readBack.duration)));
    printRow("verified", isVerified(recording, readBack) ? "yes" : "no");
}
