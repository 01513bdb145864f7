// SPDX-License-Identifier: Apache-2.0
// The state of one run. Each run constructs its own, so nothing is left over from an
// earlier run.
#ifndef OVEL_SIMULATION_WORLD_H
#define OVEL_SIMULATION_WORLD_H

#include "fiber.h"
#include "generator.h"
#include "report.h"
#include "scheduler.h"
#include "strategies.h"

namespace ovel::simulation {

struct thread {
    fiber self;
    thread_state state;
    std::uint64_t deadline;  // while it blocks; otherwise `never`
    action doing;            // its next step, or the one in which it blocks
    std::size_t size;        // size of a plain access, in bytes
};

// Requests of one kind to the kernel services. A scenario may have some of them refused.
class requests {
public:
    // Refuses `count` requests, starting with the `first` from now (1: the next).
    void refuse(unsigned int first, unsigned int count) {
        _first = _made + first;
        _count = count;
    }
    // Counts one request. Returns whether to refuse it.
    bool count() {
        bool const refused = ++_made - _first < _count;
        _refused += refused;
        return refused;
    }
    unsigned int refused() const {
        return _refused;
    }

private:
    unsigned int _made = 0, _first = 0, _count = 0, _refused = 0;
};

enum class phase {
    preparing,  // the strategy chooses the next thread
    exploring,  // the strategy chooses
    settling    // like `preparing`, until every thread but the first waits
};

inline constexpr unsigned int nobody = slot_count;  // not a slot

struct world {
    world(scenario const& which, schedule const& how, unsigned int steps_shown);

    scenario const& program;
    schedule const& when;
    generator seeds;  // for what holds for the whole run
    generator input;  // for what the program and its machine draw
    chooser choices;
    bool const reuses_memory, plain_points;
    step_log log;

    phase state = phase::preparing;
    fiber home;                  // of `run`
    thread threads[slot_count];  // those in `alive`
    // `timed` threads block with a deadline; the deadline of the `late` ones has passed.
    threads_mask alive = 0, ready = 0, timed = 0, late = 0;
    unsigned int self = 0;                // slot of the running thread
    unsigned int created = 0;             // threads created so far
    unsigned int creator = nobody;        // slot of a thread that waits for a new one's first point
    unsigned int root = 0;                // slot of the first thread
    bool root_settles = false;            // it waits for all others to come to rest
    std::uint64_t clock;                  // nanoseconds
    std::uint64_t next_deadline = never;  // earliest of those in `timed` and not in `late`
    std::uint64_t interleaving;
    unsigned int steps = 0;
    bool in_access = false;  // between the two ends of an atomic access

    machine computer;
    requests memory, blocks, objects;
    unsigned int late_by = 0;  // milliseconds, at most
    unsigned int kernel_calls = 0;
    unsigned int handles_at_balance = 0, blocks_at_balance = 0;
    char const* expected[4] = {};  // failed checks with which the run passes

    outcome result;
};

// The current run, or null.
extern world* now;

}  // namespace ovel::simulation

#endif
