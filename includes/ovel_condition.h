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

// The common part of both conditions. `Semaphore` is what their sleepers wait on. The
// source file defines the members for both kinds.
template <class Semaphore>
class OVEL_EXPORT basic_condition {
public:
    explicit basic_condition(unsigned int spin);
    basic_condition(basic_condition const&) = delete;
    basic_condition& operator=(basic_condition const&) = delete;

    // Wakes one of the threads that wait, if any.
    void release_one() {
        // Relaxed: a thread that changed, under the mutex, what others wait for sees all
        // of them counted, because each was counted before it gave the mutex up.
        if (_queued.load(std::memory_order_relaxed) != 0)
            _release_one();
    }

    // Wakes every thread that waits at this moment.
    void release_all() {
        // Relaxed: as above.
        if (_queued.load(std::memory_order_relaxed) != 0)
            _release_all();
    }

protected:
    // Counts the caller as a sleeper. Blocks while the sleepers of a batch leave.
    void _acquire_gate();

    semaphore _lock;  // guards _released, and decrements of _queued
    // Threads that passed the gate and are not yet released. Written by arrivals
    // under `_gate`, by releases and withdrawals under `_lock` with the gate closed.
    detail::atomic<unsigned int> _queued{0};
    [[maybe_unused]] cacheline _between;
    unsigned int _released = 0;  // threads of the batch that have not left; under _lock
    semaphore _gate;             // taken from a batch's first release to its last departure
    Semaphore _wait;             // where sleepers wait: one unit for each released

private:
    friend struct inspector;

    void _release_one();
    void _release_all();
    void _release(bool all);
};

extern template class basic_condition<semaphore>;
extern template class basic_condition<timed_semaphore>;

}  // namespace detail

// Conditions. A thread that holds a mutex waits with it until another calls
// `release_one` or `release_all`; it gives the mutex up completely meanwhile, at
// whatever depth it holds it, and holds it again in the same way when the wait
// returns. Change what is waited for under the mutex, release before or after
// giving the mutex up, and wait in a loop that looks again:
//
//     lock.acquire();
//     while (!ready)
//         changed.acquire(lock);
//     lock.release();
//
// A release wakes only threads that waited when it was called: a newcomer never
// takes their wake-up. A release that finds no waiting thread has no effect later. It
// never waits for the caller's mutex, only for threads about to wait or to leave. Any
// thread may call any operation. All threads that wait at one time use the same mutex.
// What a thread wrote before a release is visible to the threads that it wakes. Not
// checked: that the caller of a wait holds the mutex, and that no thread waits at
// destruction.
//
// A constructor takes the spin count, the most polls before a waiting thread
// sleeps: `default_spin` unless given.

// Waits without a deadline, with any mutex of the library.
class OVEL_EXPORT condition : public detail::basic_condition<semaphore> {
public:
    // Waiting threads poll `spin` times before they sleep, `default_spin` times unless
    // given.
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
    // `spin` is for internal locks, `default_spin` unless given.
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

    // Waits until released, and returns true, or until `deadline` has passed, and
    // returns false. The caller holds `lock` again either way. The deadline is not
    // looked at while the thread waits for an earlier batch to leave.
    template <class Mutex>
    [[nodiscard]] bool timed_acquire(Mutex& lock, time const& deadline) {
        return _timed_acquire(lock, deadline);
    }

    // The same after at least so many milliseconds, 2147483647 at most. Reads no clock.
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

    // Leaves after a wake-up, or after a deadline that passed without one.
    void _release_gate(bool released);
};

}  // namespace ovel

#endif
