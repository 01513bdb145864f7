// Work from any callable, its results as futures, and an allocator for any thread.
//
//     work_group group(4);
//     std::future<int> const answer = group.submit([] { return 42; });
//     answer.get();
//     group.join();  // what was submitted has run
//
// It stands beside the library and `ovel.h` does not include it, since it draws
// <future> in.
#ifndef OVEL_WORK_H
#define OVEL_WORK_H

#include "ovel_allocator_group.h"
#include "ovel_assure.h"
#include "ovel_condition.h"
#include "ovel_mutex.h"
#include "ovel_std.h"
#include "ovel_thread_base.h"
#include "ovel_thread_function.h"
#include "ovel_thread_group.h"
#include "ovel_thread_support.h"

#include <cstddef>
#include <future>
#include <memory>
#include <mutex>
#include <type_traits>
#include <utility>

namespace ovel {

// Gives the calling thread an allocator of its own for as long as the scope lasts,
// unless it has one. For a thread that the library did not start: the first thing in
// its function, so that the library's memory is used inside the scope only. To be
// destroyed by the thread that built it. Throws std::bad_alloc.
//
//     std::jthread worker([&] {
//         thread_allocator const own;
//         ...
//     });
class thread_allocator {
public:
    thread_allocator() {
        allocator_group& group = *allocator_group::global();
        _acquired = group.specific_allocator() == group.default_allocator();
        if (_acquired)
            group.acquire_allocator();
    }
    ~thread_allocator() {
        if (_acquired) {
            allocator_group& group = *allocator_group::global();
            group.release_allocator();
            group.specific_allocator(nullptr);  // it may be another thread's by now
        }
    }
    thread_allocator(thread_allocator const&) = delete;
    thread_allocator& operator=(thread_allocator const&) = delete;

private:
    bool _acquired;
};

// A `thread_function` from anything that can be called without arguments.
//
//     work task([&] { fill(table); });
//     helper.schedule(task);  // `helper` is a thread, or a thread_base
template <class Callable>
class work : public thread_function {
public:
    explicit work(Callable callable) : _callable(std::move(callable)) {}

    void operator()() override {
        _callable();
    }

private:
    Callable _callable;
};

// How submitted work is scheduled: see `thread_group`.
struct work_options {
    double time = 1.0;
    double space = 0.0;
};

// Threads that run what is submitted to them, and hand out its results: a
// `thread_group` that keeps its work itself.
//
// It has started when it is built. Any thread may submit, work of the group as well;
// but work that waits for the future of other work holds its thread meanwhile, and if
// all do, for ever. `join` and `join_until`, in turn and up to the first that ends
// the group, and the destructor belong to the owner, who is none of the group's work.
class work_group {
public:
    // With a thread for each processor and no space, or as given; with none the check
    // of `thread_group` fails. Throws std::bad_alloc.
    work_group() : work_group(thread_support::processors()) {}
    explicit work_group(unsigned int threads, double space = 0.0,
                        unsigned int stack_size = thread_base::default_stack_size)
        : _group(threads, space, stack_size) {
        _group.release();
    }

    // Stops the group unless it has ended.
    ~work_group() {
        stop();
        if (!_ended)
            _end();
    }

    work_group(work_group const&) = delete;
    work_group& operator=(work_group const&) = delete;

    // Queues `callable`, which takes no arguments, and returns the future of what it
    // returns or throws. A future that is dropped neither waits for the work, unlike one of
    // std::async, nor discards it: what `callable` refers to lives until `get` has returned,
    // what destroying it uses until `join` has. It is safe to declare that before the group,
    // whose destructor waits for what runs. Once the group has been stopped, or has ended,
    // `callable` is discarded. The promise of what is discarded is broken: its future throws
    // std::future_error. Does not wait for work. Throws std::bad_alloc, having queued
    // nothing.
    template <class Callable>
    auto submit(Callable callable, work_options options = {})
        -> std::future<std::invoke_result_t<Callable&>> {
        auto submitted = std::make_unique<submission<Callable>>(*this, std::move(callable));
        auto future = submitted->task.get_future();
        std::lock_guard const hold(_lock);
        if (!_stopped) {
            _group.schedule(*submitted, options.time, options.space);
            ++_unfinished;
            static_cast<void>(submitted.release());
        }
        return future;
    }

    // Blocks until all work has ended, also what it has submitted meanwhile, and ends
    // the group. Its own work, which would wait for its own end, fails the check
    // "!_runs_caller()".
    void join() {
        assure(!_runs_caller());
        {
            std::lock_guard const hold(_lock);
            wait(_idle, _lock, [this] { return _unfinished == 0; });
            _stopped = true;
        }
        _end();
    }

    // The same, unless `point`, whatever `deadline` accepts, passes before: then
    // returns false, and the group goes on.
    template <class Point>
    bool join_until(Point const& point) {
        {
            std::lock_guard const hold(_lock);
            if (!wait_until(_idle, _lock, point, [this] { return _unfinished == 0; }))
                return false;
            _stopped = true;
        }
        _end();
        return true;
    }

    // Has work that has not begun discarded, by the threads as they come to it, and
    // all that is submitted from now on. Does not wait for work; `join` does then. Any
    // thread may call it, the group's work as well.
    void stop() {
        std::lock_guard const hold(_lock);
        _stopped = true;
    }

private:
    // Belongs to the group from when it is scheduled; deletes itself when it has run.
    template <class Callable>
    class submission : public thread_function {
    public:
        submission(work_group& group, Callable&& callable)
            : task(std::move(callable)), _group(group) {}

        void operator()() override {
            work_group& group = _group;
            {
                std::unique_ptr<submission> const self(this);
                if (group._begin())
                    task();
            }
            group._finish();
        }

        std::packaged_task<std::invoke_result_t<Callable&>()> task;

    private:
        work_group& _group;
    };

    bool _runs_caller() const {
        return _group._runs_caller();
    }

    bool _begin() {
        std::lock_guard const hold(_lock);
        return !_stopped;
    }

    void _finish() {
        bool idle;
        {
            std::lock_guard const hold(_lock);
            idle = --_unfinished == 0;
        }
        if (idle)
            _idle.release_all();
    }

    // Nothing more is scheduled: the threads end once the queue is empty.
    void _end() {
        _group.conclude();
        _group.acquire();
        _ended = true;
    }

    lockable<mutex> _lock;        // taken before the group's
    timed_condition _idle;        // `_unfinished` has come to 0
    std::size_t _unfinished = 0;  // work scheduled and not ended; under _lock
    bool _stopped = false;        // nothing begins any more; under _lock
    bool _ended = false;          // the threads are joined; owner only
    thread_group _group;
};

}  // namespace ovel

#endif
