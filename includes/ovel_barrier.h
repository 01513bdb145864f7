// SPDX-License-Identifier: Apache-2.0
// Barriers: threads wait for each other until a fixed number has arrived.
#ifndef OVEL_BARRIER_H
#define OVEL_BARRIER_H

#include "ovel_atomic.h"
#include "ovel_frame.h"
#include "ovel_semaphore.h"
#include "ovel_time.h"

namespace ovel {

// A barrier holds arriving threads until there are `capacity` of them, then releases all;
// or until `release_all` releases those that have arrived so far. Either way the phase
// ends when the last of them leaves. Until then newcomers wait outside, so phases never
// mix. Threads leave one after another, each waking the next. What each thread wrote
// before it arrived is visible to all threads that leave in the same phase. Any thread
// may call any operation. Only `release_all` opens a barrier of capacity 0. Not detected:
// destroying a barrier with threads in it.
//
// A constructor takes the capacity and the spin count, the most polls before a waiting
// thread sleeps.
//
// Results: true for a completed phase; false for one that `release_all` opened, and if a
// deadline passed before either. `last` is true only for the thread whose arrival
// completed the phase.
//
//     barrier step(4, default_spin);
//     bool last;
//     step.acquire(last);  // in each of four threads
//     if (last)
//         publish();

// Without deadlines. Waiting threads spin before they sleep.
class OVEL_EXPORT barrier {
public:
    // For `capacity` threads; each polls `spin` times before it sleeps.
    barrier(unsigned int capacity, unsigned int spin);
    barrier(barrier const&) = delete;
    barrier& operator=(barrier const&) = delete;

    // The number of threads that complete a phase.
    unsigned int capacity() const;

    // Arrives, and blocks until its phase leaves.
    bool acquire();
    bool acquire(bool& last);

    // Releases the threads that have arrived. Blocks while an earlier phase leaves.
    void release_all();

private:
    friend struct detail::inspector;

    semaphore* _join_next_phase();
    semaphore& _open();

    // Guards _count and _complete, and is the baton: it stays taken from the thread that
    // opens the barrier to the last thread that leaves, and each wake-up passes it on.
    semaphore _lock;
    unsigned int const _capacity;
    detail::atomic<unsigned int> _count{0};  // arrived and not left
    bool _complete = false;                  // from a phase's completion to its last departure
    semaphore _wait;                         // threads of even phases wait here
    // Whether a phase leaves, whether the current phase is odd, and how many threads have
    // arrived for the next one. Only a thread that holds `_lock` writes it, except that
    // arriving threads are counted without `_lock` while a phase leaves.
    detail::atomic<unsigned int> _next{0};
    semaphore _odd_wait;  // threads of odd phases wait here
};

// The same with deadlines. Threads inside sleep without spinning.
class OVEL_EXPORT timed_barrier {
public:
    // For `capacity` threads. `spin` is for those that wait outside, and for internal locks.
    timed_barrier(unsigned int capacity, unsigned int spin);
    timed_barrier(timed_barrier const&) = delete;
    timed_barrier& operator=(timed_barrier const&) = delete;

    // The number of threads that complete a phase.
    unsigned int capacity() const;

    // Arrives, and blocks until its phase leaves.
    bool acquire();
    bool acquire(bool& last);

    // Arrives, and blocks until its phase leaves or `deadline` has passed. Returns true
    // if the phase was completed by then. Leaves `last` unchanged if the deadline passes
    // before the thread has come in.
    [[nodiscard]] bool timed_acquire(time const& deadline);
    [[nodiscard]] bool timed_acquire(bool& last, time const& deadline);

    // Releases the threads that have arrived. Blocks while an earlier phase leaves.
    void release_all();

private:
    friend struct detail::inspector;

    timed_semaphore* _join_next_phase();
    bool _withdraw_from_next_phase(timed_semaphore const& wait);
    timed_semaphore& _current();
    timed_semaphore& _arrive(bool& last);
    bool _leave(timed_semaphore& wait);

    semaphore _lock;  // guards _count, _complete and _released; held briefly
    // The entrance, and the baton: taken from the thread that opens the barrier to the
    // last thread that leaves.
    timed_semaphore _entry;
    unsigned int const _capacity;
    detail::atomic<unsigned int> _count{0};  // arrived and not left
    bool _complete = false;                  // from a phase's completion to its last departure
    timed_semaphore _wait;                   // threads of even phases wait here
    bool _released = false;                  // from a `release_all` to the last departure
    // As in `barrier`. Written under `_lock`, except that arriving threads are counted, and
    // withdraw, without it while a phase leaves.
    detail::atomic<unsigned int> _next{0};
    timed_semaphore _odd_wait;  // threads of odd phases wait here
};

}  // namespace ovel

#endif
