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
#include "ovel_petri_body.h"
#include "ovel_petri_core.h"
#include "ovel_petri_explain.h"
#include "ovel_petri_fit.h"
#include "ovel_petri_net.h"
#include "ovel_petri_place.h"
#include "ovel_petri_record.h"
#include "ovel_std.h"
#include "ovel_thread_base.h"
#include "ovel_time.h"
#include "ovel_trace.h"
#include "ovel_triple.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <exception>
#include <limits>
#include <memory>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace ovel {

// A transition of a net. Copies refer to the same transition, as long as its net
// lives. Any thread may use the operations.
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

    // Copies the oldest token of an input place that still has one to take, or that it reads.
    template <class T>
    T peek(place<T> const& input) const;

    // Puts a token into an output place. If it throws std::bad_alloc, it has put nothing.
    template <class T>
    void put(place<T> const& output, std::type_identity_t<T> value);

private:
    friend class detail::transition_record;
    template <class Told, unsigned int arc_count>
    friend class detail::flush_record;

    // Takes the token that tells of an end, from the first arc.
    void _take_mark() {
        any mark;
        _fired.arcs.front().reference->receive(mark);
        --_left[0];
    }

    firing(detail::transition_record& fired, unsigned int* left) : _fired(fired), _left(left) {
        for (std::size_t i = 0; i != _fired.arcs.size(); ++i)
            _left[i] = _fired.arcs[i].reads ? 0 : _fired.arcs[i].weight;
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

    bool _reads(detail::place_record const* place) const {
        for (detail::arc_record const& each : _fired.arcs)
            if (each.reads && each.place == place)
                return true;
        return false;
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
    // The higher goes first: each step counts as twice the time, within 1000 steps up or down.
    // Where several higher ones fire all the time, a lower one may wait for ever.
    int priority = 0;
    // It fires no earlier than so long after it was enabled, and not at all if it is disabled
    // before. On the clock of `time`, to the millisecond above. Nothing below 0. The span also
    // passes while the net is stopped, but begins anew at the start behind a halt.
    std::chrono::nanoseconds after{0};
    unsigned int limit = 0;  // of reentrant firings that run or wait for a thread; 0 for none
};

// How a place is made. `closes` is short for one that closes by itself.
//
//     net.insert_place<int>("results", 16, closes)
struct place_options {
    // Whether it closes once each transition that puts into it has ended: when one of the
    // places that it takes from or reads has ended, or has fewer tokens at its end than it needs,
    // and none of its firings runs; or when one of the places that it puts into is closed. A
    // transition that takes and reads nothing never ends by itself. Nor does a cycle of such
    // places: each waits for the others, so close one of them.
    // A place that no transition puts into never closes by itself.
    bool closes = false;
};
// The option of a place that closes by itself.
inline constexpr place_options closes{true};

// The places that a transition takes tokens from, or puts them into: a `place` for
// one token a firing, `place.times(n)` for n. In `from`, `reads(place)` leaves the token there,
// and `unless(place)` needs it empty.
template <class... Ends>
auto from(Ends const&... ends) {
    std::vector<detail::place_record*> inhibitors;
    auto arcs = std::tuple_cat(detail::arcs_of(ends, inhibitors)...);
    return detail::inputs_of(std::move(arcs), std::move(inhibitors));
}
template <class... Ends>
auto to(Ends const&... ends) {
    return detail::outputs<decltype(detail::arc_of(ends))...>{{detail::arc_of(ends)...}};
}

// A net: typed places, transitions with bodies, names, and the threads that fire it.
//
// One thread builds it, starts it with `start`, and joins it with `join`, after which
// it may be built further and started again. Calls of `start`, of the joining
// operations and of `stop` must not overlap; places, transitions, `halt` and `fail`
// are for any thread. Misuse fails the checks of `petri_net`. A net can be moved, and
// its places and transitions stay good; the one moved from can only be destroyed or
// assigned to.
//
// Bodies run on the stacks of the net's threads, of `thread_base::default_stack_size` bytes unless
// the net is made with another size, and so do the moves of tokens: large ones need a larger stack,
// or a pointer that is the token.
//
// An exception that leaves a body fails the net: no further firing begins, and once those
// in progress have ended, `join` rethrows the first such exception. Threads that are
// blocked in the net's places get it too, and `join` waits until they have left. The
// tokens that the body had taken are lost, those that it had put stay, and all other
// tokens stay where they were.
class net {
public:
    // With a thread for each processor and no space; or with `threads` and `space`;
    // or with a group for each (threads, space, stack size). Throw std::bad_alloc.
    net() : _core(std::make_unique<detail::net_core>()) {}
    explicit net(unsigned int threads, double space = 0.0,
                 unsigned int stack_size = thread_base::default_stack_size)
        : _core(std::make_unique<detail::net_core>(threads, space, stack_size)) {}
    net(triple<unsigned int, double, unsigned int> const* begin,
        triple<unsigned int, double, unsigned int> const* end)
        : _core(std::make_unique<detail::net_core>(begin, end)) {}

    // Takes over the net, running or not; its places and transitions stay valid. A net that
    // was moved from may only be destroyed or assigned to.
    net(net&&) noexcept = default;
    // The same, once the net that is replaced has been destroyed as by its destructor.
    net& operator=(net&&) noexcept = default;

    // Stops a net that runs, without waiting for it to rest: firings under way end. Lets the
    // threads go that are blocked in its places, and waits until they have left them. In a
    // fork, where its threads do not exist, it only goes out of use.
    ~net() = default;

    // Building. If one of these throws std::bad_alloc, the net can only be destroyed.

    // Inserts a place for `capacity` tokens of type `T`.
    template <class T>
    ovel::place<T> insert_place(std::string name, unsigned int capacity,
                                place_options options = {});

    // A transition. `body` has a parameter for each place of `from`: its token, or for
    // `place.times(n)` a std::vector or a std::array of n of them; a wrong size of the array
    // fails the check "weight == array_size<Argument>". It returns what `to` has: nothing, a
    // value, or a std::tuple of them, any of which may be a std::optional that puts nothing
    // when it is empty, unless the place is for such optionals, as may the tuple. For
    // `place.times(n)` it returns a range of up to n. A std::variant puts the alternative that it
    // holds into the place of its index. Or the body takes a `firing&` and gives nothing back.
    //
    // A body whose only parameter is a std::optional of its place's token is called once more
    // when that place has ended, with an empty value. A generic lambda and an overloaded body get
    // no such call, since their parameter has no one type. A last parameter of type
    // std::stop_token is requested to stop when the net halts or fails. The body is called as an
    // lvalue.
    //
    //     from(orders, clerks), to(clerks), [](order paid, clerk who) { return who; }
    //     from(pairs.times(2)), [](std::array<shoe, 2> pair) { wear(pair); }
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

    // Starts the net; what failed or halted it before is forgotten. Throws
    // std::bad_alloc, having started nothing.
    void start() {
        _core->start();
    }

    // Stops the net: blocks until it has come to rest. Rethrows what it failed with;
    // it is stopped then as well. A body of the net, which would wait for its own end,
    // fails the check "!_runs_caller()".
    void join() {
        _core->join();
    }

    // The same, but returns false if `point`, which is whatever `deadline` accepts,
    // passes before. The net is then stopping, and continues until it rests.
    template <class Point>
    [[nodiscard]] bool join_until(Point const& point) {
        return _core->join_until(point);
    }

    // Lets no further firing begin, until the next start, asks bodies that take a
    // std::stop_token to stop, and lets the threads go that are blocked in its places. Does
    // not block but for locks.
    void halt() {
        _core->halt();
    }

    // Has the net fail with `failure`, which is not null, unless it has already.
    void fail(std::exception_ptr failure) {
        _core->fail(std::move(failure));
    }

    // What its places hold, and what each transition lacks, at one moment. Takes the net's
    // lock. Throws std::bad_alloc.
    explanation explain() const {
        return _core->explain();
    }

    // The net itself, whose elements are in the order in which they were inserted; behind a
    // transition whose body gets a call at the end stand a place and a transition for that call,
    // which have its name. Its `send` knows nothing of closing: it still puts into a closed place.
    petri_net& base() {
        return _core->base();
    }

    // The names of elements of `base`, which must belong to this net. The cost grows with
    // the net.
    std::string const& name(petri_place const* element) const {
        for (auto const& record : _core->_transitions)
            if (record->mark_place != nullptr && record->mark_place->element == element)
                return record->mark_place->name.text();
        return _name(_core->_places, element);
    }
    std::string const& name(petri_transition const* element) const {
        return _name(_core->_transitions, element);
    }

private:
    template <class Point>
    friend bool stop(net& of, Point const& point);
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

    std::unique_ptr<detail::net_core> _core;
};

// Stops a net that may never rest: waits for that until `point`, whatever `deadline`
// accepts, then lets no further firing begin and waits for those under way. Returns
// whether the net came to rest by itself. Rethrows what it failed with; it is stopped
// then as well. Threads that are blocked in its places are let go. The next `start` goes on
// with the transitions that were active; those of a `petri_net` stay deactivated when it did
// not come to rest.
template <class Point>
bool stop(net& of, Point const& point) {
    if (of.join_until(point)) {
        of._core->let_go();
        return true;
    }
    of.halt();
    of.join();
    return false;
}
template <class Point>
bool stop(petri_net& of, Point const& point) {
    if (detail::join_until(of, point))
        return true;
    for (auto i = of.begin_transitions(); i != of.end_transitions(); ++i)
        of.deactivate(*i);
    of.acquire();
    return false;
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
    if (!_reads(input._record))
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
    _record->owner.activate(*_record);
}

inline void transition::deactivate() const {
    _record->owner.deactivate(*_record);
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

inline std::lock_guard<lockable<mutex>> detail::net_core::_hold() {
    assure(!_net.inherited());
    return std::lock_guard(_lock);
}

inline void detail::net_core::_insert_arcs(transition_record& of) {
    for (arc_record& arc : of.arcs) {
        assure(arc.place->owner == this);
        if (arc.reads)
            _net._insert_reader(arc.place->element, of.element);
        else if (arc.input)
            _net.insert_input_arc(arc.place->element,
                                  of.element->input(arc.reference).size(arc.weight));
        else
            _net.insert_output_arc(of.element->output(arc.reference).size(arc.weight),
                                   arc.place->element);
    }
    for (place_record* place : of.inhibitors) {
        assure(place->owner == this);
        _net._insert_inhibitor(place->element, of.element);
    }
}

template <class T>
ovel::place<T> net::insert_place(std::string name, unsigned int capacity, place_options options) {
    return ovel::place<T>(_core->insert_place(std::move(name), capacity, options.closes));
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
    static_assert(fault != misfit::weights,
                  "a body with weighted arcs takes a firing&, or a std::vector or std::array of "
                  "the tokens of each");
    static_assert(fault != misfit::read_copy,
                  "a body gets a copy of what it reads, so a token of the place can be copied");
    static_assert(fault != misfit::scope_result, "a body that takes a firing& returns nothing");
    static_assert(fault != misfit::any_result, "a body without to() returns nothing");
    static_assert(fault != misfit::no_result && fault != misfit::result,
                  "a body returns what the places in to() take");
    static_assert(fault != misfit::tuple,
                  "a body returns a std::tuple with a value for each place in to()");
    // What does not fit is not compiled further: its one message is above.
    if constexpr (fault == misfit::none) {
        using record = detail::body_record<Body, inputs, outputs>;
        detail::net_core& core = *_core;
        constexpr int most_priority = 1000;
        using limits = std::numeric_limits<double>;
        double time =
            std::ldexp(options.time, std::clamp(options.priority, -most_priority, most_priority));
        // A time that is wrong stays so, and fails the net's check.
        if (options.time > 0.0)
            time = std::clamp(time, limits::denorm_min(), limits::max());
        auto made = std::make_unique<record>(core, std::move(name), from, to, std::move(body));
        record& inserted = *made;
        if constexpr (record::traits::takes_stop)
            core.make_stop_source();
        core.insert(std::move(made), options.reentrant, time, options.space, options.group,
                    ovel::time::seconds(static_cast<double>(detail::seconds_of(options.after))));
        if (options.limit != 0)
            core.base().limit(inserted.element, options.limit);
        if constexpr (record::traits::flushes) {
            using flush = detail::flush_record<record, 1 + sizeof...(To)>;
            petri_place* const mark = core.base().insert_place(1);
            core.insert_at_end(inserted, std::make_unique<flush>(core, inserted, mark), time,
                               options.space, options.group);
        }
        return transition(&inserted);
    } else {
        return transition(nullptr);
    }
}

}  // namespace ovel

#endif
