// The heart of semaphores and mutexes: a number of units, and who sleeps for them.
#ifndef OVEL_PLATFORM_LINUX_UNITS_H
#define OVEL_PLATFORM_LINUX_UNITS_H

#include "kernel.h"
#include "ovel_atomic.h"

#include <cstddef>
#include <cstdint>

namespace ovel::detail {

// Units, and threads asleep for one, in a single word, so that both change in one
// step: whoever posts learns from the value it replaced whether anybody must be
// woken, and needs no look at the object afterwards, when it may be gone. A thread
// counts as asleep from the step in which it found no unit until the step in which
// it takes one or gives up; a wake-up changes nothing, it only has the sleeper look
// again.
class units {
public:
    explicit units(LONG count) : _word(word{static_cast<std::uint32_t>(count), 0}) {}

    // Takes a unit, waiting for one as long as `milliseconds` allow. False when
    // the time has passed and there is none.
    bool take(DWORD milliseconds);

    // Makes `count` more units, and wakes as many sleepers. False, with nothing
    // changed, if there were more than `maximum` then.
    bool post(LONG count, LONG maximum);

private:
    // Aligned for one access to all of it, which on 32 bits is more than integers of
    // 8 bytes get.
    struct alignas(8) word {
        std::uint32_t available;  // the futex
        std::uint32_t asleep;
    };
    static_assert(offsetof(word, available) == 0 && sizeof(word) == 8);
    static_assert(atomic<word>::is_always_lock_free);

    // What a step does about the caller's place among the sleepers, when it finds a
    // unit and when it finds none.
    enum class place : std::uint32_t { keep = 0, enter = 1, leave = 0xffffffff };

    bool _step(place found, place missed);
    bool _may_poll() const;
    bool _poll();

    atomic<word> _word;
    // Hints, so relaxed; the next sleeper sets a wrong one right. The processor from
    // which the last sleeper was woken, and whether that was its own.
    atomic<int> _waker_processor = -1;
    atomic<bool> _shares_processor = false;
};

}  // namespace ovel::detail

#endif
