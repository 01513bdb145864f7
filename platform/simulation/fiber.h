// Stacks, and the switch from one to another.
#ifndef OVEL_SIMULATION_FIBER_H
#define OVEL_SIMULATION_FIBER_H

#include <cstddef>

namespace ovel::simulation {

// What a thread of the simulation is made of, beside its stack: where it left
// off, and the exceptions it is handling, which the language's runtime keeps for
// the thread of the system that all of them share.
struct fiber {
    void* stack_pointer = nullptr;
    void* caught_exceptions = nullptr;
    unsigned int uncaught_exceptions = 0;
};

inline constexpr std::size_t stack_bytes = std::size_t{256} << 10;
inline constexpr unsigned int stack_count = 64;

// The lowest address of stack `index`, below which lies a guard.
char* stack(unsigned int index);

// Makes `created` start with `entry`, which never returns, on a stack.
void prepare(fiber& created, unsigned int stack_index, void (*entry)());

void switch_to(fiber& from, fiber& to);

// Where the fiber called from, innermost first, as far as frame pointers lead
// within its stack.
unsigned int calls_of(fiber const& suspended, unsigned int stack_index, void** calls,
                      unsigned int most);

}  // namespace ovel::simulation

#endif
