// SPDX-License-Identifier: Apache-2.0
// Records a clip and reads it back.
#pragma once

#include "clipwriter.h"
#include "destination.h"
#include "options.h"

#include <memory>

/// A finished clip and the figures of its recording.
struct Recording {
    std::unique_ptr<ClipWriter> clip; ///< never null
    qint64 frames = 0;
    qint64 lateFrames = 0; ///< that were due while the storage was still busy with earlier ones
    Clock::duration duration{};
    bool stopped = false; ///< by a stop signal
};

/// Records until a limit of `options` is reached or a stop signal arrives. Throws Failure.
Recording record(const Destination& destination, const Options& options);

/// The result of reading a clip back.
struct ReadBack {
    qint64 bytes = 0;
    Checksum checksum;
    Clock::duration duration{};
    bool stopped = false; ///< by a stop signal, before the end
};

/// Reads the clip `name` of `size` bytes. Throws Failure.
ReadBack readBack(const Destination& destination, const QString& name, qint64 size);

/// Whether the clip that was read equals the one that was written.
bool isVerified(const Recording& recording, const ReadBack& readBack);
