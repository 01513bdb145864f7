// SPDX-License-Identifier: Apache-2.0
// Divide and conquer on the threads of a `work_group`: scopes of children that are waited
// for together, functions that run side by side, loops and reductions.
//
//     work_group group;
//     parallel_for(group, 0, height, [&](int begin, int end) { draw(begin, end); });
//     double const sum = parallel_reduce(
//         group, numbers.begin(), numbers.end(), 0.0,
//         [](auto begin, auto end, double start) { return std::accumulate(begin, end, start); },
//         std::plus<>());
//
// A thread that waits here works meanwhile, on nothing but what it waits for: children of
// its own scope or call, and what those have opened. So it holds up nothing else, may hold
// locks that other work takes, and needs no more stack than the program's own nesting. It
// sleeps when there is nothing of that to do. One thread suffices for everything: what no
// other thread takes, the caller runs itself. No thread is started, and no memory taken
// that grows with the work: when 960 children wait on a thread, it runs the next at once.
//
// Any thread may call all this; one that does not belong to the group takes part for as
// long as its outermost scope or call lasts.
// Without a group the calling thread's `work_group::current()` is meant; if there is none,
// the caller does all the work.
//
// Of exceptions the first wins: it is rethrown to the caller when nothing of the call runs
// any more. std::bad_alloc as well, where the group has no memory for another thread.
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

// A scope of the library's own, on the stack of the call.
class call_scope : public scope_base {
public:
    explicit call_scope(task_seat& seat) : scope_base(seat) {}

    // Keeps the exception that is being handled, and discards what has not begun.
    void fail() {
        error.keep(std::current_exception());
        stop();
    }
    void fork(task& child) {
        _fork(child);
    }
    // Runs or awaits all children, and rethrows the first exception.
    void join() {
        _join();
        if (error.is_kept()) [[unlikely]]
            std::rethrow_exception(error.take());
    }
};

// Makes the caller's seat in a group the current one, for as long as a call lasts.
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

// Gives the functions of this header a group's crew.
class crew_of {
public:
    static task_crew& get(work_group& group) {
        return group._crew;
    }
};

// A callable that waits on the caller's stack.
template <class Callable>
struct stack_task : task {
    stack_task(call_scope& scope, Callable& callable) : task{&_run, scope}, _callable(callable) {}

private:
    static void _run(task& self, bool) {
        auto& scope = static_cast<call_scope&>(self.scope);
        if (scope.is_stopped())
            return;
        try {
            static_cast<stack_task&>(self)._callable();
        } catch (...) {
            scope.fail();
        }
    }

    Callable& _callable;
};

template <class Last>
void fork_all(call_scope& scope, Last& last) {
    try {
        last();
    } catch (...) {
        scope.fail();
    }
    scope.join();
}
template <class First, class... Others>
void fork_all(call_scope& scope, First& first, Others&... others) {
    stack_task<First> child(scope, first);
    scope.fork(child);
    fork_all(scope, others...);
}

}  // namespace detail

// Runs the callables, which take no arguments, side by side, and returns when all have
// ended. The calling thread runs the last one, and the others wait on its stack. When one
// throws, those that have not begun are discarded.
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

// How a loop is divided.
struct loop_options {
    // The elements of a part, 1 or more, of which only the last may have fewer; 0: chosen
    // by the number of elements alone, some hundred parts.
    std::size_t grain = 0;
    // Parts that have not begun when this is requested are left out.
    std::stop_token stop{};
};

namespace detail {

// A range in parts, which is halved again and again: the caller keeps one half and puts the
// other where threads may take it, as long as there are fewer halves than threads, and
// later whenever a thread has nothing to do. `Loop` tells what is done with a part.
class divided_range {
public:
    divided_range(std::size_t size, loop_options const& options)
        : _size(size),
          _grain(options.grain != 0 ? options.grain : std::max<std::size_t>(size / 512, 1)),
          _stop(options.stop) {}

    std::size_t parts() const {
        return _size / _grain + (_size % _grain != 0);
    }
    // The elements of part `part` begin and end here.
    std::size_t begin(std::size_t part) const {
        return part * _grain;
    }
    std::size_t end(std::size_t part) const {
        return std::min(_size - part * _grain, _grain) + part * _grain;
    }

    // Whether parts are to be left out. Relaxed: parts that begin meanwhile may.
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
    std::size_t const _size;
    std::size_t const _grain;
    std::stop_token const _stop;
    atomic<bool> _left_out{false};
};

// The half of a loop that waits to be taken. A thread that takes it divides it among all.
template <class Loop>
struct half_task : task {
    half_task(call_scope& scope, Loop& loop, std::size_t first, std::size_t last,
              unsigned int shares)
        : task{&_run, scope}, _loop(loop), _first(first), _last(last), _shares(shares) {}

    std::optional<typename Loop::result> result;

private:
    static void _run(task& self, bool stolen) {
        auto& half = static_cast<half_task&>(self);
        auto& scope = static_cast<call_scope&>(self.scope);
        if (scope.is_stopped())
            return;
        try {
            task_seat& seat = stolen ? *task_crew::current_seat() : scope.seat();
            unsigned int const shares = stolen ? seat.crew().threads() : half._shares;
            half.result.emplace(half._loop.run(&seat, half._first, half._last, shares));
        } catch (...) {
            half._loop.range.leave_out();
            scope.fail();
        }
    }

    Loop& _loop;
    std::size_t const _first;
    std::size_t const _last;
    unsigned int const _shares;
};

// A reduction: `body` makes a result of each part, and `join` one of two.
template <class Index, class T, class Body, class Join>
struct divided_loop {
    using result = T;

    // `seat` is null for a thread that is alone. There is a part at least.
    T run(task_seat* seat, std::size_t first, std::size_t last, unsigned int shares) {
        if (range.is_stopped())
            return identity;
        if (last - first == 1)
            return std::invoke(body, from + static_cast<difference>(range.begin(first)),
                               from + static_cast<difference>(range.end(first)), T(identity));
        std::size_t const middle = first + (last - first) / 2;
        if (seat == nullptr || (shares < 2 && !seat->is_begged())) {
            T left = run(seat, first, middle, 0);
            return std::invoke(join, std::move(left), run(seat, middle, last, 0));
        }
        call_scope scope(*seat);
        half_task<divided_loop> right(scope, *this, middle, last, shares / 2);
        scope.fork(right);
        std::optional<T> left;
        try {
            left.emplace(run(seat, first, middle, shares - shares / 2));
        } catch (...) {
            range.leave_out();
            scope.fail();
        }
        scope.join();
        return std::invoke(join, std::move(*left), std::move(*right.result));
    }

    using difference = decltype(std::declval<Index>() - std::declval<Index>());

    divided_range& range;
    Index const from;
    T const& identity;
    Body& body;
    Join& join;
};

struct nothing {};

template <class Index>
std::size_t count_between(Index const& first, Index const& last) {
    return first < last ? static_cast<std::size_t>(last - first) : 0;
}

// Runs `loop` on the threads of `group`, or of the current group if it is null.
template <class Loop>
typename Loop::result run_loop(work_group* group, Loop& loop) {
    std::size_t const parts = loop.range.parts();
    if (parts == 0)
        return loop.identity;
    if (group != nullptr) {
        entered_group const here(crew_of::get(*group));
        return loop.run(&here.seat, 0, parts, group->threads());
    }
    task_seat* const seat = task_crew::current_seat();
    return loop.run(seat, 0, parts, seat != nullptr ? seat->crew().threads() : 0);
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

// Calls `body(begin, end)` for parts of [first, last), which together are all of it, in any
// order and side by side. The two are integers, or iterators of random access. Returns
// whether no part was left out because of `options.stop`. When a part throws, those that
// have not begun are left out.
template <class Index, class Body>
bool parallel_for(work_group& group, Index first, Index last, Body body,
                  loop_options const& options = {}) {
    return detail::run_for(&group, first, last, body, options);
}
template <class Index, class Body>
bool parallel_for(Index first, Index last, Body body, loop_options const& options = {}) {
    return detail::run_for(static_cast<work_group*>(nullptr), first, last, body, options);
}

// Joins what `body(begin, end, start)` returns for parts of [first, last), each time with a
// copy of `identity` to start from; `identity` for an empty range. `join(left, right)` joins
// neighbours, the left one first, so it need only be associative. Which parts there are and
// how they are joined depends on the number of elements and on the grain, not on threads: so
// the result is the same each time, sums of floating-point numbers too. When a part throws,
// those that have not begun are left out.
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

// The same with a stop token: nothing if parts were left out because of it.
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

// Children that are waited for together. Scopes nest to any depth.
//
//     task_scope here(group);
//     for (directory const& each : directories)
//         here.run([&] { total += size_of(each); });
//     here.wait();
//
// The thread that opened a scope waits and destroys it, scopes in reverse order; it and the
// scope's children call `run`. Children are part of the work that opened the scope: they
// have no place in the group's queue, and take no space of their own. Misuse fails the check
// "_is_innermost_of_caller()".
class task_scope : detail::entered_group, detail::scope_base {
public:
    // Throws std::bad_alloc.
    explicit task_scope(work_group& group)
        : entered_group(detail::crew_of::get(group)),
          scope_base(entered_group::seat),
          _group(group),
          _opener(GetCurrentThreadId()) {}

    // Children that have not begun when `stop` is requested are discarded, too.
    task_scope(work_group& group, std::stop_token stop) : task_scope(group) {
        _outer_stop = std::move(stop);
    }

    // Stops the scope and waits. An exception that no `wait` has rethrown goes to the scope
    // around this one, or to the group.
    ~task_scope() {
        stop();
        _join_checked();
        if (std::exception_ptr const lost = error.take()) {
            if (parent() != nullptr)
                parent()->error.keep(lost);
            else
                _group._error.keep(lost);
        }
        delete _stop_state.load(std::memory_order_relaxed);
    }

    // Has `callable`, which takes no arguments, run as a child: by another thread, by this
    // one during `wait`, or before this returns, as it always is where the caller has a
    // further scope open inside this one. Waits for no other work. The caller holds no lock
    // that `callable` takes. Discarded once the scope has been stopped. Throws
    // std::bad_alloc.
    template <class Callable>
    void run(Callable callable) {
        auto* const child = new heap_task<Callable>(*this, std::move(callable));
        bool const by_opener = GetCurrentThreadId() == _opener;
        _fork_from(by_opener ? &scope_base::seat() : scope_base::seat().crew().find_seat(), *child);
    }

    // Runs children and waits for those that other threads run, also for what they run
    // meanwhile; then rethrows the first exception that a child threw. Afterwards the scope
    // goes on.
    void wait() {
        _join_checked();
        if (std::exception_ptr const caught = error.take())
            std::rethrow_exception(caught);
    }

    // Has children that have not begun discarded, and those that are run from now on. Any
    // thread that knows the scope to exist may call it. It does not reach scopes that
    // children have opened: give those this scope's token.
    void stop() {
        // Pairs with the exchange in `stop_token`: one of the two sees the other.
        scope_base::stop();
        if (stop_state* const state = _stop_state.load())
            state->source.request_stop();
    }

    // A token that is requested by `stop`, and by the token that the scope was opened with.
    // The opener and its children may call it. Throws std::bad_alloc.
    std::stop_token stop_token() {
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
    struct heap_task : detail::task {
        heap_task(task_scope& scope, Callable&& callable)
            : task{&_run, scope}, _callable(std::move(callable)) {}

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
        return GetCurrentThreadId() == _opener && scope_base::seat().innermost() == this && !_joins;
    }

    void _join_checked() {
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
