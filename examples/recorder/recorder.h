// The two halves of the work: recording a clip, and reading it back.
#pragma once

#include "clipwriter.h"
#include "destination.h"
#include "options.h"

#include <memory>

/// A finished clip and how it came about.
struct Recording {
    std::unique_ptr<ClipWriter> clip; ///< never null
    qint64 frames = 0;
    qint64 lateFrames = 0; ///< whose turn came while the storage was still busy with others
    Clock::duration duration{};
    bool stopped = false; ///< by a stop signal
};

/// Records until a limit of `options` is reached or a stop signal comes. Throws Failure.
Recording record(const Destination& destination, const Options& options);

/// What a clip contained when it was read again.
struct ReadBack {
    qint64 bytes = 0;
    Checksum checksum;
    Clock::duration duration{};
    bool stopped = false; ///< by a stop signal, before the end
};

/// Reads the clip `name` of `size` bytes. Throws Failure.
ReadBack readBack(const Destination& destination, const QString& name, qint64 size);

/// Whether all of the clip came back as it was written.
bool isVerified(const Recording& recording, const ReadBack& readBack);
