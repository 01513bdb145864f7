// SPDX-License-Identifier: Apache-2.0
// Holds one of the layer's own locks for the duration of a scope.
#ifndef OVEL_PLATFORM_LINUX_PTHREAD_GUARD_H
#define OVEL_PLATFORM_LINUX_PTHREAD_GUARD_H

#include <pthread.h>

namespace ovel::detail {

// With `is_held` the thread has the lock already, and keeps it.
class pthread_guard {
public:
    explicit pthread_guard(pthread_mutex_t& lock, bool is_held = false)
        : _lock(lock), _is_held(is_held) {
        if (!_is_held)
            pthread_mutex_lock(&_lock);
    }
    ~pthread_guard() {
        if (!_is_held)
            pthread_mutex_unlock(&_lock);
    }
    pthread_guard(pthread_guard const&) = delete;
    pthread_guard& operator=(pthread_guard const&) = delete;

private:
    pthread_mutex_t& _lock;
    bool const _is_held;
};

}  // namespace ovel::detail

#endif
