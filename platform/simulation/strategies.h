// SPDX-License-Identifier: Apache-2.0
// How a run chooses the thread that makes the next step.
#ifndef OVEL_SIMULATION_STRATEGIES_H
#define OVEL_SIMULATION_STRATEGIES_H

#include "generator.h"
#include "scheduler.h"

#include <bit>
#include <vector>

namespace ovel::simulation {

// The alternative that the clock jumps. The others are the slots of threads.
inline constexpr unsigned int the_clock = slot_count;

constexpr threads_mask bit(unsigned int slot) {
    return threads_mask{1} << slot;
}

inline unsigned int lowest(threads_mask threads) {
    return static_cast<unsigned int>(std::countr_zero(threads));
}

// The alternatives at a point.
struct alternatives {
    threads_mask ready;  // not empty
    unsigned int self;   // the thread at the point
    bool goes_on;        // that thread is ready itself
    bool yields;         // and yields to others
    bool clock;          // some thread waits with a deadline, to which the clock may jump
    unsigned int steps;  // of the run so far
};

// The caller if it can continue and does not yield, otherwise the next ready thread in
// turn.
unsigned int first_choice(alternatives const& from);

// A point of strategy::choices that had several alternatives.
struct choice_point {
    unsigned char count;
    unsigned char taken;
};

// The choices of one run: slots of threads, or `the_clock`.
//
//     random      every ready thread is equally likely.
//     sticky      a thread continues with a probability of 7/8, so that long stretches of
//                 one thread meet single steps of another.
//     priorities  threads, and the clock, get random priorities, and the highest ready one
//                 runs. At a few random steps the running thread drops below all others. A
//                 fault that needs d steps in a certain order shows with a probability of
//                 about 1 / (threads * steps ^ (d - 1)), whatever other steps lie between.
//     choices     the first alternative everywhere except at the listed points. `walk`
//                 enumerates the lists.
//
// Each run draws how readily the clock jumps, from never to often. With priorities, a
// thread that yields (a pause hint, `Sleep(0)`) drops below the others. With choices,
// giving the next thread its turn then costs no preemption. Otherwise a spinning thread
// would keep the one it waits for from running.
class chooser {
public:
    // `seeds` draws what holds for the whole run. A walk may preempt a thread that could
    // continue at most `preemptions` times.
    chooser(schedule const& when, unsigned int preemptions, generator& seeds);

    // Draws the priority of a new thread.
    void add_thread(unsigned int slot);

    unsigned int choose(alternatives const& from);

    // Whether the next weak compare-and-exchange fails spuriously: one in 32, but none in
    // walks.
    bool draw_spurious_failure();

    // The points so far, with strategy::choices.
    std::vector<choice_point> const& points() const {
        return _points;
    }

private:
    unsigned int _choose_random(alternatives const& from);
    unsigned int _choose_by_priority(alternatives const& from);
    unsigned int _choose_listed(alternatives const& from);
    std::uint64_t _draw_priority();

    schedule const& _when;
    unsigned int const _preemptions_allowed;
    generator _choice;

    // Random and sticky: the clock jumps at one in this many choices; 0 means never.
    unsigned int _clock_odds;

    // Priorities. Drawn ones are at least `_lowest_priority`. A thread that drops gets
    // the next number below.
    static constexpr unsigned int most_changes = 5;
    unsigned int _change_at[most_changes];  // steps, ascending
    unsigned int _changes, _changed = 0;
    std::uint64_t _lowest_priority = std::uint64_t{1} << 32;
    std::uint64_t _clock_priority;
    std::uint64_t _priorities[slot_count] = {};

    // Choices.
    std::vector<choice_point> _points;
    unsigned int _next_deviation = 0;
    unsigned int _preemptions = 0;
};

}  // namespace ovel::simulation

#endif
