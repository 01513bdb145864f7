// SPDX-License-Identifier: Apache-2.0
// The threads that are blocked in the places of a net of `ovel_petri.h`, and what lets them
// go. For that header only.
#ifndef OVEL_PETRI_CALLERS_H
#define OVEL_PETRI_CALLERS_H

#include "ovel_atomic.h"
#include "ovel_condition.h"
#include "ovel_mutex.h"
#include "ovel_std.h"

#include <exception>
#include <mutex>
#include <utility>

namespace ovel {

// What `place::receive` throws when no token will come: the net lets its callers go, or the
// place has ended.
class stopped : public std::exception {
public:
    // Always the same text.
    char const* what() const noexcept override {
        return "a place has ended, or its net was stopped";
    }
};

namespace detail {

// What a net has failed with, and the threads that may be blocked in the net's places.
//
// A thread counts as blocked from before it looks for a token or a slot until it has left
// the place. `releases` changes when those that are blocked are to go; the thread that
// changes it wakes them. A thread that comes when the net has failed gets the exception
// instead of being counted. So once the net has failed the count only falls, and at 0 no
// thread uses the net any more. While a net that was halted comes to its stop, threads
// that come are not let in either.
class net_callers {
public:
    // `lock` is the net's.
    explicit net_callers(lockable<mutex>& lock) : _lock(lock) {}
    net_callers(net_callers const&) = delete;
    net_callers& operator=(net_callers const&) = delete;

    // Counts a thread as blocked for the length of a scope, if it is let in. Rethrows what
    // the net has failed with.
    class blocked {
    public:
        explicit blocked(net_callers& in) : _in(in) {
            std::lock_guard const hold(_in._lock);
            if (_in.has_failed())
                std::rethrow_exception(_in._exception);
            _is_let_in = !_in._is_shut;
            // Relaxed: it changes under the lock.
            _begun = _in._releases.load(std::memory_order_relaxed);
            _in._blocked += _is_let_in;
        }
        ~blocked() {
            if (!_is_let_in)
                return;
            // Woken under the lock: once that is free the net may be gone.
            std::lock_guard const hold(_in._lock);
            if (--_in._blocked == 0)
                _in._unblocked.release_all();
        }
        blocked(blocked const&) = delete;
        blocked& operator=(blocked const&) = delete;

        bool is_let_in() const {
            return _is_let_in;
        }
        // What `releases` was when the thread came.
        unsigned int begun() const {
            return _begun;
        }

    private:
        net_callers& _in;
        bool _is_let_in;
        unsigned int _begun;
    };

    atomic<unsigned int> const& releases() const {
        return _releases;
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

    // Does nothing for a net that has not failed.
    void rethrow_failure() {
        std::exception_ptr exception;
        {
            std::lock_guard const hold(_lock);
            if (!has_failed())
                return;
            exception = _exception;
        }
        std::rethrow_exception(exception);
    }

    // The rest is called with the lock held.

    bool has_failed() const {
        return _has_failed;
    }

    void fail(std::exception_ptr exception) {
        _exception = std::move(exception);
        _has_failed = true;
        let_go();
    }
    // Forgets the failure, once no thread is blocked.
    void forget_failure() {
        _has_failed = false;
    }

    // The threads that are blocked now are to leave. The caller wakes them.
    void let_go() {
        ++_releases;
    }
    // Whether threads that come are kept out.
    void shut(bool is_shut) {
        _is_shut = is_shut;
    }

    // Gives the lock up meanwhile.
    void wait_unblocked() {
        wait(_unblocked, _lock, [this] { return _blocked == 0; });
    }

private:
    friend struct inspector;

    lockable<mutex>& _lock;
    // All under _lock; `_releases` is read without it as well.
    std::exception_ptr _exception;  // the last one
    bool _has_failed = false;
    bool _is_shut = false;
    unsigned int _blocked = 0;  // threads
    atomic<unsigned int> _releases{0};
    condition _unblocked;  // `_blocked` has come to 0
};

}  // namespace detail

}  // namespace ovel

#endif
