// SPDX-License-Identifier: Apache-2.0
#include "placement.h"

#include <vector>

namespace {

cpu_set_t allowed() {
    cpu_set_t set;
    CPU_ZERO(&set);
    sched_getaffinity(0, sizeof set, &set);
    return set;
}

/// The processors that this program may use.
std::vector<int> findProcessors() {
    const cpu_set_t set = allowed();
    std::vector<int> found;
    for (int number = 0; number < CPU_SETSIZE; ++number) {
        if (CPU_ISSET(number, &set))
            found.push_back(number);
    }
    return found;
}

} // namespace

Placement::Placement(Where where) : m_before(allowed()), m_isBound(bind(where)) {}

Placement::~Placement() {
    sched_setaffinity(0, sizeof m_before, &m_before);
}

bool Placement::isBound() const {
    return m_isBound;
}

bool Placement::bind(Where where) {
    static const std::vector<int> processors = findProcessors();
    const std::size_t index = where == Together ? 0 : 1;
    if (index >= processors.size())
        return false;
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(processors[index], &set);
    return sched_setaffinity(0, sizeof set, &set) == 0;
}
