// SPDX-License-Identifier: Apache-2.0
#include "ipc/ipcwire_p.h"

#include "ipc/ipctrace_p.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <iterator>
#include <limits>

#include <sys/types.h>

namespace oru::io::ipcwire {

namespace {

/// Fills a wiped area. No string in UTF-8 contains this byte, and it is not NUL.
constexpr char wiped = '\xff';

bool exchangeState(Area& area, char from, char to) {
    return __atomic_compare_exchange_n(&area.request[0], &from, to, false, __ATOMIC_ACQ_REL,
                                       __ATOMIC_RELAXED);
}

/// Whether the request is the operation `name`, with or without arguments.
bool names(const Text& request, const char* name) {
    const std::size_t length = std::strlen(name);
    return std::strncmp(request.bytes, name, length) == 0 &&
           (request.bytes[length] == '\0' || request.bytes[length] == ' ');
}

/// Copies `length` bytes to offset `at` of `text`, which ends after them.
void copy(Text& text, const char* from, std::size_t length, std::size_t at) {
    std::memcpy(text.bytes + at, from, length);
    text.length = at + length;
    text.bytes[text.length] = text.bytes[text.length + 1] = '\0';
}

void setState(Area& area, char to) {
    __atomic_store_n(&area.request[0], to, __ATOMIC_RELEASE);
}

/// Writes into a buffer, with a NUL after it, as much as fits. length() counts the rest, too.
class FieldWriter {
public:
    FieldWriter(char* text, std::size_t size) : m_text(text), m_room(size - 1) {
        text[0] = '\0';
    }

    void put(const char* bytes, std::size_t count) {
        if (m_length < m_room) {
            const std::size_t fits = std::min(count, m_room - m_length);
            std::memcpy(m_text + m_length, bytes, fits);
            m_text[m_length + fits] = '\0';
        }
        m_length += count;
    }
    void character(char c) {
        put(&c, 1);
    }
    void string(const char* s) {
        put(s, std::strlen(s));
    }
    template <class Number>
    void number(Number value, int base = 10) {
        char digits[std::numeric_limits<Number>::digits10 + 3]; // with a sign
        const auto result = std::to_chars(digits, std::end(digits), value, base);
        put(digits, result.ptr - digits);
    }
    void address(const void* value) {
        if (!value)
            return string("(nil)");
        string("0x");
        constexpr int hexadecimal = 16;
        number(reinterpret_cast<std::uintptr_t>(value), hexadecimal);
    }

    std::size_t length() const {
        return m_length;
    }

private:
    char* m_text;
    std::size_t m_room; // without the NUL
    std::size_t m_length = 0;
};

} // namespace

bool isOwned(const Area& area) {
    return __atomic_load_n(&area.control.magic, __ATOMIC_ACQUIRE) == magic;
}

void setOwned(Area& area, bool owned) {
    __atomic_store_n(&area.control.magic, owned ? magic : 0, __ATOMIC_RELEASE);
}

void countSession(Area& area) {
    __atomic_add_fetch(&area.sessions, 1, __ATOMIC_RELAXED);
    trace(Step::CountSession, area);
}

int wireLockCommand(int command) {
    switch (command) {
    case F_GETLK:
        return WireGetLock;
    case F_SETLK:
        return WireSetLock;
    case F_SETLKW:
        return WireSetLockWait;
    default:
        return -1;
    }
}

int platformLockCommand(int wireCommand) {
    switch (wireCommand) {
    case WireGetLock:
        return F_GETLK;
    case WireSetLock:
        return F_SETLK;
    case WireSetLockWait:
        return F_SETLKW;
    default:
        return -1;
    }
}

bool isIntegerCommand(int command) {
    switch (command) {
    case F_DUPFD:
    case F_GETFD:
    case F_SETFD:
    case F_GETFL:
    case F_SETFL:
    case F_DUPFD_CLOEXEC:
        return true;
    default:
        return false;
    }
}

char requestState(const Area& area) {
    return __atomic_load_n(&area.request[0], __ATOMIC_ACQUIRE);
}

void publish(Area& area, const char* text, std::size_t length) {
    std::memcpy(area.request + 1, text + 1, std::min(length, textSize) - 1);
    trace(Step::Publish, area, text);
    // An exchange and not a store: it is ordered with the read-modify-write in take(), and the
    // later of the two sees everything before the earlier one. So either the client finds the
    // server mutex released, or the server that has released it finds the request.
    __atomic_exchange_n(&area.request[0], text[0], __ATOMIC_ACQ_REL);
}

bool cancel(Area& area) {
    const char request = requestState(area);
    const bool isCancelled = isPublished(request) && exchangeState(area, request, Done);
    trace(Step::Cancel, area, isCancelled);
    return isCancelled;
}

void setDone(Area& area) {
    trace(Step::Done, area);
    setState(area, Done);
}

bool take(Area& area, Text& request) {
    const char first = __atomic_fetch_or(&area.request[0], 0, __ATOMIC_ACQ_REL);
    if (!isPublished(first) || !exchangeState(area, first, Copying))
        return false;
    trace(Step::Accept, area);
    // Most requests are short, and nothing follows their string.
    char* const tail = area.request + 1;
    const std::size_t text = strnlen(tail, textSize - 1);
    const bool isAll = text + 1 >= textSize - 1 || tail[text + 1] == wiped;
    const std::size_t used = isAll ? std::min(text + 1, textSize - 1) : textSize - 1;
    copy(request, tail, used, 1);
    request.bytes[0] = first;
    std::memset(tail, wiped, used);
    const RequestState copied = names(request, op::disconnect) ? Ending : Accepted;
    trace(Step::Copied, area, request.bytes, copied);
    setState(area, copied);
    return true;
}

void setIdle(Area& area) {
    std::memset(area.request + 1, wiped, textSize - 1);
    trace(Step::Idle, area);
    setState(area, Idle);
}

void copyResponse(const Area& area, Text& response) {
    const std::size_t text = strnlen(area.response, textSize);
    copy(response, area.response, std::min(text + 1 + recordSize, textSize), 0);
}

std::size_t formatFields(char* text, std::size_t size, const char* format, std::va_list args) {
    FieldWriter fields(text, size);
    while (*format != '\0') {
        const char* const percent = strchrnul(format, '%');
        fields.put(format, percent - format);
        format = percent;
        const auto isNext = [&format](const char* conversion) {
            const std::size_t length = std::strlen(conversion);
            const bool isSame = std::strncmp(format, conversion, length) == 0;
            format += isSame ? length : 0;
            return isSame;
        };
        if (isNext("%d"))
            fields.number(va_arg(args, int));
        else if (isNext("%s"))
            fields.string(va_arg(args, const char*));
        else if (isNext("%c"))
            fields.character(static_cast<char>(va_arg(args, int)));
        else if (isNext("%zu"))
            fields.number(va_arg(args, std::size_t));
        else if (isNext("%zd"))
            fields.number(va_arg(args, ssize_t));
        else if (isNext("%lli"))
            fields.number(va_arg(args, long long));
        else if (isNext("%llu"))
            fields.number(va_arg(args, unsigned long long));
        else if (isNext("%p"))
            fields.address(va_arg(args, const void*));
        else if (*format != '\0')
            fields.character(*format++);
    }
    return fields.length();
}

std::size_t formatFields(char* text, std::size_t size, const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    const std::size_t length = formatFields(text, size, format, args);
    va_end(args);
    return length;
}

FieldReader::FieldReader(const char* text)
    : m_next(text), m_end(text ? text + std::strlen(text) : nullptr), m_isGood(text) {}

FieldReader& FieldReader::pointer(void*& value) {
    std::uintptr_t address = 0;
    if (m_isGood && std::strncmp(m_next, "0x", 2) == 0) {
        const auto [next, error] = std::from_chars(m_next + 2, m_end, address, 16);
        m_isGood = error == std::errc();
        m_next = next;
    } else {
        m_isGood = false;
    }
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the other end's address is only ever compared.
    value = reinterpret_cast<void*>(address);
    return *this;
}

FieldReader& FieldReader::separator(char wanted) {
    m_isGood = m_isGood && m_next != m_end && *m_next == wanted;
    if (m_isGood)
        ++m_next;
    return *this;
}

} // namespace oru::io::ipcwire
