// SPDX-License-Identifier: Apache-2.0
// The failure of a net of `ovel_petri.h`. Only for that header.
#ifndef OVEL_PETRI_FAILURE_H
#define OVEL_PETRI_FAILURE_H

#include "ovel_atomic.h"
#include "ovel_condition.h"
#include "ovel_mutex.h"
#include "ovel_std.h"

#include <exception>
#include <mutex>
#include <utility>

namespace ovel::detail {

// The exception that a net failed with, and the threads that may be blocked in the net's
// places.
//
// A thread counts as blocked from before it looks for a token or a slot until it has left
// the place. If it is counted before the net fails, the failure wakes it. If it comes
// later, it gets the exception instead of being counted. So once the net has failed, the
// count only falls, and at 0 no thread uses the net any more.
class net_failure {
public:
    // `lock` is the net's.
    explicit net_failure(lockable<mutex>& lock) : _lock(lock) {}
    net_failure(net_failure const&) = delete;
    net_failure& operator=(net_failure const&) = delete;

    // Counts a thread as blocked for the duration of a scope. Rethrows the exception that
    // the net has failed with.
    class blocked {
    public:
        explicit blocked(net_failure& in) : _in(in) {
            std::lock_guard const hold(_in._lock);
            if (_in.has_failed())
                std::rethrow_exception(_in._exception);
            ++_in._blocked;
        }
        ~blocked() {
            // Wakes under the lock: once the lock is free, the net may be destroyed.
            std::lock_guard const hold(_in._lock);
            if (--_in._blocked == 0)
                _in._unblocked.release_all();
        }
        blocked(blocked const&) = delete;
        blocked& operator=(blocked const&) = delete;

    private:
        net_failure& _in;
    };

    // The flag that ends the waits of blocked threads. The thread that sets it wakes
    // them.
    atomic<bool> const& flag() const {
        return _failed;
    }

    // Waits until no thread is blocked any more. Returns the exception that the net has
    // failed with, or null.
    std::exception_ptr await_unblocked() {
        std::lock_guard const hold(_lock);
        if (!has_failed())
            return nullptr;
        wait_unblocked();
        return _exception;
    }

    // Only for a net that has failed. Without the lock.
    [[noreturn]] void rethrow() {
        std::exception_ptr exception;
        {
            std::lock_guard const hold(_lock);
            exception = _exception;
        }
        std::rethrow_exception(exception);
    }

    // The functions from here on are called with the lock held.

    // Relaxed: it changes under the lock.
    bool has_failed() const {
        return _failed.load(std::memory_order_relaxed);
    }

    void set(std::exception_ptr exception) {
        _exception = std::move(exception);
        _failed = true;
    }

    // Releases the lock while it waits.
    void wait_unblocked() {
        wait(_unblocked, _lock, [this] { return _blocked == 0; });
    }

    // Forgets the failure. No thread may be blocked.
    void clear() {
        _failed = false;
    }

private:
    friend struct inspector;

    lockable<mutex>& _lock;
    std::exception_ptr _exception;  // of the last failure; under _lock
    atomic<bool> _failed{false};    // changes under _lock
    unsigned int _blocked = 0;      // the number of blocked threads; under _lock
    condition _unblocked;           // released when `_blocked` reaches 0; with _lock
};

}  // namespace ovel::detail

#endif
