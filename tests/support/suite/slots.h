// SPDX-License-Identifier: Apache-2.0
// The slot of a virtual function in the virtual table of its class.
//
// A program built with one version of the library calls the slots of another version, so their
// order is part of the ABI. Slots count from 0; a virtual destructor takes two (Itanium C++ ABI).
#pragma once

#include <cstddef>
#include <cstring>

namespace oru::io::test {

template <class Function>
int slotOf(Function function) {
    struct {
        std::ptrdiff_t pointer;
        std::ptrdiff_t adjustment;
    } parts;
    static_assert(sizeof parts == sizeof function, "not a pointer to a member function");
    std::memcpy(&parts, &function, sizeof parts);
#if defined(__arm__)
    const bool isVirtual = parts.adjustment & 1;
    const std::ptrdiff_t offset = parts.pointer;
#else
    const bool isVirtual = parts.pointer & 1;
    const std::ptrdiff_t offset = parts.pointer - 1;
#endif
    return isVirtual ? static_cast<int>(offset / static_cast<std::ptrdiff_t>(sizeof(void*))) : -1;
}

} // namespace oru::io::test
