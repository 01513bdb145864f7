// SPDX-License-Identifier: Apache-2.0
// What a net of `ovel_petri.h` stores about its places and transitions, and how its
// tokens carry values. Only for that header.
#ifndef OVEL_PETRI_RECORD_H
#define OVEL_PETRI_RECORD_H

#include "ovel_any.h"
#include "ovel_petri_net.h"
#include "ovel_trace.h"

#include <cstddef>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace ovel {

class firing;
class net;
class transition;
template <class T>
class place;

// A future arc between the place `end` and a transition. `Weighted` says whether its
// weight was given. `from` and `to` take it; the compiler finds them through it.
template <class T, bool Weighted>
struct place_arc {
    using value = T;                            // the type of the place's tokens
    static constexpr bool weighted = Weighted;  // whether the weight was given

    place<T> end;         // the place
    unsigned int weight;  // tokens that a firing takes or puts
};

// A future transition's need of a token of the place `end`, which stays there. `from` takes it.
template <class T>
struct read_arc {
    using value = T;                         // the type of the place's tokens
    static constexpr bool weighted = false;  // it gives a body one token

    place<T> end;             // the place
    unsigned int weight = 1;  // how many tokens it needs
};

namespace detail {

struct place_record;

}  // namespace detail

// A future transition's need of an empty place. `from` takes it.
struct inhibitor {
    detail::place_record* place;  // the place
};

namespace detail {

class net_core;

// A place of a net, with its name.
struct place_record {
    net_core* const owner;
    trace::shared_name const name;
    petri_place* const element;
    std::size_t const index = 0;  // in `explanation::places`, which leaves marks out
};

template <class Arc>
inline constexpr bool is_read_arc = false;
template <class T>
inline constexpr bool is_read_arc<read_arc<T>> = true;

// An arc of a transition; `reference` is the variable that names it to the net.
struct arc_record {
    place_record* place;
    bool input;
    unsigned int weight;
    petri_place* reference;
    bool reads = false;
};

// Lets an `any` hold a value that cannot be copied: copying it takes the value.
template <class T>
struct moved {
    explicit moved(T&& source) : value(std::move(source)) {}
    moved(moved const& other) : value(std::move(other.value)) {}
    moved& operator=(moved const&) = delete;
    ~moved() = default;

    T mutable value;
};

// What a token of a place for `T` contains.
template <class T>
using token = std::conditional_t<std::is_copy_constructible_v<T>, T, moved<T>>;

// The value in a token, which must contain one: check "operand.type() == typeid(T)".
template <class T>
T& value_of(any& held) {
    if constexpr (std::is_copy_constructible_v<T>)
        return any_cast<T&>(held);
    else
        return any_cast<moved<T>&>(held).value;
}

// Make tokens from a value. The net calls them under its lock.
template <class T>
void copy_into(any& made, void* from) {
    made = any(std::in_place_type<T>, *static_cast<T const*>(from));
}
template <class T>
void move_into(any& made, void* from) {
    made = any(std::in_place_type<token<T>>, std::move(*static_cast<T*>(from)));
}

// A transition of a net: its name, arcs and body.
class transition_record : public petri_function {
public:
    transition_record(net_core& of, std::string&& called) : owner(of), name(std::move(called)) {}
    transition_record(transition_record const&) = delete;
    transition_record& operator=(transition_record const&) = delete;

    net_core& owner;
    trace::shared_name const name;
    std::vector<arc_record> arcs;  // complete before the net gets them
    petri_transition* element = nullptr;
    bool active = true;                   // as its user wants it; under the net's `_lock`
    transition_record* at_end = nullptr;  // fires once, when this one has ended
    std::vector<place_record*> inhibitors;
    // Where one that fires at the end of another gets its token; null for all others.
    place_record* mark_place = nullptr;

protected:
    template <class T, bool Weighted>
    void _insert_arc(bool input, place_arc<T, Weighted> const& inserted) {
        _insert_arc_into(*this, input, inserted);
    }
    template <class T, bool Weighted>
    static void _insert_arc_into(transition_record& into, bool input,
                                 place_arc<T, Weighted> const& inserted) {
        into.arcs.push_back({inserted.end._record, input, inserted.weight, nullptr});
    }
    template <class T>
    void _insert_arc(bool, read_arc<T> const& inserted) {
        arcs.push_back({inserted.end._record, true, inserted.weight, nullptr, true});
    }

    // Runs the body, unless the net must not fire any more. `left` has an element for
    // each arc.
    void _fire(unsigned int* left);

private:
    virtual void _run(firing& scope) = 0;
};

}  // namespace detail

}  // namespace ovel

#endif
