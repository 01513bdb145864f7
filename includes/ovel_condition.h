// SPDX-License-Identifier: Apache-2.0
// Waiting, with a mutex held, until another thread announces a change.
#ifndef OVEL_CONDITION_H
#define OVEL_CONDITION_H

#include "ovel_atomic.h"
#include "ovel_frame.h"
#include "ovel_mutex.h"
#include "ovel_semaphore.h"
#include "ovel_time.h"

namespace ovel {

namespace detail {

// The common part of both conditions. Their sleepers wait on a `Semaphore`. The source
// file defines the members for both kinds.
template <class Semaphore>
class OVEL_EXPORT basic_condition {
public:
    explicit basic_condition(unsigned int spin);
    basic_condition(basic_condition const&) = delete;
    basic_condition& operator=(basic_condition const&) = delete;

    // Both are always inlined: for Windows the library exports no copy of an inline member.

    // Wakes one of the waiting threads, if any.
    [[gnu::always_inline]] void release_one() {
        // Relaxed: a thread that changed, under the mutex, what others wait for sees all
        // of them counted, because each was counted before it released the mutex.
        if (_queued.load(std::memory_order_relaxed) != 0)
            _release_one();
    }

    // Wakes every thread that is waiting now.
    [[gnu::always_inline]] void release_all() {
        // Relaxed: as above.
        if (_queued.load(std::memory_order_relaxed) != 0)
            _release_all();
    }

protected:
    // Counts the caller as a sleeper. Blocks while the sleepers of a batch leave.
    void _acquire_gate();

    semaphore _lock;  // guards _released, and decrements of _queued
    // Threads that passed the gate and are not yet released. Arrivals write it under
    // `_gate`; releases and withdrawals write it under `_lock` with the gate closed.
    detail::atomic<unsigned int> _queued{0};
    [[maybe_unused]] cacheline _between;
    unsigned int _released = 0;  // threads of the batch that have not left; under _lock
    semaphore _gate;             // taken from a batch's first release to its last departure
    Semaphore _wait;             // sleepers wait here; one unit for each released thread

private:
    friend struct inspector;

    void _release_one();
    void _release_all();
    void _release(bool all);
};

extern template class basic_condition<semaphore>;
extern template class basic_condition<timed_semaphore>;

}  // namespace detail

// Conditions. A thread that holds a mutex waits with it until another thread calls
// `release_one` or `release_all`. The wait releases the mutex completely, whatever its
// depth, and takes it back in the same way before it returns. Change what is waited for
// under the mutex, release the condition before or after releasing the mutex, and wait in
// a loop that checks again:
//
//     lock.acquire();
//     while (!ready)
//         changed.acquire(lock);
//     lock.release();
//
// A release wakes only threads that were waiting when it was called: a newcomer never
// takes their wake-up. A release that finds no waiting thread has no effect later. It
// never waits for the caller's mutex, only for threads that are about to wait or to
// leave. Any thread may call any operation. All threads that wait at the same time use
// the same mutex. What a thread wrote before a release is visible to the threads that it
// wakes. Not checked: that the caller of a wait holds the mutex, and that no thread waits
// at destruction.
//
// A constructor takes the spin count, the most polls before a waiting thread sleeps:
// `default_spin` by default.

// Waits without a deadline, with any mutex of the library.
class OVEL_EXPORT condition : public detail::basic_condition<semaphore> {
public:
    // A waiting thread polls `spin` times before it sleeps, by default `default_spin`
    // times.
    condition();
    explicit condition(unsigned int spin);

    // Waits until released. The caller holds `lock`.
    template <class Mutex>
    void acquire(Mutex& lock) {
        typename Mutex::state held;
        _acquire_gate();
        lock.release(held, true);
        _wait.acquire();
        _release_gate();
        lock.acquire(held, true);
    }

private:
    friend struct detail::inspector;

    // Leaves after a wake-up.
    void _release_gate();
};

// Waits until a deadline as well; its sleepers never spin.
class OVEL_EXPORT timed_condition : public detail::basic_condition<timed_semaphore> {
public:
    // `spin` is for internal locks, by default `default_spin`.
    timed_condition();
    explicit timed_condition(unsigned int spin);

    // Waits until released. The caller holds `lock`.
    template <class Mutex>
    void acquire(Mutex& lock) {
        typename Mutex::state held;
        _acquire_gate();
        lock.release(held, true);
        _wait.acquire();
        _release_gate(true);
        lock.acquire(held, true);
    }

    // Waits until released and returns true, or until `deadline` has passed and returns
    // false. Either way the caller holds `lock` again. Ignores the deadline while the
    // thread waits for an earlier batch to leave.
    template <class Mutex>
    [[nodiscard]] bool timed_acquire(Mutex& lock, time const& deadline) {
        return _timed_acquire(lock, deadline);
    }

    // The same, but gives up after at least this many milliseconds, at most 2147483647.
    // Reads no clock.
    template <class Mutex>
    [[nodiscard]] bool timed_acquire(Mutex& lock, unsigned int milliseconds) {
        return _timed_acquire(lock, milliseconds);
    }

private:
    friend struct detail::inspector;

    template <class Mutex, class Limit>
    bool _timed_acquire(Mutex& lock, Limit const& limit) {
        typename Mutex::state held;
        _acquire_gate();
        lock.release(held, true);
        bool const released = _wait.timed_acquire(limit);
        _release_gate(released);
        lock.acquire(held, true);
        return released;
    }

    // Leaves after a wake-up, or after its deadline has passed without one.
    void _release_gate(bool released);
};

}  // namespace ovel

#endif
