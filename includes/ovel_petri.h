// SPDX-License-Identifier: Apache-2.0
// Petri nets in modern C++: typed places, and transitions from lambdas.
//
//     net pipeline;
//     auto const numbers = pipeline.insert_place<int>("numbers", 16);
//     auto const results = pipeline.insert_place<int>("results", 16);
//     pipeline.insert_transition("double", from(numbers), to(results),
//                                [](int number) { return 2 * number; });
//     pipeline.start();
//     numbers.send(21);
//     results.receive();  // 42
//     pipeline.join();    // stops it once it has come to rest
//
// A `trace::recorder` of `ovel_trace.h` records the firings of a net, named after their
// transitions, and the waits at its places.
//
// A `net` wraps a `petri_net` and keeps its contract; `ovel_petri_net.h` says how a net
// fires. `ovel.h` does not include this header, because it includes much of the standard
// library.
#ifndef OVEL_PETRI_H
#define OVEL_PETRI_H

#include "ovel_any.h"
#include "ovel_assure.h"
#include "ovel_atomic.h"
#include "ovel_mutex.h"
#include "ovel_petri_body.h"
#include "ovel_petri_failure.h"
#include "ovel_petri_net.h"
#include "ovel_petri_record.h"
#include "ovel_std.h"
#include "ovel_thread_base.h"
#include "ovel_time.h"
#include "ovel_trace.h"
#include "ovel_triple.h"

#include <cstddef>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace ovel {

// A place of a net, for tokens of type `T`. Copies refer to the same place, as long as
// the net exists.
//
// Any thread may use the operations, whether the net runs or not. A `T` is moved in and
// out; only `try_send` of an lvalue and `try_peek` copy it. If `T` can be copied, users
// of the `petri_net` see a token as an `any` of `T`. Tokens are moved in, copied and
// destroyed under the net's lock, so none of that may call the net. A token of another
// type fails the check "operand.type() == typeid(T)". A container of elements that cannot
// be copied claims to be copyable, and then fails to compile: hold it by a
// std::unique_ptr. What a thread wrote before it sent a token is visible to the thread or
// firing that takes the token.
//
// A firing body reaches its own places through `firing`. A body that sends by hand to a
// full place, or receives from an empty one, blocks a thread of its net, and for ever if
// no other firing makes room or a token. Use `try_send` and `try_receive` there.
//
// When the net fails, or has failed, a thread that would block gets the net's exception
// instead, and has sent or received nothing. All operations throw std::bad_alloc.
template <class T>
class place {
    static_assert(std::is_same_v<T, std::decay_t<T>>, "a place is for values");
    static_assert(!std::is_same_v<T, any>, "a place is for values of one type");
    static_assert(std::is_move_constructible_v<T>, "tokens are moved");

public:
    // Puts a token; blocks while no slot is free. If it throws, it has put nothing.
    void send(T value) const;

    // Puts a token if a slot is free, and returns whether one was. If it returns false or
    // throws, it has put nothing, and `value` is unchanged unless its own move threw.
    [[nodiscard]] bool try_send(T const& value) const requires std::is_copy_constructible_v<T>;
    [[nodiscard]] bool try_send(T&& value) const;

    // Takes the oldest token that no firing has reserved; blocks until there is one.
    T receive() const;

    // Takes the oldest such token, if there is one.
    [[nodiscard]] std::optional<T> try_receive() const;

    // Copies the oldest such token, if there is one.
    [[nodiscard]] std::optional<T> try_peek() const;

    // An arc to the place with the weight `weight`, for `from` and `to`.
    auto times(unsigned int weight) const {
        return place_arc<T, true>{*this, weight};
    }

    // Its name; valid as long as the net.
    std::string const& name() const {
        return _record->name.text();
    }

    // The number of tokens that it has room for.
    unsigned int capacity() const {
        return _record->element->capacity();
    }

    // The place in `net::base`.
    petri_place* base() const {
        return _record->element;
    }

private:
    friend class detail::transition_record;
    friend class firing;
    friend class net;
    friend struct detail::inspector;

    explicit place(detail::place_record* record) : _record(record) {}

    detail::place_record* _record;
};

// A transition of a net. Copies refer to the same transition, as long as the net exists.
// Any thread may use the operations.
class transition {
public:
    // Allow the transition to fire, as it may from the beginning; and keep it from
    // firing, while firings in progress run to their end. They block only for locks.
    // `activate` throws std::bad_alloc and may then be called again.
    void activate() const;
    void deactivate() const;

    // Its name; valid as long as the net.
    std::string const& name() const {
        return _record->name.text();
    }

    // The transition in `net::base`.
    petri_transition* base() const {
        return _record->element;
    }

private:
    friend class detail::transition_record;
    friend class net;

    explicit transition(detail::transition_record* record) : _record(record) {}

    detail::transition_record* _record;
};

// A body's access to the places of its transition while it runs. Tokens that it does not
// take stay where they are, and slots that it does not fill stay free. A body that
// changes nothing leaves its transition enabled, which fires again. Only the body's own
// thread may use it, during the firing.
class firing {
public:
    firing(firing const&) = delete;
    firing& operator=(firing const&) = delete;

    // Takes the oldest token of an input place. A place without such an arc, or more
    // tokens than the arc's weight, fails the check "left != 0", here and below.
    template <class T>
    T take(place<T> const& input);

    // Copies the oldest token of an input place that still has one to take.
    template <class T>
    T peek(place<T> const& input) const;

    // Puts a token into an output place. If it throws std::bad_alloc, it has put nothing.
    template <class T>
    void put(place<T> const& output, std::type_identity_t<T> value);

private:
    friend class detail::transition_record;

    firing(detail::transition_record& fired, unsigned int* left) : _fired(fired), _left(left) {
        for (std::size_t i = 0; i != _fired.arcs.size(); ++i)
            _left[i] = _fired.arcs[i].weight;
    }
    // Skips the rest, as the contract of `petri_place` demands.
    ~firing() {
        for (std::size_t i = 0; i != _fired.arcs.size(); ++i)
            for (; _left[i] != 0; --_left[i])
                if (_fired.arcs[i].input)
                    _fired.arcs[i].reference->receive_skip();
                else
                    _fired.arcs[i].reference->send_skip();
    }

    // What remains of the arc between the transition and `end`.
    unsigned int& _left_of(bool input, detail::place_record const* end) const {
        unsigned int* left = nullptr;
        for (std::size_t i = 0; i != _fired.arcs.size(); ++i)
            if (_fired.arcs[i].input == input && _fired.arcs[i].place == end && _left[i] != 0)
                left = &_left[i];
        assure(left != 0);
        return *left;
    }

    detail::transition_record& _fired;
    unsigned int* const _left;
};

// How to fire a transition: see `petri_net::insert_transition`. Only a `reentrant` body
// may run on several threads at once.
struct transition_options {
    bool reentrant = false;  // whether several firings may run at once
    double time = 1.0;       // positive; among equal spaces the longest time goes first
    double space = 0.0;      // from 0 to all of its group's space
    unsigned int group = 0;  // the index of the group that fires it
};

// The places that a transition takes tokens from, or puts them into: `place` for one
// token per firing, `place.times(n)` for n.
template <class... Ends>
auto from(Ends const&... ends) {
    return detail::inputs<decltype(detail::arc_of(ends))...>{{detail::arc_of(ends)...}};
}
template <class... Ends>
auto to(Ends const&... ends) {
    return detail::outputs<decltype(detail::arc_of(ends))...>{{detail::arc_of(ends)...}};
}

// A net: typed places, transitions with bodies, names, and the threads that fire it.
//
// One thread builds the net, starts it with `start`, and joins it with `join`. After that
// it may be extended and started again. Calls of `start`, of the joining operations and
// of `stop` must not overlap. Any thread may use places, transitions, `halt` and `fail`.
// Misuse fails the checks of `petri_net`.
//
// An exception that leaves a body fails the net: no further firing begins, and once those
// in progress have ended, `join` rethrows the first such exception. Threads that are
// blocked in the net's places get it too, and `join` waits until they have left. The
// tokens that the body had taken are lost, those that it had put stay, and all other
// tokens stay where they were.
class net {
public:
    // With a thread per processor and no space; or with `threads` and `space`; or with a
    // group for each (threads, space, stack size). Throw std::bad_alloc.
    net() = default;
    explicit net(unsigned int threads, double space = 0.0,
                 unsigned int stack_size = thread_base::default_stack_size)
        : _net(threads, space, stack_size) {}
    net(triple<unsigned int, double, unsigned int> const* begin,
        triple<unsigned int, double, unsigned int> const* end)
        : _net(begin, end) {}

    // Stops a running net without waiting for it to rest; firings in progress end. In a
    // forked process, where its threads do not exist, it only abandons the net.
    ~net() {
        if (_net.inherited())
            return;
        if (_running) {
            halt();
            _net.acquire();
        }
        _failure.await_unblocked();
    }

    net(net const&) = delete;
    net& operator=(net const&) = delete;

    // Building. If one of these throws std::bad_alloc, the net can only be destroyed.

    // Inserts a place for `capacity` tokens of type `T`.
    template <class T>
    ovel::place<T> insert_place(std::string name, unsigned int capacity);

    // Inserts a transition. `body` may have a parameter for each place of `from` and
    // return values for `to`: nothing, a value, or a std::tuple of values, each of which
    // may be a std::optional that puts nothing if it is empty. Or it takes a `firing&`
    // and returns nothing. The net calls it as an lvalue.
    //
    //     from(orders, clerks), to(clerks), [](order paid, clerk who) { return who; }
    //     from(pairs.times(2)), [=](firing& now) { now.take(pairs), now.take(pairs); }
    template <class... From, class... To, class Body>
    transition insert_transition(std::string name, detail::inputs<From...> from,
                                 detail::outputs<To...> to, Body body,
                                 transition_options options = {});
    template <class... From, class Body>
    transition insert_transition(std::string name, detail::inputs<From...> from, Body body,
                                 transition_options options = {}) {
        return insert_transition(std::move(name), std::move(from), to(), std::move(body), options);
    }
    template <class... To, class Body>
    transition insert_transition(std::string name, detail::outputs<To...> to, Body body,
                                 transition_options options = {}) {
        return insert_transition(std::move(name), from(), std::move(to), std::move(body), options);
    }

    // Starts the net, and forgets an earlier failure or halt. If it throws
    // std::bad_alloc, it has started nothing.
    void start();

    // Stops the net: blocks until it has come to rest. Rethrows the exception that it
    // failed with; it is stopped then, too. A body of the net would wait for its own end,
    // and fails the check "!_runs_caller()".
    void join();

    // The same, but returns false if `point`, which is whatever `deadline` accepts,
    // passes before. The net is then stopping, and continues until it rests.
    template <class Point>
    [[nodiscard]] bool join_until(Point const& point);

    // Lets no further firing begin until the next start. Blocks only for locks.
    void halt();

    // Makes the net fail with `failure`, which is not null, unless it has already failed.
    void fail(std::exception_ptr failure);

    // The net itself, with its elements in the order of insertion.
    petri_net& base() {
        return _net;
    }

    // The names of elements of `base`, which must belong to this net. The cost grows with
    // the net.
    std::string const& name(petri_place const* element) const {
        return _name(_places, element);
    }
    std::string const& name(petri_transition const* element) const {
        return _name(_transitions, element);
    }

private:
    template <class T>
    friend class ovel::place;
    friend class detail::transition_record;
    friend class firing;
    friend class ovel::transition;

    friend struct detail::inspector;

    template <class Records, class Element>
    static std::string const& _name(Records const& records, Element const* element) {
        std::string const* name = nullptr;
        for (auto const& record : records)
            if (record->element == element)
                name = &record->name.text();
        assure(name != 0);
        return *name;
    }

    // Holds `_lock` for the duration of a scope.
    [[nodiscard]] std::lock_guard<lockable<mutex>> _hold() {
        assure(!_net.inherited());
        return std::lock_guard(_lock);
    }

    transition _insert(std::unique_ptr<detail::transition_record> inserted,
                       transition_options const& options);
    void _receive(detail::place_record& from, any& token);
    void _send(detail::place_record& to, petri_net::maker make, void* value);
    bool _try_send(detail::place_record& to, petri_net::maker make, void* value);
    void _deactivate();
    void _end();

    // Guards `_failure`, `_halted` (which is also read without it), and whether each
    // transition is active. Lock order: `_lock`, then the net's own locks.
    lockable<mutex> _lock;
    detail::net_failure _failure{_lock};
    detail::atomic<bool> _halted{false};
    bool _running = false;  // owner only
    std::vector<std::unique_ptr<detail::place_record>> _places;
    std::vector<std::unique_ptr<detail::transition_record>> _transitions;
    petri_net _net;  // last: its elements refer to the records
};

namespace detail {

// Joins a net that comes to rest before `point`, which is whatever `deadline` accepts.
template <class Point>
bool join_until(petri_net& stopped, Point const& point) {
    return attempt_until(point, [&stopped](unsigned int milliseconds) {
        return stopped.timed_acquire(from_now(milliseconds / 1000.0L));
    });
}

}  // namespace detail

// Stops a net that may never rest. Waits for it to rest until `point`, which is whatever
// `deadline` accepts; then lets no further firing begin, and waits for those in progress.
// Returns whether the net came to rest by itself. Rethrows the exception that it failed
// with; it is stopped then, too. The next `start` continues with the transitions that
// were active; those of a `petri_net` stay deactivated if it did not come to rest.
template <class Point>
bool stop(net& stopped, Point const& point) {
    if (stopped.join_until(point))
        return true;
    stopped.halt();
    stopped.join();
    return false;
}
template <class Point>
bool stop(petri_net& stopped, Point const& point) {
    if (detail::join_until(stopped, point))
        return true;
    for (auto i = stopped.begin_transitions(); i != stopped.end_transitions(); ++i)
        stopped.deactivate(*i);
    stopped.acquire();
    return false;
}

template <class T>
void place<T>::send(T value) const {
    _record->owner->_send(*_record, &detail::move_into<T>, &value);
}

template <class T>
bool place<T>::try_send(T const& value) const requires std::is_copy_constructible_v<T> {
    return _record->owner->_try_send(*_record, &detail::copy_into<T>, const_cast<T*>(&value));
}

template <class T>
bool place<T>::try_send(T&& value) const {
    return _record->owner->_try_send(*_record, &detail::move_into<T>, &value);
}

template <class T>
T place<T>::receive() const {
    any received;
    _record->owner->_receive(*_record, received);
    return std::move(detail::value_of<T>(received));
}

template <class T>
std::optional<T> place<T>::try_receive() const {
    any received;
    if (!_record->owner->_net.try_receive(_record->element, received))
        return std::nullopt;
    return std::move(detail::value_of<T>(received));
}

template <class T>
std::optional<T> place<T>::try_peek() const {
    static_assert(std::is_copy_constructible_v<T>, "a copy is what it returns");
    any seen;
    if (!_record->owner->_net.try_peek(_record->element, seen))
        return std::nullopt;
    return std::move(detail::value_of<T>(seen));
}

template <class T>
T firing::take(place<T> const& input) {
    unsigned int& left = _left_of(true, input._record);
    any taken;
    input._record->element->receive(taken);
    --left;
    return std::move(detail::value_of<T>(taken));
}

template <class T>
T firing::peek(place<T> const& input) const {
    static_assert(std::is_copy_constructible_v<T>, "a copy is what it returns");
    _left_of(true, input._record);
    any seen;
    input._record->element->peek(seen);
    return std::move(detail::value_of<T>(seen));
}

template <class T>
void firing::put(place<T> const& output, std::type_identity_t<T> value) {
    unsigned int& left = _left_of(false, output._record);
    any made;
    detail::move_into<T>(made, &value);
    output._record->element->_put(std::move(made));
    --left;
}

inline void transition::activate() const {
    net& owner = _record->owner;
    auto const hold = owner._hold();
    _record->active = true;
    // Relaxed: it changes under the lock, which this thread holds.
    if (!owner._halted.load(std::memory_order_relaxed))
        _record->element->activate();
}

inline void transition::deactivate() const {
    auto const hold = _record->owner._hold();
    _record->active = false;
    _record->element->deactivate();
}

inline void detail::transition_record::_fire(unsigned int* left) {
    firing scope(*this, left);
    // Relaxed: a firing that was already reserved may run or not.
    if (owner._halted.load(std::memory_order_relaxed))
        return;
    trace::scope const here(name, trace::firing);
    try {
        _run(scope);
    } catch (...) {
        owner.fail(std::current_exception());
    }
}

template <class T>
ovel::place<T> net::insert_place(std::string name, unsigned int capacity) {
    std::unique_ptr<detail::place_record> inserted(new detail::place_record{
        this, trace::shared_name(std::move(name)), _net.insert_place(capacity)});
    _places.push_back(std::move(inserted));
    return ovel::place<T>(_places.back().get());
}

template <class... From, class... To, class Body>
transition net::insert_transition(std::string name, detail::inputs<From...> from,
                                  detail::outputs<To...> to, Body body,
                                  transition_options options) {
    using detail::misfit;
    using inputs = detail::inputs<From...>;
    using outputs = detail::outputs<To...>;
    // Computed here and not at the call of the body, because compilers then show the
    // caller's line.
    constexpr misfit fault =
        detail::misfit_of<Body>(std::type_identity<inputs>(), std::type_identity<outputs>());
    static_assert(fault != misfit::parameters,
                  "a body takes one token of each place in from(), or a firing&");
    static_assert(fault != misfit::weights, "a body with weighted arcs takes a firing&");
    static_assert(fault != misfit::scope_result, "a body that takes a firing& returns nothing");
    static_assert(fault != misfit::any_result, "a body without to() returns nothing");
    static_assert(fault != misfit::no_result && fault != misfit::result,
                  "a body returns what the places in to() take");
    static_assert(fault != misfit::tuple,
                  "a body returns a std::tuple with a value for each place in to()");
    // A body that does not fit is not compiled further: the message above is the only
    // one.
    if constexpr (fault == misfit::none)
        return _insert(std::make_unique<detail::body_record<Body, inputs, outputs>>(
                           *this, std::move(name), from, to, std::move(body)),
                       options);
    else
        return transition(nullptr);
}

inline transition net::_insert(std::unique_ptr<detail::transition_record> inserted,
                               transition_options const& options) {
    detail::transition_record& record = *inserted;
    _transitions.push_back(std::move(inserted));
    record.element = _net.insert_transition(record, options.reentrant, options.time, options.space,
                                            options.group);
    for (detail::arc_record& arc : record.arcs) {
        assure(arc.place->owner == this);
        if (arc.input)
            _net.insert_input_arc(arc.place->element,
                                  record.element->input(arc.reference).size(arc.weight));
        else
            _net.insert_output_arc(record.element->output(arc.reference).size(arc.weight),
                                   arc.place->element);
    }
    return transition(&record);
}

inline void net::start() {
    {
        auto const hold = _hold();
        if (_failure.has_failed())
            _failure.wait_unblocked();
        // Relaxed: it changes under the lock, which this thread holds.
        if (_halted.load(std::memory_order_relaxed))
            for (auto const& record : _transitions)
                if (record->active)
                    record->element->activate();
        // A failure from here on belongs to this run.
        _failure.clear();
        _halted = false;
    }
    _net.release();
    _running = true;
}

inline void net::join() {
    _net.acquire();
    _end();
}

template <class Point>
bool net::join_until(Point const& point) {
    if (!detail::join_until(_net, point))
        return false;
    _end();
    return true;
}

// Called once the threads are joined.
inline void net::_end() {
    _running = false;
    if (std::exception_ptr const failure = _failure.await_unblocked())
        std::rethrow_exception(failure);
}

inline void net::halt() {
    auto const hold = _hold();
    _deactivate();
}

inline void net::fail(std::exception_ptr failure) {
    auto const hold = _hold();
    if (_failure.has_failed())
        return;
    _failure.set(std::move(failure));
    _deactivate();
    _net._wake();
}

// The caller holds `_lock`.
inline void net::_deactivate() {
    _halted = true;
    for (auto const& record : _transitions)
        record->element->deactivate();
}

inline bool net::_try_send(detail::place_record& to, petri_net::maker make, void* value) {
    return _net._try_put(to.element, make, value);
}

inline void net::_send(detail::place_record& to, petri_net::maker make, void* value) {
    if (_try_send(to, make, value))
        return;
    trace::scope const here(to.name, trace::wait);
    detail::net_failure::blocked const counted(_failure);
    if (!_net._put_unless(_failure.flag(), to.element, make, value))
        _failure.rethrow();
}

inline void net::_receive(detail::place_record& from, any& token) {
    if (_net.try_receive(from.element, token))
        return;
    trace::scope const here(from.name, trace::wait);
    detail::net_failure::blocked const counted(_failure);
    if (!_net._receive_unless(_failure.flag(), from.element, token))
        _failure.rethrow();
}

}  // namespace ovel

#endif
