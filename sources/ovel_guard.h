// SPDX-License-Identifier: Apache-2.0
// Holds a lock for the duration of a scope, however the scope is left.
#ifndef OVEL_GUARD_H
#define OVEL_GUARD_H

namespace ovel::detail {

// `Lock` is a semaphore of count 1 or a mutex. Blocks until it has the lock. With `is_held` the
// thread has it already, and keeps it.
template <class Lock>
class guard {
public:
    explicit guard(Lock& lock, bool is_held = false) : _lock(lock), _is_held(is_held) {
        if (!_is_held)
            _lock.acquire();
    }
    ~guard() {
        if (!_is_held)
            _lock.release();
    }
    guard(guard const&) = delete;
    guard& operator=(guard const&) = delete;

private:
    Lock& _lock;
    bool const _is_held;
};

}  // namespace ovel::detail

#endif
