// The capability table of PosixFS, for the conformance suite.
#pragma once

#include "support/suite/fs_conformance.h"

namespace oru::io::test {

/// Over a file system that lacks nothing.
inline Capabilities posixCapabilities() {
    Capabilities can;
    can.type = "PosixFS";
    can.fileType = "PosixFile";
    can.directoryType = "PosixDirectory";
    can.opendirIsNeverNull = true;
    return can;
}

} // namespace oru::io::test
