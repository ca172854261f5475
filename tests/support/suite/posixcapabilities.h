// SPDX-License-Identifier: Apache-2.0
// The capability table of PosixFS, for the conformance suite.
#pragma once

#include "support/suite/fs_conformance.h"

namespace oru::io::test {

/// For a local file system that supports all operations.
inline Capabilities posixCapabilities() {
    Capabilities can;
    can.type = "PosixFS";
    can.fileType = "PosixFile";
    can.directoryType = "PosixDirectory";
    can.opendirIsNeverNull = true;
    return can;
}

} // namespace oru::io::test
