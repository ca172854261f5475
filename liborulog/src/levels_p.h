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

/// Thread-safe. Writers read the thresholds through oruLogLevel, without its mutex.
class Levels {
public:
    static Levels& instance();

    /// \returns the new channel's index, or -1 when the table is full or `name` is null.
    int add(const char* name);

    /// oruLogSetThresholds() without errno: \returns false when `text` is none. May throw
    /// std::bad_alloc; then, too, nothing has changed.
    bool set(const char* text);

    /// The name of any index, "?" when it is not registered.
    const char* name(int channel);

    std::mutex mutex;

private:
    std::array<const char*, ORULOG_CHANNELS> m_names{};
    int m_count = 0;
    int m_every = ORULOG_DEFAULT_THRESHOLD; // of new channels that m_named does not have
    NamedThresholds m_named;
};

} // namespace orulog
