// SPDX-License-Identifier: Apache-2.0
// The checksum that a clip is verified with: XXH3, 64 bits.
#pragma once

#include <cstddef>
#include <memory>

#include <xxhash.h>

class Checksum {
public:
    Checksum() : m_state(XXH3_createState()) {
        XXH3_64bits_reset(m_state.get());
    }

    void add(const void* data, size_t size) {
        XXH3_64bits_update(m_state.get(), data, size);
    }

    /// The checksum of all bytes added so far.
    XXH64_hash_t value() const {
        return XXH3_64bits_digest(m_state.get());
    }

private:
    struct Free {
        void operator()(XXH3_state_t* state) const {
            XXH3_freeState(state);
        }
    };
    std::unique_ptr<XXH3_state_t, Free> m_state;
};
