// SPDX-License-Identifier: Apache-2.0
// The simulated kernel as a test uses it. The test runs programs of threads, called
// scenarios, under schedules that it names. Every run of one schedule is the same.
#ifndef OVEL_SIMULATION_SIMULATION_H
#define OVEL_SIMULATION_SIMULATION_H

#include "kernel.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace ovel::simulation {

// How a schedule is drawn.
enum class strategy {
    random,      // every ready thread is as likely as another
    sticky,      // a thread usually goes on while it can
    priorities,  // the highest goes on; some steps lower the running thread's priority
    choices      // a thread goes on while it can, except where a list says otherwise
};

char const* name(strategy which);

// A choice that differs from the first alternative of its point.
struct deviation {
    unsigned int point;        // counts the points with more than one alternative
    unsigned int alternative;  // from 1
};

// Names one run of a scenario.
struct schedule {
    strategy how = strategy::random;
    unsigned int variant = 0;             // which of the scenario's programs
    std::uint64_t seed = 0;               // of the choices, and of `pick`
    std::vector<deviation> deviations{};  // of strategy::choices, by ascending point
};

// A program. `run` is called on the first thread of a fresh process that has just loaded
// the library. It sets up the machine, builds what the threads share, and calls `begin`. A
// failed check, `fail` and an exception make the run fail.
struct scenario {
    char const* name;
    void (*run)(unsigned int variant);
    unsigned int variants = 1;
    bool exhaustive = false;         // run under every schedule with
    unsigned int preemptions = 2;    // at most this many preemptions
    unsigned int steps = 50'000;     // more are a livelock
    std::vector<schedule> pinned{};  // run first: each once found a fault of the library
};

// The result of a run.
struct outcome {
    bool passed = false;
    bool reported = false;           // ended by the failed check that it expected
    std::string failure;             // one line; empty when passed
    std::string report;              // the last steps, and what each thread waits for
    std::uint64_t interleaving = 0;  // a hash of which thread took which step
    unsigned int steps = 0;
};

// Runs `program` under `when`. With `steps_shown` 0 no steps are recorded.
outcome run(scenario const& program, schedule const& when, unsigned int steps_shown = 60);

// Walks through every schedule of a program with few preemptions: where the
// thread that runs could go on, taking another, or ending a sleep before its
// time, is a preemption; where it could not, every choice is free.
class walk {
public:
    explicit walk(scenario const& program, unsigned int variant);

    // Runs the next schedule. Call while `!done()`.
    outcome next(unsigned int steps_shown = 0);
    bool done() const {
        return _done;
    }
    // The schedule that ran last.
    schedule const& last() const {
        return _last;
    }

private:
    scenario const& _program;
    schedule _last;
    std::vector<unsigned char> _path;  // alternatives to take next
    bool _done = false;
};

// The call that runs the schedule again.
std::string replay_line(scenario const& program, schedule const& when);

// The scenarios of a program: each file of them adds its own at load.
std::vector<scenario>& scenarios();
struct registration {
    explicit registration(scenario const& added) {
        scenarios().push_back(added);
    }
};

// The main function of such a program: runs the scenarios for some time, or one schedule
// again as `replay_line` says. Returns the exit status.
int explore(int count, char** arguments);

// What a scenario may call while it runs.

// The heap blocks in use and the handles open now must be as many at the end, when every
// other thread has come to rest. Without this call, those at the start of the run count.
// So build what the library keeps for good before this call.
void balance();

// Ends the preparation: up to here a thread runs until it blocks.
void begin();

// Waits until every other thread waits without a deadline. No thread is preempted
// meanwhile.
void settle();

// Below `bound`, the same in every run of the schedule. With strategy::choices it
// depends on the variant only.
unsigned int pick(unsigned int bound);

// Whether the run belongs to a walk through every schedule, for which a program
// should be as small as it can be.
bool walks();

// Ends the run as a failure.
[[noreturn]] void fail(char const* format, ...) __attribute__((format(printf, 1, 2)));

// From now on a failed check with this text, one of up to four, ends the run as passed,
// but only after a request has been refused, so that it cannot hide another fault.
void expect_failure(char const* expression);

// The machine, before the library has looked: its processors, 2 unless set, and
// the mask of the process; and the clock's rate in megahertz, 2000 and not in
// the registry unless set.
void set_processors(unsigned int count, DWORD_PTR process_mask);
void set_clock_rate(unsigned int megahertz);

// The processors of the thread that read the time-stamp counter last.
DWORD_PTR counter_mask();

// Nanoseconds that have passed on the simulated machine.
std::uint64_t nanoseconds();

// Every wait and sleep from now on may end late, by up to so many milliseconds.
void end_waits_late(unsigned int milliseconds);

// Refuses requests to the runtime heap, from the `first` from now (1: the next)
// on, `count` of them; or single blocks of the library's allocators, which
// otherwise fail only where a new chunk is needed; or kernel objects and threads.
void refuse_memory(unsigned int first, unsigned int count = 1);
void refuse_blocks(unsigned int first, unsigned int count = 1);
void refuse_objects(unsigned int first, unsigned int count = 1);

// Requests refused since the run began.
unsigned int refused();

// Kernel handles open, and blocks of the runtime heap in use.
unsigned int open_handles();
unsigned int heap_blocks();

// Kernel waits and posts since the run began, which a fast path must not make.
unsigned int kernel_calls();

// Pause hints executed by the calling thread.
unsigned int pauses();

// The stack size that was requested for the calling thread, in bytes.
unsigned int stack_size();

// Threads that have not ended, this one included.
unsigned int threads();

// A thread of the scenario, joined by its destructor.
class worker {
public:
    template <class Body>
    explicit worker(Body body)
        : _call([](void* copy) { (*static_cast<Body*>(copy))(); }),
          _delete([](void* copy) { delete static_cast<Body*>(copy); }),
          _body(new Body(std::move(body))) {
        _start();
    }
    ~worker() {
        join();
    }
    worker(worker const&) = delete;
    worker& operator=(worker const&) = delete;

    void join();

private:
    void _start();
    static unsigned int _entry(void* self);

    void (*_call)(void*);
    void (*_delete)(void*);
    void* _body;
    HANDLE _thread = nullptr;
};

}  // namespace ovel::simulation

#endif
