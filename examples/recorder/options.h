// The command line.
#pragma once

#include "clock.h"

#include <QString>
#include <QStringList>

#include <optional>

struct Options {
    QString help;             ///< what --help prints, if it was asked for; the rest is then unset
    QString destination;      ///< empty: a temporary directory
    bool keep = false;        ///< keep the temporary directory
    QString locations;        ///< the file that describes the storage locations
    bool reportSyncs = false; ///< print a line for each
    bool check = false;       ///< check the medium of a location in the end
    QString name;             ///< empty: the next free number

    std::optional<double> megabitsPerSecond; ///< else as fast as the storage takes it
    std::optional<qint64> maxBytes;
    std::optional<Clock::duration> maxTime;
};

/// Reads the command line, program name first. Throws UsageError.
Options parseOptions(const QStringList& arguments);
