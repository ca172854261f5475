// SPDX-License-Identifier: Apache-2.0
// Binds a benchmark to a processor.
#pragma once

#include <sched.h>

/// Binds this thread to a processor during a benchmark with other processes. Otherwise the
/// scheduler decides whether they share a processor, and waking an idle processor can take longer
/// than the measured operation.
class Placement {
public:
    enum Where {
        Together, ///< on the processor of the helpers
        Apart,    ///< on another one
    };

    explicit Placement(Where where);
    ~Placement();

    /// Whether there is such a processor, and the thread is bound to it.
    bool isBound() const;

    /// Binds the calling thread permanently. \returns whether there is such a processor.
    static bool bind(Where where);

private:
    Placement(const Placement&) = delete;
    Placement& operator=(const Placement&) = delete;

    cpu_set_t m_before;
    bool m_isBound;
};
