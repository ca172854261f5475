// SPDX-License-Identifier: Apache-2.0
// What a request of a Smb2Session returns.
#pragma once

#include "network/libsmb2_p.h"
#include "network/smb2session_p.h"

#include <cerrno>
#include <cstdlib>

namespace oru::io {

/// The answers to a request, which consists of one or more commands.
struct Smb2Session::Reply {
    int unanswered = 1; ///< how many commands have no answer yet
    int result = 0;     ///< the negative errno of the first command that failed; else 0 or a count
    void* data = nullptr;

    bool isComplete() const {
        return unanswered == 0;
    }
    void answer(int status, void* replyData = nullptr) {
        if (result == 0)
            result = status;
        data = replyData;
        --unanswered;
    }

    /// The callback of requests whose status libsmb2 translates into an errno.
    static void take(smb2_context*, int status, void* data, void* reply) {
        static_cast<Reply*>(reply)->answer(status, data);
    }
    /// The callback of a connect. For some failures libsmb2 passes a positive errno, and -1 for an
    /// answer that it cannot parse.
    static void takeConnection(smb2_context*, int status, void*, void* reply) {
        static_cast<Reply*>(reply)->answer(status == -1 ? -ECONNRESET : -std::abs(status));
    }
    /// The callback of commands whose status is the server's NT status.
    static void takeStatus(smb2_context*, int status, void*, void* reply) {
        static_cast<Reply*>(reply)->answer(-nterror_to_errno(status));
    }
    /// The callback of a command that queries an `Info`. Converts it into the `Attributes` of a
    /// Query.
    template <class Info, class Attributes>
    static void takeInfo(smb2_context* context, int status, void* data, void* reply);
};

} // namespace oru::io
