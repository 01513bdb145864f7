// SPDX-License-Identifier: Apache-2.0
// A list that keeps itself sorted, with express lanes for fast insertion and search.
#ifndef OVEL_SKIP_LIST_H
#define OVEL_SKIP_LIST_H

#include "ovel_allocator_support.h"
#include "ovel_frame.h"
#include "ovel_triple.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <type_traits>

namespace ovel {

// The order of a `skip_list<T>`. Specialise it for T with
//
//     static bool precedes(T const& x, T const& e);
//
// which returns whether a new element x goes before the element e that is already in the
// list. If it returns false for equal elements, a new one goes after its equals,
// otherwise before them. In the first case the order may also have
//
//     static std::size_t hash(T const& x);
//
// which returns the same value for equal elements and spreads its 16 lowest bits. A long
// list then usually finds the place after equals without a search. Neither function
// throws.
template <class T>
struct skip_list_order;

// Work items that wait in a group, as (work, time, space): largest space first, then
// longest time, then first in, first out.
template <class Work>
struct skip_list_order<triple<Work*, double, double>> {
    // Whether `x` takes more space than `e`, or the same space and more time.
    static bool precedes(triple<Work*, double, double> const& x,
                         triple<Work*, double, double> const& e) {
        return x.third > e.third || (x.third == e.third && x.second > e.second);
    }

    // 0.0 and -0.0 are equal, so the addition turns both into 0.0. The multiplication by
    // 2^64 over the golden ratio spreads the bits of both values, one of them rotated,
    // over the upper bits.
    static std::size_t hash(triple<Work*, double, double> const& x) {
        std::uint64_t const both = std::rotl(std::bit_cast<std::uint64_t>(x.third + 0.0), 29) ^
                                   std::bit_cast<std::uint64_t>(x.second + 0.0);
        return static_cast<std::size_t>((both ^ both >> 32) * 0x9e3779b97f4a7c15 >> 48);
    }
};

// A list of copies of values, sorted by `skip_list_order<T>`. Insertion and search take
// about log2(size) steps; erasing compares no values. An iterator stays valid until its
// element is erased. Not synchronised: threads that share a list guard it with a lock.
// Memory comes from `allocator_support`.
//
// Structure. Level 0 links all elements in order. Level i links, in the same order, the
// nodes whose level exceeds i: about a quarter of all nodes for i = 1, and half as many
// on each further level. The level in use is that of the highest node, or 1 in an empty
// list. The last link of each level leads to the end position, and so do the head's links
// at and above the level in use. The back links follow level 0.
//
// The head records the last node of each level, so an element that goes after all others
// needs no search. A long list also keeps a table by hash that records, for some runs of
// equal elements, the last node on the lowest levels. A higher element then searches only
// the levels above. An entry is always the last node of its run on its level: an
// insertion into the run overwrites it, and extracting the node clears it.
template <class T>
class skip_list {
    static_assert(std::is_nothrow_copy_constructible_v<T>,
                  "elements are pointers and plain records");
    static_assert(alignof(T) <= 16, "allocator_support aligns no further");

    // What an iterator points to: the back link. The end position consists of nothing
    // else.
    struct position {
        position* _previous;
    };

    // The link part of a node. A node is one allocation: the value, this, and then
    // `_level` forward links.
    struct links : position {
        unsigned int _level;
    };

    // The start of the head block. After it come `_capacity` forward links; then, for
    // each level, a pointer to the forward links of its last node or to the head's own;
    // and then the ends of runs, each a node or null.
    struct head {
        unsigned int _level;  // the level in use
        unsigned int _capacity;
    };
    static_assert(sizeof(head) % alignof(position*) == 0);

public:
    // A position. A default-constructed iterator belongs to no list and equals only other
    // default-constructed ones.
    class iterator {
    public:
        using value_type = T;                    // required of iterators
        using difference_type = std::ptrdiff_t;  // likewise

        iterator() = default;

        // The element at this position, which must exist.
        T& operator*() const {
            return *_value(_position);
        }
        T* operator->() const {
            return _value(_position);
        }
        // Moves to the next element, or to the end.
        iterator& operator++() {
            _position = _forward(_position)[0];
            return *this;
        }
        iterator operator++(int) {
            iterator const before = *this;
            ++*this;
            return before;
        }

        // Moves to the previous element, which must exist.
        iterator& operator--() {
            _position = _position->_previous;
            return *this;
        }
        iterator operator--(int) {
            iterator const before = *this;
            --*this;
            return before;
        }

        // Whether both are the same position.
        friend bool operator==(iterator const&, iterator const&) = default;

    private:
        friend class skip_list;
        friend struct detail::inspector;
        explicit iterator(position* where) : _position(where) {}

        position* _position = nullptr;
    };

    // An empty list. Allocates nothing.
    skip_list() : _size(0), _head(nullptr), _end{&_end}, _seed(1) {}
    skip_list(skip_list const&) = delete;
    skip_list& operator=(skip_list const&) = delete;

    ~skip_list() {
        clear();
        allocator_support::deallocate(_head);
    }

    // The first element, or the end.
    iterator begin() {
        return iterator(_head == nullptr ? &_end : _forward(_head)[0]);
    }
    // The position after the last element.
    iterator end() {
        return iterator(&_end);
    }

    // The number of elements, and whether there is none, in constant time.
    unsigned int size() const {
        return _size;
    }
    bool empty() const {
        return _size == 0;
    }

    // An element outside any list: prepared for insertion or extracted. The handle frees
    // it unless a list takes it.
    struct freeing {
        // Destroys the value and frees its memory.
        void operator()(T* value) const {
            std::destroy_at(value);
            allocator_support::deallocate(value);
        }
    };
    using detached = std::unique_ptr<T, freeing>;  // owns the element

    // Allocates an element for a later insertion, outside the lock that guards the list.
    // It has links for `level` levels, at least 1. Throws std::bad_alloc.
    static detached prepare(T const& value, unsigned int level) {
        return detached(_value(_allocate_node(value, level)));
    }

    // The level that the next insertion will draw, unless the head must grow first.
    unsigned int next_level() const {
        unsigned int seed = _seed;
        return _head != nullptr ? _draw_level(seed) : 1;
    }

    // Inserts a copy at its place in the order and returns its position. Throws
    // std::bad_alloc and then leaves the elements unchanged.
    iterator insert(T const& value) {
        _make_room();
        unsigned int const level = _draw_level(_seed);
        return _insert(_allocate_node(value, level));
    }

    // The same with a prepared element. If the element has too few levels, inserts a copy
    // of it.
    iterator insert(detached& element) {
        _make_room();
        unsigned int const level = _draw_level(_seed);
        if (_level(_node(element.get())) < level)
            element = prepare(*element, level);
        position* const inserted = _node(element.release());
        static_cast<links*>(inserted)->_level = level;
        return _insert(inserted);
    }

    // Erases this very element, not one that equals it. Returns the next position.
    iterator erase(iterator where) {
        iterator const next(_forward(where._position)[0]);
        extract(where);
        return next;
    }

    // Removes this very element, not one that equals it, from the list and returns it.
    detached extract(iterator where) {
        position* const extracted = where._position;
        position* const next = _forward(extracted)[0];

        position** predecessors[_max_capacity];
        next->_previous = _position_of(_find_predecessors(extracted, predecessors));
        for (unsigned int i = 0; i < _level(extracted); ++i) {
            predecessors[i][i] = _forward(extracted)[i];
            if (predecessors[i][i] == &_end)
                _last(_head)[i] = predecessors[i];
        }
        while (_head->_level > 1 && _forward(_head)[_head->_level - 1] == &_end)
            --_head->_level;
        // Prefetches the element after next, for callers that take one element after
        // another.
        if (next != &_end)
            __builtin_prefetch(_forward(next)[0], 1);
        if constexpr (_has_runs) {
            if (position** const ends = _run_of(*_value(extracted)))
                for (unsigned int i = 0; i != _noted_levels(extracted); ++i)
                    if (ends[i * _runs(_head->_capacity)] == extracted)
                        ends[i * _runs(_head->_capacity)] = nullptr;
        }
        --_size;
        return detached(_value(extracted));
    }

    // The addresses that extracting the second element will touch once it is the first.
    // `fetch` needs no lock, because a prefetch may name freed memory.
    class outlook {
    public:
        // Prefetches them for writing.
        void fetch() const {
            __builtin_prefetch(_list, 1);
            __builtin_prefetch(_list_head, 1);
            __builtin_prefetch(_element, 1);
        }

    private:
        friend class skip_list;
        outlook(void const* list, void const* list_head, void const* element)
            : _list(list), _list_head(list_head), _element(element) {}

        void const* _list;
        void const* _list_head;
        void const* _element;
    };

    // The addresses as of now. The list must have held an element before.
    outlook look_ahead() const {
        position* const first = _forward(_head)[0];
        return {this, _head, first != &_end ? _forward(first)[0] : first};
    }

    // Erases all elements. Keeps the head and the state of the level generator.
    void clear() {
        if (_head == nullptr)
            return;
        for (position* each = _forward(_head)[0]; each != &_end;) {
            position* const freed = each;
            each = _forward(each)[0];
            _free_node(freed);
        }
        _head->_level = 1;
        _unlink_all(_head);
        _size = 0;
        _end._previous = &_end;
    }

    // The first element for which `test(T const&)` is true, or the end. The test must be
    // false for all elements before some position and true for all after it. It is called
    // at most once per element.
    template <class Test>
    iterator find_first(Test test) {
        if (_head == nullptr)
            return end();
        position** predecessors[_max_capacity];
        return iterator(_search(test, predecessors, 0));
    }

private:
    friend struct detail::inspector;

    // Enough levels for 2^32 elements.
    static constexpr unsigned int _max_capacity = 32;

    // The level generator: x -> 16807 x modulo 2^31 - 1. One multiplication gives the
    // full period, all numbers from 1 to 2^31 - 2. A number in the lower half makes the
    // node one level higher.
    static constexpr std::uint64_t _level_factor = 16807;
    static constexpr std::uint64_t _level_modulus = 2147483647;
    static constexpr unsigned int _higher_below = (_level_modulus + 1) / 2;

    // From 16 elements on, when the head has 8 levels, a search costs more than a look-up
    // in the table of runs. 64 runs are then enough. From 256 elements on, when the head
    // has 16 levels, the table may take 16 KiB.
    static constexpr unsigned int _capacity_with_runs = 8;
    static constexpr unsigned int _few_runs = 64;
    static constexpr unsigned int _many_runs = 1024;

    static constexpr bool _has_runs = requires(T const& value) {
        skip_list_order<T>::hash(value);
    };

    // How many runs a head block has room for: none while searches are short.
    static unsigned int _runs(unsigned int capacity) {
        if (!_has_runs || capacity < _capacity_with_runs)
            return 0;
        return capacity == _capacity_with_runs ? _few_runs : _many_runs;
    }

    // The table records the ends of runs on the two lowest levels. Three of four elements
    // touch only the first level; one in eight is higher than both.
    static constexpr unsigned int _run_levels = 2;

    static unsigned int _noted_levels(position* node) {
        return std::min(_level(node), _run_levels);
    }

    // The offset of the link part in a node.
    static constexpr std::size_t _links_offset =
        (sizeof(T) + alignof(links) - 1) / alignof(links) * alignof(links);

    static T* _value(position* node) {
        return reinterpret_cast<T*>(reinterpret_cast<char*>(node) - _links_offset);
    }
    static position* _node(T* value) {
        return reinterpret_cast<links*>(reinterpret_cast<char*>(value) + _links_offset);
    }
    static unsigned int _level(position* node) {
        return static_cast<links*>(node)->_level;
    }
    static position*** _last(head* head_block) {
        return reinterpret_cast<position***>(_forward(head_block) + head_block->_capacity);
    }
    static position** _run_ends(head* head_block) {
        return reinterpret_cast<position**>(_last(head_block) + head_block->_capacity);
    }
    static position** _forward(head* head_block) {
        return reinterpret_cast<position**>(reinterpret_cast<char*>(head_block) + sizeof(head));
    }
    static position** _forward(position* node) {
        char* const link_part = reinterpret_cast<char*>(static_cast<links*>(node));
        return reinterpret_cast<position**>(link_part + sizeof(links));
    }

    // The node with these forward links, or the end position if they are the head's. A
    // back link to such a predecessor stores this.
    position* _position_of(position** forward) {
        if (forward == _forward(_head))
            return &_end;
        return reinterpret_cast<links*>(reinterpret_cast<char*>(forward) - sizeof(links));
    }

    head* _allocate_head(unsigned int capacity) {
        void* const memory = allocator_support::allocate(
            sizeof(head) + capacity * (sizeof(position*) + sizeof(position**)) +
            _runs(capacity) * _run_levels * sizeof(position*));
        head* const allocated = ::new (memory) head{1, capacity};
        _unlink_all(allocated);
        return allocated;
    }

    void _unlink_all(head* head_block) {
        for (unsigned int i = 0; i < head_block->_capacity; ++i) {
            _forward(head_block)[i] = &_end;
            _last(head_block)[i] = _forward(head_block);
        }
        std::fill_n(_run_ends(head_block), _runs(head_block->_capacity) * _run_levels, nullptr);
    }

    static position* _allocate_node(T const& value, unsigned int level) {
        char* const memory = static_cast<char*>(
            allocator_support::allocate(_links_offset + sizeof(links) + level * sizeof(position*)));
        ::new (static_cast<void*>(memory)) T(value);
        return ::new (static_cast<void*>(memory + _links_offset)) links{{nullptr}, level};
    }

    void _free_node(position* node) {
        detached(_value(node)).reset();
    }

    void _grow() {
        head* const grown = _allocate_head(2 * _head->_capacity);
        grown->_level = _head->_level;
        for (unsigned int i = 0; i < _head->_capacity; ++i) {
            _forward(grown)[i] = _forward(_head)[i];
            if (_last(_head)[i] != _forward(_head))
                _last(grown)[i] = _last(_head)[i];
        }
        allocator_support::deallocate(_head);
        _head = grown;
    }

    // Draws the level of the next node: 1 for three nodes in four, 2 for one in eight,
    // and half as many for each further level, always less than the head's capacity.
    // Advances the generator's state `seed`.
    unsigned int _draw_level(unsigned int& seed) const {
        if (_size < 2)
            return 1;
        unsigned int level = 1;
        do
            seed = static_cast<unsigned int>(_level_factor * seed % _level_modulus);
        while (seed < _higher_below && ++level != _head->_capacity);
        return level > 1 ? level - 1 : 1;
    }

    void _make_room() {
        if (_head == nullptr)
            _head = _allocate_head(2);
        else if (_head->_capacity < _max_capacity && _size == 1u << _head->_capacity)
            _grow();
    }

    // The table entry for the end of `value`'s run on the lowest level; null without a
    // table. Entries for the next level are as many entries further as there are runs.
    position** _run_of(T const& value) {
        unsigned int const runs = _runs(_head->_capacity);
        return runs != 0 ? &_run_ends(_head)[skip_list_order<T>::hash(value) % runs] : nullptr;
    }

    // Links a node that already has its value and level, for which the head has room.
    iterator _insert(position* inserted) {
        position** predecessors[_max_capacity];
        T const& value = *_value(inserted);
        if constexpr (_has_runs) {
            if (position** const ends = _run_of(value)) {
                unsigned int const known = _find_run(ends, inserted, predecessors);
                for (unsigned int i = 0; i != _noted_levels(inserted); ++i)
                    ends[i * _runs(_head->_capacity)] = inserted;
                if (known != 0) {
                    // Few nodes reach the levels above, so searching them is short.
                    if (known < _level(inserted) && known < _head->_level)
                        _find_place(value, predecessors, known);
                    return _link(inserted, predecessors[0][0], predecessors);
                }
            }
        }
        return _link(inserted, _find_place(value, predecessors, 0), predecessors);
    }

    // Finds the predecessors of a node that goes after its run, on as many of the lowest
    // levels as the recorded ends cover. Returns how many.
    unsigned int _find_run(position** ends, position* inserted, position*** predecessors) {
        unsigned int known = 0;
        while (known < _noted_levels(inserted)) {
            position* const end = ends[known * _runs(_head->_capacity)];
            if (end == nullptr || !_are_equal(*_value(inserted), *_value(end)))
                break;
            if (_forward(end)[0] == &_end && _level(end) < _level(inserted))
                return 0;  // goes after all others, which needs no search anyway
            // Every node of the run that is linked on these levels is before the new one.
            for (; known < _level(end); ++known)
                predecessors[known] = _forward(end);
        }
        return known;
    }

    static bool _are_equal(T const& x, T const& y) {
        return !skip_list_order<T>::precedes(x, y) && !skip_list_order<T>::precedes(y, x);
    }

    // Finds the predecessors of `value` on each level in use from `lowest` up. Returns
    // the position that follows it on level `lowest`.
    position* _find_place(T const& value, position*** predecessors, unsigned int lowest) {
        auto const follows = [&value](T const& element) {
            return skip_list_order<T>::precedes(value, element);
        };
        if (_size != 0 && !follows(*_value(_end._previous))) {
            for (unsigned int i = lowest; i < _head->_level; ++i)
                predecessors[i] = _last(_head)[i];
            return &_end;
        }
        return _search(follows, predecessors, lowest);
    }

    iterator _link(position* inserted, position* next, position*** predecessors) {
        for (; _head->_level < _level(inserted); ++_head->_level)
            predecessors[_head->_level] = _forward(_head);
        inserted->_previous = _position_of(predecessors[0]);
        next->_previous = inserted;
        for (unsigned int i = _level(inserted); i-- != 0;) {
            position* const behind = predecessors[i][i];
            _forward(inserted)[i] = behind;
            predecessors[i][i] = inserted;
            if (behind == &_end)
                _last(_head)[i] = _forward(inserted);
        }
        ++_size;
        return iterator(inserted);
    }

    // Returns the first node linked on level `lowest` for which `test` is true, or the
    // end. For each level in use from there up, stores the forward links of the last node
    // before it.
    template <class Test>
    position* _search(Test& test, position*** predecessors, unsigned int lowest) {
        // The node that stopped the search on a higher level also stops it on the lower
        // ones, without another test.
        position* bound = &_end;
        position** reached = _forward(_head);
        unsigned int i = _head->_level;
        do {
            --i;
            while (reached[i] != bound && !test(static_cast<T const&>(*_value(reached[i]))))
                reached = _forward(reached[i]);
            bound = reached[i];
            predecessors[i] = reached;
        } while (i != lowest);
        return bound;
    }

    // The same for a given node, at least on the levels that link it. Equal elements may
    // come before it, so it is found by identity: on each level, the walk stops at the
    // first node linked there, starting from the given one. Returns the predecessor on
    // level 0.
    position** _find_predecessors(position* node, position*** predecessors) {
        position** reached = _forward(_head);
        if (reached[0] == node) {
            for (unsigned int i = 0; i < _level(node); ++i)
                predecessors[i] = reached;
            return reached;
        }
        position* stops[_max_capacity];
        position* stop = node;
        unsigned int i = 0;
        do {
            stops[i] = stop;
            while (stop != &_end && _level(stop) == i + 1)
                stop = _forward(stop)[i];
        } while (++i != _head->_level);
        do {
            --i;
            while (reached[i] != stops[i])
                reached = _forward(reached[i]);
            predecessors[i] = reached;
        } while (i != 0);
        return reached;
    }

    unsigned int _size;
    head* _head;         // null until the first insertion
    position _end;       // its back link: the last node, or itself in an empty list
    unsigned int _seed;  // state of the level generator
};

}  // namespace ovel

#endif
