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

// What both conditions are made of; `Semaphore` is what their sleepers wait on.
// Members are defined, for both kinds, in the source file.
template <class Semaphore>
class OVEL_EXPORT basic_condition {
public:
    explicit basic_condition(unsigned int spin);
    basic_condition(basic_condition const&) = delete;
    basic_condition& operator=(basic_condition const&) = delete;

    // Wakes one of the threads that wait, if any.
    void release_one() {
        // Relaxed: who changed under the mutex what a thread waits for finds that
        // thread counted, since it was counted before it gave the mutex up.
        if (_queued.load(std::memory_order_relaxed) != 0)
            _release_one();
    }

    // Wakes every thread that waits at this moment.
    void release_all() {
        if (_queued.load(std::memory_order_relaxed) != 0)
            _release_all();
    }

protected:
    // Counts the caller as a sleeper. Blocks while the sleepers of a batch leave.
    void _acquire_gate();

    semaphore _lock;
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
// takes their wake-up, and one with nobody waiting is not remembered. It never
// waits for the caller's mutex, only for threads about to wait or to leave. All
// operations may be called by any thread; every thread that waits at one time uses
// the same mutex. That the caller of a wait holds it is not checked, nor that nobody
// waits when the condition is destroyed.
//
// A constructor takes the number of polls before a thread that waits sleeps,
// `default_spin` unless it is given.

// Waits without a deadline, with any mutex of the library.
class OVEL_EXPORT condition : public detail::basic_condition<semaphore> {
public:
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

    // Waits until released, true, or until `deadline` has passed, false; the
    // caller holds `lock` again either way. The deadline does not run while the
    // thread waits for an earlier batch to leave.
    template <class Mutex>
    bool timed_acquire(Mutex& lock, time const& deadline) {
        typename Mutex::state held;
        _acquire_gate();
        lock.release(held, true);
        bool const released = _wait.timed_acquire(deadline);
        _release_gate(released);
        lock.acquire(held, true);
        return released;
    }

private:
    friend struct detail::inspector;

    // Leaves after a wake-up, or after a deadline that passed without one.
    void _release_gate(bool released);
};

}  // namespace ovel

#endif
