// SPDX-License-Identifier: Apache-2.0
// The core of semaphores and mutexes: a number of units, and the threads that sleep for
// them.
#ifndef OVEL_PLATFORM_LINUX_UNITS_H
#define OVEL_PLATFORM_LINUX_UNITS_H

#include "kernel.h"
#include "ovel_atomic.h"

#include <cstddef>
#include <cstdint>

namespace ovel::detail {

// Units, and threads asleep for one, in a single word, so that both change in one step.
// The value it replaced tells a posting thread whether to wake another. It need not read
// the object afterwards, when that may have been destroyed. A thread counts as asleep from
// the step in which it finds no unit until the step in which it takes one or gives up. A
// wake-up changes no count; it only makes the sleeper look again.
class units {
public:
    explicit units(LONG count) : _word(word{static_cast<std::uint32_t>(count), 0}) {}

    // Takes a unit, waiting for one for at most `milliseconds`. False when the time has
    // passed without one.
    bool take(DWORD milliseconds);

    // Makes `count` more units, and wakes as many sleepers. False, with nothing
    // changed, if there were more than `maximum` then.
    bool post(LONG count, LONG maximum);

private:
    // Aligned so that one instruction accesses it all; 32-bit targets align integers of 8
    // bytes less.
    struct alignas(8) word {
        std::uint32_t available;  // the futex
        std::uint32_t asleep;
    };
    static_assert(offsetof(word, available) == 0 && sizeof(word) == 8);
    static_assert(atomic<word>::is_always_lock_free);

    // How a step changes the caller's place among the sleepers, when it finds a unit and
    // when it finds none.
    enum class place : std::uint32_t { keep = 0, enter = 1, leave = 0xffffffff };

    bool _step(place found, place missed);
    bool _may_poll() const;
    bool _poll();

    atomic<word> _word;
    // The processor from which the last sleeper was woken, and whether that was its own.
    // Relaxed, because they are hints; the next sleeper corrects a wrong one.
    atomic<int> _waker_processor = -1;
    atomic<bool> _shares_processor = false;
};

}  // namespace ovel::detail

#endif
