// SPDX-License-Identifier: Apache-2.0
// The structure of a Petri net as its engine reads it. Only for `ovel_petri_net.h`.
//
// The lists of arcs that a net is built with contain the same, but each of their nodes
// and arcs, and each neighbour behind an arc, would be a cache miss. Here the values that
// a firing needs are next to each other.
#ifndef OVEL_PETRI_ROWS_H
#define OVEL_PETRI_ROWS_H

#include "ovel_allocator_support.h"
#include "ovel_spin_memory.h"

#include <algorithm>
#include <limits>
#include <new>
#include <type_traits>

namespace ovel {

class petri_place;
class petri_transition;

namespace detail {

struct petri_call;

// Plain values in one block from `allocator_support`.
template <class T>
class row {
    static_assert(std::is_trivially_copyable_v<T> && alignof(T) <= 16);

public:
    row() = default;

    // Throws std::bad_alloc; so does `make_room`.
    row(row const& other) {
        if (other._size == 0)
            return;
        _reallocate(other._size);
        std::copy_n(other._begin, other._size, _begin);
        _size = other._size;
    }
    row& operator=(row const&) = delete;

    ~row() {
        allocator_support::deallocate(_begin);
    }

    T const* begin() const {
        return _begin;
    }
    T const* end() const {
        return _begin + _size;
    }

    // Makes room for one more value.
    void make_room() {
        if (_size == _capacity)
            _reallocate(std::max(2 * _capacity, 2u));
    }
    void push_back(T const& value) noexcept {
        ::new (static_cast<void*>(_begin + _size++)) T(value);
    }

private:
    void _reallocate(unsigned int capacity) {
        T* const grown = static_cast<T*>(allocator_support::allocate(capacity * sizeof(T)));
        std::copy_n(_begin, _size, grown);
        allocator_support::deallocate(_begin);
        _begin = grown;
        _capacity = capacity;
    }

    T* _begin = nullptr;
    unsigned int _size = 0;
    unsigned int _capacity = 0;
};

// An arc of a transition.
struct petri_access {
    inline bool enabled() const;

    petri_place* place;
    unsigned int size;
    unsigned int room;  // the slots are free if an output place holds at most this many
    bool input;
    bool reads = false;  // leaves the token that it needs, and may share it with others that read
};

// The arcs of a place in one direction.
struct petri_side {
    struct end {
        petri_transition* transition;
        unsigned int size;
        bool reentrant;
        bool inhibits;  // puts nothing: it needs all slots free
        bool reads;     // takes nothing: see `petri_access`
    };

    void push_back(end const& added) noexcept {
        ends.push_back(added);
        most =
            added.reentrant ? std::numeric_limits<unsigned int>::max() : std::max(most, added.size);
    }

    row<end> ends;
    // From this many tokens or slots on, one more enables no transition. It is the
    // largest weight; unlimited if a transition is reentrant, because that may fire once
    // more.
    unsigned int most = 0;
};

// The callers at a place that want tokens, or slots.
struct petri_callers {
    static constexpr unsigned int has_tried = 1;
    static constexpr unsigned int one_waiting = 2;
    static constexpr unsigned int tries_first = 1u << 30;
    static constexpr unsigned int has_port = 1u << 29;
    static constexpr unsigned int is_closed = 1u << 31;

    // More are not counted.
    static constexpr unsigned int most_misses = 16;

    // How many calls wait.
    unsigned int waiting() const {
        return (present & ~(tries_first | has_port | is_closed)) / one_waiting;
    }

    // The sum of `one_waiting` for each call that waits, `has_tried` if one that does not wait
    // found nothing, also `tries_first` if one that waits had the last turn nevertheless,
    // `is_closed` if the place is closed, and `has_port` if some are served without the net's
    // mutex. At 0 the engine ignores what the place gains, as far as callers are concerned.
    unsigned int present = 0;
    unsigned int passed = 0;     // gains since a caller that was present had its turn
    petri_call* last = nullptr;  // of a ring of calls that wait; the next one is the first
    spin_memory memory;          // of threads that wait
    unsigned int misses = 0;     // calls that do not wait have found nothing so often, and had no
                                 // chance for it; not 0 with `has_tried`

    void count_miss() {
        present |= has_tried;
        if (misses != most_misses)
            ++misses;
    }
};

}  // namespace detail

}  // namespace ovel

#endif
