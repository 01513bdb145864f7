// SPDX-License-Identifier: Apache-2.0
// Included first in all that ./test mutants compiles: selects one mutant at run time, and records
// which mutants a program reaches.
#ifndef OVEL_MUTANTS_SWITCH_H
#define OVEL_MUTANTS_SWITCH_H

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <cstdlib>

namespace ovel_mutants {

// The number in OVEL_MUTANT; 0 selects none.
inline int selected() {
    char const* const number = std::getenv("OVEL_MUTANT");
    return number ? std::atoi(number) : 0;
}

// A byte per mutant in the file OVEL_REACHED. The mapping is shared, so the bytes that a process
// has set outlast it however it ends.
inline char* reached() {
    char const* const name = std::getenv("OVEL_REACHED");
    int const file = name ? open(name, O_RDWR | O_CLOEXEC) : -1;
    if (file == -1)
        return nullptr;
    void* const bytes = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    return bytes == MAP_FAILED ? nullptr : static_cast<char*>(bytes);
}

inline int const _selected = selected();
inline char* const _reached = reached();

#if defined(OVEL_MUTANT)
// The one mutant that the compiler shall compile, to compare its code.
constexpr bool is(int number) {
    return number == OVEL_MUTANT;
}
#else
// Whether the mutant `number` takes the place of the original. The simulated kernel must not see
// these accesses.
[[gnu::noinline, gnu::no_sanitize("thread")]] constexpr bool is(int number) {
    if (__builtin_is_constant_evaluated())
        return false;
    if (_reached)
        _reached[number] = 1;
    return number == _selected;
}
#endif

}  // namespace ovel_mutants

#endif
