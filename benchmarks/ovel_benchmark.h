// SPDX-License-Identifier: Apache-2.0
// What the groups of benchmarks share: registering rows, threads that start together, and
// floors that no contestant can beat.
//
// A group is one file, which defines `register_rows`; the `main` of ovel_benchmark.cpp
// calls it:
//
//     void ovel_benchmark::register_rows() {
//         contestant("uncontended_pair", "ovel", [](benchmark::State& state) {
//             ovel::plain_mutex lock;
//             for (auto _ : state) {
//                 lock.acquire();
//                 lock.release();
//             }
//         });
//         contestant("uncontended_pair", "std::mutex", ...);
//         contestant("uncontended_pair", "floor", two_locked_additions);
//     }
//
// The contestants of a row run in the order of their registration. Ours are called
// "ovel", or "ovel" with a blank and what distinguishes this one. A bound that the
// processor or the memory sets is called "floor". A row's figure is
//
//     a rate, more is better        with state.SetItemsProcessed, SetBytesProcessed
//     a share of 1, more is better  with state.counters["share"]
//     bytes, fewer are better       with state.counters["bytes"]
//     a time, less is better        with state.counters["seconds"], else that of an
//                                   iteration
#ifndef OVEL_BENCHMARK_H
#define OVEL_BENCHMARK_H

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace ovel_benchmark {

// Registers the rows of the group. Defined by the group.
void register_rows();

// Registers `name` in `row`, timed by the wall clock around each iteration.
template <class Run>
benchmark::internal::Benchmark* contestant(std::string const& row, std::string const& name,
                                           Run&& run) {
    return benchmark::RegisterBenchmark((row + '/' + name).c_str(), std::forward<Run>(run))
        ->UseRealTime();
}

// The same for a `run` that measures itself: it calls `state.SetIterationTime(seconds)`
// in each iteration.
template <class Run>
benchmark::internal::Benchmark* timed_contestant(std::string const& row, std::string const& name,
                                                 Run&& run) {
    return benchmark::RegisterBenchmark((row + '/' + name).c_str(), std::forward<Run>(run))
        ->UseManualTime();
}

// The contestant that this process measures, if that depends on the libraries loaded at
// start: OVEL_BENCHMARK_CONTESTANT from the environment, or "ovel".
std::string process_contestant();

// Whether a thread is pinned to one processor, or runs wherever the system schedules it.
enum class placement { pinned, anywhere };

// Pins the calling thread to the `member`-th processor of the process, modulo their
// number, until the end of the scope.
class pin {
public:
    explicit pin(int member);
    ~pin();
    pin(pin const&) = delete;
    pin& operator=(pin const&) = delete;

private:
    std::vector<unsigned char> _before;  // the mask to restore
};

// Runs `work(0)` to `work(members - 1)` on one thread each. They start together once all
// are ready. Returns the seconds from the start of the first to the end of the last.
template <class Work>
double run_together(int members, placement where, Work const& work) {
    using clock = std::chrono::steady_clock;
    std::atomic<int> awaited = members;
    std::vector<clock::time_point> starts(static_cast<std::size_t>(members));
    std::vector<clock::time_point> ends = starts;
    std::vector<std::jthread> threads;
    for (int member = 0; member < members; ++member) {
        threads.emplace_back([&, member] {
            auto const run = [&] {
                awaited.fetch_sub(1);
                while (awaited.load() != 0)
                    std::this_thread::yield();
                starts[static_cast<std::size_t>(member)] = clock::now();
                work(member);
                ends[static_cast<std::size_t>(member)] = clock::now();
            };
            if (where == placement::pinned) {
                pin const bound(member);
                run();
            } else {
                run();
            }
        });
    }
    threads.clear();
    clock::time_point first = starts[0];
    clock::time_point last = ends[0];
    for (std::size_t member = 1; member < starts.size(); ++member) {
        first = std::min(first, starts[member]);
        last = std::max(last, ends[member]);
    }
    return std::chrono::duration<double>(last - first).count();
}

// Floors, as contestants.

// A cache line to a core that polls it, and back: the minimum for a round trip between
// two threads. An iteration is a round trip.
void line_round_trip(benchmark::State& state);

// The same with one line per direction, as with two semaphores: the thread that writes a
// line and the thread that reads it both fetch it.
void two_lines_round_trip(benchmark::State& state);

// Two locked additions to a word in the core's cache, the minimum for any acquire and
// release. An iteration is both.
void two_locked_additions(benchmark::State& state);

// Reads `size` bytes of memory repeatedly, and does only enough with them that the
// compiler keeps the reads. A rate in bytes.
void read_memory(benchmark::State& state, std::size_t size);

}  // namespace ovel_benchmark

#endif
