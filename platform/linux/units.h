// SPDX-License-Identifier: Apache-2.0
// The core of semaphores and mutexes: a number of units, and the threads that sleep for
// them.
#ifndef OVEL_PLATFORM_LINUX_UNITS_H
#define OVEL_PLATFORM_LINUX_UNITS_H

#include "kernel.h"
#include "ovel_atomic.h"
#include "ovel_spin_memory.h"

#include <cstddef>
#include <cstdint>

namespace ovel::detail {

// The units, and the number of threads asleep for one, in a single word, so that both
// change in one step. The value that a post replaces tells it whether to wake a thread.
// So it need not read the object afterwards, which may already be destroyed. A thread
// counts as asleep from the step in which it finds no unit until the step in which it
// takes one or gives up. A wake-up changes no count; it only makes the sleeper look
// again.
class units {
public:
    explicit units(LONG count) : _word(word{static_cast<std::uint32_t>(count), 0}) {}

    // Takes a unit, waiting at most `milliseconds` for one. Returns false if the time
    // passes without one.
    bool take(DWORD milliseconds);

    // Adds `count` units and wakes as many sleepers. Returns false and changes nothing if
    // there would be more than `maximum`.
    bool post(LONG count, LONG maximum);

private:
    // Aligned so that one instruction accesses all of it; 32-bit targets align 8-byte
    // integers less strictly.
    struct alignas(8) word {
        std::uint32_t available;  // the futex
        std::uint32_t asleep;
    };
    static_assert(offsetof(word, available) == 0 && sizeof(word) == 8);
    static_assert(atomic<word>::is_always_lock_free);

    // How a step changes the number of sleepers, depending on whether it finds a unit:
    // the caller stays what it is, becomes a sleeper, or stops being one.
    enum class place : std::uint32_t { keep = 0, enter = 1, leave = 0xffffffff };

    bool _step(place found, place missed);
    bool _poll();

    atomic<word> _word;
    spin_memory _memory;
};

}  // namespace ovel::detail

#endif
