// SPDX-License-Identifier: Apache-2.0
// How threads spin before they sleep. Every polling loop of the library uses this.
#ifndef OVEL_SPIN_WAIT_H
#define OVEL_SPIN_WAIT_H

#include "ovel_kernel.h"

#include <algorithm>

namespace ovel::detail {

// The distance between the polls of a waiting thread, in pause hints. It doubles from
// `first` to `most`. A pause takes 2 to 25 ns. A poll of a word that another thread
// writes is a cache miss for both: the waiting thread fetches the line, and the other one
// has to fetch it back.
struct spin_pace {
    unsigned int first;
    unsigned int most;
};

// For a semaphore's unit: a poll after every pause. The thread that posts the unit writes
// the word only once, so polls delay it at most once.
inline constexpr spin_pace pace_for_unit = {1, 1};

// For a mutex. Its owner needs the line back to release it. With a poll after every
// pause, a critical section of two threads would last as long as the line takes there and
// back, about 16 pauses. Most sections are not much longer, so beyond 64 pauses a thread
// would find a free mutex late.
inline constexpr spin_pace pace_for_mutex = {16, 64};

// For a group's mutex, which threads hold for a few hundred nanoseconds: as above, but
// constant, because the thread yields after at most 96 pauses.
inline constexpr spin_pace pace_for_group = {32, 32};

// For the same mutex, by a thread that schedules. It comes back for it after a hundred
// nanoseconds, again and again, and meets the worker that takes its last item. With 32 from
// the start it would mostly pause: 100 000 items that their thread deletes took twice as
// long. Workers that schedule on their own group lose a tenth of their rate if the items
// are empty.
inline constexpr spin_pace pace_for_scheduling = {8, 32};

// For a net's mutex. Owners that fire again and again hold it for a few hundred
// nanoseconds; a first poll after 4 pauses catches the short gap between two owners. 128
// instead of 64 gains nothing in chains of transitions and loses 15 % with large tables
// of philosophers.
inline constexpr spin_pace pace_for_net = {4, 64};

// For the deques of a crew. With each child their owners write the lines that a poll
// reads. A compromise between finding work soon and taking those lines from their owners.
inline constexpr spin_pace pace_for_deque = {8, 8};

// One thread's spinning in one wait. Between pauses it looks for what it waits for, until
// the pauses add up to its spin count; then it sleeps:
//
//     for (spin_wait wait(spin, pace_for_unit); !wait.is_over(); wait.pause())
//         if (available())
//             return;
//     sleep();
//
// A spinning thread never calls the scheduler.
class spin_wait {
public:
    // `spin` is the most pauses. With 0 the wait is over at once.
    spin_wait(unsigned int spin, spin_pace pace)
        : _left(spin), _pauses(pace.first), _most(pace.most) {}

    // Whether the thread should sleep now.
    bool is_over() const {
        return _left == 0;
    }

    // Pauses until the next poll is due.
    void pause() {
        unsigned int const now = std::min(_pauses, _left);
        for (unsigned int i = 0; i != now; ++i)
            YieldProcessor();
        _left -= now;
        _pauses = std::min(2 * _pauses, _most);
    }

    // Spins up to `spin` more pauses, however many are left.
    void extend(unsigned int spin) {
        _left = spin;
    }

private:
    unsigned int _left;
    unsigned int _pauses;
    unsigned int const _most;
};

}  // namespace ovel::detail

#endif
