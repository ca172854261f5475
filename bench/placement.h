// Which processor a benchmark runs on.
#pragma once

#include <sched.h>

/// Binds this thread to a processor for the time of a benchmark that other processes take part in.
/// Left alone, the system may put them beside each other or not, and a processor that wakes up from
/// idling can take longer than everything that is to be measured.
class Placement {
public:
    enum Where {
        Together, ///< on the processor of the helpers
        Apart,    ///< on another one
    };

    explicit Placement(Where where);
    ~Placement();

    /// Whether there is such a processor.
    bool isDone() const;

    /// Binds the calling thread to a processor for good. \returns whether there is one.
    static bool bind(Where where);

private:
    Placement(const Placement&) = delete;
    Placement& operator=(const Placement&) = delete;

    cpu_set_t m_before;
    bool m_isDone;
};
