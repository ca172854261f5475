// SPDX-License-Identifier: Apache-2.0
// The command line.
#pragma once

#include "clock.h"

#include <QString>
#include <QStringList>

#include <optional>

struct Options {
    QString help;             ///< the output of --help; if set, all other members are unset
    QString destination;      ///< empty: a temporary directory
    bool keep = false;        ///< keep the temporary directory
    QString locations;        ///< the file that describes the storage locations
    bool reportSyncs = false; ///< print a line for each sync
    bool check = false;       ///< check the medium of a location at the end
    QString name;             ///< empty: clip-NNNN.oru with the next free number

    std::optional<double> megabitsPerSecond; ///< unset: as fast as the storage accepts it
    std::optional<qint64> maxBytes;
    std::optional<Clock::duration> maxTime;
};

/// Reads the command line, program name first. Throws UsageError.
Options parseOptions(const QStringList& arguments);
