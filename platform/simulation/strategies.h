// SPDX-License-Identifier: Apache-2.0
// How a run chooses which thread makes the next step.
#ifndef OVEL_SIMULATION_STRATEGIES_H
#define OVEL_SIMULATION_STRATEGIES_H

#include "generator.h"
#include "scheduler.h"

#include <bit>
#include <vector>

namespace ovel::simulation {

// The alternative, beside the slots of threads, that the clock jumps.
inline constexpr unsigned int the_clock = slot_count;

constexpr threads_mask bit(unsigned int slot) {
    return threads_mask{1} << slot;
}

inline unsigned int lowest(threads_mask threads) {
    return static_cast<unsigned int>(std::countr_zero(threads));
}

// What there is to choose from.
struct alternatives {
    threads_mask ready;  // not empty
    unsigned int self;   // slot of the thread that has come to the point
    bool goes_on;        // that thread is ready itself
    bool yields;         // and gives way to others
    bool clock;          // a thread waits with a deadline, to which the clock may jump
    unsigned int steps;  // of the run so far
};

// The caller while it can and does not give way, else the next ready thread in turn.
unsigned int first_choice(alternatives const& from);

// One point of strategy::choices that had several alternatives.
struct choice_point {
    unsigned char count;
    unsigned char taken;
};

// The choices of one run. Slots of threads, or `the_clock`.
//
//   random      every ready thread is as likely as another.
//   sticky      a thread goes on with a probability of 7/8, so that long stretches
//               of one thread meet single steps of another.
//   priorities  threads, and the clock, get random priorities and the highest
//               ready one runs; at few random steps the running thread falls below
//               all others. A fault that needs d steps in a certain order is met with
//               a probability of about 1 / (threads * steps ^ (d - 1)), whatever
//               other steps lie between them.
//   choices     the first alternative everywhere except at the listed points. `walk`
//               enumerates the lists.
//
// How readily the clock jumps is drawn once a run, from never to often. A thread that
// gives way (a pause hint, `Sleep(0)`) falls below the others with priorities; with
// choices the next thread's turn costs no preemption. Otherwise a spinning thread
// would keep the one it waits for from running.
class chooser {
public:
    // `seeds` draws what holds for the whole run. Walks may preempt a thread that
    // could go on at most `preemptions` times.
    chooser(schedule const& when, unsigned int preemptions, generator& seeds);

    // Gives a new thread its priority.
    void add_thread(unsigned int slot);

    unsigned int choose(alternatives const& from);

    // Whether the next weak compare-and-exchange fails without cause: one of 32, but
    // not in walks.
    bool draw_spurious_failure();

    // strategy::choices: the points so far.
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

    // Random and sticky: the clock jumps at one of so many choices; 0: at none.
    unsigned int _clock_odds;

    // Priorities. Drawn ones are at least `_lowest_priority`; threads that fall are
    // numbered downwards from it.
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
