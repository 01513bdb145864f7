// SPDX-License-Identifier: Apache-2.0
// Plain accesses. A lock must order the accesses that the library makes without an atomic
// word. A missing lock would not show if no other thread could run between two such
// accesses. So the library is compiled to report them (plain.cpp). In one in eight drawn
// schedules they are scheduling points too, from the second thread on that accesses a
// word. Two threads that are both about to access the same memory, one of them to write,
// have no lock between them. That is a race and ends the run, whatever the accesses would
// do.

#include "dispatch.h"
#include "heap.h"
#include "run.h"

namespace ovel::simulation {

constinit bool plain_points = false;

namespace {

bool conflict(operation one, bool other_writes) {
    return one == operation::write || (one == operation::read && other_writes);
}

void check_races(std::uintptr_t address, std::size_t size, bool writes) {
    for (threads_mask rest = now->alive & ~bit(now->self); rest != 0; rest &= rest - 1) {
        thread const& other = now->threads[lowest(rest)];
        if (conflict(other.doing.what, writes) && address < other.doing.object + other.size &&
            other.doing.object < address + size)
            fail_run("race: threads " + std::to_string(now->threads[now->self].state.number) +
                     " and " + std::to_string(other.state.number) + " access " + place(address) +
                     " at the same time, and one writes");
    }
}

}  // namespace

void access_plainly(void const* memory, std::size_t size, bool writes) {
    if (now == nullptr || now->in_access || now->state != phase::exploring)
        return;
    auto const address = reinterpret_cast<std::uintptr_t>(memory);
    auto const own = reinterpret_cast<std::uintptr_t>(stack(now->self));
    // Threads hardly ever share memory on a stack.
    if (address - own < stack_bytes)
        return;
    if (heap::is_stray(memory))
        fail_run("freed memory was accessed: " + place(address));
    thread& self = now->threads[now->self];
    if (heap::contains(memory) && !heap::note_access(memory, self.state.number))
        return;
    check_races(address, size, writes);
    self.size = size;
    reach(
        writes ? action{operation::write, false, address} : action{operation::read, false, address},
        __builtin_return_address(0), false);
    self.doing.what = operation::begin;
}

}  // namespace ovel::simulation
