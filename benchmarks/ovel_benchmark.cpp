// SPDX-License-Identifier: Apache-2.0
#include "ovel_benchmark.h"

#include <sched.h>
#include <x86intrin.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace ovel_benchmark {

namespace {

// A word alone in its cache line and in the adjacent one, which the processor fetches
// with it.
struct alignas(128) lonely_word {
    std::atomic<std::uint64_t> value = 0;
};

// The processors that the process may use. Read once, before any thread is pinned.
std::vector<int> const& processors() {
    static std::vector<int> const all = [] {
        cpu_set_t set;
        sched_getaffinity(0, sizeof set, &set);
        std::vector<int> found;
        for (int processor = 0; processor < CPU_SETSIZE; ++processor) {
            if (CPU_ISSET(processor, &set))
                found.push_back(processor);
        }
        return found;
    }();
    return all;
}

// Uses the processor's widest registers, because narrower ones are slower than a cache.
[[gnu::target_clones("avx512f", "avx2", "default")]] std::uint64_t sum_of(
    std::uint64_t const* words, std::size_t count) {
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < count; ++i)
        sum += words[i];
    return sum;
}

// Repeatedly writes an odd number to `question`, which a thread on the other processor
// answers with the next number in `answer`.
void converse(benchmark::State& state, std::atomic<std::uint64_t>& question,
              std::atomic<std::uint64_t>& answer) {
    constexpr std::uint64_t over = ~std::uint64_t(0);
    std::jthread const other([&] {
        pin const bound(1);
        std::uint64_t answered = 0;
        for (std::uint64_t seen = 0; seen != over; seen = question.load()) {
            if (seen % 2 != 0 && seen != answered) {
                answered = seen;
                answer.store(seen + 1, std::memory_order_release);
            } else {
                _mm_pause();
            }
        }
    });
    pin const bound(0);
    std::uint64_t next = 0;
    for (auto _ : state) {
        question.store(next + 1, std::memory_order_release);
        next += 2;
        while (answer.load(std::memory_order_acquire) != next)
            _mm_pause();
    }
    question.store(over);
}

}  // namespace

std::string process_contestant() {
    char const* const name = std::getenv("OVEL_BENCHMARK_CONTESTANT");
    return name != nullptr ? name : "ovel";
}

pin::pin(int member) : _before(sizeof(cpu_set_t)) {
    std::vector<int> const& all = processors();
    cpu_set_t set;
    sched_getaffinity(0, sizeof set, &set);
    std::memcpy(_before.data(), &set, sizeof set);
    CPU_ZERO(&set);
    CPU_SET(all[static_cast<std::size_t>(member) % all.size()], &set);
    sched_setaffinity(0, sizeof set, &set);
}

pin::~pin() {
    cpu_set_t set;
    std::memcpy(&set, _before.data(), sizeof set);
    sched_setaffinity(0, sizeof set, &set);
}

void line_round_trip(benchmark::State& state) {
    lonely_word turn;  // odd: asked; even: answered
    converse(state, turn.value, turn.value);
}

void two_lines_round_trip(benchmark::State& state) {
    lonely_word question, answer;
    converse(state, question.value, answer.value);
}

void two_locked_additions(benchmark::State& state) {
    lonely_word word;
    for (auto _ : state) {
        word.value.fetch_add(1);
        word.value.fetch_sub(1);
    }
}

void read_memory(benchmark::State& state, std::size_t size) {
    std::vector<std::uint64_t> const memory(size / sizeof(std::uint64_t), 1);
    for (auto _ : state)
        benchmark::DoNotOptimize(sum_of(memory.data(), memory.size()));
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(size));
}

}  // namespace ovel_benchmark

int main(int argc, char** argv) {
    ovel_benchmark::pin(0);  // makes it count the processors
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::AddCustomContext("compiler", "gcc " __VERSION__);
    ovel_benchmark::register_rows();
    benchmark::RunSpecifiedBenchmarks();
}
