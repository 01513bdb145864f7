// What the sources take for the C runtime's: integers as text, and the size of a
// block of the heap.

#include "kernel.h"

#include <malloc.h>

namespace ovel {

char* kernel::_ui64toa(std::uint64_t value, char* text, int radix) {
    auto const base = static_cast<std::uint64_t>(radix);
    char* end = text + 1;
    for (std::uint64_t left = value / base; left != 0; left /= base)
        ++end;
    *end = '\0';
    do {
        *--end = "0123456789abcdef"[value % base];
        value /= base;
    } while (end != text);
    return text;
}

char* kernel::_ultoa(unsigned long value, char* text, int radix) {
    return _ui64toa(value, text, radix);
}

std::size_t kernel::_msize(void* memory) {
    return malloc_usable_size(memory);
}

}  // namespace ovel
