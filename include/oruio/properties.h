// SPDX-License-Identifier: Apache-2.0
/// \file
/// Named settings: an argument of connect(), mount() and similar functions.
#pragma once

#include <QMap>
#include <QString>
#include <QVariant>

namespace oru::io {

/// Settings by name. Each function documents its keys and ignores all others.
using Properties = QMap<QString, QVariant>;

} // namespace oru::io
