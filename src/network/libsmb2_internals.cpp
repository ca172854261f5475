// SPDX-License-Identifier: Apache-2.0
#include "network/libsmb2_internals_p.h"

#include "network/libsmb2_p.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include <malloc.h>

namespace oru::io::libsmb2 {

namespace {

std::mutex contextsMutex; // guards libsmb2's list of contexts

bool begins(const std::string& message, const char* words) {
    return message.compare(0, std::strlen(words), words) == 0;
}

const unsigned char* bytesOf(const smb2_context* context) {
    return reinterpret_cast<const unsigned char*>(context);
}

std::vector<unsigned char> copyOf(const smb2_context* context) {
    // Held because contexts are linked: making another one would change this one.
    const std::lock_guard lock(contextsMutex);
    return {bytesOf(context),
            bytesOf(context) + malloc_usable_size(const_cast<smb2_context*>(context))};
}

std::int64_t intAt(const std::vector<unsigned char>& bytes, std::size_t at) {
    int value = 0;
    std::memcpy(&value, bytes.data() + at, sizeof value);
    return value;
}

/// Where contexts count their credits; -1 until it is found.
std::atomic<std::ptrdiff_t> creditsOffset{-1};

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

CreditSearch::CreditSearch(const smb2_context* context) : m_context(context) {
    if (creditsOffset < 0)
        m_before = copyOf(context);
}

CreditSearch::~CreditSearch() {
    if (m_before.empty())
        return;
    const std::vector<unsigned char> after = copyOf(m_context);
    std::ptrdiff_t found = -1;
    for (std::size_t at = 0; at + sizeof(int) <= after.size(); at += alignof(int)) {
        if (intAt(after, at) != intAt(m_before, at) - 1)
            continue;
        if (found >= 0)
            return; // two such numbers
        found = static_cast<std::ptrdiff_t>(at);
    }
    if (found >= 0)
        creditsOffset = found;
}

int credits(const smb2_context* context) {
    const std::ptrdiff_t offset = creditsOffset;
    if (offset < 0)
        return -ENOTSUP;
    int count = 0;
    std::memcpy(&count, bytesOf(context) + offset, sizeof count);
    return count;
}

int connectError(smb2_context* context, int result) {
    const std::string message = smb2_get_error(context);
    const std::size_t number = message.rfind('(');
    if (number == std::string::npos ||
        (!begins(message, "Connect failed") && !begins(message, "Failed to open")))
        return result;
    const int error = std::atoi(message.c_str() + number + 1);
    return error > 0 ? -error : result;
}

ConnectMessage parseConnectMessage(const std::string& message) {
    constexpr struct {
        const char* words;
        ConnectMessage::Subject subject;
    } forms[] = {
        {"Invalid address:", ConnectMessage::Resolver},
        {"Read from socket failed", ConnectMessage::Connection},
        {"Error when writing", ConnectMessage::Connection},
        {"smb2_service", ConnectMessage::Connection},
        {"Signing required by server", ConnectMessage::Protection},
        {encryptedMessage, ConnectMessage::Protection},
        {"Negotiate failed with (0x", ConnectMessage::Negotiate},
        {"Session setup failed with (0x", ConnectMessage::SessionSetup},
        {"Tree Connect failed with (0x", ConnectMessage::TreeConnect},
    };
    if (message.empty())
        return {ConnectMessage::Nothing, 0};
    for (const auto& form : forms) {
        if (!begins(message, form.words))
            continue;
        const char* const status = message.c_str() + std::strlen(form.words);
        return {form.subject, static_cast<std::uint32_t>(std::strtoul(status, nullptr, 16))};
    }
    return {};
}

} // namespace oru::io::libsmb2
