// SPDX-License-Identifier: Apache-2.0
// Memory orders. Every change is a compare-and-exchange, so all changes have one order.
// Taking a unit acquires and posting one releases. The changes in between are
// read-modify-write operations, which continue a release sequence. Becoming a sleeper
// needs no order of its own: the kernel compares the units again, under its lock, before
// it puts a thread to sleep, and a later post sees the sleeper in the word.

#include "linux/units.h"

#include "linux/futex_word.h"
#include "linux/processors.h"

namespace ovel::detail {

// Takes a unit if there is one, and counts the caller in or out as a sleeper in the same
// step. Returns whether there was a unit.
bool units::_step(place found, place missed) {
    // Relaxed, both: the exchange corrects a stale value.
    word now = _word.load(std::memory_order_relaxed);
    for (;;) {
        bool const has = now.available != 0;
        if (!has && missed == place::keep)
            return false;
        word const next = {now.available - has,
                           now.asleep + static_cast<std::uint32_t>(has ? found : missed)};
        if (_word.compare_exchange_weak(now, next, std::memory_order_acquire,
                                        std::memory_order_relaxed))
            return has;
    }
}

// Polls for about as long as falling asleep and waking up would take. Does not poll if
// the process has one processor, or if recent polls were in vain: then the thread that
// would post probably needs the caller's processor.
bool units::_poll() {
    if (one_processor() || !_memory.should_spin())
        return false;
    // 1 to 4 us at the usual rates of time-stamp counters. If the thread moves to a
    // processor whose counter is behind, the poll also ends.
    constexpr std::uint64_t ticks = 5000;
    std::uint64_t const start = __rdtsc();
    do {
        YieldProcessor();
        if (_step(place::keep, place::keep)) {
            _memory.has_succeeded();
            return true;
        }
    } while (__rdtsc() - start < ticks);
    _memory.has_failed();
    return false;
}

bool units::take(DWORD milliseconds) {
    if (_step(place::keep, place::keep))
        return true;
    if (milliseconds == 0)
        return false;
    deadline const until(milliseconds);
    if (_poll() || _step(place::keep, place::enter))
        return true;
    while (futex_wait(&_word, 0, until))
        if (_step(place::leave, place::keep))
            return true;
    // Takes a unit that was posted while the time ran out.
    return _step(place::leave, place::leave);
}

bool units::post(LONG count, LONG maximum) {
    auto const more = static_cast<std::uint32_t>(count);
    // Relaxed, both: the exchange corrects a stale value.
    word now = _word.load(std::memory_order_relaxed);
    do {
        if (more > static_cast<std::uint32_t>(maximum) - now.available)
            return false;
    } while (!_word.compare_exchange_weak(now, word{now.available + more, now.asleep},
                                          std::memory_order_release, std::memory_order_relaxed));
    // The units are visible, so the object may be destroyed at any moment. Its address
    // still identifies the queue of its sleepers. If another object has taken its place,
    // the sleepers there find nothing and sleep again.
    if (now.asleep != 0)
        futex_wake(&_word, count);
    return true;
}

}  // namespace ovel::detail
