// SPDX-License-Identifier: Apache-2.0
// Petri nets that outlive their processes and span machines: each firing is a transaction
// of a database. The marking is exactly-once: no matter what is killed, and when, no token
// is lost, duplicated or half moved. A body runs at least once: if a member dies before the
// commit, another member repeats the firing with the same tokens and the same key. Pass that
// key to effects outside the net, so that they can be made idempotent.
//
//     template <>
//     struct ovel::durable::codec<order> {
//         static constexpr char const* name = "order";  // part of the net's structure
//         static std::string encode(order const& value);
//         static order decode(std::string_view bytes);
//     };
//
//     ovel::durable::net shop("postgresql://db/shop", "shop");  // or "sqlite:shop.db"
//     auto const orders = shop.insert_place<order>("orders", 1000);
//     auto const paid = shop.insert_place<receipt>("paid", 1000);
//     shop.insert_transition("charge", from(orders), to(paid),
//                            [](ovel::durable::key firing, order o) { return charge(firing, o); });
//     shop.start();    // this process is now a member of the net
//     orders.send(o);
//     shop.join();     // returns when all members are at rest
//
// A member is a process that builds the same net and runs the transitions that it names.
// The first one makes the net in the store; one whose places, weights, capacities, codecs or
// names differ is refused, and the error says how. A member claims firings in batches: it
// takes their tokens and reserves the slots that they need, runs the bodies on threads of
// its own, and commits what they return. Capacities hold across members.
//
// A claim is leased, by the database's clock. When its member dies, or sleeps past its
// lease, other members take the claim over; should the first one then wake, its commit
// changes nothing, and it reports that.
//
// PostgreSQL is for several machines, SQLite for the processes of one. The component is
// `libovel_durable`, which needs libpq and sqlite3; the library itself does not.
#ifndef OVEL_DURABLE_H
#define OVEL_DURABLE_H

#include "ovel_durable_engine.h"

#include <ovel_assure.h>
#include <ovel_std.h>
#include <ovel_time.h>

#include <array>
#include <charconv>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace ovel::durable {

class net;
template <class T>
class place;

// How values of type `T` are stored: give a specialisation for a type of yours. `decode`
// may throw, for bytes that it does not know, and so may `encode`; the net then fails,
// naming the token, and keeps it. Both may be called on several threads at once.
template <class T>
struct codec;

template <>
struct codec<std::string> {
    static constexpr char const* name = "text";
    static std::string encode(std::string const& value) {
        return value;
    }
    static std::string decode(std::string_view bytes) {
        return std::string(bytes);
    }
};

// Whole numbers, in decimal digits.
template <std::integral T>
struct codec<T> {
    static constexpr char const* name = "whole number";
    static std::string encode(T value) {
        return std::to_string(value);
    }
    static T decode(std::string_view bytes) {
        // A bool has no digits of its own.
        std::conditional_t<std::is_same_v<T, bool>, int, T> value{};
        auto const [end, fault] = std::from_chars(bytes.data(), bytes.data() + bytes.size(), value);
        if (fault != std::errc() || end != bytes.data() + bytes.size())
            throw error("not a whole number of its type");
        return static_cast<T>(value);
    }
};

// An arc to be, between the place `end` and a transition, for `from` and `to`. One with a
// weight carries std::vector<T>.
template <class T, bool Weighted>
struct place_arc {
    using value = std::conditional_t<Weighted, std::vector<T>, T>;

    place<T> end;
    unsigned int weight;
};

namespace detail {

template <class T>
place_arc<T, false> arc_of(place<T> const& end) {
    return {end, 1};
}
template <class T>
place_arc<T, true> arc_of(place_arc<T, true> const& end) {
    return end;
}

template <class... Arcs>
struct inputs {
    std::tuple<Arcs...> arcs;
};
template <class... Arcs>
struct outputs {
    std::tuple<Arcs...> arcs;
};

template <class T>
inline constexpr bool is_optional = false;
template <class T>
inline constexpr bool is_optional<std::optional<T>> = true;

template <class>
inline constexpr bool never = false;

// What went wrong in the catch block that this is called in.
inline std::string current_failure() {
    try {
        throw;
    } catch (std::exception const& thrown) {
        return thrown.what();
    } catch (...) {
        return "an exception of an unknown type";
    }
}

template <class T>
T decoded(engine const& owner, std::size_t place, token const& from) {
    try {
        return codec<T>::decode(from.value);
    } catch (...) {
        throw error("the codec \"" + std::string(codec<T>::name) + "\" cannot decode token " +
                    std::to_string(from.number) + " of the place \"" + owner.name_of_place(place) +
                    "\": " + current_failure());
    }
}

template <class T>
std::string encoded(engine const& owner, std::size_t place, T const& value,
                    std::string const& which) {
    try {
        return codec<T>::encode(value);
    } catch (...) {
        throw error("the codec \"" + std::string(codec<T>::name) + "\" cannot encode a token for " +
                    "the place \"" + owner.name_of_place(place) + '"' + which + ": " +
                    current_failure());
    }
}

}  // namespace detail

// A place of a net, for tokens of type `T`. Copies refer to the same place, as long as its
// net lives.
//
// Any thread may use the operations, a body as well, though a body that blocks in them holds
// its thread; the net need not be started. Each is a transaction with a key, so a connection
// that is lost on the way neither loses nor duplicates a token. With a key of yours, the call
// may be repeated by another process later: it then returns what it returned before, and
// changes nothing. A key that another kind of call had, or one for another place, is refused.
// Such keys are kept for good. A token that was received belongs to the program. All throw
// `error`. If the net has failed, or fails meanwhile, a call that would block throws what the
// net failed with.
template <class T>
class place {
    static_assert(std::is_same_v<T, std::decay_t<T>>, "a place is for values");

public:
    // Puts a token; blocks while no slot is free.
    void send(T const& value) const {
        _owner->put(_index, _encoded(value), nullptr, true);
    }
    void send(T const& value, key const& call) const {
        _owner->put(_index, _encoded(value), &call, true);
    }

    // Puts a token if a slot is free, and returns whether one was.
    bool try_send(T const& value) const {
        return _owner->put(_index, _encoded(value), nullptr, false);
    }
    bool try_send(T const& value, key const& call) const {
        return _owner->put(_index, _encoded(value), &call, false);
    }

    // Takes the oldest token that no firing has claimed; blocks until there is one. One that
    // cannot be decoded stays where it is, and the net fails, naming it.
    T receive() const {
        return *_taken(nullptr, true);
    }
    T receive(key const& call) const {
        return *_taken(&call, true);
    }

    // Takes the oldest such token, if there is one.
    std::optional<T> try_receive() const {
        return _taken(nullptr, false);
    }
    std::optional<T> try_receive(key const& call) const {
        return _taken(&call, false);
    }

    // An arc to it with the weight `weight`, for `from` and `to`.
    auto times(unsigned int weight) const {
        return place_arc<T, true>{*this, weight};
    }

    std::string const& name() const {
        return _owner->name_of_place(_index);
    }
    std::uint64_t capacity() const {
        return _owner->capacity_of_place(_index);
    }

private:
    friend class net;
    template <class Body, class Inputs, class Outputs>
    friend class typed_body;

    place(detail::engine& owner, std::size_t index) : _owner(&owner), _index(index) {}

    std::string _encoded(T const& value) const {
        return detail::encoded(*_owner, _index, value, "");
    }
    std::optional<T> _taken(key const* call, bool wait) const {
        std::optional<T> value;
        auto const decode = [&](detail::token const& from) {
            value.emplace(detail::decoded<T>(*_owner, _index, from));
        };
        if (!_owner->take(_index, call, wait, decode))
            value.reset();
        return value;
    }

    detail::engine* _owner;
    std::size_t _index;
};

// The places that a transition takes tokens from, or puts them into: a `place` for one token
// a firing, `place.times(n)` for n, as a std::vector.
template <class... Ends>
auto from(Ends const&... ends) {
    return detail::inputs<decltype(detail::arc_of(ends))...>{{detail::arc_of(ends)...}};
}
template <class... Ends>
auto to(Ends const&... ends) {
    return detail::outputs<decltype(detail::arc_of(ends))...>{{detail::arc_of(ends)...}};
}

// The body of a transition as its user wrote it.
template <class Body, class Inputs, class Outputs>
class typed_body;

template <class Body, class... From, class... To>
class typed_body<Body, detail::inputs<From...>, detail::outputs<To...>> final
    : public detail::body {
public:
    typed_body(detail::engine const& owner, std::string name, detail::inputs<From...> from,
               detail::outputs<To...> to, Body&& code)
        : _owner(owner),
          _name(std::move(name)),
          _from(std::move(from)),
          _to(std::move(to)),
          _code(std::move(code)) {}

    std::vector<detail::arc> arcs() const {
        std::vector<detail::arc> made;
        std::apply([&](auto const&... each) { (made.push_back(_arc(each, true)), ...); },
                   _from.arcs);
        std::apply([&](auto const&... each) { (made.push_back(_arc(each, false)), ...); },
                   _to.arcs);
        return made;
    }

    void run(key const& firing, std::vector<std::vector<detail::token>>& taken,
             std::vector<std::vector<std::string>>& put) override {
        std::string const which =
            ", of the firing " + firing.text() + " of \"" + _name + '"' + _tokens(taken);
        _run(firing, taken, put, which, std::index_sequence_for<From...>());
    }

private:
    template <class Arc>
    detail::arc _arc(Arc const& from, bool input) const {
        assure(from.end._owner == &_owner);
        return {from.end._index, input, from.weight};
    }

    // The tokens that the firing has taken, for an error.
    std::string _tokens(std::vector<std::vector<detail::token>> const& taken) const {
        std::string text;
        for (std::vector<detail::token> const& each : taken)
            for (detail::token const& one : each)
                text += (text.empty() ? " with token " : ", ") + std::to_string(one.number);
        return text;
    }

    template <std::size_t... indices>
    void _run(key const& firing, std::vector<std::vector<detail::token>>& taken,
              std::vector<std::vector<std::string>>& put, std::string const& which,
              std::index_sequence<indices...>) {
        std::tuple<typename From::value...> values{
            _value(std::get<indices>(_from.arcs), taken[indices])...};
        if constexpr (std::is_invocable_v<Body&, key const&, typename From::value...>) {
            _keep(put, which, [&]() -> decltype(auto) {
                return std::apply(
                    [&](auto&... each) -> decltype(auto) {
                        return _code(firing, std::move(each)...);
                    },
                    values);
            });
        } else if constexpr (std::is_invocable_v<Body&, typename From::value...>) {
            _keep(put, which,
                  [&]() -> decltype(auto) { return std::apply(_code, std::move(values)); });
        } else {
            static_assert(detail::never<Body>,
                          "a body takes what each place in from() gives, and may take the key "
                          "before that");
        }
    }

    template <class T>
    T _value(place_arc<T, false> const& arc, std::vector<detail::token> const& taken) const {
        return detail::decoded<T>(_owner, arc.end._index, taken[0]);
    }
    template <class T>
    std::vector<T> _value(place_arc<T, true> const& arc,
                          std::vector<detail::token> const& taken) const {
        std::vector<T> values;
        for (detail::token const& each : taken)
            values.push_back(detail::decoded<T>(_owner, arc.end._index, each));
        return values;
    }

    // Encodes what `call` returns.
    template <class Call>
    void _keep(std::vector<std::vector<std::string>>& put, std::string const& which,
               Call const& call) const {
        using result = decltype(call());
        if constexpr (sizeof...(To) == 0) {
            static_assert(std::is_void_v<result>, "a body without to() returns nothing");
            call();
        } else if constexpr (std::is_void_v<result>) {
            static_assert(detail::never<Body>, "a body returns what the places in to() take");
        } else if constexpr (sizeof...(To) == 1) {
            _encode(std::get<0>(_to.arcs), call(), put[0], which);
        } else {
            static_assert(std::tuple_size<std::remove_cvref_t<result>>::value == sizeof...(To),
                          "a body returns a std::tuple with a value for each place in to()");
            auto const values = call();
            _encode_all(values, put, which, std::index_sequence_for<To...>());
        }
    }
    template <class Values, std::size_t... indices>
    void _encode_all(Values const& values, std::vector<std::vector<std::string>>& put,
                     std::string const& which, std::index_sequence<indices...>) const {
        (_encode(std::get<indices>(_to.arcs), std::get<indices>(values), put[indices], which), ...);
    }

    template <class T, class Value>
    void _encode(place_arc<T, false> const& arc, Value const& value, std::vector<std::string>& put,
                 std::string const& which) const {
        if constexpr (std::is_convertible_v<Value const&, T>) {
            put.push_back(detail::encoded<T>(_owner, arc.end._index, value, which));
        } else if constexpr (detail::is_optional<Value>) {
            if (value.has_value())
                put.push_back(detail::encoded<T>(_owner, arc.end._index, *value, which));
        } else {
            static_assert(detail::never<Body>, "a body returns what the places in to() take");
        }
    }
    template <class T, class Value>
    void _encode(place_arc<T, true> const& arc, Value const& values, std::vector<std::string>& put,
                 std::string const& which) const {
        static_assert(std::is_convertible_v<Value const&, std::vector<T> const&>,
                      "what goes to a place with a weight is a std::vector");
        for (T const& each : values)
            put.push_back(detail::encoded<T>(_owner, arc.end._index, each, which));
    }

    detail::engine const& _owner;
    std::string const _name;
    detail::inputs<From...> const _from;
    detail::outputs<To...> const _to;
    Body _code;
};

// A net, as one of its members or clients sees it.
//
// One thread builds it, starts it and joins it; places, `halt`, `fail` and `explain` are for
// any thread. Nothing is inserted once it has been started or a place was used. All throw
// `error`: a store that cannot be reached or refuses the login when it is first asked, a
// structure that differs, a full disk, a connection that did not come back in time. What
// the store has is as after the last transaction then, and a later start goes on from there.
//
// An exception that leaves a body, or a codec, fails the net, for all members: none begins
// a further firing, and `join` rethrows it, or an `error` with its text in the members where
// it was not thrown. The tokens of that firing stay, claimed; the next start of any member
// that runs transitions forgets the failure and repeats the firing.
class net {
public:
    // The net `name` in the store `sqlite:FILE` or `postgresql://...`. Does not yet look for
    // it. Throws an `error` for another URL. Zero in `batch`, `lease` or `poll` fails a check.
    net(std::string const& store, std::string name, options chosen = {})
        : net(detail::connect_to(store), std::move(name), std::move(chosen)) {}
    net(detail::connector connect, std::string name, options chosen)
        : _engine(std::move(connect), std::move(name), std::move(chosen)) {}

    // Stops a member that runs, as after `halt`: bodies that run end, and their firings are
    // committed. In a forked process, where its threads and connections are not its own, it
    // abandons the net and its memory.
    ~net() = default;

    // A place for `capacity` tokens of type `T`. The member that makes the net puts
    // `initial` there.
    template <class T>
    durable::place<T> insert_place(std::string const& name, std::uint64_t capacity,
                                   std::vector<T> const& initial = {}) {
        std::vector<std::string> tokens;
        for (T const& each : initial)
            tokens.push_back(codec<T>::encode(each));
        return {_engine, _engine.insert_place(name, capacity, codec<T>::name, std::move(tokens))};
    }

    // A transition. `body` takes a value for each place of `from`, in its order, and may take
    // the firing's `key` before them. It returns what `to` has: nothing, a value, or a
    // std::tuple of them, any of which may be a std::optional that puts nothing when it is
    // empty. Where an arc has a weight n, the value is a std::vector: of n tokens to take, of
    // up to n to put. It is called as an lvalue, on several threads at once, and must not
    // join the net.
    template <class... From, class... To, class Body>
    void insert_transition(std::string name, detail::inputs<From...> from,
                           detail::outputs<To...> to, Body body) {
        using typed = typed_body<Body, detail::inputs<From...>, detail::outputs<To...>>;
        auto code =
            std::make_unique<typed>(_engine, name, std::move(from), std::move(to), std::move(body));
        auto arcs = code->arcs();
        _engine.insert_transition(std::move(name), std::move(arcs), std::move(code));
    }
    template <class... From, class Body>
    void insert_transition(std::string name, detail::inputs<From...> from, Body body) {
        insert_transition(std::move(name), std::move(from), to(), std::move(body));
    }
    template <class... To, class Body>
    void insert_transition(std::string name, detail::outputs<To...> to, Body body) {
        insert_transition(std::move(name), from(), std::move(to), std::move(body));
    }

    // Becomes a member that runs all transitions, or those named. With no names it runs none,
    // but its `join` and its blocked clients still end when the net fails.
    void start() {
        _engine.start(std::nullopt);
    }
    void start(std::vector<std::string> const& transitions) {
        _engine.start(transitions);
    }

    // Blocks until the net is at rest: no member has an open claim, and no transition is
    // enabled, including those that no member runs. Then this member ends. Also returns when
    // the member was halted, or has claimed what `options::firings` allows. Rethrows what the
    // net failed with, after this member has ended.
    void join() {
        _engine.join(nullptr);
    }

    // The same until `point`, of any type that `deadline` accepts. Returns false if that passes
    // first; the member goes on.
    template <class Point>
    bool join_until(Point const& point) {
        ovel::time const end = deadline(point);
        return _engine.join(&end);
    }

    // Stops this member from beginning firings, and gives back the claims that it has not
    // begun. Does not wait; `join` does.
    void halt() {
        _engine.halt();
    }

    // Fails the net with `failure`, as if a body had thrown it. In a program that is no member
    // now, it records that in the store, which blocks and may throw `error`.
    void fail(std::exception_ptr failure) {
        _engine.fail(std::move(failure));
    }

    // The net as it is in the store at this moment, for people: its marking, the open claims
    // and who holds them, how often each transition has fired, and which no member runs.
    std::string explain() {
        return detail::explanation(_engine.look());
    }

    std::string const& name() const {
        return _engine.name();
    }

private:
    detail::engine _engine;
};

}  // namespace ovel::durable

#endif
