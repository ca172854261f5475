// SPDX-License-Identifier: Apache-2.0
// The channels and their thresholds.
#pragma once

#include <orulog/control.h>

#include <array>
#include <functional>
#include <map>
#include <mutex>
#include <string>

namespace orulog {

/// Threshold by channel name.
using NamedThresholds = std::map<std::string, int, std::less<>>;

/// The table of channels. Thread-safe. Callers that log read the thresholds through oruLogLevel,
/// without the mutex.
class Levels {
public:
    static Levels& instance();

    /// Adds a channel. \returns its index, or -1 when the table is full or `name` is null.
    int add(const char* name);

    /// Does the work of oruLogSetThresholds(). \returns false when `list` is not valid.
    ///
    /// May throw std::bad_alloc. Then, and when it returns false, nothing has changed.
    bool set(const char* list);

    /// Returns the name of a channel, "?" for an index that is not registered.
    const char* name(int channel);

    std::mutex mutex;

private:
    std::array<const char*, ORULOG_CHANNELS> m_names{};
    int m_count = 0;
    int m_every = ORULOG_DEFAULT_THRESHOLD; // of new channels whose name is not in m_named
    NamedThresholds m_named;
};

} // namespace orulog
