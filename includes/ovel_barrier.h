// SPDX-License-Identifier: Apache-2.0
// Barriers: threads wait for each other until a fixed number has arrived.
#ifndef OVEL_BARRIER_H
#define OVEL_BARRIER_H

#include "ovel_atomic.h"
#include "ovel_frame.h"
#include "ovel_semaphore.h"
#include "ovel_time.h"

namespace ovel {

// A barrier holds the threads that arrive until there are `capacity` of them, then
// lets them all go; or until `release_all` lets those go that have arrived so far.
// Either way the phase ends when the last of them leaves. Until then a newcomer waits
// outside, so that phases never mix. Threads leave one after another, each waking
// the next. What each thread wrote before it arrived is visible to all threads that
// leave in the same phase. Any thread may call any operation. A barrier of capacity 0
// opens by `release_all` only. Not detected: destroying a barrier with threads in it.
//
// A constructor takes the capacity and the spin count, the most polls before a
// waiting thread sleeps.
//
// The results: true for a phase that was completed; false for one that `release_all`
// opened, and for a deadline that passed before either. `last` is true only for the
// thread whose arrival completed the phase.
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

    // How many threads complete a phase.
    unsigned int capacity() const;

    // Arrives, and blocks until the phase leaves.
    bool acquire();
    bool acquire(bool& last);

    // Lets the threads go that have arrived. Blocks while an earlier phase leaves.
    void release_all();

private:
    friend struct detail::inspector;

    // Guards _count and _complete, and is the baton: it stays taken from the thread that
    // opens the barrier to the last that leaves, and each wake-up hands it on.
    semaphore _lock;
    unsigned int const _capacity;
    detail::atomic<unsigned int> _count{0};  // arrived and not left
    bool _complete = false;                  // from a phase's completion to its last departure
    semaphore _wait;
};

// With deadlines as well. Threads inside sleep without spinning.
class OVEL_EXPORT timed_barrier {
public:
    // For `capacity` threads. `spin` is for those that wait outside, and for internal locks.
    timed_barrier(unsigned int capacity, unsigned int spin);
    timed_barrier(timed_barrier const&) = delete;
    timed_barrier& operator=(timed_barrier const&) = delete;

    // How many threads complete a phase.
    unsigned int capacity() const;

    // Arrives, and blocks until the phase leaves.
    bool acquire();
    bool acquire(bool& last);

    // Arrives, and blocks until the phase leaves or `deadline` has passed; true
    // when the phase was completed by then. `last` is left as it is when the
    // deadline passes before the thread has come in.
    [[nodiscard]] bool timed_acquire(time const& deadline);
    [[nodiscard]] bool timed_acquire(bool& last, time const& deadline);

    // Lets the threads go that have arrived. Blocks while an earlier phase leaves.
    void release_all();

private:
    friend struct detail::inspector;

    bool _arrive(bool& last);
    bool _leave();

    semaphore _lock;  // guards _count, _complete and _released; held briefly
    // The way in, and the baton: taken from the thread that opens the barrier to
    // the last that leaves it.
    timed_semaphore _entry;
    unsigned int const _capacity;
    detail::atomic<unsigned int> _count{0};  // arrived and not left
    bool _complete = false;                  // from a phase's completion to its last departure
    timed_semaphore _wait;
    bool _released = false;  // from a `release_all` to the last departure
};

}  // namespace ovel

#endif
