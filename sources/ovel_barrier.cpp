// SPDX-License-Identifier: Apache-2.0
// Barriers whose threads leave one by one, each passing on the baton.
//
// A phase gathers, with the entry open, until it is opened. Then it leaves, with the
// entry closed, until `_count` is back at 0. While it leaves, exactly one unit of `_wait`
// is posted or just taken. Only the thread that took it may pass it on; the thread that
// brings `_count` to 0 reopens the entry instead.
//
// If a thread of a timed barrier gives up while its phase leaves, it withdraws and the
// unit goes to one of the others. If there are no others, the unit was posted for this
// thread: it takes the unit and reopens the entry.
//
// Lock order: `_entry`, then `_lock`.

#include "ovel_barrier.h"

#include "ovel_counter.h"

namespace ovel {

barrier::barrier(unsigned int capacity, unsigned int spin)
    : _lock(1, spin), _capacity(capacity), _wait(0, spin) {}

unsigned int barrier::capacity() const {
    return _capacity;
}

bool barrier::acquire() {
    bool last;
    return acquire(last);
}

bool barrier::acquire(bool& last) {
    _lock.acquire();
    bool const completes = detail::add(_count, 1u) == _capacity;
    if (completes) {
        _complete = true;
    } else {
        _lock.release();
        _wait.acquire();  // takes `_lock` with it, which the waker kept
    }

    bool const complete = _complete;
    if (detail::add(_count, -1u) == 0) {
        _complete = false;
        _lock.release();
    } else {
        _wait.release();
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
        _wait.release();  // passes on the baton
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
