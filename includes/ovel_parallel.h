// SPDX-License-Identifier: Apache-2.0
// Divide and conquer on the threads of a `work_group`: scopes whose children are waited
// for together, functions that run in parallel, loops and reductions.
//
//     work_group group;
//     parallel_for(group, 0, height, [&](int begin, int end) { draw(begin, end); });
//     double const sum = parallel_reduce(
//         group, numbers.begin(), numbers.end(), 0.0,
//         [](auto begin, auto end, double start) { return std::accumulate(begin, end, start); },
//         std::plus<>());
//
// A waiting thread works meanwhile, but only on what it waits for: the children of its
// own scope or call, and their descendants. So it delays nothing else, may hold locks
// that other work takes, and needs no more stack than the program's own nesting. It
// sleeps when there is no such work. One thread suffices for everything: the caller runs
// what no other thread takes. Nothing here starts a thread. Memory does not grow with the
// work: when 960 children wait on a thread, it runs the next one at once. Only where
// children that run so add children in turn, and that 8 deep, further ones wait in a list.
//
// Any thread may call these functions. A thread that does not belong to the group joins
// in until its outermost scope or call ends. Without a group argument, they use the
// calling thread's `work_group::current()`; if that is null, as it is in a forked process,
// the caller does all the work.
//
// The first exception wins: the caller gets it once nothing of the call runs any more.
// Calls also throw std::bad_alloc if the group has no memory for another thread that
// joins in. If the system then has no kernel object left for that thread, they fail the
// check "_semaphore != 0".
#ifndef OVEL_PARALLEL_H
#define OVEL_PARALLEL_H

#include "ovel_assure.h"
#include "ovel_atomic.h"
#include "ovel_kernel.h"
#include "ovel_task.h"
#include "ovel_work.h"

#include <algorithm>
#include <cstddef>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <tuple>
#include <type_traits>
#include <utility>

namespace ovel {

namespace detail {

// A scope that the library opens on the stack of a call.
class call_scope : public scope_base {
public:
    explicit call_scope(task_seat& seat) : scope_base(seat) {}

    // Keeps the exception being handled and discards what has not begun.
    void fail() {
        error.keep(std::current_exception());
        stop();
    }
    // Whether `child` now waits for `pop`; otherwise it has run.
    bool fork(task& child) {
        return _fork(child);
    }
    // Takes back the last child that was forked and not taken back. Returns false if
    // another thread has taken it.
    bool pop() {
        return seat().pop() != nullptr;
    }
    // Runs or awaits all children, then rethrows the first exception. `pop` has returned
    // false `stolen` times.
    void join(unsigned int stolen = 0) {
        _join(stolen);
        if (error.is_kept()) [[unlikely]]
            std::rethrow_exception(error.take());
    }
};

// Makes the caller's seat in a group the current one for the duration of a call.
class entered_group {
public:
    explicit entered_group(task_crew& crew) : seat(crew.enter(_previous)) {}
    ~entered_group() {
        task_crew::leave(seat, _previous);
    }
    entered_group(entered_group const&) = delete;
    entered_group& operator=(entered_group const&) = delete;

private:
    task_seat* _previous = nullptr;

public:
    task_seat& seat;
};

// Gives the functions in this header access to a group's crew.
class crew_of {
public:
    static task_crew& get(work_group& group) {
        return group._crew;
    }
};

// Calls `callable` unless `scope` has been stopped.
template <class Callable>
void run_in(call_scope& scope, Callable& callable) {
    if (scope.is_stopped())
        return;
    try {
        callable();
    } catch (...) {
        scope.fail();
    }
}

// A callable that stays on the caller's stack.
template <class Callable>
struct stack_task : task {
    stack_task(call_scope& of, Callable& callable) : task{&_run, of}, _callable(callable) {}

private:
    static void _run(task& self, bool) {
        run_in(static_cast<call_scope&>(self.scope), static_cast<stack_task&>(self)._callable);
    }

    Callable& _callable;
};

// A thief may read a child until the join has returned. So the innermost call joins, while
// all children exist.
template <class Last>
void fork_all(call_scope& scope, Last& last) {
    run_in(scope, last);
    scope.join();
}
template <class First, class Last>
void fork_all(call_scope& scope, First& first, Last& last) {
    stack_task<First> child(scope, first);
    bool const forked = scope.fork(child);
    run_in(scope, last);
    bool const stolen = forked && !scope.pop();
    // Without the indirection that a thief takes.
    if (forked && !stolen) [[likely]]
        run_in(scope, first);
    scope.join(stolen);
}
template <class First, class Second, class Third, class... Others>
void fork_all(call_scope& scope, First& first, Second& second, Third& third, Others&... others) {
    stack_task<First> child(scope, first);
    scope.fork(child);
    fork_all(scope, second, third, others...);
}

}  // namespace detail

// Runs the callables, which take no arguments, in parallel and returns when all have
// ended. The calling thread runs the last one. If one throws, those that have not begun
// are discarded. What they wrote is visible to the caller.
template <class... Callables>
requires(sizeof...(Callables) != 0 &&
         (std::is_invocable_v<Callables&> && ...)) void parallel_invoke(work_group& group,
                                                                        Callables&&... callables) {
    detail::entered_group const here(detail::crew_of::get(group));
    detail::call_scope scope(here.seat);
    detail::fork_all(scope, callables...);
}
template <class... Callables>
requires(sizeof...(Callables) != 0 &&
         (std::is_invocable_v<Callables&> && ...)) void parallel_invoke(Callables&&... callables) {
    if (detail::task_seat* const seat = detail::task_crew::current_seat()) [[likely]] {
        detail::call_scope scope(*seat);
        detail::fork_all(scope, callables...);
    } else {
        (callables(), ...);
    }
}

// How to divide a loop.
struct loop_options {
    // The number of elements in a part, at least 1; only the last part may have fewer. 0
    // lets the number of elements decide, for at most 256 parts.
    std::size_t grain = 0;
    // Skips parts that have not begun when a stop is requested.
    std::stop_token stop{};
};

namespace detail {

// Counts elements and parts. A range of integers can have more than a size_t counts.
using element_count = unsigned long long;

// Unsigned, because the difference of two integers need not fit their type.
template <class Index>
element_count count_between(Index const& first, Index const& last) {
    if (!(first < last))
        return 0;
    if constexpr (std::is_integral_v<Index>)
        return static_cast<element_count>(last) - static_cast<element_count>(first);
    else
        return static_cast<element_count>(last - first);
}
template <class Index>
Index advanced(Index const& from, element_count by) {
    if constexpr (std::is_integral_v<Index>)
        return static_cast<Index>(static_cast<element_count>(from) + by);
    else
        return from + static_cast<decltype(from - from)>(by);
}

// A range that is halved again and again. The caller keeps one half and offers the other
// to other threads: at first until there are as many halves as threads, later whenever a
// thread is idle. `Loop` defines what happens to a part.
class divided_range {
public:
    divided_range(element_count size, loop_options const& options)
        : _size(size),
          _grain(options.grain != 0 ? options.grain
                                    : std::max<element_count>(_quotient(size, _most), 1)),
          _stop(options.stop) {}

    element_count parts() const {
        return _quotient(_size, _grain);
    }
    // The bounds of part `part`, in elements.
    element_count begin(element_count part) const {
        return part * _grain;
    }
    element_count end(element_count part) const {
        return std::min(_size - part * _grain, _grain) + part * _grain;
    }

    // Whether to skip parts. Relaxed: parts that begin meanwhile may run.
    bool is_stopped() {
        if (_left_out.load(std::memory_order_relaxed))
            return true;
        if (!_stop.stop_requested())
            return false;
        leave_out();
        return true;
    }
    void leave_out() {
        _left_out.store(true, std::memory_order_relaxed);
    }
    bool is_complete() const {
        return !_left_out.load(std::memory_order_relaxed);
    }

private:
    // The most parts without a grain. With more, an empty loop takes longer; with fewer, a
    // thread is longer without work at the end of a loop.
    static constexpr element_count _most = 256;

    // Rounded up.
    static element_count _quotient(element_count size, element_count by) {
        return size / by + (size % by != 0);
    }

    element_count const _size;
    element_count const _grain;
    std::stop_token const _stop;
    // Relaxed: publishes nothing, and `is_complete` reads it after the join.
    atomic<bool> _left_out{false};
};

// The half of a loop that other threads may take. A thread that steals it divides it
// among all threads anew.
template <class Loop>
struct half_task : task {
    half_task(call_scope& of, Loop& loop, element_count first, element_count last,
              unsigned int shares)
        : task{&_run, of}, _loop(loop), _first(first), _last(last), _shares(shares) {}

    void run_on(task_seat& seat) {
        _run_on(seat, _shares);
    }

    // Empty if `scope` has failed.
    std::optional<typename Loop::result> result;

private:
    static void _run(task& self, bool stolen) {
        auto& half = static_cast<half_task&>(self);
        task_seat& seat = stolen ? *task_crew::current_seat() : half.scope.seat();
        half._run_on(seat, stolen ? seat.crew().threads() : half._shares);
    }

    void _run_on(task_seat& seat, unsigned int shares) {
        auto& in = static_cast<call_scope&>(scope);
        if (in.is_stopped())
            return;
        try {
            result.emplace(_loop.run(&seat, _first, _last, shares));
        } catch (...) {
            _loop.range.leave_out();
            in.fail();
        }
    }

    Loop& _loop;
    element_count const _first;
    element_count const _last;
    unsigned int const _shares;
};

// The result of a loop that is not a reduction.
struct nothing {};

// A reduction: `body` computes a result for each part, and `join` combines two results.
template <class Index, class T, class Body, class Join>
struct divided_loop {
    using result = T;

    // `seat` is null for a thread outside any group. There is at least one part.
    T run(task_seat* seat, element_count first, element_count last, unsigned int shares) {
        if constexpr (std::is_same_v<T, nothing>) {
            // One part after the other, which costs less than halving down to a part.
            for (;; ++first) {
                if (range.is_stopped())
                    return identity;
                if (last - first == 1)
                    return _run_part(first);
                if (_is_divided(seat, shares)) [[unlikely]]
                    return _divide(*seat, first, last, shares);
                _run_part(first);
            }
        } else {
            if (range.is_stopped())
                return identity;
            if (last - first == 1)
                return _run_part(first);
            if (_is_divided(seat, shares)) [[unlikely]]
                return _divide(*seat, first, last, shares);
            // Halves as `_divide` does, so that results are always joined in the same way.
            element_count const middle = first + (last - first) / 2;
            T left = run(seat, first, middle, 0);
            return std::invoke(join, std::move(left), run(seat, middle, last, 0));
        }
    }

    divided_range& range;
    Index const from;
    T const& identity;
    Body& body;
    Join& join;

private:
    T _run_part(element_count part) {
        return std::invoke(body, advanced(from, range.begin(part)), advanced(from, range.end(part)),
                           T(identity));
    }

    static bool _is_divided(task_seat* seat, unsigned int shares) {
        return seat != nullptr && (shares >= 2 || seat->is_begged());
    }

    // Keeps one half and offers the other.
    T _divide(task_seat& seat, element_count first, element_count last, unsigned int shares) {
        element_count const middle = first + (last - first) / 2;
        call_scope scope(seat);
        half_task<divided_loop> right(scope, *this, middle, last, shares / 2);
        bool const forked = scope.fork(right);
        std::optional<T> left;
        try {
            left.emplace(run(&seat, first, middle, shares - shares / 2));
        } catch (...) {
            range.leave_out();
            scope.fail();
        }
        bool const stolen = forked && !scope.pop();
        if (forked && !stolen)
            right.run_on(seat);
        scope.join(stolen);
        return std::invoke(join, std::move(*left), std::move(*right.result));
    }
};

// Runs `loop` on the threads of `group`, or of the current group if `group` is null. The
// scope around it gets the exceptions of scopes that parts close without a wait.
template <class Loop>
typename Loop::result run_loop(work_group* group, Loop& loop) {
    element_count const parts = loop.range.parts();
    if (parts == 0)
        return loop.identity;
    auto const run_on = [&](task_seat& seat) {
        call_scope scope(seat);
        try {
            auto result = loop.run(&seat, 0, parts, seat.crew().threads());
            scope.join();
            return result;
        } catch (...) {
            scope.fail();  // unless an earlier one is kept
            scope.join();
            throw;
        }
    };
    if (group != nullptr) {
        entered_group const here(crew_of::get(*group));
        return run_on(here.seat);
    }
    task_seat* const seat = task_crew::current_seat();
    return seat != nullptr ? run_on(*seat) : loop.run(nullptr, 0, parts, 0);
}

template <class Index, class Body>
bool run_for(work_group* group, Index first, Index last, Body& body, loop_options const& options) {
    divided_range range(count_between(first, last), options);
    auto const part = [&body](Index const& begin, Index const& end, nothing) {
        std::invoke(body, begin, end);
        return nothing();
    };
    auto const join = [](nothing, nothing) {
        return nothing();
    };
    nothing const none;
    divided_loop<Index, nothing, decltype(part), decltype(join)> loop{range, first, none, part,
                                                                      join};
    run_loop(group, loop);
    return range.is_complete();
}

template <class Index, class T, class Body, class Join>
std::optional<T> run_reduce(work_group* group, Index first, Index last, T const& identity,
                            Body& body, Join& join, loop_options const& options) {
    divided_range range(count_between(first, last), options);
    divided_loop<Index, T, Body, Join> loop{range, first, identity, body, join};
    std::optional<T> result(run_loop(group, loop));
    if (!range.is_complete())
        result.reset();
    return result;
}

}  // namespace detail

// Calls `body(begin, end)` for parts that together cover [first, last), in any order and
// in parallel. `first` and `last` are integers or random-access iterators. Returns true
// if `options.stop` made it skip no part. If a part throws, those that have not begun are
// skipped. What the parts wrote is visible to the caller.
template <class Index, class Body>
bool parallel_for(work_group& group, Index first, Index last, Body body,
                  loop_options const& options = {}) {
    return detail::run_for(&group, first, last, body, options);
}
template <class Index, class Body>
bool parallel_for(Index first, Index last, Body body, loop_options const& options = {}) {
    return detail::run_for(static_cast<work_group*>(nullptr), first, last, body, options);
}

// Combines what `body(begin, end, start)` returns for parts of [first, last). Each call
// gets a copy of `identity` as `start`; an empty range yields `identity`. `join(left,
// right)` combines neighbours in order, so it need only be associative. The number of
// elements and the grain alone determine the parts and how they are joined. So the result
// is the same every time, even for sums of floating-point numbers. If a part throws,
// those that have not begun are skipped.
template <class Index, class T, class Body, class Join>
T parallel_reduce(work_group& group, Index first, Index last, T identity, Body body, Join join,
                  std::size_t grain = 0) {
    return *detail::run_reduce(&group, first, last, identity, body, join, {.grain = grain});
}
template <class Index, class T, class Body, class Join>
T parallel_reduce(Index first, Index last, T identity, Body body, Join join,
                  std::size_t grain = 0) {
    return *detail::run_reduce(static_cast<work_group*>(nullptr), first, last, identity, body, join,
                               {.grain = grain});
}

// The same with a stop token. Returns nothing if the token made it skip parts.
template <class Index, class T, class Body, class Join>
std::optional<T> parallel_reduce(work_group& group, Index first, Index last, T identity, Body body,
                                 Join join, loop_options const& options) {
    return detail::run_reduce(&group, first, last, identity, body, join, options);
}
template <class Index, class T, class Body, class Join>
std::optional<T> parallel_reduce(Index first, Index last, T identity, Body body, Join join,
                                 loop_options const& options) {
    return detail::run_reduce(static_cast<work_group*>(nullptr), first, last, identity, body, join,
                              options);
}

// Children that a thread waits for together. Scopes nest to any depth.
//
//     task_scope here(group);
//     for (directory const& each : directories)
//         here.run([&] { total += size_of(each); });
//     here.wait();
//
// Only the thread that opened a scope may wait for it and destroy it, in the reverse
// order of opening. That thread and the scope's children may call `run`. What a child
// wrote is visible once `wait` has returned. Children are part of the work that opened
// the scope: they do not enter the group's queue and take no space of their own. Misuse
// fails the check "_is_innermost_of_caller()". In a forked process, waiting for a scope of
// the parent fails the check "!crew.inherited()".
class task_scope : detail::entered_group, detail::scope_base {
public:
    // Throws std::bad_alloc, and fails the check "_semaphore != 0", as described at the
    // top.
    explicit task_scope(work_group& group)
        : entered_group(detail::crew_of::get(group)),
          scope_base(entered_group::seat),
          _group(group),
          _opener(GetCurrentThreadId()) {}

    // Also discards children that have not begun when `stop` is requested.
    task_scope(work_group& group, std::stop_token stop) : task_scope(group) {
        _outer_stop = std::move(stop);
    }

    // Stops the scope and waits. Passes an exception that no `wait` has rethrown to the
    // scope or call of the same group that the thread had open before, or whose child it
    // ran; if there is none, to the group, whose `wait` rethrows it.
    ~task_scope() {
        stop();
        _join_checked();
        if (std::exception_ptr const lost = error.take()) {
            if (parent() != nullptr)
                parent()->error.keep(lost);
            else
                _group._error.keep(lost);
        }
        // Relaxed: nothing else uses the scope any more.
        delete _stop_state.load(std::memory_order_relaxed);
    }

    // Runs `callable`, which takes no arguments, as a child: on another thread, on this
    // one during `wait`, or before `run` returns. The last is always so if the caller has
    // a further scope of the same group open inside this one, or is inside a loop or a
    // `parallel_invoke` that it called inside this one. Does not wait for other work. The
    // caller must not hold a lock that `callable` takes. Discards `callable` once the scope has
    // been stopped. Throws std::bad_alloc.
    template <class Callable>
    void run(Callable callable) {
        auto* const child = new heap_task<Callable>(*this, std::move(callable));
        bool const by_opener = GetCurrentThreadId() == _opener;
        _fork_from(by_opener ? &scope_base::seat() : scope_base::seat().crew().find_seat(), *child);
    }

    // Runs children and waits for those that other threads run, and for what they submit
    // meanwhile. Then rethrows the first exception that a child threw. The scope can be
    // used again afterwards.
    void wait() {
        _join_checked();
        if (std::exception_ptr const caught = error.take())
            std::rethrow_exception(caught);
    }

    // Discards children that have not begun, and those that are run from now on. Any
    // thread that knows that the scope still exists may call it. It does not stop scopes
    // that children have opened: give those this scope's token.
    void stop() {
        // Sequentially consistent, like the exchange in `stop_token`: at least one of the
        // two threads sees what the other wrote.
        scope_base::stop();
        if (stop_state* const state = _stop_state.load())
            state->source.request_stop();
    }

    // A token on which `stop` requests a stop, and so does the token that the scope was
    // opened with. The opener and its children may call it. Throws std::bad_alloc.
    std::stop_token stop_token() {
        // Acquire: pairs with the exchange of the thread that made the state.
        stop_state* state = _stop_state.load(std::memory_order_acquire);
        if (state == nullptr) {
            auto made = std::make_unique<stop_state>(_outer_stop);
            if (_stop_state.compare_exchange_strong(state, made.get()))
                state = made.release();
        }
        if (is_stopped())
            state->source.request_stop();
        return state->source.get_token();
    }

private:
    struct stop_state {
        explicit stop_state(std::stop_token const& outer)
            : forward(outer, [this] { source.request_stop(); }) {}

        std::stop_source source;
        std::stop_callback<std::function<void()>> forward;
    };

    template <class Callable>
    struct heap_task : detail::listed_task, detail::handed_over {
        heap_task(task_scope& of, Callable&& callable)
            : listed_task{{&_run, of}}, _callable(std::move(callable)) {}

    private:
        static void _run(detail::task& self, bool) {
            std::unique_ptr<heap_task> const own(static_cast<heap_task*>(&self));
            auto& scope = static_cast<task_scope&>(self.scope);
            if (scope._discards())
                return;
            try {
                own->_callable();
            } catch (...) {
                scope.error.keep(std::current_exception());
            }
        }

        Callable _callable;
    };

    bool _discards() const {
        return is_stopped() || _outer_stop.stop_requested();
    }

    bool _is_innermost_of_caller() const {
        detail::task_seat const& seat = scope_base::seat();
        return GetCurrentThreadId() == _opener && detail::task_crew::current_seat() == &seat &&
               seat.innermost() == this && !_joins && !_runs_child();
    }

    void _join_checked() {
        // In a forked process no thread has the identifier of the opener.
        detail::task_crew const& crew = scope_base::seat().crew();
        if (GetCurrentThreadId() != _opener)
            assure(!crew.inherited());
        assure(_is_innermost_of_caller());
        _joins = true;
        _join();
        _joins = false;
    }

    work_group& _group;
    unsigned long const _opener;
    bool _joins = false;  // opener only
    std::stop_token _outer_stop;
    detail::atomic<stop_state*> _stop_state{nullptr};
};

}  // namespace ovel

#endif
