// SPDX-License-Identifier: Apache-2.0
// What all schedulers of queued work share: choosing the next work item, and taking a
// contended mutex.
#ifndef OVEL_WORK_QUEUE_H
#define OVEL_WORK_QUEUE_H

#include "ovel_mutex.h"
#include "ovel_skip_list.h"
#include "ovel_spin_wait.h"
#include "ovel_thread_function.h"
#include "ovel_thread_support.h"
#include "ovel_triple.h"

#include <algorithm>

namespace ovel::detail {

// Checks that a group with the space `_space` can take work of `time_` and `space_`
// (check "time_ > 0 && space_ >= 0 && space_ <= _space" of `thread_group::schedule`).
void assure_schedulable(double time_, double space_, double _space);

// Takes a mutex that threads hold only briefly. A thread that finds it taken yields
// several times before it sleeps: a holder that keeps it longer was preempted, and direct
// hand-off to a sleeper would block everyone until the sleeper is scheduled.
inline void acquire_patiently(mutex& taken, unsigned int spin, spin_pace pace = pace_for_group) {
    constexpr unsigned int rounds = 16;  // each yields to a preempted holder once
    constexpr unsigned int most = 96;    // pauses of a round: longer than it is held
    for (unsigned int round = 0; round != rounds; ++round) {
        spin_wait wait(std::min(spin, most), pace);
        for (;;) {
            if (taken.try_acquire())
                return;
            if (wait.is_over())
                break;
            wait.pause();
        }
        thread_support::yield();
    }
    taken.acquire();
}

// Holds a mutex, taken patiently, for the duration of a scope.
class patient_guard {
public:
    patient_guard(mutex& taken, unsigned int spin, spin_pace pace = pace_for_group)
        : _taken(taken) {
        acquire_patiently(taken, spin, pace);
    }
    ~patient_guard() {
        _taken.release();
    }
    patient_guard(patient_guard const&) = delete;
    patient_guard& operator=(patient_guard const&) = delete;

private:
    mutex& _taken;
};

// The work item to run next if it fits into `space`, otherwise the largest. The caller
// holds the mutex that guards the queue. The queue is a skip list of (work, time, space)
// and not empty.
template <class Queue>
typename Queue::iterator find_work(Queue& waiting, double space) {
    if ((*waiting.begin()).third <= space)
        return waiting.begin();
    auto const found =
        waiting.find_first([space](auto const& each) { return each.third <= space; });
    return found != waiting.end() ? found : waiting.begin();
}

// Whether some work item fits into `space`. The caller holds the queue's mutex.
template <class Queue>
bool has_fitting_work(Queue& waiting, double space) {
    return !waiting.empty() && (*find_work(waiting, space)).third <= space;
}

}  // namespace ovel::detail

#endif
