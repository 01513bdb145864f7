// SPDX-License-Identifier: Apache-2.0
// Work made from any callable, results as futures, and an allocator for any thread.
//
//     work_group group(4);
//     std::future<int> const answer = group.submit([] { return 42; });
//     answer.get();
//     group.run([] { tidy_up(); });  // without a future
//     group.join();                  // all submitted work has run
//
// `ovel.h` does not include this header, because it includes <future>.
#ifndef OVEL_WORK_H
#define OVEL_WORK_H

#include "ovel_allocator_group.h"
#include "ovel_assure.h"
#include "ovel_memory.h"
#include "ovel_std.h"
#include "ovel_task.h"
#include "ovel_thread_base.h"
#include "ovel_thread_function.h"
#include "ovel_thread_support.h"

#include <cstddef>
#include <exception>
#include <future>
#include <memory>
#include <type_traits>
#include <utility>

namespace ovel {

// Gives the calling thread its own allocator until the scope ends, unless the thread has
// one. No thread needs this: a thread without an allocator is lent one until the thread
// ends. The scope gives it back earlier, which suits a thread that uses the library's
// memory once and then lives on. The thread that constructed the scope destroys it.
// Throws std::bad_alloc.
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
            group.specific_allocator(nullptr);  // by now it may be another thread's
        }
    }
    thread_allocator(thread_allocator const&) = delete;
    thread_allocator& operator=(thread_allocator const&) = delete;

private:
    bool _acquired;
};

// A `thread_function` made from any callable that takes no arguments.
//
//     work task([&] { fill(table); });
//     helper.schedule(task);  // `helper` is a thread, or a thread_base
template <class Callable>
class work : public thread_function {
public:
    // Stores `callable`.
    explicit work(Callable callable) : _callable(std::move(callable)) {}

    // Calls it.
    void operator()() override {
        _callable();
    }

private:
    Callable _callable;
};

namespace detail {

class crew_of;

}  // namespace detail

// How submitted work is scheduled: see `thread_group`.
struct work_options {
    double time = 1.0;   // positive; among items of equal space, the longest time goes first
    double space = 0.0;  // from 0 to all of the group's space
};

namespace detail {

// Work without a future. The group keeps what it throws.
template <class Callable>
class run_item : public queued_item, public handed_over {
public:
    run_item(first_exception& error, Callable&& callable)
        : queued_item{&_end}, _error(error), _callable(std::move(callable)) {}

private:
    static void _end(queued_item& self, bool runs) {
        std::unique_ptr<run_item> const own(static_cast<run_item*>(&self));
        if (!runs)
            return;
        try {
            own->_callable();
        } catch (...) {
            own->_error.keep(std::current_exception());
        }
    }

    first_exception& _error;
    Callable _callable;
};

// Work with a future. Breaks its promise if it is discarded.
template <class Callable>
class submitted_item : public queued_item, public handed_over {
    using result = std::invoke_result_t<Callable&>;

public:
    explicit submitted_item(Callable&& callable)
        : queued_item{&_end}, _callable(std::move(callable)) {}

    std::future<result> get_future() {
        return _promise.get_future();
    }

private:
    static void _end(queued_item& self, bool runs) {
        std::unique_ptr<submitted_item> const own(static_cast<submitted_item*>(&self));
        if (!runs)
            return;
        try {
            if constexpr (std::is_void_v<result>) {
                own->_callable();
                own->_promise.set_value();
            } else {
                own->_promise.set_value(own->_callable());
            }
        } catch (...) {
            own->_promise.set_exception(std::current_exception());
        }
    }

    // Its state lives in the library's memory, which costs less than the program's `new`.
    std::promise<result> _promise{std::allocator_arg, container_allocator<std::byte>()};
    Callable _callable;
};

}  // namespace detail

// Threads that run submitted work in the order and within the budget of `thread_group`,
// and that share the children of scopes and the parts of loops (ovel_parallel.h).
//
// The group starts when it is constructed. Any thread may submit work, including the
// group's own work. But work that waits for the future of other work blocks its thread;
// if all threads wait like this, they deadlock. Work that has to wait should open a
// `task_scope` instead. A free thread finishes what has begun first: it takes children
// and parts before it takes submitted work, whatever the order of the work they belong
// to. What a thread wrote before it submits work is visible to that work, and what work
// wrote is visible to a thread whose `wait` or `join` for it has returned. Only the owner
// may call `join`, `join_until` and the destructor, one at a time, until one of them has
// ended the group.
//
// `wait`, `join` or destruction by the group's own work would wait for itself; it fails
// the check "!_runs_caller()". The same holds for a child of a scope, if a thread of the
// group runs it or has opened the scope. A child that runs on a thread of no group, in a
// scope of that thread, may call `wait`.
class work_group {
public:
    // Has a thread for each processor and no space, unless given. Infinite space is never
    // used up. No threads or negative space fail the check "_threads != 0 && space >= 0".
    // Throws std::bad_alloc. Where the system has no memory for a lock or a thread, that fails
    // its check instead.
    work_group() : work_group(thread_support::processors()) {}
    explicit work_group(unsigned int threads, double space = 0.0,
                        unsigned int stack_size = thread_base::default_stack_size)
        : _crew(threads, space, stack_size, this) {}

    // Stops the group unless it has ended. No thread may have a scope open on it or be
    // inside one of its operations. In a forked process, where its threads do not exist,
    // the group can only be destroyed; everything else fails the check "!inherited()".
    ~work_group() {
        if (_crew.inherited())
            return;
        stop();
        if (!_ended)
            _end();
    }

    work_group(work_group const&) = delete;
    work_group& operator=(work_group const&) = delete;

    // Queues `callable`, which takes no arguments, and returns a future for its result or
    // exception. Dropping the future neither waits for the work, unlike one of
    // std::async, nor discards it. Keep what `callable` refers to alive until `get` has
    // returned, and what its destructor uses until `join` has returned. Declaring such
    // objects before the group is safe, because the group's destructor waits for running
    // work. Once the group was stopped or has ended, it discards `callable`. Discarded
    // work breaks its promise: the future throws std::future_error. Does not wait for
    // work. A time or space out of range fails the check "time_ > 0 && space_ >= 0 &&
    // space_ <= _space". If it throws std::bad_alloc, it has queued nothing.
    template <class Callable>
    auto submit(Callable callable, work_options options = {})
        -> std::future<std::invoke_result_t<Callable&>> {
        auto item = std::make_unique<detail::submitted_item<Callable>>(std::move(callable));
        auto future = item->get_future();
        _queue(std::move(item), options);
        return future;
    }

    // The same without a future, which is cheaper. `wait` rethrows what `callable`
    // throws.
    template <class Callable>
    void run(Callable callable, work_options options = {}) {
        _queue(std::make_unique<detail::run_item<Callable>>(_error, std::move(callable)), options);
    }

    // Blocks until all work has ended, including work submitted meanwhile. Then rethrows
    // the first exception since the last `wait` that left work passed to `run`, or that
    // left a scope of the group's work which was destroyed without a wait. The group
    // continues.
    void wait() {
        assure(!_runs_caller());
        _crew.wait(false);
        _rethrow();
    }

    // The same, but returns false if `point`, which is whatever `deadline` accepts,
    // passes before.
    template <class Point>
    [[nodiscard]] bool wait_until(Point const& point) {
        assure(!_runs_caller());
        if (!_timed_wait(point, false))
            return false;
        _rethrow();
        return true;
    }

    // Blocks as `wait` does, then ends the group. Leaves exceptions for a `wait`.
    void join() {
        assure(!_runs_caller());
        _crew.wait(true);
        _end();
    }

    // The same, but if `point`, which is whatever `deadline` accepts, passes before,
    // returns false and the group continues.
    template <class Point>
    [[nodiscard]] bool join_until(Point const& point) {
        assure(!_runs_caller());
        if (!_timed_wait(point, true))
            return false;
        _end();
        return true;
    }

    // Makes the threads discard work that has not begun, and everything submitted from
    // now on. Does not wait; `join` does. Does not stop scopes. Any thread may call it,
    // including the group's own work. A thread discards an item when it would have run
    // it. So if the item waits for space, its future breaks once that is free.
    void stop() {
        _crew.stop();
    }

    // The group whose work the calling thread runs, or on which it opened the innermost
    // scope; null if there is none.
    static work_group* current() {
        detail::task_seat* const seat = detail::task_crew::current_seat();
        return seat != nullptr ? static_cast<work_group*>(seat->crew().owner()) : nullptr;
    }

    // The number of threads.
    unsigned int threads() const {
        return _crew.threads();
    }

private:
    friend class task_scope;
    friend class detail::crew_of;

    template <class Item>
    void _queue(std::unique_ptr<Item> item, work_options const& options) {
        if (_crew.queue(*item, options.time, options.space))
            static_cast<void>(item.release());
    }

    void _rethrow() {
        if (std::exception_ptr const error = _error.take())
            std::rethrow_exception(error);
    }

    bool _runs_caller() {
        return _crew.runs_caller();
    }

    template <class Point>
    bool _timed_wait(Point const& point, bool then_stops) {
        return detail::attempt_until(point, [&](unsigned int milliseconds) {
            return _crew.timed_wait(milliseconds, then_stops);
        });
    }

    void _end() {
        assure(!_runs_caller());
        _crew.end();
        _ended = true;
    }

    bool _ended = false;  // the threads are joined; owner only
    detail::first_exception _error;
    detail::task_crew _crew;
};

}  // namespace ovel

#endif
