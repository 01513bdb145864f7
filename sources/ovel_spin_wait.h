// SPDX-License-Identifier: Apache-2.0
// How threads spin before they sleep. Every polling loop of the library is made of this.
#ifndef OVEL_SPIN_WAIT_H
#define OVEL_SPIN_WAIT_H

#include "ovel_kernel.h"

#include <algorithm>

namespace ovel::detail {

// How far apart the polls of a waiting thread are, in pause hints. The distance doubles
// from `first` to `most`. A pause is 2 to 25 ns, and a poll of a word that another thread
// writes is a cache miss for both: the waiting thread fetches the line, and the other one
// has to fetch it back.
struct spin_pace {
    unsigned int first;
    unsigned int most;
};

// For a semaphore's unit: a poll after every pause. The thread that posts the unit
// writes the word once and need not write it again, so polls delay it at most once.
inline constexpr spin_pace pace_for_unit = {1, 1};

// For a mutex. Its owner needs the line back to release it. With a poll after every
// pause, a critical section of two threads would last as long as the line takes there
// and back, about 16 pauses. Sections are mostly not much longer, so beyond 64 pauses a
// free mutex would be found late.
inline constexpr spin_pace pace_for_mutex = {16, 64};

// For a group's mutex, which is held for a few hundred nanoseconds: as above, but
// without growth, since the thread yields after at most 96 pauses.
inline constexpr spin_pace pace_for_group = {32, 32};

// For a net's mutex. Owners that fire again and again keep it for a few hundred
// nanoseconds; a first poll after 4 pauses catches the short gap between two owners. 128
// instead of 64 gains nothing in chains of transitions and loses 15 % with large tables
// of philosophers.
inline constexpr spin_pace pace_for_net = {4, 64};

// For the deques of a crew, whose owners write the lines that a poll reads with each child.
inline constexpr spin_pace pace_for_deque = {8, 8};

// The spinning of one thread in one wait. It looks for what it waits for between pauses,
// until they add up to its spin count, and then sleeps:
//
//     for (spin_wait wait(spin, pace_for_unit); !wait.is_over(); wait.pause())
//         if (available())
//             return;
//     sleep();
//
// A thread that spins never calls the scheduler.
class spin_wait {
public:
    // `spin` is the number of pauses, at most. With 0 the wait is over at once.
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

private:
    unsigned int _left;
    unsigned int _pauses;
    unsigned int const _most;
};

}  // namespace ovel::detail

#endif
