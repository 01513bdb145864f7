// SPDX-License-Identifier: Apache-2.0
// Runs. A run is a function of the program and its schedule. It begins with the library's
// variables and the heap as they were right after the library was loaded (snapshot.h,
// heap.h), and with a fresh world. Stacks and heap lie at fixed addresses. The clock
// follows from the number of steps and the skipped sleeps. Choices come from a generator
// seeded by the schedule. Nothing is carried over from one run to the next.
//
// A run ends when the first thread returns and all others are at rest, or at once if it
// fails. Control then leaves the fibers, which are abandoned, for `run`.

#include "run.h"

#include "dispatch.h"
#include "heap.h"
#include "ovel_assure.h"
#include "snapshot.h"

#include <signal.h>
#include <ucontext.h>
#include <unistd.h>
#include <cstdio>
#include <cstring>

namespace ovel::simulation {

namespace {

// Real time, in seconds, within which every run ends unless a thread loops without a
// step.
constexpr unsigned int patience = 20;
constexpr std::uint64_t clock_at_start = 1'000'000'000;
constexpr std::uint64_t hash_start = 0xcbf29ce484222325;

[[noreturn]] void leave() {
    fiber abandoned;
    switch_to(abandoned, now->home);
    __builtin_unreachable();
}

[[noreturn]] void fail_in_frame(std::string failure, void* frame) {
    if (!running()) {
        std::fprintf(stderr, "simulation, outside a run: %s\n", failure.c_str());
        std::fflush(stderr);
        _exit(2);
    }
    outcome& result = now->result;
    result.passed = false;
    result.failure = std::move(failure);
    if (std::string const steps = now->log.text(); !steps.empty())
        result.report = "last steps:\n" + steps;
    result.report += "threads:\n" + threads_text(*now, frame);
    leave();
}

// A processor fault, an abort, or a run that makes no step for very long.
void on_signal(int number, siginfo_t* about, void* context) {
    auto const& registers = static_cast<ucontext_t*>(context)->uc_mcontext.gregs;
    auto const raised_at = reinterpret_cast<char*>(registers[REG_RIP]);
    std::string text = number == SIGALRM ? "no step for many seconds" : strsignal(number);
    if (number == SIGSEGV || number == SIGBUS)
        append(text, " at %s", place(reinterpret_cast<std::uintptr_t>(about->si_addr)).c_str());
    append(text, " in %s", function_at(raised_at + 1).c_str());
    fail_in_frame(text, reinterpret_cast<void*>(registers[REG_RBP]));
}

void catch_signals() {
    static char other_stack[1 << 16];
    stack_t alternative{};
    alternative.ss_sp = other_stack;
    alternative.ss_size = sizeof other_stack;
    sigaltstack(&alternative, nullptr);
    struct sigaction action {};
    action.sa_sigaction = on_signal;
    // Control leaves the handler for `run`, so the signal must not stay blocked.
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
    for (int const number : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGALRM})
        sigaction(number, &action, nullptr);
}

// Restores the library, the heap and the kernel's objects to their state right after
// loading, which the first call saves.
void return_to_load_state() {
    static bool kept = false;
    if (kept) {
        snapshot::restore();
        heap::restore();
        restore_objects();
        restore_slots();
        return;
    }
    kept = true;
    catch_signals();
    map_stacks();
    snapshot::keep();
    heap::keep();
    keep_objects();
    keep_slots();
}

unsigned int run_program(void*) {
    now->program.run(now->when.variant);
    return 0;
}

// The first thread.
void root_main() {
    run_entry(now->threads[now->self].state);
    settle();
    if (open_handles() != now->handles_at_balance)
        fail("kernel objects leaked: %u handles open, %u at the start", open_handles(),
             now->handles_at_balance);
    if (heap::blocks() != now->blocks_at_balance)
        fail("heap memory leaked: %u blocks in use, %u at the start", heap::blocks(),
             now->blocks_at_balance);
    if (char const* const damage = heap::damage())
        fail("%s", damage);
    now->result.passed = true;
    leave();
}

generator seeds_of(schedule const& when) {
    std::uint64_t const seed = when.how != strategy::choices ? when.seed : 0;
    return {seed * 0x2545f4914f6cdd1d + when.variant * 977u + 1};
}

}  // namespace

world::world(scenario const& which, schedule const& how, unsigned int steps_shown)
    : program(which),
      when(how),
      seeds(seeds_of(how)),
      input{seeds.next()},
      choices(how, which.preemptions, seeds),
      reuses_memory(how.how != strategy::choices && seeds.below(2) == 0),
      plain_points(how.how != strategy::choices && seeds.below(8) == 0),
      log(steps_shown),
      clock(clock_at_start),
      interleaving(hash_start ^ how.variant) {}

void fail_run(std::string failure) {
    fail_in_frame(std::move(failure), __builtin_frame_address(0));
}

outcome run_and_trace(scenario const& program, schedule const& when, unsigned int steps_shown,
                      std::vector<choice_point>& points) {
    return_to_load_state();
    world fresh(program, when, steps_shown);
    heap::reuse(fresh.reuses_memory);
    plain_points = fresh.plain_points;
    now = &fresh;
    balance();
    thread_state first{};
    first.affinity = fresh.computer.process_mask;
    first.entry = run_program;
    add_thread(fresh.root, first, root_main);
    alarm(patience);
    switch_to(fresh.home, fresh.threads[fresh.root].self);
    alarm(0);
    now = nullptr;
    plain_points = false;
    fresh.result.interleaving = fresh.interleaving;
    fresh.result.steps = fresh.steps;
    points = fresh.choices.points();
    return fresh.result;
}

outcome run(scenario const& program, schedule const& when, unsigned int steps_shown) {
    std::vector<choice_point> points;
    return run_and_trace(program, when, steps_shown, points);
}

}  // namespace ovel::simulation

namespace ovel {

// Replaces the library's own, which would end the process.
void assure_failed(char const* expression, char const* file, int line) {
    using namespace simulation;
    if (running() && refused() != 0)
        for (char const* const each : now->expected)
            if (each != nullptr && std::strcmp(expression, each) == 0) {
                now->result.passed = now->result.reported = true;
                leave();
            }
    fail("assure_failed(%s, %s, %d)", expression, file, line);
}

}  // namespace ovel
