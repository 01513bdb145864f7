#include "ovel_benchmark.h"

#include <sched.h>
#include <x86intrin.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace ovel_benchmark {

namespace {

// A word alone in its line, and in the one that is fetched along with it.
struct alignas(128) lonely_word {
    std::atomic<std::uint64_t> value = 0;
};

// The processors that the process may use. Taken once, before any thread is bound.
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
    constexpr std::uint64_t over = ~std::uint64_t(0);
    lonely_word turn;  // even: ours; odd: the other's
    std::jthread const other([&] {
        pin const bound(1);
        for (std::uint64_t seen = 0; seen != over; seen = turn.value.load()) {
            if (seen % 2 != 0)
                turn.value.store(seen + 1, std::memory_order_release);
            else
                _mm_pause();
        }
    });
    pin const bound(0);
    std::uint64_t next = 0;
    for (auto _ : state) {
        turn.value.store(next + 1, std::memory_order_release);
        next += 2;
        while (turn.value.load(std::memory_order_acquire) != next)
            _mm_pause();
    }
    turn.value.store(over);
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
    for (auto _ : state) {
        std::uint64_t sum = 0;
        for (std::uint64_t const each : memory)
            sum += each;
        benchmark::DoNotOptimize(sum);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(size));
}

}  // namespace ovel_benchmark

int main(int argc, char** argv) {
    ovel_benchmark::pin(0);  // has the processors counted
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::AddCustomContext("compiler", "gcc " __VERSION__);
    ovel_benchmark::register_rows();
    benchmark::RunSpecifiedBenchmarks();
}
