// SPDX-License-Identifier: Apache-2.0
// The simulated kernel, as tests use it. A test runs multi-threaded programs, called
// scenarios, under schedules that it names. Every run of one schedule is the same.
#ifndef OVEL_SIMULATION_SIMULATION_H
#define OVEL_SIMULATION_SIMULATION_H

#include "kernel.h"

#include <cstdint>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

namespace ovel::simulation {

// How a strategy draws a schedule.
enum class strategy {
    random,      // every ready thread is equally likely
    sticky,      // a thread usually keeps running while it can
    priorities,  // the highest runs; at some steps the running thread's priority drops
    choices      // a thread keeps running while it can, except where a list says otherwise
};

char const* name(strategy which);

// A choice other than the first alternative at a point.
struct deviation {
    unsigned int point;        // which point, counting those with more than one alternative
    unsigned int alternative;  // from 1
};

// Identifies one run of a scenario.
struct schedule {
    strategy how = strategy::random;
    unsigned int variant = 0;             // which of the scenario's programs
    std::uint64_t seed = 0;               // for the choices and for `pick`
    std::vector<deviation> deviations{};  // for strategy::choices, by ascending point
};

// A program. The simulation calls `run` on the first thread of a fresh process that has
// just loaded the library. It sets up the machine, builds what the threads share, and
// calls `begin`. A failed check, `fail` or an exception fails the run.
struct scenario {
    char const* name;
    void (*run)(unsigned int variant);
    unsigned int variants = 1;
    bool exhaustive = false;         // also run under every schedule with
    unsigned int preemptions = 2;    // at most this many preemptions
    unsigned int steps = 50'000;     // more count as a livelock
    std::vector<schedule> pinned{};  // run first: each once found a fault of the library
};

// The result of a run.
struct outcome {
    bool passed = false;
    bool reported = false;           // ended by the failed check that the scenario expected
    std::string failure;             // one line; empty when passed
    std::string report;              // the last steps, and what each thread waits for
    std::uint64_t interleaving = 0;  // a hash of which thread took which step
    unsigned int steps = 0;
};

// Runs `program` under `when`. Records no steps if `steps_shown` is 0.
outcome run(scenario const& program, schedule const& when, unsigned int steps_shown = 60);

// Walks through every schedule of a program that has few preemptions. A preemption means:
// the running thread could continue, but another one is taken or a sleep ends before its
// time. Where the running thread cannot continue, every choice is free.
class walk {
public:
    explicit walk(scenario const& program, unsigned int variant);

    // Runs the next schedule. Call it only while `!done()`.
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

// The command that runs the schedule again.
std::string replay_line(scenario const& program, schedule const& when);

// The scenarios of a program. Each file adds its own when the program is loaded.
std::vector<scenario>& scenarios();
struct registration {
    registration(std::initializer_list<scenario> added) {
        scenarios().insert(scenarios().end(), added);
    }
};

// The main function of such a program. Runs the scenarios for some time, or one schedule
// again as in `replay_line`. Returns the exit status.
int explore(int count, char** arguments);

// What a scenario may call while it runs.

// Marks the heap blocks in use and the handles open now. At the end, when every other
// thread is at rest, there must be as many. Without this call, those at the start of the
// run count. So first build what the library keeps for good.
void balance();

// Ends the preparation. Until here a thread runs until it blocks.
void begin();

// Waits until every other thread waits without a deadline. Meanwhile no thread is
// preempted.
void settle();

// A number below `bound`, the same in every run of the schedule. With strategy::choices
// it depends on the variant only.
unsigned int pick(unsigned int bound);

// Whether the run belongs to a walk through every schedule. The program should then be as
// small as possible.
bool walks();

// Ends the run as a failure.
[[noreturn]] void fail(char const* format, ...) __attribute__((format(printf, 1, 2)));

// From now on a failed check with this text, one of up to four, ends the run as passed.
// This holds only after a request was refused, so that it cannot hide another fault.
void expect_failure(char const* expression);

// Set the machine before the library has looked at it: its processors (2 by default), the
// mask of the process, and the clock's rate in megahertz (by default 2000, and not in the
// registry).
void set_processors(unsigned int count, DWORD_PTR process_mask);
void set_clock_rate(unsigned int megahertz);

// The affinity of the thread that last read the time-stamp counter.
DWORD_PTR counter_mask();

// The nanoseconds that have passed on the simulated machine.
std::uint64_t nanoseconds();

// From now on every wait and sleep may end late, by up to this many milliseconds.
void end_waits_late(unsigned int milliseconds);

// Refuse `count` requests, starting with the `first` from now (1: the next): requests to
// the runtime heap; or for single blocks of the library's allocators, which otherwise fail
// only if they need a new chunk; or for kernel objects and threads.
void refuse_memory(unsigned int first, unsigned int count = 1);
void refuse_blocks(unsigned int first, unsigned int count = 1);
void refuse_objects(unsigned int first, unsigned int count = 1);

// The number of requests refused since the run began.
unsigned int refused();

// The number of open kernel handles, and of blocks of the runtime heap in use.
unsigned int open_handles();
unsigned int heap_blocks();

// The number of kernel waits and posts since the run began. A fast path must make none.
unsigned int kernel_calls();

// The number of pause hints that the calling thread has executed.
unsigned int pauses();

// The stack size requested for the calling thread, in bytes.
unsigned int stack_size();

// The number of threads that have not ended, including this one.
unsigned int threads();

// A thread of the scenario. Its destructor joins it.
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
