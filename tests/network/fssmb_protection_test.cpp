// SPDX-License-Identifier: Apache-2.0
// Connecting with a libsmb2 whose flags for signing cannot be found. A program of its own, as the
// library looks for them once per process.
#include "network/fssmb_fixtures.h"

#include <cerrno>

struct smb2_context;

// Precedes libsmb2's function, and changes nothing.
extern "C" Q_DECL_EXPORT void smb2_set_sign(smb2_context*, int) {}

namespace oru::io {

using test::expectRefused;
using test::Smb;

TEST_F(Smb, ProtectionFlagNotFound_ConnectFailsWithENOTSUP) {
    expectRefused(server, "3.1.1", "rw", ENOTSUP);
}

} // namespace oru::io
