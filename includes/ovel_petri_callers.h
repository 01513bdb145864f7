// SPDX-License-Identifier: Apache-2.0
// The threads that are blocked in the places of a net of `ovel_petri.h`, and what lets them
// go. For that header only.
#ifndef OVEL_PETRI_CALLERS_H
#define OVEL_PETRI_CALLERS_H

#include "ovel_atomic.h"
#include "ovel_condition.h"
#include "ovel_frame.h"
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

// Differs from the number of each process from which this one was forked; not 0.
OVEL_EXPORT unsigned int process_number();

// What a net has failed with, and the threads that may be blocked in the net's places.
//
// A thread counts as blocked from before it looks for a token or a slot until it has left
// the place. `releases` changes when those that are blocked are to go; the thread that
// changes it wakes them. A thread that comes when the net has failed gets the exception
// instead of being counted. So once the net has failed the count only falls, and at 0 no
// thread uses the net any more. While a net that was halted comes to its stop, threads
// that come are not let in either.
//
// Receivers and senders are counted in words of their own, so that a thread that feeds a net
// and one that drains it do not share a cache line. A thread counts itself with one exchange
// as long as the word is open. Only while it is shut, or another thread waits for the count to
// come to 0, are they counted under the lock.
class net_callers {
public:
    // `lock` is the net's.
    explicit net_callers(lockable<mutex>& lock) : _lock(lock) {}
    net_callers(net_callers const&) = delete;
    net_callers& operator=(net_callers const&) = delete;

    // What a thread wants of a place.
    enum class kind : unsigned char { receiver, sender };

    // Counts a thread as blocked for the length of a scope, if it is let in.
    class blocked {
    public:
        // Lets the thread in at once, unless some are kept out.
        blocked(net_callers& in, kind of)
            : _in(in), _word(in._word(of)), _begun(in._releases.load()) {
            // Relaxed: the exchange or `insist` corrects a stale value.
            unsigned int now = _word.load(std::memory_order_relaxed);
            while ((now & is_shut) == 0)
                if (_word.compare_exchange_weak(now, now + one)) {
                    _is_let_in = true;
                    return;
                }
        }
        ~blocked() {
            if (_is_let_in)
                _leave();
        }
        blocked(blocked const&) = delete;
        blocked& operator=(blocked const&) = delete;

        // Looks again, under the lock. Rethrows what the net has failed with.
        void insist() {
            if (_is_let_in)
                return;
            std::lock_guard const hold(_in._lock);
            if (_in.has_failed())
                std::rethrow_exception(_in._exception);
            _begun = _in._releases.load(std::memory_order_relaxed);  // written under the lock
            if (!_in._is_shut) {
                _word.fetch_add(one);
                _is_let_in = true;
            }
        }

        bool is_let_in() const {
            return _is_let_in;
        }
        // What `releases` was when the thread came: before it was counted, because a net that
        // shuts its words does so before it lets threads go.
        unsigned int begun() const {
            return _begun;
        }

    private:
        // While no thread waits for the count, the net may be gone after the exchange.
        void _leave() {
            // Relaxed: the exchange corrects a stale value.
            unsigned int now = _word.load(std::memory_order_relaxed);
            while ((now & is_awaited) == 0)
                if (_word.compare_exchange_weak(now, now - one))
                    return;
            // Woken under the lock: once that is free the net may be gone.
            std::lock_guard const hold(_in._lock);
            if (_word.fetch_sub(one) / one == 1)
                _in._unblocked.release_all();
        }

        net_callers& _in;
        atomic<unsigned int>& _word;
        unsigned int _begun;
        bool _is_let_in = false;
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

    // How many threads are blocked, or are about to be.
    unsigned int count() const {
        return _receivers.load() / one + _senders.load() / one;
    }

    // The process whose threads may use the net's places: the one that has made it, or its fork.
    unsigned int process() const {
        // Relaxed: it changes in a fork only, where a thread that misses the change looks again.
        return _process.load(std::memory_order_relaxed);
    }
    // Called by each thread that comes. Returns false in a fork whose parent had threads blocked
    // there: their calls are still listed, but nobody will take what they get.
    bool note_process() {
        unsigned int const now = process_number();
        unsigned int before = process();
        if (before == now)
            return true;
        // Threads of the fork block after one of them has changed the process. So a count from
        // before that is the parent's alone.
        if (count() != 0 && _process.load() == before)
            return false;
        _process.compare_exchange_strong(before, now);
        return true;
    }

    // In a fork: whether its parent has threads that are blocked, or one that holds the lock.
    bool are_inherited() {
        if (!_lock.try_lock())
            return true;
        _lock.unlock();
        return count() != 0;
    }

    // The rest is called with the lock held.

    bool has_failed() const {
        return _has_failed;
    }

    void fail(std::exception_ptr exception) {
        _exception = std::move(exception);
        _has_failed = true;
        _shut_words();
        let_go();
    }
    // Forgets the failure, once no thread is blocked.
    void forget_failure() {
        _has_failed = false;
        _shut_words();
    }

    // The threads that are blocked now are to leave. The caller wakes them.
    void let_go() {
        ++_releases;
    }
    // Whether threads that come are kept out.
    void shut(bool keeps_out) {
        _is_shut = keeps_out;
        _shut_words();
    }

    // Gives the lock up meanwhile.
    void wait_unblocked() {
        wait(_unblocked, _lock, [this] {
            unsigned int left = 0;
            for (atomic<unsigned int>* word : {&_receivers, &_senders})
                left += word->fetch_or(is_awaited) / one;
            return left == 0;
        });
        for (atomic<unsigned int>* word : {&_receivers, &_senders})
            word->fetch_and(~is_awaited);
    }

private:
    friend struct inspector;

    static constexpr unsigned int is_shut = 1;     // threads that come look under the lock
    static constexpr unsigned int is_awaited = 2;  // threads that leave do so under the lock
    static constexpr unsigned int one = 4;         // a thread that is blocked

    atomic<unsigned int>& _word(kind of) {
        return of == kind::receiver ? _receivers : _senders;
    }
    void _shut_words() {
        for (atomic<unsigned int>* word : {&_receivers, &_senders})
            if (_has_failed || _is_shut)
                word->fetch_or(is_shut);
            else
                word->fetch_and(~is_shut);
    }

    lockable<mutex>& _lock;
    atomic<unsigned int> _process{process_number()};
    // All under _lock; `_releases` is read without it as well.
    std::exception_ptr _exception;  // the last one
    bool _has_failed = false;
    bool _is_shut = false;
    atomic<unsigned int> _releases{0};
    condition _unblocked;  // the count of a word that is awaited has come to 0
    // The bits change under _lock, as does the count while the word is awaited.
    [[maybe_unused]] cacheline _before;
    atomic<unsigned int> _receivers{0};
    [[maybe_unused]] cacheline _between;
    atomic<unsigned int> _senders{0};
    [[maybe_unused]] cacheline _after;
};

}  // namespace detail

}  // namespace ovel

#endif
