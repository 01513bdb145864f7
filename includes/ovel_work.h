// SPDX-License-Identifier: Apache-2.0
// Work from any callable, its results as futures, and an allocator for any thread.
//
//     work_group group(4);
//     std::future<int> const answer = group.submit([] { return 42; });
//     answer.get();
//     group.run([] { tidy_up(); });  // without a future
//     group.join();                  // what was submitted has run
//
// It stands beside the library and `ovel.h` does not include it, since it draws
// <future> in.
#ifndef OVEL_WORK_H
#define OVEL_WORK_H

#include "ovel_allocator_group.h"
#include "ovel_assure.h"
#include "ovel_std.h"
#include "ovel_task.h"
#include "ovel_thread_base.h"
#include "ovel_thread_function.h"
#include "ovel_thread_support.h"

#include <exception>
#include <future>
#include <memory>
#include <type_traits>
#include <utility>

namespace ovel {

// Gives the calling thread an allocator of its own for as long as the scope lasts,
// unless it has one. No thread needs this: one without is lent an allocator until it
// ends. The scope gives it back earlier, which suits a thread that uses the library's
// memory once and then lives on. To be destroyed by the thread that built it. Throws
// std::bad_alloc.
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
    // Keeps `callable`.
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
    double time = 1.0;   // above 0; of equal spaces the longest time goes first
    double space = 0.0;  // of the group's, from 0 to all of it
};

namespace detail {

// Work of a group without a future: what it throws is the group's.
template <class Callable>
class run_item : public queued_item {
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

// Work with a future. Discarded, it breaks its promise.
template <class Callable>
class submitted_item : public queued_item {
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

    std::promise<result> _promise;
    Callable _callable;
};

}  // namespace detail

// Threads that run what is submitted to them, in the order and within the budget of
// `thread_group`, and that share the children of scopes and the parts of loops
// (ovel_parallel.h) among them.
//
// It has started when it is built. Any thread may submit, work of the group as well;
// but work that waits for the future of other work keeps its thread meanwhile, and if
// all do, for ever: work that waits opens a `task_scope`. What has begun takes
// precedence over what is submitted: a thread that is free first takes children and
// parts, whatever their work's order. `join` and `join_until`, in turn and up to the
// first that ends the group, and the destructor belong to the owner.
//
// A wait, a join or the destruction by the group's own work, which would wait for its own
// end, fails the check "!_runs_caller()".
class work_group {
public:
    // With a thread for each processor and no space, or as given. No threads or negative
    // space fail the check "_threads != 0 && space >= 0". Throws std::bad_alloc.
    work_group() : work_group(thread_support::processors()) {}
    explicit work_group(unsigned int threads, double space = 0.0,
                        unsigned int stack_size = thread_base::default_stack_size)
        : _crew(threads, space, stack_size, this) {}

    // Stops the group unless it has ended. No thread has a scope open on it, and all calls of
    // its operations have returned. In a fork, where its threads do not exist, it only goes
    // out of use; all else fails the check "!inherited()" there.
    ~work_group() {
        if (_crew.inherited())
            return;
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
    // std::future_error. Does not wait for work. A time or space out of range fails the
    // check "time_ > 0 && space_ >= 0 && space_ <= _space". Throws std::bad_alloc, having
    // queued nothing.
    template <class Callable>
    auto submit(Callable callable, work_options options = {})
        -> std::future<std::invoke_result_t<Callable&>> {
        auto item = std::make_unique<detail::submitted_item<Callable>>(std::move(callable));
        auto future = item->get_future();
        _queue(std::move(item), options);
        return future;
    }

    // The same without a future, which costs less. What `callable` throws, `wait` rethrows.
    template <class Callable>
    void run(Callable callable, work_options options = {}) {
        _queue(std::make_unique<detail::run_item<Callable>>(_error, std::move(callable)), options);
    }

    // Blocks until all work has ended, also what it has submitted meanwhile, and rethrows
    // the first exception since the last wait that left work which was `run`, or a scope
    // of the group's work that was closed without a wait. The group goes on.
    void wait() {
        assure(!_runs_caller());
        _crew.wait(false);
        _rethrow();
    }

    // The same, unless `point`, whatever `deadline` accepts, passes before: then false.
    template <class Point>
    [[nodiscard]] bool wait_until(Point const& point) {
        assure(!_runs_caller());
        if (!_timed_wait(point, false))
            return false;
        _rethrow();
        return true;
    }

    // Blocks as `wait` does, and ends the group. Exceptions are left for a `wait`.
    void join() {
        assure(!_runs_caller());
        _crew.wait(true);
        _end();
    }

    // The same, unless `point`, whatever `deadline` accepts, passes before: then
    // returns false, and the group goes on.
    template <class Point>
    [[nodiscard]] bool join_until(Point const& point) {
        assure(!_runs_caller());
        if (!_timed_wait(point, true))
            return false;
        _end();
        return true;
    }

    // Has work that has not begun discarded, by the threads as they come to it, and
    // all that is submitted from now on. Does not wait for work; `join` does then. Any
    // thread may call it, the group's work as well. Scopes are not stopped.
    void stop() {
        _crew.stop();
    }

    // The group whose work the calling thread runs, or on which it opened the innermost
    // scope; null if there is none.
    static work_group* current() {
        detail::task_seat* const seat = detail::task_crew::current_seat();
        return seat != nullptr ? static_cast<work_group*>(seat->crew().owner()) : nullptr;
    }

    // How many threads it has.
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
