// SPDX-License-Identifier: Apache-2.0
// Barriers whose threads leave one by one, each passing on the baton.
//
// A phase gathers, with the entry open, until it is opened. Then it leaves, with the
// entry closed, until `_count` is back at 0. While it leaves, exactly one unit of its
// `_wait` is posted or just taken. Only the thread that took it may pass it on; the thread
// that brings `_count` to 0 reopens the entry instead.
//
// A thread that arrives while a phase leaves waits for the next phase at once, on that
// phase's own semaphore. The last thread that leaves counts it. So it is woken once, to
// leave, and not also to come in. The thread that would complete the next phase has to come
// in through the entry, because only then it can open the barrier.
//
// If a thread of a timed barrier gives up while its phase leaves, it withdraws and the
// unit goes to one of the others. If there are no others, the unit was posted for this
// thread: it takes the unit and reopens the entry. A thread that gives up while the phase
// before its own still leaves takes itself off the count of the next phase, as if it had
// never come.
//
// Lock order: `_entry`, then `_lock`.

#include "ovel_barrier.h"

#include "ovel_counter.h"

namespace ovel {

namespace {

// The parts of `_next`.
constexpr unsigned int leaving = 1;
constexpr unsigned int odd = 2;
constexpr unsigned int arrived = 4;  // for each thread

// Counts the caller for the next phase of a barrier and returns that phase's semaphore.
// Returns null if no phase leaves or if the caller would complete the next one.
template <class Semaphore>
Semaphore* join_next_phase(detail::atomic<unsigned int>& next, unsigned int capacity,
                           Semaphore& even_wait, Semaphore& odd_wait) {
    // Relaxed: a stale value sends the caller through the entry, or the exchange corrects it.
    unsigned int state = next.load(std::memory_order_relaxed);
    while ((state & leaving) != 0 && state / arrived + 1 < capacity) {
        // Pairs with the exchange of the last thread that leaves.
        if (next.compare_exchange_weak(state, state + arrived, std::memory_order_release,
                                       std::memory_order_relaxed))
            return (state & odd) != 0 ? &even_wait : &odd_wait;
    }
    return nullptr;
}

// Whether the current phase is odd. With `_lock` held.
bool is_odd(detail::atomic<unsigned int> const& next) {
    // Relaxed: a phase begins under `_lock`.
    return (next.load(std::memory_order_relaxed) & odd) != 0;
}

// Begins to let the current phase leave. With `_lock` held.
void begin_to_leave(detail::atomic<unsigned int>& next) {
    // Relaxed, both: while no phase leaves, only this thread writes it, and a thread that
    // does not see the mark yet goes through the entry.
    next.store(next.load(std::memory_order_relaxed) | leaving, std::memory_order_relaxed);
}

// Ends a phase and begins the next one, which is odd if `odd_next`. Returns how many threads have
// arrived for that. Acquires what they have written; the thread that completes the phase
// gets it with `_lock`, which the caller holds.
unsigned int begin_next_phase(detail::atomic<unsigned int>& next, bool odd_next) {
    return next.exchange(odd_next ? odd : 0, std::memory_order_acquire) / arrived;
}

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

semaphore* barrier::_join_next_phase() {
    return join_next_phase(_next, _capacity, _wait, _odd_wait);
}

// Begins to let the current phase leave, and returns its semaphore. With `_lock` held.
semaphore& barrier::_open() {
    begin_to_leave(_next);
    return is_odd(_next) ? _odd_wait : _wait;
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
            wait = is_odd(_next) ? &_odd_wait : &_wait;
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
        _count.store(begin_next_phase(_next, wait == &_wait), std::memory_order_relaxed);
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
    : _lock(1, spin), _entry(1, spin), _capacity(capacity), _wait(0, spin), _odd_wait(0, spin) {}

unsigned int timed_barrier::capacity() const {
    return _capacity;
}

timed_semaphore* timed_barrier::_join_next_phase() {
    return join_next_phase(_next, _capacity, _wait, _odd_wait);
}

// Takes a thread that joined the next phase, and gives up, off the count. Returns false if
// that phase has begun meanwhile. It cannot end while the thread is counted, so the parity
// tells the two phases apart.
bool timed_barrier::_withdraw_from_next_phase(timed_semaphore const& wait) {
    unsigned int const before = leaving | (&wait == &_wait ? odd : 0);
    // Relaxed, all: a thread that withdraws publishes nothing, and the exchange corrects a
    // stale value.
    unsigned int state = _next.load(std::memory_order_relaxed);
    while ((state & (leaving | odd)) == before) {
        if (_next.compare_exchange_weak(state, state - arrived, std::memory_order_relaxed))
            return true;
    }
    return false;
}

// The semaphore of the current phase. With `_lock` held.
timed_semaphore& timed_barrier::_current() {
    return is_odd(_next) ? _odd_wait : _wait;
}

// Counts the caller, who holds `_entry`, and takes `_lock`. Returns the semaphore of the
// phase. Keeps both if that completes the phase, and releases both if the caller has to wait.
timed_semaphore& timed_barrier::_arrive(bool& last) {
    _lock.acquire();
    timed_semaphore& wait = _current();
    last = detail::add(_count, 1u) == _capacity;
    if (last) {
        _complete = true;
        begin_to_leave(_next);
    } else {
        _lock.release();
        _entry.release();
    }
    return wait;
}

// Leaves a phase, with the baton and `_lock` held, and passes on the baton or reopens the
// entry. Releases `_lock`.
bool timed_barrier::_leave(timed_semaphore& wait) {
    bool const complete = _complete;
    unsigned int const remain = _count.load(std::memory_order_relaxed) - 1;
    if (remain != 0) {
        _count.store(remain, std::memory_order_relaxed);
        _lock.release();
        wait.release();
    } else {
        _complete = false;
        _released = false;
        _count.store(begin_next_phase(_next, &wait == &_wait), std::memory_order_relaxed);
        _lock.release();
        _entry.release();
    }
    return complete;
}

bool timed_barrier::acquire() {
    bool last;
    return acquire(last);
}

bool timed_barrier::acquire(bool& last) {
    bool completes = false;
    timed_semaphore* wait = _join_next_phase();
    if (wait == nullptr) {
        _entry.acquire();
        wait = &_arrive(completes);
    }
    if (!completes) {
        wait->acquire();
        _lock.acquire();
    }
    bool const complete = _leave(*wait);
    last = completes;
    return complete;
}

bool timed_barrier::timed_acquire(time const& deadline) {
    bool last;
    return timed_acquire(last, deadline);
}

bool timed_barrier::timed_acquire(bool& last, time const& deadline) {
    bool completes = false;
    timed_semaphore* wait = _join_next_phase();
    bool const joined = wait != nullptr;
    if (!joined) {
        if (!_entry.timed_acquire(deadline))
            return false;
        wait = &_arrive(completes);
    }
    bool const woken = completes || wait->timed_acquire(deadline);
    if (!woken && joined && _withdraw_from_next_phase(*wait))
        return false;
    if (!completes)
        _lock.acquire();
    bool complete;
    if (woken) {
        complete = _leave(*wait);
    } else {
        complete = _complete;
        if ((_complete || _released) && _count.load(std::memory_order_relaxed) == 1) {
            wait->acquire();  // the last thread of a leaving phase takes its own unit
            _leave(*wait);
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
    begin_to_leave(_next);
    timed_semaphore& wait = _current();
    _lock.release();
    wait.release();
}

}  // namespace ovel
