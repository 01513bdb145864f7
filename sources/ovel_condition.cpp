// SPDX-License-Identifier: Apache-2.0
// Conditions, built on three semaphores and two counters.
//
// A batch begins with a release that finds no released thread, and ends when the last
// thread it released has left. The gate is open exactly while there is no batch, so a
// newcomer is counted only after every earlier wake-up was taken. Each thread between
// passing the gate and leaving is counted once, in `_queued` or in `_released`. `_wait`
// never has more than `_released` units.
//
// Lock order: `_lock`, then `_gate`. Arrivals take `_gate` alone.

#include "ovel_condition.h"

#include "ovel_assure.h"
#include "ovel_counter.h"
#include "ovel_guard.h"

namespace ovel {

namespace detail {

template <class Semaphore>
basic_condition<Semaphore>::basic_condition(unsigned int spin)
    : _lock(1, spin), _gate(1, spin), _wait(0, spin) {}

template <class Semaphore>
void basic_condition<Semaphore>::_acquire_gate() {
    _gate.acquire();
    add(_queued, 1u);
    _gate.release();
}

// Releases one of the sleepers, or all.
template <class Semaphore>
void basic_condition<Semaphore>::_release(bool all) {
    unsigned int count;
    {
        guard const hold(_lock);
        if (_queued.load(std::memory_order_relaxed) == 0)
            return;
        // The first release of a batch closes the gate, waiting for a thread that is
        // passing it. From here on `_queued` does not grow.
        if (++_released == 1)
            _gate.acquire();
        count = all ? _queued.load(std::memory_order_relaxed) : 1;
        _released += count - 1;
        add(_queued, -count);
    }
    if (count == 1)
        _wait.release();
    else
        _wait._release(static_cast<int>(count));
}

template <class Semaphore>
void basic_condition<Semaphore>::_release_one() {
    _release(false);
}

template <class Semaphore>
void basic_condition<Semaphore>::_release_all() {
    _release(true);
}

template class basic_condition<semaphore>;
template class basic_condition<timed_semaphore>;

}  // namespace detail

condition::condition() : condition(detail::current_spin()) {}

condition::condition(unsigned int spin) : basic_condition(spin) {}

void condition::_release_gate() {
    _lock.acquire();
    assure(_released != 0);
    bool const last = --_released == 0;
    _lock.release();
    if (last)
        _gate.release();
}

timed_condition::timed_condition() : timed_condition(detail::current_spin()) {}

timed_condition::timed_condition(unsigned int spin) : basic_condition(spin) {}

void timed_condition::_release_gate(bool released) {
    _lock.acquire();
    if (_released == 0) {
        // No batch: the deadline passed, and no release has reached this thread.
        _gate.acquire();
        assure(_queued != 0);
        detail::add(_queued, -1u);
        _lock.release();
        _gate.release();
        return;
    }
    if (!released && _queued.load(std::memory_order_relaxed) != 0) {
        // A thread that is still queued takes this one's place in the batch. The posted
        // units are for the threads that stay.
        detail::add(_queued, -1u);
        _lock.release();
        return;
    }
    // All remaining threads are released. So a unit was posted for this thread as well,
    // or a thread that no longer needs `_lock` is about to post it. This thread takes it
    // while it is still counted. Otherwise the last to leave would open the gate, and a
    // newcomer would take the unit.
    if (!released)
        _wait.acquire();
    bool const last = --_released == 0;
    _lock.release();
    if (last)
        _gate.release();
}

}  // namespace ovel
