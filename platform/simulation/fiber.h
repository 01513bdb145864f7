// SPDX-License-Identifier: Apache-2.0
// Stacks, and switching between them.
#ifndef OVEL_SIMULATION_FIBER_H
#define OVEL_SIMULATION_FIBER_H

#include <cstddef>
#include <cstdint>

namespace ovel::simulation {

// A thread of the simulation, without its stack: where it was suspended, and the
// exceptions that it is handling. The C++ runtime keeps those per system thread, and all
// fibers share one.
struct fiber {
    void* stack_pointer = nullptr;
    void* caught_exceptions = nullptr;
    unsigned int uncaught_exceptions = 0;
};

// Enough for the library's frames without optimisation; one stack for each slot.
inline constexpr std::size_t stack_bytes = std::size_t{256} << 10;
inline constexpr unsigned int stack_count = 64;

// The same in every run and every process, because names and orders may depend on the
// addresses of local variables.
inline constexpr std::uintptr_t stacks_at = 0x2000'0000'0000;
inline constexpr std::size_t stack_guard_bytes = 4096;

// The lowest address of stack `index`. A guard lies below it.
inline char* stack(unsigned int index) {
    return reinterpret_cast<char*>(stacks_at + index * (stack_bytes + stack_guard_bytes) +
                                   stack_guard_bytes);
}

// Call it before preparing the first fiber.
void map_stacks();

// Makes `created` start with `entry`, which never returns, on the given stack.
void prepare(fiber& created, unsigned int stack_index, void (*entry)());

void switch_to(fiber& from, fiber& to);

// The return addresses of the suspended fiber's calls, innermost first, as far as frame
// pointers lead within its stack.
unsigned int calls_of(fiber const& suspended, unsigned int stack_index, void** calls,
                      unsigned int most);

}  // namespace ovel::simulation

#endif
