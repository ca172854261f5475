// SPDX-License-Identifier: Apache-2.0
#include "recorder.h"

#include "common/failure.h"
#include "common/stopsignal.h"
#include "progress.h"
#include "stream.h"

#include <oruio/error.h>
#include <oruio/fsswitch.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <thread>
#include <vector>

#include <fcntl.h>

namespace {

constexpr int framesPerSecond = 25;
constexpr auto framePeriod = Clock::duration(std::chrono::seconds(1)) / framesPerSecond;
constexpr auto syncPeriod = std::chrono::seconds(1);
constexpr size_t blockSize = 1 << 20;

size_t frameSize(const Options& options) {
    if (!options.megabitsPerSecond)
        return blockSize;
    return static_cast<size_t>(std::lround(*options.megabitsPerSecond * 1e6 / 8 / framesPerSecond));
}

/// Flushes standard output, so that the line is not lost in a power cut.
void printSync(const ClipWriter::Statistics& written) {
    std::printf("synced %lld %016llx\n", static_cast<long long>(written.bytes),
                static_cast<unsigned long long>(written.checksum.value()));
    std::fflush(stdout);
}

/// One recording in progress.
class Session {
public:
    Session(const Destination& destination, const Options& options)
        : m_options(options), m_stream(frameSize(options)),
          m_progress("recording"), m_recording{ClipWriter::create(destination, options.name)} {}

    Recording run() {
        do {
            waitForFrame();
            writeFrame();
            syncIfDue();
            m_progress.update(fractionDone(), bytes(), m_recording.clip->statistics().writes.max());
        } while (fractionDone() < 1 && !stopsignal::isRequested());
        m_recording.stopped = fractionDone() < 1;
        m_recording.clip->finish();
        if (m_options.reportSyncs)
            printSync(m_recording.clip->statistics());
        m_recording.duration = elapsed();
        return std::move(m_recording);
    }

private:
    /// Waits until the frame is complete, one period after the previous one, as from a camera.
    void waitForFrame() {
        if (!m_options.megabitsPerSecond)
            return;
        const auto complete = m_start + (m_recording.frames + 1) * framePeriod;
        if (Clock::now() > complete + framePeriod)
            ++m_recording.lateFrames;
        std::this_thread::sleep_until(complete);
    }

    void writeFrame() {
        auto length = static_cast<qint64>(m_stream.frameSize());
        if (m_options.maxBytes)
            length = std::min(length, *m_options.maxBytes - bytes());
        const auto size = static_cast<size_t>(length);
        m_recording.clip->write(m_stream.next(size, elapsed()), size);
        ++m_recording.frames;
    }

    /// Syncs once per second, so that a power cut loses at most the last second.
    void syncIfDue() {
        if (elapsed() < m_nextSync)
            return;
        m_recording.clip->sync();
        if (m_options.reportSyncs)
            printSync(m_recording.clip->statistics());
        m_nextSync = elapsed() + syncPeriod;
    }

    /// Progress towards the nearer limit; 1 if it is reached.
    double fractionDone() const {
        double fraction = 0;
        if (m_options.maxBytes)
            fraction = static_cast<double>(bytes()) / static_cast<double>(*m_options.maxBytes);
        if (m_options.maxTime)
            fraction = std::max(fraction, toSeconds(elapsed()) / toSeconds(*m_options.maxTime));
        return fraction;
    }

    qint64 bytes() const {
        return m_recording.clip->statistics().bytes;
    }

    Clock::duration elapsed() const {
        return Clock::now() - m_start;
    }

    const Options& m_options;
    FrameStream m_stream;
    Progress m_progress;
    Recording m_recording;
    const Clock::time_point m_start = Clock::now();
    Clock::duration m_nextSync = syncPeriod;
};

} // namespace

Recording record(const Destination& destination, const Options& options) {
    return Session(destination, options).run();
}

ReadBack readBack(const Destination& destination, const QString& name, qint64 size) {
    const auto file = oru::io::FSSwitch::rootfs()->open(destination.path(name), O_RDONLY, 0);
    if (!file)
        throw cannot("read " + destination.shown(name));
    Progress progress("reading back");
    ReadBack result;
    std::vector<char> block(blockSize);
    const auto start = Clock::now();
    while (!(result.stopped = stopsignal::isRequested())) {
        const int count = file->pread(block.data(), blockSize, result.bytes);
        if (count < 0 && oru::io::liberrno == oru::io::Ok && errno == EINTR)
            continue;
        if (count < 0)
            throw cannot("read " + destination.shown(name));
        if (count == 0)
            break;
        result.checksum.add(block.data(), static_cast<size_t>(count));
        result.bytes += count;
        progress.update(static_cast<double>(result.bytes) / static_cast<double>(size),
                        result.bytes);
    }
    result.duration = Clock::now() - start;
    return result;
}

bool isVerified(const Recording& recording, const ReadBack& readBack) {
    const auto& written = recording.clip->statistics();
    return readBack.bytes == written.bytes && readBack.checksum.value() == written.checksum.value();
}
