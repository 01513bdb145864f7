// SPDX-License-Identifier: Apache-2.0
// Pools of threads that run work items, with one interface for the benchmarks.
#ifndef OVEL_BENCHMARK_POOLS_H
#define OVEL_BENCHMARK_POOLS_H

#include "ovel_mutex.h"
#include "ovel_thread_function.h"
#include "ovel_thread_group.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <queue>
#include <semaphore>
#include <thread>
#include <vector>

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

namespace ovel_benchmark {

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
            auto const start = std::chrono::steady_clock::now();
            while (std::chrono::steady_clock::now() - start < length) {}
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

// The bound of a pool whose threads take one item after another from a list under a lock:
// nothing but the lock, a node for each item and a wake-up while a thread sleeps. It has
// neither order nor budget.
class locked_list_pool {
public:
    explicit locked_list_pool(unsigned int threads) {
        for (unsigned int i = 0; i != threads; ++i)
            _threads.emplace_back([this] { _run(); });
    }
    void schedule(piece& work, unsigned int) {
        _add(new node{&work, nullptr});
    }
    void finish() {
        for (std::size_t i = 0; i != _threads.size(); ++i)
            _add(new node{nullptr, nullptr});
        _threads.clear();
    }

private:
    struct node {
        piece* work;  // null: a thread that takes it ends
        node* next;
    };

    void _add(node* added) {
        _lock.acquire();
        *_end = added;
        _end = &added->next;
        bool const wakes = _asleep != 0;
        _asleep -= wakes;
        _lock.release();
        if (wakes)
            _changed.release();
    }
    void _run() {
        for (;;) {
            _lock.acquire();
            node* const taken = _first;
            if (taken == nullptr) {
                ++_asleep;
                _lock.release();
                _changed.acquire();
                continue;
            }
            _first = taken->next;
            if (_first == nullptr)
                _end = &_first;
            _lock.release();
            piece* const work = taken->work;
            delete taken;
            if (work == nullptr)
                return;
            (*work)();
        }
    }

    ovel::mutex _lock;
    node* _first = nullptr;
    node** _end = &_first;
    int _asleep = 0;
    std::counting_semaphore<> _changed{0};
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

}  // namespace ovel_benchmark

#endif
