// SPDX-License-Identifier: Apache-2.0
// The group clock: the cost of a reading, and of a wait that ends at its deadline.
#include "ovel_benchmark.h"
#include "ovel_condition.h"
#include "ovel_mutex.h"
#include "ovel_std.h"
#include "ovel_time.h"

#include <time.h>
#include <x86intrin.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

namespace {

using ovel_benchmark::placement;

// One thread that reads repeatedly.
template <class Read>
void read_alone(std::string const& row, std::string const& name, Read const& read) {
    ovel_benchmark::contestant(row, name, [read](benchmark::State& state) {
        ovel_benchmark::pin const bound(1);
        for (auto _ : state)
            benchmark::DoNotOptimize(read());
    });
}

// Two threads that read; the figure is the readings of both per second.
template <class Read>
void read_by_two(std::string const& row, std::string const& name, Read const& read) {
    ovel_benchmark::timed_contestant(row, name, [read](benchmark::State& state) {
        constexpr int readings = 20'000;
        for (auto _ : state) {
            auto const work = [&](int) {
                for (int i = 0; i < readings; ++i)
                    benchmark::DoNotOptimize(read());
            };
            state.SetIterationTime(ovel_benchmark::run_together(2, placement::anywhere, work));
        }
        state.SetItemsProcessed(state.iterations() * 2 * readings);
    });
}

// The processor time of the process so far, in seconds.
double processor_time() {
    timespec now;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// A wait of 1.49 ms that ends at its deadline, made by `timeout(lock)` while another
// owner holds the lock. The figure is the processor time that each wait takes, over all
// threads.
template <class Lock, class Timeout>
void time_out(std::string const& row, std::string const& name, Timeout const& timeout) {
    ovel_benchmark::contestant(row, name, [timeout](benchmark::State& state) {
        Lock lock;
        lock.lock();
        constexpr auto span = std::chrono::microseconds(1490);
        static_cast<void>(timeout(lock, span));  // starts everything that it needs
        double const start = processor_time();
        for (auto _ : state)
            if (timeout(lock, span))
                state.SkipWithError("a wait that nobody ends came to an end");
        state.counters["seconds"] =
            (processor_time() - start) / static_cast<double>(state.iterations());
    });
}

std::int64_t system_clock() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1'000'000'000 + now.tv_nsec;
}

std::int64_t steady_clock() {
    return std::chrono::steady_clock::now().time_since_epoch().count();
}

}  // namespace

void ovel_benchmark::register_rows() {
    read_alone("own_counter", "ovel", [] { return ovel::time_base::now().value(); });
    read_alone("own_counter", "rdtsc", [] { return __rdtsc(); });
    read_alone("own_counter", "clock_gettime", system_clock);
    read_alone("own_counter", "std::steady_clock", steady_clock);

    read_alone("one_clock", "ovel", [] { return ovel::time::now().value(); });
    read_alone("one_clock", "clock_gettime", system_clock);
    read_alone("one_clock", "std::steady_clock", steady_clock);
    contestant("one_clock", "ovel's bound: a line each way", two_lines_round_trip);
    contestant("one_clock", "floor", line_round_trip);

    read_by_two("one_clock_two_threads", "ovel", [] { return ovel::time::now().value(); });
    read_by_two("one_clock_two_threads", "clock_gettime", system_clock);
    read_by_two("one_clock_two_threads", "std::steady_clock", steady_clock);

    using ovel_mutex = ovel::lockable<ovel::timed_mutex>;
    auto const try_lock = [](auto& lock, auto span) {
        return lock.try_lock_for(span);
    };
    time_out<ovel_mutex>("timeout_of_a_mutex", "ovel", try_lock);
    time_out<ovel_mutex>("timeout_of_a_mutex", "ovel, in ticks", [](auto& lock, auto span) {
        return lock.timed_acquire(ovel::deadline(span));
    });
    time_out<std::timed_mutex>("timeout_of_a_mutex", "std::timed_mutex", try_lock);

    auto const never = [] {
        return false;
    };
    time_out<ovel_mutex>("timeout_of_a_condition", "ovel", [never](auto& lock, auto span) {
        ovel::timed_condition changed;
        return wait_for(changed, lock, span, never);
    });
    time_out<std::mutex>("timeout_of_a_condition", "std::condition_variable",
                         [never](auto& lock, auto span) {
                             std::condition_variable changed;
                             std::unique_lock hold(lock, std::adopt_lock);
                             bool const came = changed.wait_for(hold, span, never);
                             hold.release();
                             return came;
                         });
}
