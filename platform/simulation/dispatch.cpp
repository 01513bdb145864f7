// SPDX-License-Identifier: Apache-2.0
// The scheduler of the simulated kernel.
//
// A run. Every thread of the program is a fiber. One of them runs, on the only thread of
// the system, until it reaches a scheduling point: a kernel service that other threads
// can notice, an access to an atomic word, or a pause hint. There the scheduler chooses
// which thread continues (strategies.h). Code between two points is indivisible. So
// orders of steps can differ only at the points, provided that fields shared without a
// lock are atomic. The race checks (races.cpp, and the thread sanitizer) make sure of
// that. The point comes before the step: a thread that is not chosen still has to make
// its step. Services that concern only the calling thread are not points, because their
// order relative to other threads' steps makes no difference.
//
// Threads are ready or wait. The kernel's objects make their waiters ready (objects.cpp).
// A wait with a deadline becomes ready when the clock passes the deadline.
//
// The clock advances by `tick` per step. When no thread is ready, it jumps to the
// earliest deadline. When some thread is ready, that jump is one more alternative, as if
// the clock were an ordinary thread: all other threads then simply are slow. So a
// deadline races with everything before it, however far ahead it is. If no thread is
// ready and none has a deadline, that is a deadlock, which is how a lost wake-up shows.
//
// Outside a run, while the library is loaded and unloaded, services take effect at once
// and nothing is scheduled.

#include "dispatch.h"

#include "atomic.h"
#include "heap.h"
#include "run.h"

#include <exception>
#include <utility>

namespace ovel::simulation {

constinit world* now = nullptr;

namespace {

constexpr std::uint64_t tick = 20;  // nanoseconds per step

// FNV-1a over the numbers of the threads that made the steps.
constexpr std::uint64_t hash_factor = 0x100000001b3;
constexpr unsigned int clock_number = 0xc10c;  // represents the clock among them

void hash_step(unsigned int thread) {
    now->interleaving = (now->interleaving ^ thread) * hash_factor;
}

thread& self() {
    return now->threads[now->self];
}

void record(action const& made, void* caller) {
    now->log.add(now->steps, now->clock, self().state.number, made, caller);
}

void find_next_deadline() {
    now->next_deadline = never;
    for (threads_mask rest = now->timed & ~now->late; rest != 0; rest &= rest - 1) {
        std::uint64_t const deadline = now->threads[lowest(rest)].deadline;
        if (deadline < now->next_deadline)
            now->next_deadline = deadline;
    }
}

// Makes threads ready whose deadline has passed.
void expire() {
    for (threads_mask rest = now->timed & ~now->late; rest != 0; rest &= rest - 1) {
        unsigned int const slot = lowest(rest);
        if (now->threads[slot].deadline <= now->clock) {
            now->late |= bit(slot);
            now->ready |= bit(slot);
        }
    }
    find_next_deadline();
}

void count_step() {
    now->clock += tick;
    // If plain accesses are points, the same program takes more steps.
    unsigned int const limit = now->program.steps * (now->plain_points ? 16 : 1);
    if (++now->steps > limit)
        fail_run("livelock: more than " + std::to_string(limit) + " steps");
}

void jump_to_next_deadline() {
    count_step();
    now->clock = now->next_deadline;
    hash_step(clock_number);
    record({operation::tick, false, 0}, nullptr);
    expire();
}

// No thread is ready. The clock jumps, or the first thread, which waits for this,
// continues.
void end_standstill() {
    if (now->next_deadline != never) {
        jump_to_next_deadline();
        return;
    }
    if (!now->root_settles)
        fail_run("deadlock: every thread waits, none with a deadline");
    now->root_settles = false;
    now->ready |= bit(now->root);
}

unsigned int choose(unsigned int caller, bool goes_on, bool yields) {
    alternatives const from = {now->ready, caller, goes_on, yields, now->next_deadline != never,
                               now->steps};
    return now->state == phase::exploring ? now->choices.choose(from) : first_choice(from);
}

// Chooses which thread continues and switches to it. Returns when the calling thread is
// chosen. `goes_on`: the caller itself is ready.
void dispatch(bool goes_on, bool yields) {
    unsigned int const caller = now->self;
    if (now->clock >= now->next_deadline)
        expire();
    for (;;) {
        while (now->ready == 0)
            end_standstill();
        unsigned int const chosen = choose(caller, goes_on, yields);
        if (chosen == the_clock) {
            jump_to_next_deadline();
            // Threads that the jump made ready may continue at no further cost.
            goes_on = false;
            continue;
        }
        if (chosen != caller) {
            now->self = chosen;
            switch_to(now->threads[caller].self, now->threads[chosen].self);
        }
        break;
    }
    hash_step(now->threads[caller].state.number);
}

void thread_main() {
    thread& ending = self();
    run_entry(ending.state);
    call_fiber_local();
    point(operation::end, ending.state.number, nullptr);
    end_thread(ending.state.object);
    now->alive &= ~bit(now->self);
    now->ready &= ~bit(now->self);
    dispatch(false, false);
    __builtin_unreachable();
}

unsigned int free_slot() {
    return now->alive == ~threads_mask{0} ? nobody : lowest(~now->alive);
}

}  // namespace

void reach(action const& next, void* caller, bool yields) {
    if (now == nullptr)
        return;
    thread& reaching = self();
    reaching.doing = next;
    if (now->creator != nobody) {
        // A new thread has reached its first point.
        unsigned int const slot = std::exchange(now->self, std::exchange(now->creator, nobody));
        switch_to(now->threads[slot].self, now->threads[now->self].self);
        hash_step(reaching.state.number);
    } else {
        count_step();
        dispatch(true, yields);
    }
    record(next, caller);
}

void wait_for_rest() {
    now->root_settles = true;
    now->ready &= ~bit(now->self);
    dispatch(false, false);
}

void add_thread(unsigned int slot, thread_state const& state, void (*main)()) {
    thread& added = now->threads[slot];
    added.state = state;
    added.state.number = ++now->created;
    added.deadline = never;
    added.size = 0;
    added.doing = {operation::begin, true, added.state.number};
    now->choices.add_thread(slot);
    prepare(added.self, slot, main);
    now->alive |= bit(slot);
    now->ready |= bit(slot);
}

void run_entry(thread_state const& state) {
    try {
        state.entry(state.argument);
    } catch (std::exception const& escaped) {
        fail_run(std::string("an exception left a thread: ") + escaped.what());
    } catch (...) {
        fail_run("an exception left a thread");
    }
}

// The scheduler's side of the services.

bool running() {
    return now != nullptr;
}

thread_state& current() {
    // Represents the caller outside a run, who may use both processors.
    static constinit thread_state outside = {0,       0,       0,  0, machine{}.process_mask,
                                             nullptr, nullptr, {}, {}};
    return running() ? self().state : outside;
}

void point(operation what, void const volatile* object, void* caller, bool yields) {
    reach({what, false, reinterpret_cast<std::uintptr_t>(object)}, caller, yields);
}

void point(operation what, unsigned int object, void* caller, bool yields) {
    reach({what, true, object}, caller, yields);
}

void note(std::uint64_t found, std::uint64_t left) {
    if (running())
        now->log.note(found, left);
}

bool block(std::uint64_t deadline) {
    if (!running())
        fail_run("a wait outside a run would never end");
    thread& blocking = self();
    threads_mask const caller = calling_thread();
    now->ready &= ~caller;
    blocking.deadline = deadline;
    if (deadline != never) {
        now->timed |= caller;
        if (deadline < now->next_deadline)
            now->next_deadline = deadline;
    }
    dispatch(false, false);
    bool const late = (now->late & caller) != 0;
    now->timed &= ~caller;
    now->late &= ~caller;
    blocking.deadline = never;
    now->ready |= caller;
    if (deadline != never)
        find_next_deadline();
    count_step();
    record({late ? operation::timed_out : operation::acquired, blocking.doing.on_object,
            blocking.doing.object},
           nullptr);
    return late;
}

threads_mask calling_thread() {
    return running() ? bit(now->self) : 0;
}

void make_ready(threads_mask threads) {
    if (running())
        now->ready |= threads & now->alive;
}

void make_unready(threads_mask threads) {
    if (running())
        now->ready &= ~(threads & ~now->late & ~calling_thread());
}

bool start_thread(thread_state const& state) {
    unsigned int const slot = running() ? free_slot() : nobody;
    if (slot == nobody)
        return false;
    add_thread(slot, state, thread_main);
    // What the new thread does before its first point concerns no other thread. Choosing
    // when it does that would only multiply the schedules.
    now->creator = std::exchange(now->self, slot);
    switch_to(now->threads[now->creator].self, now->threads[slot].self);
    return true;
}

// Atomic words.

void before_access(access kind, void const volatile* word) {
    if (!running())
        return;
    auto const address = reinterpret_cast<std::uintptr_t>(word);
    reach({static_cast<operation>(kind), false, address}, __builtin_return_address(0), false);
    if (heap::is_stray(word))
        fail_run("an atomic word in freed memory was accessed: " + place(address));
    now->in_access = true;
}

void after_access(std::uint64_t found, std::uint64_t left) {
    if (!running())
        return;
    now->in_access = false;
    now->log.note(found, left);
}

bool draw_spurious_failure() {
    return running() && now->state == phase::exploring && now->choices.draw_spurious_failure();
}

}  // namespace ovel::simulation
