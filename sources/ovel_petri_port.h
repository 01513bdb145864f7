// SPDX-License-Identifier: Apache-2.0
// How the threads outside a net put tokens into a place, or take them, without the net's mutex.
#ifndef OVEL_PETRI_PORT_H
#define OVEL_PETRI_PORT_H

#include "ovel_petri_net.h"

#include "ovel_atomic.h"
#include "ovel_guard.h"
#include "ovel_kernel.h"
#include "ovel_mutex.h"
#include "ovel_spin_memory.h"
#include "ovel_spin_wait.h"
#include "ovel_thread_support.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace ovel::detail {

// The port of a place with a single arc, whose transition is not reentrant: an inlet if the
// transition takes from the place, so that only callers put, or an outlet if only callers take.
//
// While the port is open, callers move tokens into or out of `_box`, under the port's lock only,
// until `_moved` has come to `_limit`. The engine counts what they have moved at the next gain of
// the place: tokens of an inlet then go from the box to the channel, which is what the
// transition takes from. An outlet's box is the front part of the place's tokens.
//
// So the place's counts may be late by `_moved - _counted`, always to the net's disadvantage: the
// engine sees fewer tokens of an inlet, and fewer free slots of an outlet, than there are. The
// port is open only while that is without effect: either the transition fires, and counts again
// when it ends, or it has all that it needs of the place. The engine shuts the port otherwise, and
// whenever a call waits at the place or needs exact counts. While it is shut, every call takes
// the net's mutex.
//
// `_is_shut` is written under the net's mutex and the port's lock. While the port is open, the
// box and `_moved` are under the port's lock; while it is shut, they belong to the thread that
// has the net's mutex. `_counted` and writes of `_limit` are under the net's mutex.
//
// Lock order: the net's mutex, the port's lock, the place's mutex.
class petri_port {
public:
    // The most tokens in the box. A larger one would save little more.
    static constexpr unsigned int most_boxed = 64;
    // A poll for tokens or calls takes no more: about what it takes to sleep and wake up.
    static constexpr unsigned int most_pauses = 256;

    // Shut. `next` is the one that its net made before. Throws std::bad_alloc.
    petri_port(petri_place& place, petri_port* next)
        : _lock(current_spin()),
          _box(std::min(place._capacity, most_boxed)),
          _place(place),
          _next(next) {}
    petri_port(petri_port const&) = delete;
    petri_port& operator=(petri_port const&) = delete;

    petri_place* place() const {
        return &_place;
    }
    petri_port* next() const {
        return _next;
    }
    bool is_inlet() const {
        return _is_inlet;
    }

    // Of callers, without the net's mutex.

    // Puts the token that `put` puts into a channel, if the port is an inlet that is open and has
    // room. What `put` throws leaves the port unchanged.
    template <class Put>
    bool put(Put const& put) {
        if (_looks_shut.load(std::memory_order_relaxed))
            return false;
        guard const hold(_lock);
        if (!_is_inlet || !_may_move())
            return false;
        put(_box);
        _has_moved();
        return true;
    }

    // Takes the oldest token, if the port is an outlet that is open and has one.
    bool take(any& token) {
        if (_looks_shut.load(std::memory_order_relaxed))
            return false;
        guard const hold(_lock);
        if (_is_inlet || !_may_move())
            return false;
        if (_box._size == 0)
            _fill();
        _box.receive(token);
        _has_moved();
        return true;
    }

    // Polls for tokens, or slots, until there is a batch or no more come. Returns whether there are
    // some. Makes at most `spin` pauses.
    bool await(unsigned int spin, spin_memory& memory) {
        if (!memory.should_spin())
            return false;
        unsigned int before = 0;
        for (spin_wait wait(std::min(spin, most_pauses), pace_for_port);; wait.pause()) {
            // Relaxed: hints.
            if (_looks_shut.load(std::memory_order_relaxed))
                return false;
            unsigned int const there =
                _limit.load(std::memory_order_relaxed) - _moved.load(std::memory_order_relaxed);
            if (there >= batch() || (there != 0 && (there == before || wait.is_over()))) {
                memory.has_succeeded();
                return true;
            }
            before = there;
            if (wait.is_over())
                break;
        }
        memory.has_failed();
        return false;
    }

    // As many tokens or slots as a thread is woken for while the net fires.
    unsigned int batch() const {
        return _box.capacity() / 2;
    }

    // Of the engine, under the net's mutex.

    bool is_shut() const {
        return _is_shut;
    }

    // How many tokens callers have moved that the place does not count. Acquire: a thread knows of
    // a call of another one that has returned.
    unsigned int uncounted() const {
        return _moved.load(std::memory_order_acquire) - _counted;
    }

    // More than any place has: always shuts the port.
    static constexpr unsigned int shuts = std::numeric_limits<unsigned int>::max();

    // Counts what callers have moved, and returns how many. The port is shut afterwards if the
    // place has fewer tokens or slots than the `needed` ones of the transition, which does not
    // fire: nobody would count those that callers move then.
    unsigned int count(unsigned int needed) {
        guard const hold(_lock);
        unsigned int const moved = uncounted();
        _counted += moved;
        if (_is_inlet) {
            _empty(moved);
            _place._size += moved;
        } else {
            _place._size -= moved;
        }
        _is_shut = (_is_inlet ? _place.tokens() : _place.slots()) < needed;
        _looks_shut.store(_is_shut, std::memory_order_relaxed);
        _set_limit();
        return moved;
    }

    // The place has gained what callers may move.
    void extend() {
        _set_limit();
    }

    // While it is shut. Its box is empty if it becomes an inlet.
    void make(bool is_inlet) {
        guard const hold(_lock);
        _is_inlet = is_inlet;
    }

    // While it is shut.
    void open() {
        guard const hold(_lock);
        _seen = _moved.load(std::memory_order_relaxed);
        _is_shut = false;
        _looks_shut.store(false, std::memory_order_relaxed);
        _set_limit();
    }

    // While it is shut: the tokens at the front of the place.
    bool has_boxed() const {
        return _box._size != 0;
    }
    void receive_boxed(any& token) {
        _box.receive(token);
    }
    void peek_boxed(any& token) {
        _box.peek(token);
    }
    // Puts them back into the place's channel.
    void give_back() {
        if (_box._size == 0)
            return;
        guard const hold(_place._mutex);
        unsigned int const behind = _place._channel._size;
        _move(_box, _place._channel, _box._size);
        _move(_place._channel, _place._channel, behind);
    }

    // Links the place into the list that begins with `first`, unless it is in it; and removes it.
    void defer(petri_place*& first) {
        if (!std::exchange(_is_deferring, true))
            _next_deferring = std::exchange(first, &_place);
    }
    petri_place* end_deferring() {
        _is_deferring = false;
        return std::exchange(_next_deferring, nullptr);
    }

private:
    friend struct inspector;

    static constexpr spin_pace pace_for_port = {4, 64};

    static void _move(channel& from, channel& to, unsigned int tokens) {
        for (; tokens != 0; --tokens) {
            any token;
            from.receive(token);
            to.put(std::move(token));
        }
    }

    bool _may_move() {
        if (_is_shut)
            return false;
        unsigned int const moved = _moved.load(std::memory_order_relaxed);
        if (_seen == moved)
            _seen = _limit.load(std::memory_order_acquire);
        return _seen != moved;
    }
    // Release: see `uncounted`.
    void _has_moved() {
        _moved.store(_moved.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    }
    void _fill() {
        guard const hold(_place._mutex);
        _move(_place._channel, _box,
              std::min(_seen - _moved.load(std::memory_order_relaxed), _box.capacity()));
    }
    void _empty(unsigned int tokens) {
        if (tokens == 0)
            return;
        guard const hold(_place._mutex);
        _move(_box, _place._channel, tokens);
    }
    void _set_limit() {
        _limit.store(
            _counted + (_is_inlet ? std::min(_place.slots(), _box.capacity()) : _place._size),
            std::memory_order_release);
    }

    [[maybe_unused]] cacheline _before;
    mutex _lock;
    bool _is_inlet = false;  // changes while it is shut
    bool _is_shut = true;
    atomic<bool> _looks_shut{true};  // the same, for threads without a lock
    unsigned int _seen = 0;          // `_limit` when it was read last
    atomic<unsigned int> _moved{0};
    channel _box;
    [[maybe_unused]] cacheline _between;
    petri_place& _place;
    petri_port* const _next;
    unsigned int _counted = 0;
    atomic<unsigned int> _limit{0};
    // Whether a call that waits here is left asleep, and the next place where one is.
    bool _is_deferring = false;
    petri_place* _next_deferring = nullptr;
    [[maybe_unused]] cacheline _after;
};

}  // namespace ovel::detail

#endif
