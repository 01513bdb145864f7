// SPDX-License-Identifier: Apache-2.0
// The typed places of the nets of `ovel_petri.h`, which includes it.
#ifndef OVEL_PETRI_PLACE_H
#define OVEL_PETRI_PLACE_H

#include "ovel_any.h"
#include "ovel_petri_core.h"
#include "ovel_petri_net.h"
#include "ovel_petri_record.h"

#include <optional>
#include <string>
#include <type_traits>
#include <utility>

namespace ovel {

// A place of a net, for tokens of type `T`. Copies refer to the same place, as long
// as its net lives.
//
// Any thread may use the operations, and the net need not run for that. A `T` is moved
// in and out, and copied only where an lvalue is sent and by `try_peek`; if it can be
// copied, its tokens are an `any` of `T` to the users of the `petri_net`. Tokens are moved
// in, copied and destroyed under the net's lock, by this thread or by another one that uses
// the net. So a token's code must not call the net, depend on its thread, or take a lock that
// a thread holds while it calls the net. A token of another type fails the check
// "operand.type() == typeid(T)". A container of what cannot be copied says that it can, and
// then fails to compile: hold it by a std::unique_ptr. So does a `T` aligned to more than 16 bytes
// (static assertion).
//
// Transitions take what they can before the threads outside do, but every few gains of a
// place at which such a thread waits, or tries without a pause, go to those threads first.
// While the transition at a place goes on firing, a thread that waits there may be left asleep
// for up to a millisecond until it finds several tokens, or slots, when it wakes up.
//
// A firing body has `firing` for its own places. A body that sends by hand to a full place,
// or receives from an empty one, blocks a thread of its net meanwhile, and for ever if no
// other firing makes room or a token: use `try_send` and `try_receive` there.
//
// Streams end: once a place is closed it accepts nothing, and when its last token has left
// it has ended. `next` is empty from then on.
//
//     while (std::optional<int> const number = numbers.next())
//         use(*number);
//
// A thread that is blocked in a place is let go by `halt`, `stop` and the net's end; it has
// sent or received nothing. Each operation says how that shows. So are threads that would
// block between a `halt` of a net that runs and the end of its `join`. `join` alone leaves
// them blocked. When the net fails, or has, a thread that would block, or is told that the
// place has ended, gets the exception that the net failed with instead. All throw
// std::bad_alloc.
//
// A token that a thread takes is moved once more after it has left the place: if that move throws,
// the token is lost.
//
// `send_until` and `receive_until` wait until a limit: a point in time or a span, whatever
// `deadline` accepts, or a std::stop_token that asks them to stop. They try once even if that
// has passed. A thread that requests a stop blocks for the net's lock.
template <class T>
class place {
    static_assert(std::is_same_v<T, std::decay_t<T>>, "a place is for values");
    static_assert(!std::is_same_v<T, any>, "a place is for values of one type");
    static_assert(std::is_move_constructible_v<T>, "tokens are moved");

public:
    // Puts a token; blocks while no slot is free. Returns whether it has: false when the
    // place is closed or the thread was let go. After false or an exception nothing is put,
    // here and below, and `value` is as it was unless its own move threw.
    bool send(T const& value) const requires std::is_copy_constructible_v<T>;
    bool send(T&& value) const;

    // Puts a token if a slot is free, and returns whether one was.
    [[nodiscard]] bool try_send(T const& value) const requires std::is_copy_constructible_v<T>;
    [[nodiscard]] bool try_send(T&& value) const;

    // Puts a token; blocks while no slot is free, until `limit`. Returns whether it has.
    template <class Limit>
    [[nodiscard]] bool send_until(
        T const& value, Limit const& limit) const requires std::is_copy_constructible_v<T>;
    template <class Limit>
    [[nodiscard]] bool send_until(T&& value, Limit const& limit) const;

    // Takes the oldest token that no firing has reserved; blocks until there is one. Throws
    // `stopped` when the place has ended or the thread was let go.
    T receive() const;

    // Takes the oldest such token; blocks until there is one. Empty when the place has ended
    // or the thread was let go.
    [[nodiscard]] std::optional<T> next() const;

    // The same until `limit`, and empty then.
    template <class Limit>
    [[nodiscard]] std::optional<T> receive_until(Limit const& limit) const;

    // Takes the oldest such token, if there is one.
    [[nodiscard]] std::optional<T> try_receive() const;

    // A copy of the oldest such token, if there is one.
    [[nodiscard]] std::optional<T> try_peek() const;

    // Closes it for good, unless it is: nothing is sent to it, and no transition that puts
    // into it begins a firing: such a transition ends, and so may the other places behind it.
    // Tokens that are in it, or that firings under way put, still arrive. While the net is built,
    // what ends behind it does so at the start. A transition that puts failed work back into a
    // closed place ends as well, and that work stays where it was: close such a place once the last
    // work has left the net, or have the retries enter by a place of their own. Does not block but
    // for locks.
    void close() const {
        _record->owner->close(*_record);
    }

    // Whether it is closed and its last token has left: no token comes any more. A token that was
    // lost with a body that threw has left, too.
    bool ended() const {
        return _record->owner->ended(*_record);
    }

    // How many tokens it has that no firing takes.
    unsigned int size() const {
        return _record->owner->tokens(*_record);
    }

    // An arc to it with the weight `weight`, for `from` and `to`.
    auto times(unsigned int weight) const {
        return place_arc<T, true>{*this, weight};
    }

    // Its name, which lasts as long as the net.
    std::string const& name() const {
        return _record->name.text();
    }

    // How many tokens it has room for.
    unsigned int capacity() const {
        return _record->element->capacity();
    }

    // The place in `net::base`.
    petri_place* base() const {
        return _record->element;
    }

private:
    template <class U>
    friend inhibitor unless(place<U> const& tested);
    friend class detail::net_core;
    friend class detail::transition_record;
    friend class firing;
    friend class net;
    friend struct detail::inspector;

    explicit place(detail::place_record* record) : _record(record) {}

    detail::place_record* _record;
};

// For `from`: the transition fires only while no token is in the place or reserved to be put
// there. The body gets nothing for it, and nothing keeps tokens from coming once it fires.
// It is no arc, and a transition needs one besides.
//
//     from(orders, unless(alarms)), [](order next) { ship(next); }
template <class T>
inhibitor unless(place<T> const& tested) {
    return {tested._record};
}

// For `from`: the transition needs a token of the place and leaves it there. The body gets a copy
// of the oldest one, or may `peek` at it. Any number of firings may read at once. Until the last of
// them has ended, nobody takes the last token of the place; so those that overlap without end keep
// it for ever. It is no arc, and a transition needs one besides. A transition that also takes from
// the place fails the check "!is_input" or "!is_read".
//
//     from(orders, reads(prices)), [](order next, price_list now) { quote(next, now); }
template <class T>
read_arc<T> reads(place<T> const& read) {
    return {read};
}

template <class T>
bool place<T>::send(T const& value) const requires std::is_copy_constructible_v<T> {
    return send_until(value, detail::net_core::without_limit());
}

template <class T>
bool place<T>::send(T&& value) const {
    return send_until(std::move(value), detail::net_core::without_limit());
}

template <class T>
bool place<T>::try_send(T const& value) const requires std::is_copy_constructible_v<T> {
    return _record->owner->try_put(*_record, &detail::copy_into<T>, const_cast<T*>(&value));
}

template <class T>
bool place<T>::try_send(T&& value) const {
    return _record->owner->try_put(*_record, &detail::move_into<T>, &value);
}

template <class T>
template <class Limit>
bool place<T>::send_until(T const& value,
                          Limit const& limit) const requires std::is_copy_constructible_v<T> {
    return _record->owner->put(*_record, &detail::copy_into<T>, const_cast<T*>(&value), limit);
}

template <class T>
template <class Limit>
bool place<T>::send_until(T&& value, Limit const& limit) const {
    return _record->owner->put(*_record, &detail::move_into<T>, &value, limit);
}

template <class T>
T place<T>::receive() const {
    any received;
    if (!_record->owner->receive(*_record, received, detail::net_core::without_limit()))
        throw stopped();
    return std::move(detail::value_of<T>(received));
}

template <class T>
std::optional<T> place<T>::next() const {
    return receive_until(detail::net_core::without_limit());
}

template <class T>
template <class Limit>
std::optional<T> place<T>::receive_until(Limit const& limit) const {
    any received;
    if (!_record->owner->receive(*_record, received, limit))
        return std::nullopt;
    return std::move(detail::value_of<T>(received));
}

template <class T>
std::optional<T> place<T>::try_receive() const {
    any received;
    if (!_record->owner->try_receive(*_record, received))
        return std::nullopt;
    return std::move(detail::value_of<T>(received));
}

template <class T>
std::optional<T> place<T>::try_peek() const {
    static_assert(std::is_copy_constructible_v<T>, "a copy is what it returns");
    any seen;
    if (!_record->owner->base().try_peek(_record->element, seen))
        return std::nullopt;
    return std::move(detail::value_of<T>(seen));
}

}  // namespace ovel

#endif
