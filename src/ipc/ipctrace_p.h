// SPDX-License-Identifier: Apache-2.0
// The steps of the exchange between client and server, as trace points.
//
// docs/decisions/ipc-exchange.md describes the protocol. Each function that carries out one of its
// steps names that step. In the test programs the steps are recorded, and a checker compares the
// record with the protocol. In the library trace() is empty.
//
// The record has one order for all processes. A step that releases something to another process
// (a publication, a post, an unlock, the states Accepted, Done, Ending and Idle) is traced before
// the action. A step that acquires something (a lock, a wait, a successful compare-and-swap) is
// traced after the action. So if one step makes another step possible, it comes first in the
// record.
#pragma once

#include "ipc/ipcwire_p.h"

namespace oru::io::ipcwire {

enum class Step : unsigned char {
    // Both ends
    LockBlock,
    UnlockBlock,
    FreeBuffer, // 1: the buffer was reserved, else 0; the index is the buffer
    Retire,     // removes the name of the block
    GiveUp,     // GiveUpReason

    // Client
    ServerGone,      // the error number of locking the server mutex
    LockClientMutex, // the error number
    CountSession,
    Cancel,  // 1: the request was published and is cancelled now, else 0
    Settled, // RequestState: neither Copying nor Ending
    Publish,
    Post,
    TakeResponse,
    Done,
    ReserveBuffer, // 0, or the error number
    FillBuffer,
    ReleaseClientMutex,

    // Server
    LockServerMutex, // LockReason
    ReleaseServerMutex,
    BeginReset,
    SemaphoresInitialised,
    Idle,
    Wake,
    Accept,
    Copied, // RequestState: Accepted or Ending
    Execute,
    CancelledResponse, // a Respond follows
    Respond,
    ClientMutexRemade, // the error number of locking it
    Terminate,
    Stop, // 1: the state is Accepted, and no request is cancelled

    // Traced by tests only
    Death, // the process in the argument is about to end, and may do so at any moment
};

enum GiveUpReason : int { GiveUpNoServer, GiveUpNoAnswer, GiveUpBusy };
enum LockReason : int { LockToServe, LockToTerminate, LockToRetire };

#if defined(ORUIO_IPC_TRACE)
/// Records a step. `text` is a request.
void recordStep(Step step, const Area& area, int value, int index, const char* text);

inline void trace(Step step, const Area& area, int value = 0, int index = -1) {
    recordStep(step, area, value, index, nullptr);
}
inline void trace(Step step, const Area& area, const char* request, int value = 0) {
    recordStep(step, area, value, -1, request);
}
#else
inline void trace(Step, const Area&, int = 0, int = -1) {}
inline void trace(Step, const Area&, const char*, int = 0) {}
#endif

} // namespace oru::io::ipcwire
