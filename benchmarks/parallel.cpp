// SPDX-License-Identifier: Apache-2.0
// The group parallel: divide and conquer, loops, and work too small for a thread.
#include "ovel_benchmark.h"
#include "ovel_memory.h"
#include "ovel_parallel.h"
#include "ovel_thread_group.h"
#include "ovel_work.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <numeric>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#if defined(OVEL_PEER_TBB)
#include <tbb/blocked_range.h>
#include <tbb/global_control.h>
#include <tbb/parallel_for.h>
#include <tbb/parallel_invoke.h>
#include <tbb/parallel_reduce.h>
#include <tbb/task_arena.h>
#include <tbb/task_group.h>
#endif

namespace {

using ovel_benchmark::contestant;

constexpr unsigned int processors = 2;

// The contestants. Each runs two functions in parallel, children of a scope, and loops;
// `enter` runs a function where that works best. All have `processors` working threads.

class ovel_way {
public:
    explicit ovel_way(unsigned int threads = processors) : _group(threads) {}

    template <class Function>
    void enter(Function const& function) {
        _group.submit([&] { function(); }).get();
    }
    template <class First, class Second>
    static void both(First const& first, Second const& second) {
        ovel::parallel_invoke(first, second);
    }
    // Calls `child(i)` for i below `count` in parallel.
    template <class Child>
    static void children(unsigned int count, Child const& child) {
        ovel::task_scope here(*ovel::work_group::current());
        for (unsigned int i = 1; i < count; ++i)
            here.run([&child, i] { child(i); });
        child(0);
        here.wait();
    }
    template <class Body>
    static void loop(std::size_t size, Body const& body) {
        ovel::parallel_for(std::size_t{0}, size, body);
    }
    template <class Body>
    static double sum(std::size_t size, Body const& body) {
        return ovel::parallel_reduce(
            std::size_t{0}, size, 0.0,
            [&](std::size_t begin, std::size_t end, double start) {
                return start + body(begin, end);
            },
            std::plus<>());
    }

private:
    ovel::work_group _group;
};

class serial_way {
public:
    template <class Function>
    void enter(Function const& function) {
        function();
    }
    template <class First, class Second>
    static void both(First const& first, Second const& second) {
        first();
        second();
    }
    template <class Child>
    static void children(unsigned int count, Child const& child) {
        for (unsigned int i = 0; i != count; ++i)
            child(i);
    }
    template <class Body>
    static void loop(std::size_t size, Body const& body) {
        body(std::size_t{0}, size);
    }
    template <class Body>
    static double sum(std::size_t size, Body const& body) {
        return body(std::size_t{0}, size);
    }
};

#if defined(OVEL_PEER_TBB)

class tbb_way {
public:
    explicit tbb_way(unsigned int threads = processors)
        : _limit(tbb::global_control::max_allowed_parallelism, threads),
          _arena(static_cast<int>(threads)) {}

    template <class Function>
    void enter(Function const& function) {
        _arena.execute(function);
    }
    template <class First, class Second>
    static void both(First const& first, Second const& second) {
        tbb::parallel_invoke(first, second);
    }
    template <class Child>
    static void children(unsigned int count, Child const& child) {
        tbb::task_group here;
        for (unsigned int i = 1; i < count; ++i)
            here.run([&child, i] { child(i); });
        child(0);
        here.wait();
    }
    template <class Body>
    static void loop(std::size_t size, Body const& body) {
        tbb::parallel_for(tbb::blocked_range<std::size_t>(0, size),
                          [&](auto const& range) { body(range.begin(), range.end()); });
    }
    template <class Body>
    static double sum(std::size_t size, Body const& body) {
        return tbb::parallel_reduce(
            tbb::blocked_range<std::size_t>(0, size), 0.0,
            [&](auto const& range, double start) {
                return start + body(range.begin(), range.end());
            },
            std::plus<>());
    }

private:
    tbb::global_control _limit;
    tbb::task_arena _arena;
};

#endif

#if defined(_OPENMP)

class openmp_way {
public:
    template <class Function>
    void enter(Function const& function) {
#pragma omp parallel num_threads(processors)
#pragma omp single
        function();
    }
    template <class First, class Second>
    static void both(First const& first, Second const& second) {
#pragma omp task shared(first)
        first();
        second();
#pragma omp taskwait
    }
    template <class Child>
    static void children(unsigned int count, Child const& child) {
        for (unsigned int i = 1; i < count; ++i) {
#pragma omp task shared(child) firstprivate(i)
            child(i);
        }
        child(0);
#pragma omp taskwait
    }
    template <class Body>
    static void loop(std::size_t size, Body const& body) {
        std::size_t const parts = std::min<std::size_t>(size, 64);
#pragma omp taskloop shared(body) grainsize(1)
        for (std::size_t part = 0; part < parts; ++part)
            body(size * part / parts, size * (part + 1) / parts);
    }
    template <class Body>
    static double sum(std::size_t size, Body const& body) {
        std::size_t const parts = std::min<std::size_t>(size, 64);
        double total = 0;
#pragma omp taskloop shared(body) grainsize(1) reduction(+ : total)
        for (std::size_t part = 0; part < parts; ++part)
            total += body(size * part / parts, size * (part + 1) / parts);
        return total;
    }
};

#endif

// The work.

template <class Way>
std::uint64_t fibonacci(unsigned int n) {
    if (n < 2)
        return n;
    std::uint64_t left, right;
    Way::both([&] { left = fibonacci<Way>(n - 1); }, [&] { right = fibonacci<Way>(n - 2); });
    return left + right;
}

template <class Way>
std::uint64_t skynet(std::uint64_t number, std::uint64_t leaves) {
    if (leaves == 1)
        return number;
    std::array<std::uint64_t, 10> sums;
    Way::children(10, [&](unsigned int i) {
        sums[i] = skynet<Way>(number + i * (leaves / 10), leaves / 10);
    });
    return std::accumulate(sums.begin(), sums.end(), std::uint64_t{0});
}

template <class Way>
std::uint64_t queens(unsigned int size, unsigned int row, std::array<unsigned char, 16> columns) {
    if (row == size)
        return 1;
    std::array<std::uint64_t, 16> counts{};
    auto const place = [&](unsigned int column) {
        for (unsigned int above = 0; above != row; ++above) {
            unsigned int const there = columns[above];
            if (there == column || there + row - above == column || there == column + row - above)
                return;
        }
        auto next = columns;
        next[row] = static_cast<unsigned char>(column);
        counts[column] = queens<Way>(size, row + 1, next);
    };
    Way::children(size, place);
    return std::accumulate(counts.begin(), counts.end(), std::uint64_t{0});
}

// The area below (x * x + 1) * x, in halves until they agree.
template <class Way>
double integrate(double from, double to, double at_from, double at_to, double area) {
    double const middle = (from + to) / 2;
    double const at_middle = (middle * middle + 1) * middle;
    double left = (at_from + at_middle) * (middle - from) / 2;
    double right = (at_middle + at_to) * (to - middle) / 2;
    if (std::fabs(left + right - area) < 1e-7)
        return left + right;
    double const left_half = left, right_half = right;
    Way::both([&] { left = integrate<Way>(from, middle, at_from, at_middle, left_half); },
              [&] { right = integrate<Way>(middle, to, at_middle, at_to, right_half); });
    return left + right;
}

// The bodies of loops are functions of their own, so that every contestant runs the same
// instructions: inlined, their speed differed by up to a factor of three.

[[gnu::noinline]] void multiply_rows(std::vector<float> const& left,
                                     std::vector<float> const& right, std::vector<float>& product,
                                     std::size_t size, std::size_t begin, std::size_t end) {
    for (std::size_t row = begin; row != end; ++row) {
        float* const out = &product[row * size];
        std::fill_n(out, size, 0.0f);
        for (std::size_t k = 0; k != size; ++k) {
            float const factor = left[row * size + k];
            float const* const in = &right[k * size];
            for (std::size_t column = 0; column != size; ++column)
                out[column] += factor * in[column];
        }
    }
}

// Leaves out the outermost rows and columns.
[[gnu::noinline]] void diffuse_rows(std::vector<float> const& from, std::vector<float>& to,
                                    std::size_t size, std::size_t begin, std::size_t end) {
    for (std::size_t row = begin + 1; row != end + 1; ++row)
        for (std::size_t column = 1; column != size - 1; ++column) {
            std::size_t const at = row * size + column;
            to[at] = from[at] + 0.1f * (from[at - 1] + from[at + 1] + from[at - size] +
                                        from[at + size] - 4 * from[at]);
        }
}

// A chain of multiplications that takes 1.2 ns each.
inline void spend(std::uint64_t rounds) {
    std::uint64_t state = rounds;
    for (std::uint64_t i = 0; i != rounds; ++i)
        benchmark::DoNotOptimize(state = state * 6364136223846793005 + 1);
}
[[gnu::noinline]] void spend_equally(std::uint64_t rounds, std::size_t begin, std::size_t end) {
    for (; begin != end; ++begin)
        spend(rounds);
}
[[gnu::noinline]] void spend_increasingly(std::size_t begin, std::size_t end) {
    for (; begin != end; ++begin)
        spend(begin / 64);
}

[[gnu::noinline]] double sum_roots(std::size_t begin, std::size_t end) {
    double total = 0;
    for (; begin != end; ++begin)
        total += std::sqrt(static_cast<double>(begin));
    return total;
}

// Rows.

// Calls `work` for each contestant, with the contestant as a type, inside its `enter`.
template <class Way, class Work, class... Arguments>
void row_of(std::string const& row, std::string const& name, Work const& work,
            Arguments... arguments) {
    contestant(row, name, [=](benchmark::State& state) {
        Way way(arguments...);
        // Starts the threads.
        way.enter([&] { way.loop(1000, spend_increasingly); });
        for (auto _ : state)
            way.enter([&] { work(way); });
    })->Unit(benchmark::kMicrosecond);
}

template <class Work>
void row(std::string const& name, Work const& work) {
    row_of<ovel_way>(name, "ovel", work);
#if defined(OVEL_PEER_TBB)
    row_of<tbb_way>(name, "tbb", work);
#endif
#if defined(_OPENMP)
    row_of<openmp_way>(name, "openmp", work);
#endif
    row_of<serial_way>(name, "serial", work);
}

template <class Way>
using way_of = std::remove_cvref_t<Way>;

constexpr int items = 100'000;

template <class Queue>
void queue_row(std::string const& row, std::string const& name, Queue const& queue) {
    contestant(row, name, [=](benchmark::State& state) {
        for (auto _ : state)
            queue();
        state.SetItemsProcessed(state.iterations() * items);
    });
}

void run_items() {
    ovel::work_group group(processors);
    for (int i = 0; i != items; ++i)
        group.run([] {});
    group.join();
}

void submit_items() {
    ovel::work_group group(processors);
    for (int i = 0; i != items; ++i)
        static_cast<void>(group.submit([] {}));
    group.join();
}

// The cost of the promises alone: libstdc++ makes a system call for each value that is
// set.
void set_promises() {
    auto const set = [] {
        for (int i = 0; i != items / 2; ++i) {
            std::promise<void> promise(std::allocator_arg, ovel::container_allocator<char>());
            static_cast<void>(promise.get_future());
            promise.set_value();
        }
    };
    std::thread other(set);
    set();
    other.join();
}

// The same promises, made by one thread and set by two others, as `submit` needs them.
void hand_over_promises() {
    constexpr int batch = 16;  // promises that the threads hand over and take at once
    std::vector<std::unique_ptr<std::promise<void>>> promises(items);
    alignas(128) std::atomic<int> made = 0;
    alignas(128) std::atomic<int> taken = 0;
    auto const set = [&] {
        for (int begin; (begin = taken.fetch_add(batch)) < items;) {
            while (made.load(std::memory_order_acquire) < begin + batch)
                std::this_thread::yield();
            for (int i = begin; i != begin + batch; ++i) {
                promises[i]->set_value();
                promises[i].reset();
            }
        }
    };
    static_assert(items % batch == 0);
    std::thread one(set), other(set);
    for (int i = 0; i != items; ++i) {
        promises[i] = std::make_unique<std::promise<void>>(std::allocator_arg,
                                                           ovel::container_allocator<char>());
        static_cast<void>(promises[i]->get_future());
        if (i % batch == batch - 1)
            made.store(i + 1, std::memory_order_release);
    }
    one.join();
    other.join();
}

void schedule_items() {
    ovel::thread_group group(processors, 0.0, 65536);
    ovel::thread_function nothing;
    group.release();
    for (int i = 0; i != items; ++i)
        group.schedule(nothing, 1.0, 0.0);
    group.conclude();
    group.acquire();
}

// Each child runs two further ones in the same scope, down to depth 0.
template <class Scope>
void grow(Scope& here, unsigned int depth) {
    if (depth != 0)
        for (int child = 0; child != 2; ++child)
            here.run([&here, depth] { grow(here, depth - 1); });
}
constexpr unsigned int tree_depth = 16;

}  // namespace

void ovel_benchmark::register_rows() {
    row("fib_35",
        [](auto& way) { benchmark::DoNotOptimize(fibonacci<way_of<decltype(way)>>(35)); });
    row_of<ovel_way>(
        "fib_30_on_one_thread", "ovel",
        [](auto& way) { benchmark::DoNotOptimize(fibonacci<way_of<decltype(way)>>(30)); }, 1u);
#if defined(OVEL_PEER_TBB)
    row_of<tbb_way>(
        "fib_30_on_one_thread", "tbb",
        [](auto& way) { benchmark::DoNotOptimize(fibonacci<way_of<decltype(way)>>(30)); }, 1u);
#endif
    row("skynet",
        [](auto& way) { benchmark::DoNotOptimize(skynet<way_of<decltype(way)>>(0, 1'000'000)); });
    row("nqueens_12",
        [](auto& way) { benchmark::DoNotOptimize(queens<way_of<decltype(way)>>(12, 0, {})); });
    row("integrate", [](auto& way) {
        benchmark::DoNotOptimize(
            integrate<way_of<decltype(way)>>(0, 1000, 0, 1000.0 * (1000.0 * 1000.0 + 1), 0));
    });
    constexpr std::size_t size = 1024;
    auto const factors = std::make_shared<std::vector<float>>(size * size, 1.5f);
    auto const product = std::make_shared<std::vector<float>>(size * size);
    row("matmul_1024", [=](auto& way) {
        way.loop(size, [&](std::size_t begin, std::size_t end) {
            multiply_rows(*factors, *factors, *product, size, begin, end);
        });
    });
    constexpr std::size_t plate = 2048;
    auto const before = std::make_shared<std::vector<float>>(plate * plate, 1.0f);
    auto const after = std::make_shared<std::vector<float>>(plate * plate, 1.0f);
    row("heat_2048_100_steps", [=](auto& way) {
        for (int step = 0; step != 100; ++step) {
            way.loop(plate - 2, [&](std::size_t begin, std::size_t end) {
                diffuse_rows(*before, *after, plate, begin, end);
            });
            before->swap(*after);
        }
    });
    // Ten times, so that entering the group does not count.
    for (std::uint64_t rounds : {1, 8})
        row("ten_loops_of_" + std::to_string(rounds) + "_rounds", [=](auto& way) {
            for (int repeat = 0; repeat != 10; ++repeat)
                way.loop(1'000'000, [=](std::size_t begin, std::size_t end) {
                    spend_equally(rounds, begin, end);
                });
        });
    row("triangular_loop", [](auto& way) { way.loop(100'000, spend_increasingly); });
    row("sum_of_square_roots",
        [](auto& way) { benchmark::DoNotOptimize(way.sum(1'000'000, sum_roots)); });
    for (std::size_t elements : {2, 1000, 1'000'000})
        row("thousand_empty_loops" +
                (elements == 2 ? "" : "_over_" + std::to_string(elements) + "_elements"),
            [=](auto& way) {
                for (int repeat = 0; repeat != 1000; ++repeat)
                    way.loop(elements, [](std::size_t, std::size_t) {});
            });

    queue_row("run", "ovel", run_items);
    queue_row("run", "ovel thread_group", schedule_items);
    queue_row("submit", "ovel", submit_items);
    queue_row("submit", "ovel thread_group", schedule_items);
    queue_row("submit", "promises", set_promises);
    queue_row("submit", "promises handed over", hand_over_promises);
#if defined(OVEL_PEER_TBB)
    auto const tbb_items = [] {
        tbb_way way;
        way.enter([] {
            tbb::task_group group;
            for (int i = 0; i != items; ++i)
                group.run([] {});
            group.wait();
        });
    };
    queue_row("run", "tbb::task_group", tbb_items);
#endif
    contestant("tree", "ovel", [](benchmark::State& state) {
        ovel::work_group group(processors);
        for (auto _ : state) {
            ovel::task_scope here(group);
            grow(here, tree_depth);
            here.wait();
        }
    })->Unit(benchmark::kMicrosecond);
#if defined(OVEL_PEER_TBB)
    contestant("tree", "tbb::task_group", [](benchmark::State& state) {
        tbb_way way;
        for (auto _ : state)
            way.enter([] {
                tbb::task_group here;
                grow(here, tree_depth);
                here.wait();
            });
    })->Unit(benchmark::kMicrosecond);
#endif
}
