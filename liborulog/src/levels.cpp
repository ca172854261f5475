// SPDX-License-Identifier: Apache-2.0
#include "levels_p.h"

#include <charconv>
#include <optional>
#include <string_view>

namespace orulog {

namespace {

constexpr auto allDefault = [] {
    std::array<int, ORULOG_CHANNELS> levels{};
    for (int& level : levels)
        level = ORULOG_DEFAULT_THRESHOLD;
    return levels;
}();

// Used directly, not through oruLogLevel: a program may have replaced that pointer.
std::array<int, ORULOG_CHANNELS> table = allDefault;

void setThreshold(int channel, int threshold) {
    __atomic_store_n(&table[channel], threshold, __ATOMIC_RELAXED);
}

struct Thresholds {
    std::optional<int> every;
    NamedThresholds named;

    std::optional<int> of(const char* name) const {
        if (name) {
            if (const auto found = named.find(name); found != named.end())
                return found->second;
        }
        return every;
    }
};

std::optional<int> parseNumber(std::string_view text) {
    int value = 0;
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value);
    if (result.ec != std::errc() || result.ptr != end)
        return {};
    return value;
}

std::optional<Thresholds> parseThresholds(std::string_view list) {
    Thresholds thresholds;
    for (;;) {
        const auto comma = list.find(',');
        const auto item = list.substr(0, comma);
        const auto equals = item.find('=');
        const bool isNamed = equals != item.npos;
        const auto threshold = parseNumber(isNamed ? item.substr(equals + 1) : item);
        if (!threshold || equals == 0)
            return {};
        if (isNamed)
            thresholds.named[std::string(item.substr(0, equals))] = *threshold;
        else
            thresholds.every = threshold;
        if (comma == list.npos)
            return thresholds;
        list.remove_prefix(comma + 1);
    }
}

} // namespace

Levels& Levels::instance() {
    // Never destroyed: it is used until the process ends.
    static Levels& levels = *new Levels;
    return levels;
}

int Levels::add(const char* name) {
    const std::lock_guard lock(mutex);
    if (!name || m_count == ORULOG_CHANNELS)
        return -1;
    const int channel = m_count++;
    m_names[channel] = name;
    const auto named = m_named.find(name);
    setThreshold(channel, named == m_named.end() ? m_every : named->second);
    return channel;
}

bool Levels::set(const char* list) {
    if (!list)
        return false;
    const auto thresholds = parseThresholds(list);
    if (!thresholds)
        return false;

    const std::lock_guard lock(mutex);
    NamedThresholds named = thresholds->named;
    if (!thresholds->every)
        named.insert(m_named.begin(), m_named.end()); // only names that are not in `list`
    m_named.swap(named);
    m_every = thresholds->every.value_or(m_every);
    for (int channel = 0; channel < ORULOG_CHANNELS; ++channel) {
        if (const auto threshold = thresholds->of(m_names[channel]))
            setThreshold(channel, *threshold);
    }
    return true;
}

const char* Levels::name(int channel) {
    const std::lock_guard lock(mutex);
    return channel >= 0 && channel < m_count ? m_names[channel] : "?";
}

} // namespace orulog

int* oruLogLevel = orulog::table.data();
