// SPDX-License-Identifier: Apache-2.0
// What a net of `ovel_petri.h` has failed with. For that header only.
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

// The failure of a net, and the threads that may be blocked in the net's places.
//
// A thread counts as blocked from before it looks for a token or a slot until it has left
// the place. If it is counted before the net fails, the failure wakes it; if it comes later,
// it gets the exception instead of being counted. So once the net has failed the count only
// falls, and at 0 no thread uses the net any more.
class net_failure {
public:
    // `lock` is the net's.
    explicit net_failure(lockable<mutex>& lock) : _lock(lock) {}
    net_failure(net_failure const&) = delete;
    net_failure& operator=(net_failure const&) = delete;

    // Counts a thread as blocked for the length of a scope. Rethrows what the net has failed
    // with.
    class blocked {
    public:
        explicit blocked(net_failure& in) : _in(in) {
            std::lock_guard const hold(_in._lock);
            if (_in.has_failed())
                std::rethrow_exception(_in._exception);
            ++_in._blocked;
        }
        ~blocked() {
            // Woken under the lock: once that is free the net may be gone.
            std::lock_guard const hold(_in._lock);
            if (--_in._blocked == 0)
                _in._unblocked.release_all();
        }
        blocked(blocked const&) = delete;
        blocked& operator=(blocked const&) = delete;

    private:
        net_failure& _in;
    };

    // The flag that ends the waits of blocked threads; the thread that sets it wakes them.
    atomic<bool> const& flag() const {
        return _failed;
    }

    // What the net has failed with; null if it has not. First waits until no thread is
    // blocked any more.
    std::exception_ptr await_unblocked() {
        std::lock_guard const hold(_lock);
        if (!has_failed())
            return nullptr;
        wait_unblocked();
        return _exception;
    }

    // Of a net that has failed. Without the lock.
    [[noreturn]] void rethrow() {
        std::exception_ptr exception;
        {
            std::lock_guard const hold(_lock);
            exception = _exception;
        }
        std::rethrow_exception(exception);
    }

    // The rest is called with the lock held.

    // Relaxed: it changes under the lock.
    bool has_failed() const {
        return _failed.load(std::memory_order_relaxed);
    }

    void set(std::exception_ptr exception) {
        _exception = std::move(exception);
        _failed = true;
    }

    // Gives the lock up meanwhile.
    void wait_unblocked() {
        wait(_unblocked, _lock, [this] { return _blocked == 0; });
    }

    // Forgets the failure, once no thread is blocked.
    void clear() {
        _failed = false;
    }

private:
    friend struct inspector;

    lockable<mutex>& _lock;
    std::exception_ptr _exception;  // the last one; under _lock
    atomic<bool> _failed{false};    // changes under _lock
    unsigned int _blocked = 0;      // threads; under _lock
    condition _unblocked;           // `_blocked` has come to 0; with _lock
};

}  // namespace ovel::detail

#endif
