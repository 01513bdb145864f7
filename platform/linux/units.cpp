// SPDX-License-Identifier: Apache-2.0
#include "linux/units.h"

#include "linux/futex_word.h"
#include "linux/processors.h"

#include <algorithm>

namespace ovel::detail {

// Polls for about as long as falling asleep and waking up would take. Does not poll if
// the process has one processor, or if recent polls were in vain: then the thread that
// would post probably needs the caller's processor. Each poll takes the word's cache line
// from a thread that takes and posts again and again, so the pauses in between double.
bool units::_poll() {
    if (one_processor() || !_memory.should_spin())
        return false;
    // 1 to 4 us at the usual rates of time-stamp counters. If the thread moves to a
    // processor whose counter is behind, the poll also ends.
    constexpr std::uint64_t ticks = 5000;
    std::uint64_t const start = __rdtsc();
    unsigned int pauses = 4;
    do {
        for (unsigned int i = 0; i != pauses; ++i)
            YieldProcessor();
        pauses = std::min(2 * pauses, 64u);
        if (_step(place::keep, place::keep)) {
            _memory.has_succeeded();
            return true;
        }
    } while (__rdtsc() - start < ticks);
    _memory.has_failed();
    return false;
}

bool units::_wait(DWORD milliseconds) {
    deadline const until(milliseconds);
    if (_poll() || _step(place::keep, place::enter))
        return true;
    while (futex_wait(&_word, 0, until))
        if (_step(place::leave, place::keep))
            return true;
    // Takes a unit that was posted while the time ran out.
    return _step(place::leave, place::leave);
}

}  // namespace ovel::detail
