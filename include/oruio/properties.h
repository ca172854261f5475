// SPDX-License-Identifier: Apache-2.0
/// \file
/// Named settings, which connect(), mount() and similar functions take.
#pragma once

#include <QMap>
#include <QString>
#include <QVariant>

namespace oru::io {

/// Settings by name. Each function documents its keys and ignores all others.
using Properties = QMap<QString, QVariant>;

} // namespace oru::io
