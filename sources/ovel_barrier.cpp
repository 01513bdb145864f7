// SPDX-License-Identifier: Apache-2.0
// Barriers whose threads leave one by one, each passing on the baton.
//
// A phase gathers, with the entry open, until it is opened. Then it leaves, with the
// entry closed, until `_count` is back at 0. While it leaves, exactly one unit of its
// `_wait` is posted or just taken. Only the thread that took it may pass it on; the thread
// that brings `_count` to 0 reopens the entry instead.
//
// A thread that arrives at a plain barrier while a phase leaves waits for the next phase
// at once, on that phase's own semaphore. The last thread that leaves counts it. So it is
// woken once, to leave, and not also to come in. The thread that would complete the next
// phase has to come in through `_lock`, because only then it can open the barrier.
//
// If a thread of a timed barrier gives up while its phase leaves, it withdraws and the
// unit goes to one of the others. If there are no others, the unit was posted for this
// thread: it takes the unit and reopens the entry.
//
// Lock order: `_entry`, then `_lock`.

#include "ovel_barrier.h"

#include "ovel_counter.h"

namespace ovel {

namespace {

// The parts of `barrier::_next`.
constexpr unsigned int leaving = 1;
constexpr unsigned int odd = 2;
constexpr unsigned int arrived = 4;  // for each thread

}  // namespace

barrier::barrier(unsigned int capacity, unsigned int spin)
    : _lock(1, spin), _capacity(capacity), _wait(0, spin), _odd_wait(0, spin) {}

unsigned int barrier::capacity() const {
    return _capacity;
}

bool barrier::acquire() {
    bool last;
    return acquire(last);
}

// Counts the caller for the next phase and returns that phase's semaphore. Returns null if
// no phase leaves or if the caller would complete the next one.
semaphore* barrier::_join_next_phase() {
    // Relaxed: a stale value sends the caller through `_lock`, or the exchange corrects it.
    unsigned int state = _next.load(std::memory_order_relaxed);
    while ((state & leaving) != 0 && state / arrived + 1 < _capacity) {
        // Pairs with the exchange of the last thread that leaves.
        if (_next.compare_exchange_weak(state, state + arrived, std::memory_order_release,
                                        std::memory_order_relaxed))
            return (state & odd) != 0 ? &_wait : &_odd_wait;
    }
    return nullptr;
}

// Begins to let the current phase leave, and returns its semaphore. With `_lock` held.
semaphore& barrier::_open() {
    // Relaxed, both: while no phase leaves, only this thread writes it, and a thread that
    // does not see the mark yet goes through `_lock`.
    unsigned int const state = _next.load(std::memory_order_relaxed);
    _next.store(state | leaving, std::memory_order_relaxed);
    return (state & odd) != 0 ? _odd_wait : _wait;
}

bool barrier::acquire(bool& last) {
    bool completes = false;
    semaphore* wait = _join_next_phase();
    if (wait == nullptr) {
        _lock.acquire();
        completes = detail::add(_count, 1u) == _capacity;
        if (completes) {
            _complete = true;
            wait = &_open();
        } else {
            // Relaxed: the phase cannot change before this thread has left.
            wait = (_next.load(std::memory_order_relaxed) & odd) != 0 ? &_odd_wait : &_wait;
            _lock.release();
        }
    }
    if (!completes)
        wait->acquire();  // takes `_lock` with it, which the waker kept

    bool const complete = _complete;
    unsigned int const remain = _count.load(std::memory_order_relaxed) - 1;
    if (remain != 0) {
        _count.store(remain, std::memory_order_relaxed);
        wait->release();
    } else {
        _complete = false;
        // Acquires what the threads counted for the next phase have written. The thread
        // that completes that phase gets it with `_lock`.
        unsigned int const state =
            _next.exchange(wait == &_wait ? odd : 0, std::memory_order_acquire);
        _count.store(state / arrived, std::memory_order_relaxed);
        _lock.release();
    }
    last = completes;
    return complete;
}

void barrier::release_all() {
    // Relaxed: the caller sees the threads that it knows to have arrived, and may miss
    // others.
    if (_count.load(std::memory_order_relaxed) == 0)
        return;
    _lock.acquire();
    if (_count.load(std::memory_order_relaxed) == 0)
        _lock.release();
    else
        _open().release();  // passes on the baton
}

timed_barrier::timed_barrier(unsigned int capacity, unsigned int spin)
    : _lock(1, spin), _entry(1, spin), _capacity(capacity), _wait(0, spin) {}

unsigned int timed_barrier::capacity() const {
    return _capacity;
}

// Counts the caller, who holds `_entry`, and takes `_lock`. Keeps both if that completes
// the phase, and releases both if the caller has to wait.
bool timed_barrier::_arrive(bool& last) {
    _lock.acquire();
    last = detail::add(_count, 1u) == _capacity;
    if (last) {
        _complete = true;
        return true;
    }
    _lock.release();
    _entry.release();
    return false;
}

// Leaves a phase, with the baton and `_lock` held, and passes on the baton or reopens the
// entry. Releases `_lock`.
bool timed_barrier::_leave() {
    bool const complete = _complete;
    if (detail::add(_count, -1u) == 0) {
        _complete = false;
        _released = false;
        _lock.release();
        _entry.release();
    } else {
        _lock.release();
        _wait.release();
    }
    return complete;
}

bool timed_barrier::acquire() {
    bool last;
    return acquire(last);
}

bool timed_barrier::acquire(bool& last) {
    _entry.acquire();
    bool completes;
    if (!_arrive(completes)) {
        _wait.acquire();
        _lock.acquire();
    }
    bool const complete = _leave();
    last = completes;
    return complete;
}

bool timed_barrier::timed_acquire(time const& deadline) {
    bool last;
    return timed_acquire(last, deadline);
}

bool timed_barrier::timed_acquire(bool& last, time const& deadline) {
    if (!_entry.timed_acquire(deadline))
        return false;
    bool completes;
    bool const woken = _arrive(completes) || _wait.timed_acquire(deadline);
    if (!completes)
        _lock.acquire();
    bool complete;
    if (woken) {
        complete = _leave();
    } else {
        complete = _complete;
        if ((_complete || _released) && _count.load(std::memory_order_relaxed) == 1) {
            _wait.acquire();  // the last thread of a leaving phase takes its own unit
            _leave();
        } else {
            detail::add(_count, -1u);
            _lock.release();
        }
    }
    last = completes;
    return complete;
}

void timed_barrier::release_all() {
    // Relaxed: as above.
    if (_count.load(std::memory_order_relaxed) == 0)
        return;
    _entry.acquire();
    _lock.acquire();
    if (_count.load(std::memory_order_relaxed) == 0) {
        _lock.release();
        _entry.release();
        return;
    }
    _released = true;
    _lock.release();
    _wait.release();
}

}  // namespace ovel
