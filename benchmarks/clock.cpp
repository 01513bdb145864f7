// SPDX-License-Identifier: Apache-2.0
// The group clock: what a reading costs.
#include "ovel_benchmark.h"
#include "ovel_time.h"

#include <time.h>
#include <x86intrin.h>

#include <chrono>

namespace {

using ovel_benchmark::placement;

// One thread that reads over and over.
template <class Read>
void read_alone(std::string const& row, std::string const& name, Read const& read) {
    ovel_benchmark::contestant(row, name, [read](benchmark::State& state) {
        ovel_benchmark::pin const bound(1);
        for (auto _ : state)
            benchmark::DoNotOptimize(read());
    });
}

// Two threads that do; the figure is the readings of both in a second.
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
}
