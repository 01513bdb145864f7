// SPDX-License-Identifier: Apache-2.0
// The enabled transitions of a net that wait for dispatch.
#ifndef OVEL_PETRI_ENABLED_TRANSITIONS_H
#define OVEL_PETRI_ENABLED_TRANSITIONS_H

#include "ovel_petri_net.h"
#include "ovel_skip_list.h"

#include <cstdint>

namespace ovel::detail {

// Transitions in the order of `skip_list_order<petri_transition*>`: largest space first,
// then longest time, then largest random number, which each transition draws when it is
// inserted.
//
// Usually few transitions are queued, so a short sorted array holds up to eight. Only a
// transition that finds the array full goes to the skip list, which allocates. The first
// transition is the first of the array or the first of the list. A transition in the list
// stores its position there, one in the array stores the end of the list, and any other
// stores a null position.
//
// Not thread safe: every call is under the net's mutex.
class enabled_transitions {
public:
    // The net owns `list` and the state of the random numbers.
    enabled_transitions(skip_list<petri_transition*>& list, unsigned int& random)
        : _list(list), _random(random) {}

    bool empty() const {
        return _size == 0;
    }

    // Inserts a transition that is not queued. If it throws std::bad_alloc, it has
    // inserted nothing.
    void insert(petri_transition* transition) {
        transition->random(_draw());
        if (_short_size == most_short) {
            transition->enqueue(_list.insert(transition));
        } else {
            unsigned int i = _short_size++;
            for (; i != 0 && !order::precedes(transition, _short[i - 1]); --i)
                _short[i] = _short[i - 1];
            _short[i] = transition;
            transition->enqueue(_list.end());
        }
        ++_size;
    }

    // Removes a queued transition.
    void erase(petri_transition* transition) {
        --_size;
        auto const where = transition->dequeue();
        if (where != _list.end()) {
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
        unsigned int const listed = _size - _short_size;
        if (listed == 0 ||
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

    skip_list<petri_transition*>& _list;
    unsigned int& _random;
    unsigned int _size = 0;  // of array and list together
    unsigned int _short_size = 0;
    petri_transition* _short[most_short];  // in reverse order: the first one last
};

}  // namespace ovel::detail

#endif
