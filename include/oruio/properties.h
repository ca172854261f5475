// Named settings, as connect(), mount() and their like take them.
#pragma once

#include <QMap>
#include <QString>
#include <QVariant>

namespace oru::io {

/// Each function documents its keys. A key that it does not know is ignored.
using Properties = QMap<QString, QVariant>;

} // namespace oru::io
