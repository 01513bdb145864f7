// SPDX-License-Identifier: Apache-2.0
// The runtime heap of the simulated process.
#ifndef OVEL_SIMULATION_HEAP_H
#define OVEL_SIMULATION_HEAP_H

#include <cstddef>
#include <cstdint>

namespace ovel::simulation::heap {

// Fixed, so that a schedule finds the same addresses in every process.
inline constexpr std::uintptr_t arena_at = 0x1000'0000'0000;
inline constexpr std::size_t arena_bytes = std::size_t{512} << 20;

inline bool contains(void const volatile* address) {
    return reinterpret_cast<std::uintptr_t>(address) - arena_at < arena_bytes;
}

// Null when the arena is full.
void* allocate(std::size_t size);

// A text that says what is wrong with freeing `memory`, or null.
char const* deallocate(void* memory);

// Null when `memory` is not a block in use.
std::size_t const* size(void* memory);

// Whether `address` lies in the arena, but in no block in use.
bool is_stray(void const volatile* address);

// Records that `thread`, not 0, accesses memory of the arena. Returns whether another has
// done so since it was allocated.
bool note_access(void const* memory, unsigned int thread);

unsigned int blocks();

// Whether freed memory is handed out again, last freed first, or never.
void reuse(bool at_once);

// A text that says which block was written after its end or after it was freed,
// or null.
char const* damage();

// Keeps the current state, and returns to it.
void keep();
void restore();

}  // namespace ovel::simulation::heap

#endif
