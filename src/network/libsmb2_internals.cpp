// SPDX-License-Identifier: Apache-2.0
#include "network/libsmb2_internals_p.h"

#include "network/libsmb2_p.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include <malloc.h>

namespace oru::io::libsmb2 {

namespace {

std::mutex contextsMutex; // guards libsmb2's list of contexts

const unsigned char* bytesOf(const smb2_context* context) {
    return reinterpret_cast<const unsigned char*>(context);
}

} // namespace

Flag::Flag(void (*set)(smb2_context*, int)) {
    // Held to the end: contexts are linked, so making another one would change this one.
    const std::lock_guard lock(contextsMutex);
    smb2_context* const sample = smb2_init_context();
    if (!sample)
        return;
    set(sample, 0);
    const std::size_t size = malloc_usable_size(sample);
    const unsigned char* const bytes = bytesOf(sample);
    const std::vector<unsigned char> before(bytes, bytes + size);
    set(sample, 1);
    std::size_t changes = 0;
    for (std::size_t i = 0; i < size; ++i) {
        const unsigned char change = before[i] ^ bytes[i];
        if (change == 0)
            continue;
        ++changes;
        m_offset = i;
        m_mask = change;
    }
    // A flag is one bit of one byte. Anything else is not understood.
    if (changes != 1 || (m_mask & (m_mask - 1)) != 0)
        m_mask = 0;
    smb2_destroy_context(sample);
}

int Flag::of(const smb2_context* context) const {
    if (m_mask == 0)
        return -ENOTSUP;
    return (bytesOf(context)[m_offset] & m_mask) != 0;
}

smb2_context* makeContext() {
    const std::lock_guard lock(contextsMutex);
    return smb2_init_context();
}

void destroyContext(smb2_context* context) {
    const std::lock_guard lock(contextsMutex);
    smb2_destroy_context(context);
}

int isSigned(const smb2_context* context) {
    static const Flag flag(smb2_set_sign);
    return flag.of(context);
}

int isSealed(const smb2_context* context) {
    static const Flag flag(smb2_set_seal);
    return flag.of(context);
}

int connectError(smb2_context* context, int result) {
    const char* const message = smb2_get_error(context);
    const auto begins = [message](const char* words) {
        return std::strncmp(message, words, std::strlen(words)) == 0;
    };
    const char* const number = std::strrchr(message, '(');
    const bool hasNumber = begins("Connect failed") || begins("Failed to open");
    const int error = hasNumber && number ? std::atoi(number + 1) : 0;
    return error > 0 ? -error : result;
}

} // namespace oru::io::libsmb2
