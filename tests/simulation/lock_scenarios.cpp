// SPDX-License-Identifier: Apache-2.0
// Locks: no two threads are inside together, and no wake-up is lost.

#include "accounts.h"

namespace ovel::simulation {

namespace {

template <class Lock>
constexpr bool is_timed = requires(Lock& lock, time const& deadline) {
    lock.timed_acquire(deadline);
};

// Takes the lock by one of its operations; false when that timed out.
template <class Lock>
bool take(Lock& lock, unsigned int way, time const& deadline) {
    if (way == 1)
        return lock.try_acquire();
    if constexpr (is_timed<Lock>)
        if (way == 2)
            return lock.timed_acquire(deadline);
    lock.acquire();
    return true;
}

// Threads take one lock and check that they are alone. A thread that timed out has changed
// nothing, so at the end the lock is free.
template <class Lock, int... units>
void exclude_each_other(unsigned int spin) {
    open_books(is_timed<Lock>, spin);
    Lock lock(units..., spin);
    time const deadline = is_timed<Lock> ? time::then(0.01) : time();
    detail::atomic<int> inside = 0;
    unsigned int const thread_count = walks() ? 2 : 2 + pick(2);
    unsigned int const rounds = walks() ? 1 : 4 - thread_count;
    auto const body = [&](unsigned int first_way) {
        for (unsigned int round = 0; round != rounds; ++round) {
            if (!take(lock, (first_way + round) % 3, deadline))
                continue;
            assure(inside.fetch_add(1) == 0);
            if constexpr (is_reentrant<Lock>) {
                assure(take(lock, (first_way + round + 1) % 3, time()));
                typename Lock::state saved;
                lock.release(saved, false);
                lock.acquire(saved, false);
                lock.release();
            }
            assure(inside.fetch_sub(1) == 1);
            lock.release();
        }
    };
    begin();
    {
        std::deque<worker> others;
        for (unsigned int other = 1; other != thread_count; ++other)
            others.emplace_back([&, way = pick(3)] { body(way); });
        body(pick(3));
    }
    assure(lock.try_acquire());
    lock.release();
}

void exclusion(unsigned int variant) {
    constexpr void (*of[])(unsigned int) = {
        exclude_each_other<semaphore, 1>,    exclude_each_other<timed_semaphore, 1>,
        exclude_each_other<mutex>,           exclude_each_other<timed_mutex>,
        exclude_each_other<recursive_mutex>, exclude_each_other<timed_recursive_mutex>};
    of[variant / 2](variant % 2 * 2);
}

// The fast paths make no kernel call without contention, and pause once when a semaphore of
// spin 0 is empty.
void fast_paths(unsigned int) {
    semaphore units(1, 0);
    unsigned int const calls = kernel_calls();
    begin();
    units.acquire();
    units.release();
    units.release();
    units.acquire();
    units.acquire();
    assure(!units.try_acquire());
    assure(kernel_calls() == calls);
    worker waiter([&] {
        units.acquire();
        assure(pauses() == 1);
    });
    settle();
    units.release();
    waiter.join();
    // The wait, the post, and the join.
    assure(kernel_calls() == calls + 3);
}

// After a wait that spun in vain the next one sleeps at once, after a second the next three:
// with more threads than processors, spinning keeps the thread waited for from running.
void spins_less_in_vain(unsigned int) {
    constexpr unsigned int spin = 4;
    constexpr unsigned int spun = 1 + spin;
    semaphore units(0, spin);
    begin();
    worker waiter([&] {
        for (unsigned int const expected : {spun, 1u, spun, 1u, 1u, 1u, spun, 1u}) {
            unsigned int const before = pauses();
            units.acquire();
            assure(pauses() - before == expected);
        }
    });
    for (int wait = 0; wait != 8; ++wait) {
        settle();
        units.release();
    }
}

// A thread that finds a mutex with three sleepers sleeps at once, even when it is its turn to
// spin: it would see the unit only after all of them.
void sleeps_behind_sleepers(unsigned int) {
    constexpr unsigned int spin = 16;
    mutex contended(spin);
    begin();
    contended.acquire();
    {
        std::deque<worker> sleepers;
        // Two spin in vain. After the second, three would have a rest and one would spin.
        for (unsigned int const expected : {spin, 0u, spin, 0u, 0u, 0u, 0u}) {
            sleepers.emplace_back([&contended, expected] {
                unsigned int const before = pauses();
                contended.acquire();
                assure(pauses() - before == expected);
                contended.release();
            });
            settle();
        }
        contended.release();
    }
}

unsigned int volatile flags[2];
detail::atomic<unsigned int>* runs;

// Two flags, one function inside the other: each runs once, and a thread that returns finds
// both complete.
void inner() {
    ++runs[1];
}
void outer() {
    ++runs[0];
    call_once(inner, flags[1]);
    ++runs[0];
}

void once(unsigned int variant) {
    detail::atomic<unsigned int> counts[2] = {0, 0};
    runs = counts;
    flags[0] = 0;
    flags[1] = 0;
    auto const body = [&] {
        call_once(outer, flags[0]);
        assure(counts[0] == 2 && counts[1] == 1);
    };
    begin();
    {
        worker second(body);
        worker third([&] { variant == 1 ? call_once(inner, flags[1]) : body(); });
        body();
    }
    unsigned int const handles = open_handles();
    body();
    assure(open_handles() == handles);
}

// The first reading, by any thread, starts one server. Readings never go back, not even between
// threads. The clock is read on one processor as long as the process may use that, then on the
// lowest; also when other threads read it while the processors change.
void clock_readings(unsigned int variant) {
    struct {
        unsigned int process;
        DWORD_PTR clock;
    } const changes[] = {{12, 4}, {8, 8}, {10, 8}, {2, 2}, {3, 2}, {15, 2}, {12, 4}};
    set_processors(4, 12);
    set_default_spin(variant == 0 ? 2 : 0);
    detail::atomic<std::int64_t> latest = 0;
    auto const read = [&] {
        std::int64_t const before = latest;
        std::int64_t const reading = time::now().value();
        assure(reading >= before);
        std::int64_t known = latest;
        while (known < reading && !latest.compare_exchange_strong(known, reading)) {}
    };
    begin();
    {
        auto const body = [&] {
            read();
            read();
        };
        worker second(body), third(body);
        for (auto const& [process, clock] : changes) {
            thread_support::process_affinity(process);
            read();
            assure(counter_mask() == clock);
        }
    }
    settle();
    assure(threads() == 2);
    // The server stays, with its thread.
    balance();
}

// Ten seconds are ten seconds, whatever the clock's rate; the longest wait is that
// of 2147483647 milliseconds.
void exact_time(unsigned int variant) {
    constexpr unsigned int rates[] = {0, 2000, 3000, 1};
    set_clock_rate(rates[variant]);
    double const rate = rates[variant] == 0 ? 2e9 : rates[variant] * 1e6;
    time::now();
    balance();
    assure(time_support::time_unit() == 1.0 / rate);
    assure(time::seconds(10.0).value() == static_cast<std::int64_t>(10.0 / (1.0 / rate)));
    timed_semaphore units(0, 0);
    double late = 0.0;
    auto const passed = [&](double seconds, auto const& wait) {
        std::uint64_t const start = nanoseconds();
        wait();
        double const took = static_cast<double>(nanoseconds() - start) * 1e-9;
        assure(took >= seconds - 0.0006 && took <= seconds + late + 0.0006);
    };
    begin();
    passed(10.0, [] { thread_support::timed_yield(time::then(10.0)); });
    passed(0.0, [] { thread_support::timed_yield(time::seconds(-1e300)); });
    passed(10.0, [&] { assure(!units.timed_acquire(time::then(10.0))); });
    passed(2147483.647, [&] { assure(!units.timed_acquire(time::then(3e6))); });
    passed(2147483.647, [] { thread_support::timed_yield(time::then(3e6)); });
    units.release();
    passed(0.0, [&] { assure(units.timed_acquire(time::then(-1.0))); });
    passed(0.0, [&] { assure(!units.timed_acquire(time::seconds(-1e300))); });
    end_waits_late(5000);
    late = 5.0;
    passed(1.0, [&] { assure(!units.timed_acquire(time::then(1.0))); });
}

registration const table{
    {.name = "lock_excludes", .run = exclusion, .variants = 12, .exhaustive = true},
    {.name = "semaphore_keeps_out_of_the_kernel", .run = fast_paths},
    {.name = "semaphore_spins_less_after_spinning_in_vain", .run = spins_less_in_vain},
    {.name = "mutex_sleeps_behind_sleepers", .run = sleeps_behind_sleepers},
    {.name = "call_once_runs_once", .run = once, .variants = 2, .exhaustive = true},
    {.name = "time_server_is_one_and_stays_where_it_may", .run = clock_readings, .variants = 2},
    {.name = "time_is_exact", .run = exact_time, .variants = 4},
};

}  // namespace

}  // namespace ovel::simulation
