// SPDX-License-Identifier: Apache-2.0
// Holds a lock for the duration of a scope, however the scope is left.
#ifndef OVEL_GUARD_H
#define OVEL_GUARD_H

namespace ovel::detail {

// `Lock` is a semaphore of count 1 or a mutex. Blocks until it has the lock.
template <class Lock>
class guard {
public:
    explicit guard(Lock& lock) : _lock(lock) {
        _lock.acquire();
    }
    ~guard() {
        _lock.release();
    }
    guard(guard const&) = delete;
    guard& operator=(guard const&) = delete;

private:
    Lock& _lock;
};

}  // namespace ovel::detail

#endif
