// SPDX-License-Identifier: Apache-2.0
// The group threads: the cost of running work on another thread.
#include "ovel_benchmark.h"
#include "ovel_thread.h"
#include "ovel_thread_base.h"
#include "ovel_thread_function.h"
#include "ovel_thread_group.h"

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <queue>
#include <semaphore>

#if defined(OVEL_PEER_TBB)
#include <tbb/concurrent_priority_queue.h>
#include <tbb/global_control.h>
#include <tbb/task_arena.h>
#include <tbb/task_group.h>
#endif
#if defined(OVEL_PEER_BOOST)
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#endif
#if defined(OVEL_PEER_MOODYCAMEL)
#include <concurrentqueue/blockingconcurrentqueue.h>
#endif

namespace {

using steady_clock = std::chrono::steady_clock;

double seconds_since(steady_clock::time_point start) {
    return std::chrono::duration<double>(steady_clock::now() - start).count();
}

// One work item: a busy wait of `length`, after which it may schedule itself again, or
// delete itself.
class piece : public ovel::thread_function {
public:
    void operator()() override {
        if (owns_itself) {
            delete this;
            return;
        }
        if (length.count() != 0) {
            auto const start = steady_clock::now();
            while (steady_clock::now() - start < length) {}
        }
        if (again != 0) {
            again -= 1;
            reschedule();
        }
    }

    std::chrono::nanoseconds length{0};
    bool owns_itself = false;
    int again = 0;
    std::function<void()> reschedule;
};

// The measured pools. Any thread may call `schedule`, including a running item. If the
// pool has an order, greater priority goes first. `finish` returns when everything
// scheduled has run; nothing is scheduled meanwhile.

class ovel_pool {
public:
    explicit ovel_pool(unsigned int threads) : _group(threads, 0.0, 65536) {
        _group.release();
    }
    void schedule(piece& work, unsigned int priority) {
        _group.schedule(work, 1.0 + priority, 0.0);
    }
    void finish() {
        _group.conclude();
        _group.acquire();
    }

private:
    ovel::thread_group _group;
};

// An item in a pool with priorities. Among equals, the first scheduled goes first.
struct entry {
    piece* work;  // null: a worker that takes it ends
    unsigned int priority;
    std::uint64_t number;

    bool operator<(entry const& other) const {
        return priority < other.priority || (priority == other.priority && number > other.number);
    }
};

class locked_heap_pool {
public:
    explicit locked_heap_pool(unsigned int threads) {
        for (unsigned int i = 0; i != threads; ++i)
            _threads.emplace_back([this] { _run(); });
    }
    void schedule(piece& work, unsigned int priority) {
        {
            std::lock_guard const hold(_lock);
            _queue.push({&work, priority, _number++});
        }
        _changed.notify_one();
    }
    void finish() {
        {
            std::lock_guard const hold(_lock);
            _finished = true;
        }
        _changed.notify_all();
        _threads.clear();
    }

private:
    void _run() {
        std::unique_lock hold(_lock);
        for (;;) {
            _changed.wait(hold, [this] { return _finished || !_queue.empty(); });
            if (_queue.empty())
                return;
            piece& work = *_queue.top().work;
            _queue.pop();
            hold.unlock();
            work();
            hold.lock();
        }
    }

    std::mutex _lock;
    std::condition_variable _changed;
    std::priority_queue<entry> _queue;
    std::uint64_t _number = 0;
    bool _finished = false;
    std::vector<std::jthread> _threads;
};

#if defined(OVEL_PEER_TBB)

// The waiting thread works too, and counts among the `threads`.
class task_group_pool {
public:
    explicit task_group_pool(unsigned int threads)
        : _limit(tbb::global_control::max_allowed_parallelism, threads),
          _arena(static_cast<int>(threads)) {}
    void schedule(piece& work, unsigned int) {
        _arena.execute([&] { _group.run([&work] { work(); }); });
    }
    void finish() {
        _arena.execute([this] { _group.wait(); });
    }

private:
    tbb::global_control _limit;
    tbb::task_arena _arena;
    tbb::task_group _group;
};

class concurrent_heap_pool {
public:
    explicit concurrent_heap_pool(unsigned int threads) {
        for (unsigned int i = 0; i != threads; ++i)
            _threads.emplace_back([this] { _run(); });
    }
    void schedule(piece& work, unsigned int priority) {
        _push({&work, 1 + priority, _number.fetch_add(1, std::memory_order_relaxed)});
    }
    void finish() {
        for (std::size_t i = 0; i != _threads.size(); ++i)
            _push({nullptr, 0, 0});  // goes last
        _threads.clear();
    }

private:
    void _push(entry const& waiting) {
        _queue.push(waiting);
        _count.release();
    }
    void _run() {
        for (;;) {
            _count.acquire();
            entry taken;
            while (!_queue.try_pop(taken)) {}
            if (taken.work == nullptr)
                return;
            (*taken.work)();
        }
    }

    tbb::concurrent_priority_queue<entry> _queue;
    std::counting_semaphore<> _count{0};
    std::atomic<std::uint64_t> _number = 0;
    std::vector<std::jthread> _threads;
};

#endif

#if defined(OVEL_PEER_BOOST)

class asio_pool {
public:
    explicit asio_pool(unsigned int threads) : _pool(threads) {}
    void schedule(piece& work, unsigned int) {
        boost::asio::post(_pool, [&work] { work(); });
    }
    void finish() {
        _pool.join();
    }

private:
    boost::asio::thread_pool _pool;
};

#endif

#if defined(OVEL_PEER_MOODYCAMEL)

class concurrent_queue_pool {
public:
    explicit concurrent_queue_pool(unsigned int threads) {
        for (unsigned int i = 0; i != threads; ++i)
            _threads.emplace_back([this] { _run(); });
    }
    void schedule(piece& work, unsigned int) {
        _queue.enqueue(&work);
    }
    void finish() {
        for (std::size_t i = 0; i != _threads.size(); ++i)
            _queue.enqueue(nullptr);
        _threads.clear();
    }

private:
    void _run() {
        for (;;) {
            piece* work;
            _queue.wait_dequeue(work);
            if (work == nullptr)
                return;
            (*work)();
        }
    }

    moodycamel::BlockingConcurrentQueue<piece*> _queue;
    std::vector<std::jthread> _threads;
};

#endif

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

template <class Pool>
void run_new_pieces(std::string const& name) {
    for (unsigned int const threads : {2u, 8u}) {
        std::string const row = threads == 2 ? "new_pieces" : "new_pieces_8_threads";
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
    if (what.threads != 2)
        row += "_8_threads";
    run_pieces<ovel_pool>(row, "ovel", what);
    run_pieces<locked_heap_pool>(row, "std::priority_queue", what);
#if defined(OVEL_PEER_TBB)
    run_pieces<concurrent_heap_pool>(row, "tbb::concurrent_priority_queue", what);
    if (what.priorities == 1)
        run_pieces<task_group_pool>(row, "tbb::task_group", what);
#endif
    if (what.priorities != 1)
        return;
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
    register_runs("begin", 1, true);
    register_runs("begin_8_threads", 8, true);

    register_new_pieces();
    for (unsigned int const threads : {2u, 8u}) {
        for (bool const inside : {false, true}) {
            for (unsigned int const priorities : {1u, 256u}) {
                register_pieces("empty_pieces",
                                {std::chrono::nanoseconds(0), priorities, inside, threads});
                register_pieces("us_pieces",
                                {std::chrono::microseconds(1), priorities, inside, threads});
            }
        }
    }
}
