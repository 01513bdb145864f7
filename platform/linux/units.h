// SPDX-License-Identifier: Apache-2.0
// The core of semaphores and mutexes: a number of units, and the threads that sleep for
// them.
#ifndef OVEL_PLATFORM_LINUX_UNITS_H
#define OVEL_PLATFORM_LINUX_UNITS_H

#include "kernel.h"
#include "linux/futex_word.h"
#include "ovel_atomic.h"
#include "ovel_spin_memory.h"

#include <algorithm>
#include <bit>
#include <cstdint>

namespace ovel::detail {

// The units, and the number of threads asleep for one, in a single word, so that both
// change in one step. The value that a post replaces tells it whether to wake a thread.
// So it need not read the object afterwards, which may already be destroyed. A thread
// counts as asleep from the step in which it finds no unit until the step in which it
// takes one or gives up. A wake-up changes no count; it only makes the sleeper look
// again.
//
// A mark in the word says that a wake-up is under way. A post that finds sleepers sets it
// and wakes one of them; a sleeper that looks removes it. A post that finds it set wakes
// nobody, unless there are units for more sleepers. So a thread that returns a unit and takes
// it again, before the thread it woke has run, makes one system call and not one each time.
// No wake-up is lost:
//
// - While the mark is set no thread falls asleep. So either a sleeper is about to look or
//   none is asleep, once the post that set the mark has made its system call.
// - While units are available no thread falls asleep, and every sleeper that looks takes
//   one. Each post wakes so many that as many sleepers are about to look as there are units,
//   or all of them.
//
// Why a sleeper looks makes no difference: it may have been woken, its time may have run
// out, or the system may have woken it without cause.
//
// Memory orders. Every change is a compare-and-exchange, so all changes have one order.
// Taking a unit acquires and posting one releases. The changes in between are
// read-modify-write operations, which continue a release sequence. Becoming a sleeper
// needs no order of its own: the kernel compares the units again, under its lock, before
// it puts a thread to sleep, and a later post sees the sleeper in the word.
class units {
public:
    explicit units(LONG count) : _word(static_cast<std::uint64_t>(count)) {}

    // Takes a unit, waiting at most `milliseconds` for one. Returns false if the time
    // passes without one.
    bool take(DWORD milliseconds) {
        return _step(place::keep, place::keep) || (milliseconds != 0 && _wait(milliseconds));
    }

    // Adds `count` units, for as many sleepers. Returns false and changes nothing if
    // there would be more than `maximum`.
    bool post(LONG count, LONG maximum);

private:
    // The parts of the word. The low half is the futex: it is 0 while threads may fall
    // asleep.
    static constexpr std::uint64_t available = 0x7fffffff;
    static constexpr std::uint64_t woken = 0x80000000;  // the mark
    static constexpr std::uint64_t sleeper = 0x100000000;
    static_assert(std::endian::native == std::endian::little);
    static_assert(atomic<std::uint64_t>::is_always_lock_free);

    // How a step changes the number of sleepers, depending on whether it finds a unit:
    // the caller stays what it is, becomes a sleeper, or stops being one.
    enum class place : std::uint64_t { keep = 0, enter = sleeper, leave = 0 - sleeper };

    bool _step(place found, place missed);
    bool _wait(DWORD milliseconds);
    bool _poll();

    alignas(8) atomic<std::uint64_t> _word;
    spin_memory _memory;
};

// Takes a unit if there is one, and counts the caller in or out as a sleeper in the same
// step. A sleeper also removes the mark. Returns whether there was a unit.
inline bool units::_step(place found, place missed) {
    // Relaxed, both: the exchange corrects a stale value.
    std::uint64_t now = _word.load(std::memory_order_relaxed);
    for (;;) {
        bool const has = (now & available) != 0;
        std::uint64_t next = now - has + static_cast<std::uint64_t>(has ? found : missed);
        if (found == place::leave)
            next &= ~woken;
        if (next == now)
            return false;
        if (_word.compare_exchange_weak(now, next, std::memory_order_acquire,
                                        std::memory_order_relaxed))
            return has;
    }
}

inline bool units::post(LONG count, LONG maximum) {
    auto const more = static_cast<std::uint64_t>(count);
    std::uint64_t next, served;
    // Relaxed, both: the exchange corrects a stale value.
    std::uint64_t now = _word.load(std::memory_order_relaxed);
    do {
        std::uint64_t const units = (now & available) + more;
        if (units > static_cast<std::uint64_t>(maximum))
            return false;
        served = std::min(units, now / sleeper);
        next = now + more;
        if (served != 0)
            next |= woken;
    } while (!_word.compare_exchange_weak(now, next, std::memory_order_release,
                                          std::memory_order_relaxed));
    // The units are visible, so the object may be destroyed at any moment. Its address
    // still identifies the queue of its sleepers. If another object has taken its place,
    // the sleepers there find nothing and sleep again.
    if (served == 0)
        return true;
    std::uint64_t const under_way = (now & woken) != 0;
    if (served != under_way)
        futex_wake(&_word, static_cast<int>(std::min(served - under_way, more)));
    return true;
}

}  // namespace ovel::detail

#endif
