// The scheduler of the simulated kernel.
//
// A run. Every thread of the program is a fiber; one of them runs, on the one
// thread of the system, until it reaches a scheduling point: a kernel service that
// others can notice, an access to an atomic word, a pause hint. There the scheduler
// chooses who goes on. What lies between two points is indivisible, so the points
// are all that an order of steps can differ in, provided that fields shared
// without a lock are atomic, which the race checker sees to. The point comes
// before the step: a thread that is not chosen has its step still to make.
// Services that concern the calling thread alone are no points: where they fall
// among other threads' steps makes no difference.
//
// Sameness. A run is a function of the program and its schedule. It begins with
// the library's variables and the heap as the library's load left them
// (snapshot.h, heap.h); stacks and heap lie at fixed addresses; the clock is the
// number of steps and the sleeps skipped; choices come from a generator that the
// schedule's seed starts. Nothing is carried from one run to the next.
//
// Threads are ready or wait. The kernel's objects make their waiters ready
// (objects.cpp). A wait with a deadline is made ready when the clock passes it.
//
// The clock advances by `tick` a step. When nobody is ready it jumps to the
// earliest deadline; when somebody is, that jump is one more alternative of the
// choice, as if an ordinary thread were the clock: all the others are then merely
// slow. So a deadline races with everything before it, however far ahead it is.
// When nobody is ready and nobody has a deadline, that is a deadlock, which is how
// a lost wake-up shows.
//
// Choices.
//   random      every ready thread is as likely as another.
//   sticky      a thread goes on with a probability of 7/8, so that long stretches
//               of one thread meet single steps of another.
//   priorities  threads, and the clock, get random priorities and the highest
//               ready one runs; at few random steps whoever runs falls below all.
//               A fault that needs d steps in a certain order is met with a
//               probability of about 1 / (threads * steps ^ (d - 1)), whatever
//               else there is between them.
//   choices     the first alternative everywhere but at the listed points: to go
//               on, else the next ready thread in turn. `walk` enumerates the lists.
// How readily the clock jumps is drawn once a run, from never to often. A pause
// hint and `Sleep(0)` give way: with priorities the thread falls below the others,
// with choices the next thread's turn costs no preemption. Otherwise a spinning
// thread would keep the one it waits for from running.
//
// Plain accesses. What the library accesses without an atomic word must be kept to
// one thread at a time by locks; a lock that is missing would not show if nobody
// could come between two such accesses. So the library is compiled to announce them
// (plain.cpp), and in one drawn schedule of eight they are scheduling points as well,
// from the second thread on that accesses a word.
// Two threads that are both about to access the same memory, one of them to write,
// have no lock between them: that race ends the run, whatever the accesses would do.
//
// A run ends when the first thread returns and all others have come to rest, or at
// once when it fails: control leaves the fibers, which are abandoned, for `run`.
//
// Outside a run, while the library is loaded and unloaded, services take effect at
// once and nothing is scheduled.

#include "scheduler.h"

#include "atomic.h"
#include "fiber.h"
#include "heap.h"
#include "ovel_assure.h"
#include "snapshot.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <signal.h>
#include <ucontext.h>
#include <unistd.h>
#include <algorithm>
#include <bit>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iterator>
#include <typeinfo>

namespace ovel::simulation {

constinit bool plain_points = false;

namespace {

constexpr std::uint64_t tick = 20;  // nanoseconds a step
constexpr unsigned int calls_recorded = 12;
constexpr unsigned int the_clock = slot_count;  // an alternative of a choice
constexpr unsigned int nobody = slot_count + 1;

// The minimal state of a good generator (splitmix).
struct generator {
    std::uint64_t state;

    std::uint64_t next() {
        state += 0x9e3779b97f4a7c15;
        std::uint64_t mixed = state;
        mixed = (mixed ^ (mixed >> 30)) * 0xbf58476d1ce4e5b9;
        mixed = (mixed ^ (mixed >> 27)) * 0x94d049bb133111eb;
        return mixed ^ (mixed >> 31);
    }
    unsigned int below(unsigned int bound) {
        return static_cast<unsigned int>((next() >> 32) * bound >> 32);
    }
};

struct thread {
    fiber self;
    thread_state state;
    std::uint64_t deadline;  // while it blocks; else `never`
    std::uint64_t priority;  // strategy::priorities
    operation doing;         // its next step, or the one it blocks in
    bool on_object;          // whether that concerns a kernel object
    std::uintptr_t object;   // number or address
    std::size_t size;        // of a plain access, in bytes
};

struct step {
    unsigned int number;
    unsigned int thread;
    operation what;
    bool on_object;
    bool noted;
    std::uintptr_t object;
    void* caller;
    std::uint64_t found, left;
    std::uint64_t at;
};

enum class phase { idle, preparing, exploring, settling };

struct world {
    phase state;
    scenario const* program;
    schedule const* when;
    fiber home;
    thread threads[slot_count];
    threads_mask alive, ready, timed, late;
    unsigned int self;     // slot of the running thread
    unsigned int created;  // threads so far
    unsigned int creator;  // slot of a thread that waits for a new one's first point
    unsigned int root;     // slot of the first thread
    bool root_settles;     // it waits for all others to come to rest
    std::uint64_t clock;
    std::uint64_t next_deadline;  // of those in `timed` and not in `late`
    std::uint64_t interleaving;
    unsigned int steps;
    machine computer;
    generator choice, input;
    unsigned int clock_odds;    // strategies random and sticky: 0 never, else 1 in n
    unsigned int change_at[8];  // strategy::priorities: steps, ascending
    unsigned int changes, changed;
    std::uint64_t clock_priority, lowest_priority;
    unsigned int points;  // strategy::choices: so far
    unsigned int next_deviation;
    unsigned int preemptions;
    unsigned int handles_at_balance, blocks_at_balance;
    unsigned int memory_requests, memory_first, memory_count;
    unsigned int object_requests, object_first, object_count;
    unsigned int refusals;
    unsigned int late_by;
    unsigned int kernel_calls;
    char const* expected[4];
    bool in_access;  // between the two ends of an atomic access
    unsigned int ring_size, recorded;
};

world now;

struct buffers {
    std::vector<step> ring;
    std::vector<unsigned char> alternatives;  // by point, strategy::choices
    std::vector<unsigned char> taken;
    outcome result;
};
buffers kept;

// Stands for the caller outside a run.
thread_state outside = {0, 0, 0, 0, 3, nullptr, nullptr, {}};

constexpr threads_mask bit(unsigned int slot) {
    return threads_mask{1} << slot;
}

unsigned int lowest(threads_mask threads) {
    return static_cast<unsigned int>(std::countr_zero(threads));
}

// The ready thread that comes after `slot` in turn; `slot` itself last.
unsigned int next_in_turn(threads_mask threads, unsigned int slot) {
    threads_mask const after =
        slot + 1 == slot_count ? 0 : threads & (~threads_mask{0} << (slot + 1));
    return lowest(after != 0 ? after : threads);
}

// Reports.

char const* const operation_names[] = {
    "load",        "store",          "exchange",     "add",
    "compare",     "bits",           "pause",        "begin",
    "end",         "Sleep",          "Wait",         "acquired",
    "timed out",   "Release",        "ReleaseMutex", "CreateSemaphore",
    "CreateMutex", "_beginthreadex", "CloseHandle",  "malloc",
    "free",        "__rdtsc",        "SetAffinity",  "clock jumps"};

void append(std::string& text, char const* format, ...) __attribute__((format(printf, 2, 3)));
void append(std::string& text, char const* format, ...) {
    char line[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    text += line;
}

// A function's name, without its parameters.
std::string function_at(void const* call) {
    Dl_info found;
    auto const before = static_cast<char const*>(call) - 1;
    if (dladdr(before, &found) == 0)
        return "?";
    std::string text;
    if (found.dli_sname != nullptr) {
        int status = 0;
        char* const plain = abi::__cxa_demangle(found.dli_sname, nullptr, nullptr, &status);
        text = status == 0 ? plain : found.dli_sname;
        std::free(plain);
        if (std::size_t const end = text.find('('); end != std::string::npos && end != 0)
            text.resize(end);
        return text;
    }
    char const* const file = std::strrchr(found.dli_fname, '/');
    append(text, "%s+0x%zx", file != nullptr ? file + 1 : found.dli_fname,
           static_cast<std::size_t>(before - static_cast<char const*>(found.dli_fbase)));
    return text;
}

std::string place(std::uintptr_t address) {
    auto const pointer = reinterpret_cast<void const*>(address);
    std::string text;
    if (address == 0)
        return text;
    if (heap::contains(pointer)) {
        append(text, "heap+0x%zx", static_cast<std::size_t>(address & 0xffffffff));
        return text;
    }
    for (unsigned int slot = 0; slot != slot_count; ++slot) {
        auto const low = reinterpret_cast<std::uintptr_t>(stack(slot));
        if (address >= low && address < low + stack_bytes) {
            append(text, "stack %u+0x%zx", slot,
                   static_cast<std::size_t>(low + stack_bytes - address));
            return text;
        }
    }
    Dl_info found;
    if (dladdr(pointer, &found) != 0 && found.dli_sname != nullptr)
        return function_at(static_cast<char const*>(pointer) + 1);
    append(text, "%p", pointer);
    return text;
}

std::string target(operation what, bool on_object, std::uintptr_t object) {
    if (!on_object)
        return place(object);
    std::string text;
    append(text, what == operation::begin || what == operation::end ? "thread %zu" : "#%zu",
           static_cast<std::size_t>(object));
    return text;
}

std::string steps_text() {
    std::string text;
    unsigned int const count = now.recorded < now.ring_size ? now.recorded : now.ring_size;
    for (unsigned int each = now.recorded - count; each != now.recorded; ++each) {
        step const& one = kept.ring[each % now.ring_size];
        append(text, "  %5u %10llu ns  thread %-2u %-15s %-18s", one.number,
               static_cast<unsigned long long>(one.at), one.thread,
               operation_names[static_cast<unsigned int>(one.what)],
               target(one.what, one.on_object, one.object).c_str());
        if (one.noted && one.found != one.left)
            append(text, " %lld -> %lld",
                   static_cast<long long>(static_cast<std::int32_t>(one.found)),
                   static_cast<long long>(static_cast<std::int32_t>(one.left)));
        else if (one.noted)
            append(text, " %lld", static_cast<long long>(static_cast<std::int32_t>(one.found)));
        if (one.caller != nullptr)
            append(text, "  in %s", function_at(one.caller).c_str());
        text += '\n';
    }
    return text;
}

// Where a fault was raised, for the backtrace of the running thread.
void* fault_frame;
void* fault_call;

std::string threads_text() {
    std::string text;
    for (threads_mask rest = now.alive; rest != 0; rest &= rest - 1) {
        unsigned int const slot = lowest(rest);
        thread const& each = now.threads[slot];
        bool const runs = slot == now.self && (now.ready & bit(slot)) != 0;
        append(text, "  thread %-2u ", each.state.number);
        if (runs) {
            text += "runs";
        } else if ((now.ready & bit(slot)) != 0) {
            append(text, "is ready for %s %s",
                   operation_names[static_cast<unsigned int>(each.doing)],
                   target(each.doing, each.on_object, each.object).c_str());
        } else if (slot == now.root && now.root_settles) {
            text += "waits for the others to come to rest";
        } else if (each.doing == operation::sleep) {
            text += "sleeps";
        } else {
            char object[96];
            describe_object(static_cast<unsigned int>(each.object), object, sizeof object);
            append(text, "waits for %s", object);
        }
        if (each.deadline != never)
            append(text, ", until %llu ns", static_cast<unsigned long long>(each.deadline));
        text += "\n";
        void* calls[calls_recorded];
        unsigned int count = 0;
        if (runs) {
            // As if it had been suspended where it failed.
            fiber here;
            here.stack_pointer = static_cast<void**>(fault_frame) - 5;
            count = calls_of(here, slot, calls, calls_recorded);
        } else {
            count = calls_of(each.self, slot, calls, calls_recorded);
        }
        for (unsigned int call = 0; call != count; ++call) {
            std::string const function = function_at(calls[call]);
            if (function.find("ovel::simulation::") == std::string::npos ||
                function.find("worker") != std::string::npos)
                append(text, "             in %s\n", function.c_str());
        }
    }
    return text;
}

[[noreturn]] void leave() {
    now.state = phase::idle;
    fiber abandoned;
    switch_to(abandoned, now.home);
    __builtin_unreachable();
}

[[noreturn]] void fail_run(std::string failure) {
    if (now.state == phase::idle) {
        std::fprintf(stderr, "simulation, outside a run: %s\n", failure.c_str());
        std::fflush(stderr);
        _exit(2);
    }
    if (fault_frame == nullptr)
        fault_frame = __builtin_frame_address(0);
    outcome& result = kept.result;
    result.passed = false;
    result.failure = std::move(failure);
    if (now.ring_size != 0)
        result.report = "last steps:\n" + steps_text();
    result.report += "threads:\n" + threads_text();
    leave();
}

// Choices.

unsigned int choose_first(threads_mask ready, unsigned int self, bool goes_on, bool yields) {
    if (goes_on && !yields)
        return self;
    return next_in_turn(ready, self);
}

unsigned int choose_random(threads_mask ready, unsigned int self, bool goes_on, bool yields,
                           bool clock) {
    if (clock && now.clock_odds != 0 && now.choice.below(now.clock_odds) == 0)
        return the_clock;
    if (now.when->how == strategy::sticky && goes_on && !yields && now.choice.below(8) != 0)
        return self;
    unsigned int skip = now.choice.below(static_cast<unsigned int>(std::popcount(ready)));
    while (skip-- != 0)
        ready &= ready - 1;
    return lowest(ready);
}

unsigned int choose_by_priority(threads_mask ready, unsigned int self, bool goes_on, bool yields,
                                bool clock) {
    if (goes_on && yields)
        now.threads[self].priority = --now.lowest_priority;
    while (now.changed != now.changes && now.steps >= now.change_at[now.changed]) {
        ++now.changed;
        if (goes_on)
            now.threads[self].priority = --now.lowest_priority;
    }
    unsigned int best = lowest(ready);
    for (threads_mask rest = ready & (ready - 1); rest != 0; rest &= rest - 1)
        if (now.threads[lowest(rest)].priority > now.threads[best].priority)
            best = lowest(rest);
    if (clock && now.clock_priority > now.threads[best].priority) {
        now.clock_priority = now.choice.next() >> 16 | std::uint64_t{1} << 32;
        return the_clock;
    }
    return best;
}

unsigned int choose_listed(threads_mask ready, unsigned int self, bool goes_on, bool yields,
                           bool clock) {
    unsigned int const first = choose_first(ready, self, goes_on, yields);
    bool const others_free = !goes_on;
    bool const can_preempt = now.preemptions != now.program->preemptions;
    // The first, the others in turn, the clock.
    unsigned int options[slot_count + 1];
    unsigned int count = 1;
    options[0] = first;
    if (others_free || can_preempt) {
        threads_mask rest = ready & ~bit(first);
        for (unsigned int each = first; rest != 0; ++count) {
            each = next_in_turn(rest, each);
            rest &= ~bit(each);
            options[count] = each;
        }
    }
    if (clock && can_preempt)
        options[count++] = the_clock;
    if (count == 1)
        return first;
    unsigned int const at = now.points++;
    unsigned int take = 0;
    auto const& listed = now.when->deviations;
    if (now.next_deviation != listed.size() && listed[now.next_deviation].point == at)
        take = listed[now.next_deviation++].alternative;
    if (take >= count)
        fail_run("the list of choices does not fit this program");
    kept.alternatives.push_back(static_cast<unsigned char>(count));
    kept.taken.push_back(static_cast<unsigned char>(take));
    if (take != 0 && (!others_free || options[take] == the_clock))
        ++now.preemptions;
    return options[take];
}

unsigned int choose(threads_mask ready, unsigned int self, bool goes_on, bool yields) {
    if (now.state != phase::exploring)
        return choose_first(ready, self, goes_on, yields);
    bool const clock = now.next_deadline != never;
    if (!clock && (ready & (ready - 1)) == 0)
        return lowest(ready);
    switch (now.when->how) {
        case strategy::random:
        case strategy::sticky:
            return choose_random(ready, self, goes_on, yields, clock);
        case strategy::priorities:
            return choose_by_priority(ready, self, goes_on, yields, clock);
        case strategy::choices:
            break;
    }
    return choose_listed(ready, self, goes_on, yields, clock);
}

void find_next_deadline() {
    now.next_deadline = never;
    for (threads_mask rest = now.timed & ~now.late; rest != 0; rest &= rest - 1) {
        std::uint64_t const deadline = now.threads[lowest(rest)].deadline;
        if (deadline < now.next_deadline)
            now.next_deadline = deadline;
    }
}

void expire() {
    for (threads_mask rest = now.timed & ~now.late; rest != 0; rest &= rest - 1) {
        unsigned int const slot = lowest(rest);
        if (now.threads[slot].deadline <= now.clock) {
            now.late |= bit(slot);
            now.ready |= bit(slot);
        }
    }
    find_next_deadline();
}

step* record(operation what, bool on_object, std::uintptr_t object, void* caller) {
    if (now.ring_size == 0)
        return nullptr;
    step& one = kept.ring[now.recorded++ % now.ring_size];
    one = step{
        now.steps, now.threads[now.self].state.number, what, on_object, false, object, caller, 0, 0,
        now.clock};
    return &one;
}

void jump() {
    now.clock = now.next_deadline;
    now.interleaving = (now.interleaving ^ 0xc10c) * 0x100000001b3;
    record(operation::tick, false, 0, nullptr);
    expire();
}

void count_step() {
    now.clock += tick;
    unsigned int const limit = now.program->steps * (plain_points ? 16 : 1);
    if (++now.steps > limit)
        fail_run("livelock: more than " + std::to_string(limit) + " steps");
}

// Chooses who goes on and lets it; returns when the calling thread is chosen.
// `goes_on`: the caller is ready itself.
void dispatch(bool goes_on, bool yields) {
    unsigned int const self = now.self;
    if (now.clock >= now.next_deadline)
        expire();
    for (;;) {
        if (now.ready == 0) {
            if (now.next_deadline != never) {
                count_step();
                jump();
                continue;
            }
            if (!now.root_settles)
                fail_run("deadlock: every thread waits, none with a deadline");
            now.root_settles = false;
            now.ready |= bit(now.root);
        }
        unsigned int const chosen = choose(now.ready, self, goes_on, yields);
        if (chosen == the_clock) {
            count_step();
            jump();
            // Whoever the jump has made ready may go on at no further cost.
            goes_on = false;
            continue;
        }
        if (chosen != self) {
            now.self = chosen;
            switch_to(now.threads[self].self, now.threads[chosen].self);
        }
        break;
    }
    now.interleaving = (now.interleaving ^ now.threads[self].state.number) * 0x100000001b3;
}

void reach(operation what, bool on_object, std::uintptr_t object, void* caller, bool yields) {
    if (now.state == phase::idle)
        return;
    thread& self = now.threads[now.self];
    self.doing = what;
    self.on_object = on_object;
    self.object = object;
    if (now.creator != nobody) {
        // A new thread has come to its first point.
        unsigned int const slot = std::exchange(now.self, std::exchange(now.creator, nobody));
        switch_to(now.threads[slot].self, now.threads[now.self].self);
        now.interleaving = (now.interleaving ^ self.state.number) * 0x100000001b3;
    } else {
        count_step();
        dispatch(true, yields);
    }
    record(what, on_object, object, caller);
}

void run_body(thread_state const& state) {
    try {
        state.entry(state.argument);
    } catch (std::exception const& escaped) {
        fail_run(std::string("an exception left a thread: ") + escaped.what());
    } catch (...) {
        fail_run("an exception left a thread");
    }
}

void thread_main() {
    thread& self = now.threads[now.self];
    run_body(self.state);
    point(operation::end, self.state.number, nullptr);
    end_thread(self.state.object);
    unsigned int const slot = now.self;
    now.alive &= ~bit(slot);
    now.ready &= ~bit(slot);
    dispatch(false, false);
    __builtin_unreachable();
}

unsigned int run_program(void*) {
    now.program->run(now.when->variant);
    return 0;
}

void root_main() {
    run_body(now.threads[now.self].state);
    settle();
    if (open_handles() != now.handles_at_balance)
        fail("kernel objects leaked: %u handles open, %u at the start", open_handles(),
             now.handles_at_balance);
    if (heap::blocks() != now.blocks_at_balance)
        fail("heap memory leaked: %u blocks in use, %u at the start", heap::blocks(),
             now.blocks_at_balance);
    if (char const* const damage = heap::damage())
        fail("%s", damage);
    kept.result.passed = true;
    leave();
}

unsigned int free_slot() {
    return now.alive == ~threads_mask{0} ? nobody : lowest(~now.alive);
}

void add_thread(unsigned int slot, thread_state const& state, void (*main)()) {
    thread& added = now.threads[slot];
    added.state = state;
    added.state.number = ++now.created;
    added.deadline = never;
    added.priority = now.choice.next() >> 16 | std::uint64_t{1} << 32;
    added.doing = operation::begin;
    added.on_object = true;
    added.object = added.state.number;
    prepare(added.self, slot, main);
    now.alive |= bit(slot);
    now.ready |= bit(slot);
}

// A fault of the processor, an abort, or a run that makes no step for very long.
void on_signal(int number, siginfo_t* about, void* context) {
    auto const& registers = static_cast<ucontext_t*>(context)->uc_mcontext.gregs;
    fault_frame = reinterpret_cast<void*>(registers[REG_RBP]);
    fault_call = reinterpret_cast<void*>(registers[REG_RIP]);
    std::string text = number == SIGALRM ? "no step for many seconds" : strsignal(number);
    if (number == SIGSEGV || number == SIGBUS)
        append(text, " at %s", place(reinterpret_cast<std::uintptr_t>(about->si_addr)).c_str());
    append(text, " in %s", function_at(static_cast<char*>(fault_call) + 1).c_str());
    fail_run(text);
}

void catch_signals() {
    static bool done = false;
    if (done)
        return;
    done = true;
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

void keep_load_state() {
    static bool done = false;
    if (done) {
        snapshot::restore();
        heap::restore();
        restore_objects();
        restore_slots();
        return;
    }
    done = true;
    catch_signals();
    map_stacks();
    snapshot::keep();
    heap::keep();
    keep_objects();
    keep_slots();
}

}  // namespace

// The scheduler's side of the services.

bool running() {
    return now.state != phase::idle;
}

thread_state& current() {
    return running() ? now.threads[now.self].state : outside;
}

void point(operation what, void const volatile* object, void* caller, bool yields) {
    reach(what, false, reinterpret_cast<std::uintptr_t>(object), caller, yields);
}

void point(operation what, unsigned int object, void* caller, bool yields) {
    reach(what, true, object, caller, yields);
}

void note(std::uint64_t found, std::uint64_t left) {
    if (now.state == phase::idle || now.ring_size == 0)
        return;
    step& last = kept.ring[(now.recorded - 1) % now.ring_size];
    last.noted = true;
    last.found = found;
    last.left = left;
}

bool block(std::uint64_t deadline) {
    if (!running())
        fail_run("a wait outside a run would never end");
    unsigned int const slot = now.self;
    thread& self = now.threads[slot];
    now.ready &= ~bit(slot);
    self.deadline = deadline;
    if (deadline != never) {
        now.timed |= bit(slot);
        if (deadline < now.next_deadline)
            now.next_deadline = deadline;
    }
    dispatch(false, false);
    bool const late = (now.late & bit(slot)) != 0;
    now.timed &= ~bit(slot);
    now.late &= ~bit(slot);
    self.deadline = never;
    now.ready |= bit(slot);
    if (deadline != never)
        find_next_deadline();
    count_step();
    record(late ? operation::timed_out : operation::acquired, self.on_object, self.object, nullptr);
    return late;
}

threads_mask calling_thread() {
    return bit(now.self);
}

void make_ready(threads_mask threads) {
    now.ready |= threads & now.alive;
}

void make_unready(threads_mask threads) {
    if (running())
        now.ready &= ~(threads & ~now.late & ~bit(now.self));
}

std::uint64_t deadline_after(DWORD milliseconds) {
    if (milliseconds == INFINITE)
        return never;
    std::uint64_t const late = now.late_by == 0 ? 0 : now.input.below(now.late_by * 1000 + 1);
    return now.clock + milliseconds * std::uint64_t{1'000'000} + late * 1000;
}

bool start_thread(thread_state const& state) {
    unsigned int const slot = running() ? free_slot() : nobody;
    if (slot == nobody)
        return false;
    add_thread(slot, state, thread_main);
    // What it does before its first point concerns nobody else. To choose when it
    // does that would only multiply the schedules.
    now.creator = std::exchange(now.self, slot);
    switch_to(now.threads[now.creator].self, now.threads[slot].self);
    return true;
}

bool refuses_memory() {
    ++now.memory_requests;
    if (now.memory_requests - now.memory_first >= now.memory_count)
        return false;
    ++now.refusals;
    return true;
}

bool refuses_object() {
    ++now.object_requests;
    if (now.object_requests - now.object_first >= now.object_count)
        return false;
    ++now.refusals;
    return true;
}

void count_kernel_call() {
    ++now.kernel_calls;
}

machine& current_machine() {
    // As long as the library is loaded, and before the first run.
    if (now.computer.processors == 0)
        now.computer = {2, 3, 0};
    return now.computer;
}

// Atomic words.

void before_access(access kind, void const volatile* word) {
    if (now.state == phase::idle)
        return;
    reach(static_cast<operation>(kind), false, reinterpret_cast<std::uintptr_t>(word),
          __builtin_return_address(0), false);
    if (heap::is_stray(word))
        fail_run("an atomic word in freed memory was accessed: " +
                 place(reinterpret_cast<std::uintptr_t>(word)));
    now.in_access = true;
}

void after_access(std::uint64_t found, std::uint64_t left) {
    now.in_access = false;
    note(found, left);
}

// Plain accesses.

void access_plainly(void const* memory, std::size_t size, bool writes) {
    if (now.in_access || now.state != phase::exploring)
        return;
    auto const address = reinterpret_cast<std::uintptr_t>(memory);
    auto const own = reinterpret_cast<std::uintptr_t>(stack(now.self));
    // What lies on a thread's own stack is hardly ever shared.
    if (address - own < stack_bytes)
        return;
    if (heap::is_stray(memory))
        fail_run("freed memory was accessed: " + place(address));
    if (heap::contains(memory) && !heap::is_shared(memory, now.threads[now.self].state.number))
        return;
    for (threads_mask rest = now.alive & ~bit(now.self); rest != 0; rest &= rest - 1) {
        thread const& other = now.threads[lowest(rest)];
        bool const reads = other.doing == operation::read;
        if ((reads && !writes) || (!reads && other.doing != operation::write))
            continue;
        if (address < other.object + other.size && other.object < address + size)
            fail_run("race: threads " + std::to_string(now.threads[now.self].state.number) +
                     " and " + std::to_string(other.state.number) + " access " + place(address) +
                     " at the same time, and one writes");
    }
    now.threads[now.self].size = size;
    reach(writes ? operation::write : operation::read, false, address, __builtin_return_address(0),
          false);
    now.threads[now.self].doing = operation::begin;
}

bool spurious_failure() {
    return now.state == phase::exploring && now.when->how != strategy::choices &&
           now.choice.below(32) == 0;
}

// What scenarios call.

void balance() {
    now.handles_at_balance = open_handles();
    now.blocks_at_balance = heap::blocks();
}

void begin() {
    now.state = phase::exploring;
}

void settle() {
    phase const before = std::exchange(now.state, phase::settling);
    now.root_settles = true;
    now.ready &= ~bit(now.self);
    dispatch(false, false);
    now.state = before;
}

unsigned int pick(unsigned int bound) {
    return now.input.below(bound);
}

bool walks() {
    return now.when->how == strategy::choices;
}

void fail(char const* format, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    fail_run(text);
}

void expect_failure(char const* expression) {
    for (char const*& each : now.expected)
        if (each == nullptr) {
            each = expression;
            return;
        }
    fail("too many expected failures");
}

void set_processors(unsigned int count, DWORD_PTR process_mask) {
    now.computer.processors = count;
    now.computer.process_mask = process_mask;
    current().affinity = process_mask;
}

void set_clock_rate(unsigned int megahertz) {
    now.computer.megahertz = megahertz;
}

std::uint64_t nanoseconds() {
    return now.clock;
}

void end_waits_late(unsigned int milliseconds) {
    now.late_by = milliseconds;
}

void refuse_memory(unsigned int first, unsigned int count) {
    now.memory_first = now.memory_requests + first;
    now.memory_count = count;
}

void refuse_objects(unsigned int first, unsigned int count) {
    now.object_first = now.object_requests + first;
    now.object_count = count;
}

unsigned int refused() {
    return now.refusals;
}

unsigned int heap_blocks() {
    return heap::blocks();
}

unsigned int kernel_calls() {
    return now.kernel_calls;
}

unsigned int pauses() {
    return current().pauses;
}

unsigned int stack_size() {
    return current().stack_bytes;
}

unsigned int threads() {
    return static_cast<unsigned int>(std::popcount(now.alive));
}

unsigned int worker::_entry(void* self) {
    auto const me = static_cast<worker*>(self);
    me->_call(me->_body);
    return 0;
}

void worker::_start() {
    _thread = reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, _entry, this, 0, nullptr));
    if (_thread == nullptr)
        fail("a thread of the scenario was refused");
}

void worker::join() {
    if (_thread == nullptr)
        return;
    WaitForSingleObject(_thread, INFINITE);
    CloseHandle(_thread);
    _thread = nullptr;
    _delete(_body);
}

// Runs.

outcome run(scenario const& program, schedule const& when, unsigned int steps_shown) {
    keep_load_state();
    kept.result = outcome{};
    kept.alternatives.clear();
    kept.taken.clear();
    if (kept.ring.size() < steps_shown)
        kept.ring.resize(steps_shown);
    bool const drawn = when.how != strategy::choices;
    generator seeds{(drawn ? when.seed : 0) * 0x2545f4914f6cdd1d + when.variant * 977u + 1};

    now.program = &program;
    now.when = &when;
    now.alive = now.ready = now.timed = now.late = 0;
    now.self = now.root = 0;
    now.created = 0;
    now.creator = nobody;
    now.root_settles = false;
    now.clock = 1'000'000'000;
    now.next_deadline = never;
    now.interleaving = 0xcbf29ce484222325 ^ when.variant;
    now.steps = 0;
    now.computer = {2, 3, 0};
    now.input = {seeds.next()};
    now.choice = {seeds.next()};
    constexpr unsigned int odds[] = {0, 256, 32, 8};
    now.clock_odds = odds[seeds.below(4)];
    // Where the changes fall must not depend on how long earlier runs were: the
    // length of the run is guessed.
    unsigned int const length = 32u << seeds.below(8);
    now.changes = seeds.below(6);
    now.changed = 0;
    for (unsigned int each = 0; each != now.changes; ++each)
        now.change_at[each] = seeds.below(length);
    std::sort(now.change_at, now.change_at + now.changes);
    now.lowest_priority = std::uint64_t{1} << 32;
    now.clock_priority = seeds.next() >> 16 | std::uint64_t{1} << 32;
    if (seeds.below(2) == 0)
        now.clock_priority = 0;
    now.points = now.next_deviation = now.preemptions = 0;
    now.memory_requests = now.memory_first = now.memory_count = 0;
    now.object_requests = now.object_first = now.object_count = 0;
    now.refusals = now.late_by = now.kernel_calls = 0;
    std::fill(std::begin(now.expected), std::end(now.expected), nullptr);
    now.ring_size = steps_shown;
    now.recorded = 0;
    fault_frame = nullptr;
    heap::reuse(drawn && seeds.below(2) == 0);
    plain_points = drawn && seeds.below(8) == 0;
    now.in_access = false;

    balance();
    thread_state first{};
    first.affinity = 3;
    first.entry = run_program;
    add_thread(0, first, root_main);
    now.state = phase::preparing;
    alarm(20);
    switch_to(now.home, now.threads[0].self);
    alarm(0);
    kept.result.interleaving = now.interleaving;
    kept.result.steps = now.steps;
    return kept.result;
}

char const* name(strategy which) {
    constexpr char const* names[] = {"random", "sticky", "priorities", "choices"};
    return names[static_cast<unsigned int>(which)];
}

std::string replay_line(scenario const& program, schedule const& when) {
    std::string text;
    append(text, "simulation_test --scenario %s --variant %u --strategy %s", program.name,
           when.variant, name(when.how));
    if (when.how != strategy::choices) {
        append(text, " --seed %llu", static_cast<unsigned long long>(when.seed));
        return text;
    }
    text += " --choices ";
    for (deviation const& each : when.deviations)
        append(text, "%s%u:%u", &each == when.deviations.data() ? "" : ",", each.point,
               each.alternative);
    return text;
}

walk::walk(scenario const& program, unsigned int variant) : _program(program) {
    _last.how = strategy::choices;
    _last.variant = variant;
}

outcome walk::next(unsigned int steps_shown) {
    _last.deviations.clear();
    for (unsigned int at = 0; at != _path.size(); ++at)
        if (_path[at] != 0)
            _last.deviations.push_back({at, _path[at]});
    outcome result = run(_program, _last, steps_shown);
    // The last point with an alternative not yet taken, after which everything
    // is first again.
    _path = kept.taken;
    while (!_path.empty() && _path.back() + 1 == kept.alternatives[_path.size() - 1])
        _path.pop_back();
    _done = _path.empty();
    if (!_done)
        ++_path.back();
    return result;
}

}  // namespace ovel::simulation

namespace ovel {

// In place of the library's own, which would end the process.
void assure_failed(char const* expression, char const* file, int line) {
    using namespace simulation;
    if (now.state != phase::idle && now.refusals != 0)
        for (char const* const each : now.expected)
            if (each != nullptr && std::strcmp(expression, each) == 0) {
                kept.result.passed = kept.result.reported = true;
                leave();
            }
    fail("assure_failed(%s, %s, %d)", expression, file, line);
}

}  // namespace ovel
