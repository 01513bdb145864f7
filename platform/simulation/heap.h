// The runtime heap of the simulated process.
#ifndef OVEL_SIMULATION_HEAP_H
#define OVEL_SIMULATION_HEAP_H

#include <cstddef>

namespace ovel::simulation::heap {

// Null when the arena is full.
void* allocate(std::size_t size);

// A text that says what is wrong with freeing `memory`, or null.
char const* deallocate(void* memory);

// Null when `memory` is not a block in use.
std::size_t const* size(void* memory);

// Whether `address` lies in the arena, but in no block in use.
bool is_stray(void const volatile* address);
bool contains(void const volatile* address);

unsigned int blocks();
std::size_t bytes();

// Freed memory is handed out again, last freed first; else never.
void reuse(bool at_once);

// A text that says which block was written after its end or after it was freed,
// or null.
char const* damage();

// Keeps the state of now, and goes back to it.
void keep();
void restore();

}  // namespace ovel::simulation::heap

#endif
