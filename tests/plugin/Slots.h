#pragma once

#include <cstdint>
#include <cstring>

namespace zel::test {

/// The place of a virtual function in the primary table of the class that its pointer names,
/// counted from 0; the two entries of the destructor count. Read out of the member pointer, which
/// the C++ ABI of this platform lays out as an offset into the table.
template <class Class, class Function>
int slotOf(Function Class::*member)
{
    static_assert(sizeof(member) == 2 * sizeof(std::uintptr_t));
    std::uintptr_t words[2];
    std::memcpy(words, &member, sizeof(words));
    // x86 marks a virtual function in the lowest bit of the offset, ARM in the second word.
    return static_cast<int>((words[0] & ~std::uintptr_t{1}) / sizeof(void*));
}

} // namespace zel::test
