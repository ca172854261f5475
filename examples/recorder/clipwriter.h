// SPDX-License-Identifier: Apache-2.0
// Writes a clip to the storage.
#pragma once

#include "checksum.h"
#include "clock.h"
#include "destination.h"
#include "latency.h"

#include <QString>

#include <cstddef>
#include <memory>

/// Writes a clip as NAME.part; finish() renames it. The destructor removes a clip that was not
/// renamed, if the storage is still accessible. A renamed clip stays, even if finish() fails to
/// sync it.
///
/// All functions throw Failure.
class ClipWriter {
public:
    struct Statistics {
        qint64 bytes = 0;
        LatencyHistogram writes;
        LatencyHistogram syncs;
        Clock::duration busy{}; ///< time spent in writes and syncs
        Checksum checksum;      ///< of the bytes written
    };

    /// Starts the clip `name`; if empty, clip-NNNN.oru with the next free number.
    static std::unique_ptr<ClipWriter> create(const Destination& destination, const QString& name);
    ~ClipWriter();

    void write(const char* data, size_t size);
    /// Returns when all written data is on the medium.
    void sync();
    void finish();

    const QString& name() const;
    const Statistics& statistics() const;

private:
    Q_DISABLE_COPY(ClipWriter)

    explicit ClipWriter(const Destination& destination);

    bool start(const QString& name);
    QString part() const;
    void discard();

    const Destination& m_destination;
    QString m_name;
    int m_fd = -1;
    bool m_partExists = false;
    Statistics m_statistics;
};
