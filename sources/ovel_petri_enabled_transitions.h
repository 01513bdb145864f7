// SPDX-License-Identifier: Apache-2.0
// The enabled transitions of a net that wait for dispatch.
#ifndef OVEL_PETRI_ENABLED_TRANSITIONS_H
#define OVEL_PETRI_ENABLED_TRANSITIONS_H

#include "ovel_petri_net.h"
#include "ovel_skip_list.h"
#include "ovel_time.h"

#include <algorithm>
#include <cstdint>
#include <utility>

namespace ovel::detail {

// What a thread handles before it releases a net's mutex, as bits of one byte: places that have
// gained what callers want, closed places, transitions whose delay has begun, and callers that
// are asleep although their calls have ended. Beside them, so that the usual way tests one byte:
// that the net does not run, that there was no memory to queue a transition, and, until nothing
// fires, that a call was left asleep that could be carried out.
enum petri_news : unsigned char {
    for_callers = 1,
    for_closing = 2,
    for_clock = 4,
    for_sleepers = 8,
    not_running = 16,
    missed = 32,
    for_deferred = 64
};

// Transitions in the order of `skip_list_order<petri_transition*>`: the largest space
// first, then the longest time, then the largest random number, which each one draws when
// it is inserted.
//
// Usually few transitions are queued, so a short sorted array holds up to eight. Only a
// transition that finds the array full goes to the skip list, which allocates. The first
// transition is the first of the array or the first of the list. A transition in the list
// stores its position there, one in the array stores the end of the list, and any other
// stores a null position.
//
// A transition with a delay is enabled for that long before it may be taken. Until then it
// counts as queued as well, so that it leaves when it is disabled, but stands in a list of its
// own, beside the point in time from which on it may fire. Nets without such transitions never
// look there.
//
// Not thread safe: all under the net's mutex.
class enabled_transitions {
public:
    // `list` and the state of the random numbers are the net's. `news`, if any, hears of it
    // when a transition begins to wait.
    enabled_transitions(skip_list<petri_transition*>& list, unsigned int& random,
                        unsigned char* news = nullptr)
        : _list(list), _random(random), _news(news) {}
    enabled_transitions(enabled_transitions const&) = delete;
    enabled_transitions& operator=(enabled_transitions const&) = delete;
    ~enabled_transitions() {
        delete[] _delays;
    }

    // Whether none may be taken.
    bool empty() const {
        return _size == _waiting;
    }
    // Whether none is queued, waiting or not.
    bool none() const {
        return _size == 0;
    }

    // Room for one more transition that has a delay. Throws std::bad_alloc.
    void make_room() {
        auto* const grown = new delay[_delayed + 1];
        std::copy_n(_delays, _waiting, grown);
        delete[] std::exchange(_delays, grown);
        ++_delayed;
        _most_short = 0;
    }
    bool has_delays() const {
        return _delayed != 0;
    }

    // Whether some wait; then the earliest point at which one may fire.
    bool find_due(time& due) const {
        auto const first = std::min_element(
            _delays, _delays + _waiting,
            [](delay const& one, delay const& other) { return one.due < other.due; });
        if (_waiting != 0)
            due = first->due;
        return _waiting != 0;
    }
    // Lets those be taken whose time has come, or as many as there is room for beside the
    // list. Returns whether there were any.
    bool end_delays(time const& now) {
        unsigned int const waited = _waiting;
        for (unsigned int i = 0; i < _waiting && _short_size != most_short;)
            if (_delays[i].due <= now)
                _insert_short(_remove_waiting(i));
            else
                ++i;
        return _waiting != waited;
    }

    // Fetches the cache lines that `insert` and `take_first` change.
    void prefetch() const {
        __builtin_prefetch(&_size, 1);
        __builtin_prefetch(_short, 1);
    }

    // Inserts one that is not queued. Throws std::bad_alloc, having inserted nothing.
    void insert(petri_transition* transition) {
        transition->random(_draw());
        if (_short_size >= _most_short)
            _insert_rarely(transition);
        else
            _insert_short(transition);
        ++_size;
    }

    // Removes a queued transition.
    void erase(petri_transition* transition) {
        --_size;
        auto const where = transition->dequeue();
        if (where != _list.end()) {
            if (where == _waits.end())
                _erase_waiting(transition);
            else
                _list.erase(where);
            return;
        }
        unsigned int i = --_short_size;
        while (_short[i] != transition)
            --i;
        for (; i != _short_size; ++i)
            _short[i] = _short[i + 1];
    }

    // Removes and returns the first transition. There must be one.
    petri_transition* take_first() {
        if (_list.size() == 0 ||
            (_short_size != 0 && order::precedes(_short[_short_size - 1], *_list.begin()))) {
            petri_transition* const first = _short[--_short_size];
            --_size;
            first->dequeue();
            return first;
        }
        petri_transition* const first = *_list.begin();
        erase(first);
        return first;
    }

private:
    friend struct inspector;

    using order = skip_list_order<petri_transition*>;

    // A firing rarely enables more, and an insertion then moves few pointers.
    static constexpr unsigned int most_short = 8;

    // Draws the next number of the minimal standard generator. The modulus is the prime
    // 2^31 - 1 and the multiplier a primitive root of it, so all numbers from 1 to 2^31 -
    // 2 come before any repeats.
    unsigned int _draw() {
        constexpr std::uint64_t multiplier = 16807;
        constexpr std::uint64_t modulus = 2147483647;
        return _random = static_cast<unsigned int>(multiplier * _random % modulus);
    }

    void _insert_short(petri_transition* transition) {
        unsigned int i = _short_size++;
        for (; i != 0 && !order::precedes(transition, _short[i - 1]); --i)
            _short[i] = _short[i - 1];
        _short[i] = transition;
        transition->enqueue(_list.end());
    }

    // Where many are queued, or some have delays. Out of line, so that the usual way is short.
    [[gnu::noinline]] void _insert_rarely(petri_transition* transition) {
        if (transition->_delay != time()) {
            _delays[_waiting] = {transition, time::now() + transition->_delay};
            ++_waiting;
            transition->enqueue(_waits.end());
            if (_news != nullptr)
                *_news |= for_clock;
        } else if (_short_size != most_short) {
            _insert_short(transition);
        } else {
            transition->enqueue(_list.insert(transition));
        }
    }

    petri_transition* _remove_waiting(unsigned int i) {
        return std::exchange(_delays[i], _delays[--_waiting]).transition;
    }
    [[gnu::noinline]] void _erase_waiting(petri_transition* transition) {
        unsigned int i = 0;
        while (_delays[i].transition != transition)
            ++i;
        _remove_waiting(i);
    }

    struct delay {
        petri_transition* transition;
        time due;  // when it may fire, unless it is disabled before
    };

    skip_list<petri_transition*>& _list;
    unsigned int& _random;
    unsigned int _size = 0;     // of all
    unsigned int _waiting = 0;  // of them, those whose delay runs: the first in `_delays`
    unsigned int _short_size = 0;
    unsigned int _most_short = most_short;  // 0 if some have delays, so that all are looked at
    petri_transition* _short[most_short];   // the first one last
    unsigned char* const _news;
    unsigned int _delayed = 0;  // transitions that have delays, for which `_delays` has room
    delay* _delays = nullptr;
    skip_list<petri_transition*> _waits;  // empty: its end is the position of those that wait
};

}  // namespace ovel::detail

#endif
