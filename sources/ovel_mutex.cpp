// SPDX-License-Identifier: Apache-2.0
// Mutexes over semaphores of count 1.
//
// A recursive mutex's `_owner` is 0 exactly when its `_depth` is. Both are 0 exactly when
// the semaphore's unit is free, except while the owner has released only the records.

#include "ovel_mutex.h"

#include "ovel_assure.h"

namespace ovel {

namespace detail {

template <class Semaphore>
reentrant_mutex<Semaphore>::reentrant_mutex(unsigned int spin) : _semaphore(1, spin) {}

template <class Semaphore>
void reentrant_mutex<Semaphore>::_enter_once_too_often() {
    assure(++_depth != 0);
}

template <class Semaphore>
void reentrant_mutex<Semaphore>::acquire(state& saved, bool block) {
    if (block)
        saved.underlying->acquire();
    _owner.store(GetCurrentThreadId(), std::memory_order_relaxed);
    _depth = saved.depth;
}

template <class Semaphore>
void reentrant_mutex<Semaphore>::release(state& saved, bool unlock) {
    saved.underlying = &_semaphore;
    saved.depth = _depth;
    _owner.store(0, std::memory_order_relaxed);
    _depth = 0;
    if (unlock)
        _semaphore.release();
}

template class reentrant_mutex<semaphore>;
template class reentrant_mutex<timed_semaphore>;

}  // namespace detail

timed_mutex::timed_mutex() : timed_mutex(detail::current_spin()) {}

timed_mutex::timed_mutex(unsigned int spin) : plain_mutex(spin) {}

bool timed_mutex::timed_acquire(time const& deadline) {
    return _semaphore.timed_acquire(deadline);
}

bool timed_mutex::timed_acquire(unsigned int milliseconds) {
    return _semaphore.timed_acquire(milliseconds);
}

recursive_mutex::recursive_mutex() : recursive_mutex(detail::current_spin()) {}

recursive_mutex::recursive_mutex(unsigned int spin) : reentrant_mutex(spin) {}

timed_recursive_mutex::timed_recursive_mutex() : timed_recursive_mutex(detail::current_spin()) {}

timed_recursive_mutex::timed_recursive_mutex(unsigned int spin) : reentrant_mutex(spin) {}

template <class Limit>
bool timed_recursive_mutex::_timed_acquire(Limit const& limit) {
    unsigned long const me = GetCurrentThreadId();
    if (_owner.load(std::memory_order_relaxed) != me) {
        if (!_semaphore.timed_acquire(limit))
            return false;
        _owner.store(me, std::memory_order_relaxed);
    }
    _enter();
    return true;
}

bool timed_recursive_mutex::timed_acquire(time const& deadline) {
    return _timed_acquire(deadline);
}

bool timed_recursive_mutex::timed_acquire(unsigned int milliseconds) {
    return _timed_acquire(milliseconds);
}

}  // namespace ovel
