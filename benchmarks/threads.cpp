// SPDX-License-Identifier: Apache-2.0
// The group threads: the cost of running work on another thread.
#include "ovel_benchmark.h"
#include "ovel_benchmark_pools.h"
#include "ovel_thread.h"
#include "ovel_thread_base.h"
#include "ovel_thread_function.h"

#include <chrono>
#include <memory>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#if defined(OVEL_PEER_BOOST)
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#endif
#if defined(OVEL_PEER_MOODYCAMEL)
#include <concurrentqueue/blockingconcurrentqueue.h>
#endif

namespace {

using namespace ovel_benchmark;
using steady_clock = std::chrono::steady_clock;

double seconds_since(steady_clock::time_point start) {
    return std::chrono::duration<double>(steady_clock::now() - start).count();
}

// A row of work items. Every pool runs 100 000.
struct load {
    std::chrono::nanoseconds length;
    unsigned int priorities;
    bool inside;  // the work itself schedules all but the first
    unsigned int threads;
};

constexpr int pieces = 100'000;
constexpr int chains = 50;  // items that wait or run at a time, if work schedules work

// Scatters the priorities.
unsigned int priority_of(unsigned int number, load const& what) {
    return (number * 2654435761u >> 16) % what.priorities;
}

template <class Pool>
double run_from_one_thread(load const& what) {
    piece work;
    work.length = what.length;
    auto const start = steady_clock::now();
    Pool pool(what.threads);
    for (unsigned int i = 0; i != pieces; ++i)
        pool.schedule(work, priority_of(i, what));
    pool.finish();
    return seconds_since(start);
}

// Each item is an object of its own that its thread deletes.
template <class Pool>
double run_new(unsigned int threads) {
    auto const start = steady_clock::now();
    Pool pool(threads);
    for (unsigned int i = 0; i != pieces; ++i) {
        auto* const work = new piece;
        work->owns_itself = true;
        pool.schedule(*work, 0);
    }
    pool.finish();
    return seconds_since(start);
}

template <class Pool>
double run_from_inside(load const& what) {
    std::vector<piece> work(chains);
    std::counting_semaphore<> ended(0);
    auto const start = steady_clock::now();
    Pool pool(what.threads);
    for (unsigned int i = 0; i != chains; ++i) {
        piece& each = work[i];
        each.length = what.length;
        each.again = pieces / chains;
        each.reschedule = [&, number = i]() mutable {
            if (each.again != 0)
                pool.schedule(each, priority_of(number += chains, what));
            else
                ended.release();
        };
    }
    for (unsigned int i = 0; i != chains; ++i)
        pool.schedule(work[i], priority_of(i, what));
    for (int i = 0; i != chains; ++i)
        ended.acquire();
    pool.finish();
    return seconds_since(start);
}

template <class Pool>
void run_pieces(std::string const& row, std::string const& name, load const& what) {
    ovel_benchmark::timed_contestant(row, name, [what](benchmark::State& state) {
        for (auto _ : state)
            state.SetIterationTime(what.inside ? run_from_inside<Pool>(what)
                                               : run_from_one_thread<Pool>(what));
        state.SetItemsProcessed(state.iterations() * pieces);
    });
}

// The name of a row, if it has others for fewer threads.
std::string with_threads(std::string const& row, unsigned int threads) {
    return threads == 2 ? row : row + '_' + std::to_string(threads) + "_threads";
}

template <class Pool>
void run_new_pieces(std::string const& name) {
    for (unsigned int const threads : {2u, 8u, 16u}) {
        std::string const row = with_threads("new_pieces", threads);
        ovel_benchmark::timed_contestant(row, name, [threads](benchmark::State& state) {
            for (auto _ : state)
                state.SetIterationTime(run_new<Pool>(threads));
            state.SetItemsProcessed(state.iterations() * pieces);
        });
    }
}

void register_new_pieces() {
    run_new_pieces<ovel_pool>("ovel");
    run_new_pieces<locked_heap_pool>("std::priority_queue");
    run_new_pieces<locked_list_pool>("ovel's bound: a lock and a list");
#if defined(OVEL_PEER_TBB)
    run_new_pieces<task_group_pool>("tbb::task_group");
#endif
#if defined(OVEL_PEER_BOOST)
    run_new_pieces<asio_pool>("boost::asio");
#endif
#if defined(OVEL_PEER_MOODYCAMEL)
    run_new_pieces<concurrent_queue_pool>("moodycamel");
#endif
}

void register_pieces(std::string const& name, load what) {
    std::string row = name;
    if (what.priorities != 1)
        row += "_256_priorities";
    if (what.inside)
        row += "_from_inside";
    row = with_threads(row, what.threads);
    run_pieces<ovel_pool>(row, "ovel", what);
    run_pieces<locked_heap_pool>(row, "std::priority_queue", what);
#if defined(OVEL_PEER_TBB)
    run_pieces<concurrent_heap_pool>(row, "tbb::concurrent_priority_queue", what);
    if (what.priorities == 1)
        run_pieces<task_group_pool>(row, "tbb::task_group", what);
#endif
    if (what.priorities != 1)
        return;
    run_pieces<locked_list_pool>(row, "ovel's bound: a lock and a list", what);
#if defined(OVEL_PEER_BOOST)
    run_pieces<asio_pool>(row, "boost::asio", what);
#endif
#if defined(OVEL_PEER_MOODYCAMEL)
    run_pieces<concurrent_queue_pool>(row, "moodycamel", what);
#endif
}

// Single runs: a thread gets a function and runs it while the caller waits.

// Records when it began.
class begin_note : public ovel::thread_function {
public:
    void operator()() override {
        begun = steady_clock::now();
    }

    steady_clock::time_point begun;
};

class ovel_run {
public:
    void start(begin_note& work) {
        _thread.schedule(work);
        _thread.release();
    }
    void join() {
        _thread.acquire();
    }

private:
    ovel::thread _thread{65536};
};

class std_run {
public:
    void start(begin_note& work) {
        _thread = std::thread([&work] { work(); });
    }
    void join() {
        _thread.join();
    }

private:
    std::thread _thread;
};

#if defined(OVEL_PEER_BOOST)

class asio_run {
public:
    void start(begin_note& work) {
        boost::asio::post(_pool, [this, &work] {
            work();
            _ended.release();
        });
    }
    void join() {
        _ended.acquire();
    }

private:
    std::binary_semaphore _ended{0};
    boost::asio::thread_pool _pool{1};
};

#endif

#if defined(OVEL_PEER_MOODYCAMEL)

class concurrent_queue_run {
public:
    ~concurrent_queue_run() {
        _queue.enqueue(nullptr);
    }
    void start(begin_note& work) {
        _queue.enqueue(&work);
    }
    void join() {
        _ended.acquire();
    }

private:
    moodycamel::BlockingConcurrentQueue<begin_note*> _queue;
    std::binary_semaphore _ended{0};
    std::jthread _thread{[this] {
        for (;;) {
            begin_note* work;
            _queue.wait_dequeue(work);
            if (work == nullptr)
                return;
            (*work)();
            _ended.release();
        }
    }};
};

#endif

// Starts `count` of them and then joins each. The figure is the time per run from the
// first start to the last join or, with `begin`, the time from a start to the first
// instruction.
template <class Run>
void run_empty(std::string const& row, std::string const& name, std::size_t count, bool begin) {
    ovel_benchmark::timed_contestant(row, name, [count, begin](benchmark::State& state) {
        auto const runs = std::make_unique<Run[]>(count);
        std::vector<begin_note> work(count);
        std::vector<steady_clock::time_point> starts(count);
        auto const once = [&] {
            for (std::size_t i = 0; i != count; ++i) {
                starts[i] = steady_clock::now();
                runs[i].start(work[i]);
            }
            for (std::size_t i = 0; i != count; ++i)
                runs[i].join();
            double const whole = seconds_since(starts[0]);
            if (!begin)
                return whole;
            steady_clock::duration sum{0};
            for (std::size_t i = 0; i != count; ++i)
                sum += work[i].begun - starts[i];
            return std::chrono::duration<double>(sum).count();
        };
        once();  // a first run creates what later ones reuse
        for (auto _ : state)
            state.SetIterationTime(once() / static_cast<double>(count));
    });
}

void register_runs(std::string const& row, std::size_t count, bool begin) {
    run_empty<ovel_run>(row, "ovel", count, begin);
    run_empty<std_run>(row, "std::thread", count, begin);
#if defined(OVEL_PEER_BOOST)
    run_empty<asio_run>(row, "boost::asio", count, begin);
#endif
#if defined(OVEL_PEER_MOODYCAMEL)
    run_empty<concurrent_queue_run>(row, "moodycamel", count, begin);
#endif
    ovel_benchmark::contestant(row, "floor", ovel_benchmark::line_round_trip);
}

// A thread that the pool does not have: no idle one has a stack as large.
void first_run(benchmark::State& state) {
    static unsigned int stack_size = 65536;
    begin_note work;
    for (auto _ : state) {
        ovel::thread created(stack_size += 4096);
        created.schedule(work);
        created.release();
        created.acquire();
    }
}

void own_thread_run(benchmark::State& state) {
    begin_note work;
    for (auto _ : state) {
        ovel::thread_base created(65536);
        created.schedule(work);
        created.release();
        created.acquire();
    }
}

void std_thread_run(benchmark::State& state) {
    begin_note work;
    for (auto _ : state)
        std::thread([&work] { work(); }).join();
}

}  // namespace

void ovel_benchmark::register_rows() {
    constexpr int first_runs = 200;  // each leaves a thread in the pool
    contestant("first_run", "ovel", first_run)->Iterations(first_runs);
    contestant("first_run", "ovel thread_base", own_thread_run)->Iterations(first_runs);
    contestant("first_run", "std::thread", std_thread_run)->Iterations(first_runs);

    register_runs("later_run", 1, false);
    register_runs("later_run_8_threads", 8, false);
    register_runs("later_run_16_threads", 16, false);
    register_runs("begin", 1, true);
    register_runs("begin_8_threads", 8, true);

    register_new_pieces();
    for (unsigned int const threads : {2u, 8u, 16u}) {
        for (bool const inside : {false, true}) {
            if (inside && threads == 16)
                continue;
            for (unsigned int const priorities : {1u, 256u}) {
                register_pieces("empty_pieces",
                                {std::chrono::nanoseconds(0), priorities, inside, threads});
                register_pieces("us_pieces",
                                {std::chrono::microseconds(1), priorities, inside, threads});
            }
        }
    }
}
