// SPDX-License-Identifier: Apache-2.0
// What the monitor and the block devices have in common.
#pragma once

#include <oruio/properties.h>

#include <QString>

namespace oru::io {

/// The log channel of block devices and their monitor.
extern const int bdmonLogChannel;

/// The string of `key`; empty when there is none.
inline QString valueOf(const Properties& props, const QString& key) {
    const auto property = props.constFind(key);
    return property == props.constEnd() ? QString() : property->toString();
}

} // namespace oru::io
