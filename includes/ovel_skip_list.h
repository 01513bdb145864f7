// A list that keeps itself sorted, with express lanes to insert and find fast.
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

class thread_function;

// The order of a `skip_list<T>`, given by a specialisation for T with
//
//     static bool precedes(T const& x, T const& e);
//
// which tells whether a new element x goes before the element e that is there
// already: false for equal ones puts the new element behind them, true before.
// Where that is false it may also have
//
//     static std::size_t hash(T const& x);
//
// the same for equal ones, and spread over its 16 lowest bits. A long list then finds the
// place behind equals mostly without a search. Neither throws.
template <class T>
struct skip_list_order;

// Work that waits in a thread group, as (function, time, space): the largest
// space first, then the longest time, then the first come.
template <>
struct skip_list_order<triple<thread_function*, double, double>> {
    static bool precedes(triple<thread_function*, double, double> const& x,
                         triple<thread_function*, double, double> const& e) {
        return x.third > e.third || (x.third == e.third && x.second > e.second);
    }
    // The two zeros are equal: the addition makes them one.
    static std::size_t hash(triple<thread_function*, double, double> const& x) {
        std::uint64_t const both = std::rotl(std::bit_cast<std::uint64_t>(x.third + 0.0), 29) ^
                                   std::bit_cast<std::uint64_t>(x.second + 0.0);
        return static_cast<std::size_t>((both ^ both >> 32) * 0x9e3779b97f4a7c15 >> 48);
    }
};

// A list of copies of values in the order of `skip_list_order<T>`. Inserting and
// finding take about log2(size) steps, erasing compares no values. An iterator
// stays valid until its element is erased. Nothing in here locks: threads that
// share a list share a lock of their own. Memory comes from `allocator_support`.
//
// How it is built. Level 0 links all elements in order, and level i, in the same
// order, the nodes whose level exceeds i: about a quarter of all for i = 1, and
// for each further one half of those below. The level in use is that of the
// highest node, or 1 in an empty list. Links lead to the end position where there
// is no further node, and so do those of the head at and above the level in use.
// The back links follow level 0. The last node of each level is noted, so that an
// element that goes behind all others is linked without a search. A long list also
// notes, by its hash, the last of some of the runs of equals on the lowest levels, and
// searches only the levels above for an element that is higher. An entry always is the
// last of its run on its level: insertions into the run overwrite it, the node's
// extraction clears it.
template <class T>
class skip_list {
    static_assert(std::is_nothrow_copy_constructible_v<T>,
                  "elements are pointers and plain records");
    static_assert(alignof(T) <= 16, "allocator_support aligns no further");

    // What an iterator points to: the back link. The end position is no more
    // than that.
    struct position {
        position* _previous;
    };

    // The link part of a node. The value lies before it, `_level` forward links
    // lie behind it, all in one allocation.
    struct links : position {
        unsigned int _level;
    };

    // The start of the head block: `_capacity` forward links lie behind it, then for
    // each level the forward links of its last node, or the head's own, and then the
    // ends of runs, which are nodes or null.
    struct head {
        unsigned int _level;  // the level in use
        unsigned int _capacity;
    };
    static_assert(sizeof(head) % alignof(position*) == 0);

public:
    // A position. One that is default-constructed belongs to no list and equals
    // only its like.
    class iterator {
    public:
        using value_type = T;
        using difference_type = std::ptrdiff_t;

        iterator() = default;

        T& operator*() const {
            return *_value(_position);
        }
        T* operator->() const {
            return _value(_position);
        }
        iterator& operator++() {
            _position = _forward(_position)[0];
            return *this;
        }
        iterator operator++(int) {
            iterator const before = *this;
            ++*this;
            return before;
        }
        iterator& operator--() {
            _position = _position->_previous;
            return *this;
        }
        iterator operator--(int) {
            iterator const before = *this;
            --*this;
            return before;
        }
        friend bool operator==(iterator const&, iterator const&) = default;

    private:
        friend class skip_list;
        friend struct detail::inspector;
        explicit iterator(position* where) : _position(where) {}

        position* _position = nullptr;
    };

    skip_list() : _size(0), _head(nullptr), _end{&_end}, _seed(1) {}
    skip_list(skip_list const&) = delete;
    skip_list& operator=(skip_list const&) = delete;

    ~skip_list() {
        clear();
        allocator_support::deallocate(_head);
    }

    iterator begin() {
        return iterator(_head == nullptr ? &_end : _forward(_head)[0]);
    }
    iterator end() {
        return iterator(&_end);
    }

    unsigned int size() const {
        return _size;
    }
    bool empty() const {
        return _size == 0;
    }

    // An element that is in no list: not yet, or not any more. It is freed with the
    // handle unless a list has taken it.
    struct freeing {
        void operator()(T* value) const {
            std::destroy_at(value);
            allocator_support::deallocate(value);
        }
    };
    using detached = std::unique_ptr<T, freeing>;

    // Allocates for an insertion to come, so that it need not under the lock that
    // guards the list, with links for `level` levels, 1 or more. Throws std::bad_alloc.
    static detached prepare(T const& value, unsigned int level) {
        return detached(_value(_allocate_node(value, level)));
    }

    // The level that the next insertion draws, unless the head must grow for it.
    unsigned int next_level() const {
        unsigned int seed = _seed;
        return _head != nullptr ? _draw_level(seed) : 1;
    }

    // Inserts a copy where the order puts it and returns its position. Throws
    // std::bad_alloc, with the elements unchanged.
    iterator insert(T const& value) {
        _make_room();
        unsigned int const level = _draw_level(_seed);
        return _insert(_allocate_node(value, level));
    }

    // The same with an element that was prepared, or a copy of it where that was for
    // fewer levels than it takes.
    iterator insert(detached& element) {
        _make_room();
        unsigned int const level = _draw_level(_seed);
        if (_level(_node(element.get())) < level)
            element = prepare(*element, level);
        position* const inserted = _node(element.release());
        static_cast<links*>(inserted)->_level = level;
        return _insert(inserted);
    }

    // Erases this very element, whatever equals it; returns the one behind it.
    iterator erase(iterator where) {
        iterator const next(_forward(where._position)[0]);
        extract(where);
        return next;
    }

    // Takes this very element out of the list.
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
        // Who takes one element after the other does not wait for the next but one.
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

    // What extracting the second element will touch, once it is the first. A hint for
    // the processor, which bears addresses of what is gone: `fetch` needs no lock.
    class outlook {
    public:
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

    // As it is now. An element was inserted before.
    outlook look_ahead() const {
        position* const first = _forward(_head)[0];
        return {this, _head, first != &_end ? _forward(first)[0] : first};
    }

    // Erases all. The head and the state of the level generator stay.
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

    // The first element for which `test(T const&)` holds, or the end. The test
    // must be false for the elements up to some place and true for the rest; it
    // is asked about an element once at most.
    template <class Test>
    iterator find_first(Test test) {
        if (_head == nullptr)
            return end();
        position** predecessors[_max_capacity];
        return iterator(_search(test, predecessors, 0));
    }

private:
    friend struct detail::inspector;

    static constexpr unsigned int _max_capacity = 32;

    static constexpr bool _has_runs = requires(T const& value) {
        skip_list_order<T>::hash(value);
    };

    // Runs whose ends a head block notes: none while a search is short.
    static unsigned int _runs(unsigned int capacity) {
        if (!_has_runs || capacity < 8)
            return 0;
        return capacity == 8 ? 64 : 1024;
    }

    // Ends that are noted of a run, one for each of the lowest levels, in a table for
    // each: three of four elements touch but the first. An eighth is higher than both.
    static constexpr unsigned int _run_levels = 2;

    static unsigned int _noted_levels(position* node) {
        return std::min(_level(node), _run_levels);
    }

    // From the start of a node to its link part.
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

    // The node with these forward links, or the end position for the head's:
    // what the back link behind such a predecessor holds.
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

    // The level of the next node: 1 for three of four, 2 for one of eight, then each
    // level for half as many as the one before; less than the head's capacity.
    // Advances the generator's state `seed`.
    unsigned int _draw_level(unsigned int& seed) const {
        if (_size < 2)
            return 1;
        unsigned int level = 1;
        do
            seed = static_cast<unsigned int>(std::uint64_t{16807} * seed % 2147483647);
        while (seed <= 0x3FFFFFFF && ++level != _head->_capacity);
        return level > 1 ? level - 1 : 1;
    }

    void _make_room() {
        if (_head == nullptr)
            _head = _allocate_head(2);
        else if (_head->_capacity < _max_capacity && _size == 1u << _head->_capacity)
            _grow();
    }

    // Where the end of the run of `value` on the lowest level is noted, if it is, and as
    // many entries on that of each further one; null where none are.
    position** _run_of(T const& value) {
        unsigned int const runs = _runs(_head->_capacity);
        return runs != 0 ? &_run_ends(_head)[skip_list_order<T>::hash(value) % runs] : nullptr;
    }

    // Links a node in that has its value and its level. There is room for it.
    iterator _insert(position* inserted) {
        position** predecessors[_max_capacity];
        T const& value = *_value(inserted);
        if constexpr (_has_runs) {
            if (position** const ends = _run_of(value)) {
                unsigned int const known = _find_run(ends, inserted, predecessors);
                for (unsigned int i = 0; i != _noted_levels(inserted); ++i)
                    ends[i * _runs(_head->_capacity)] = inserted;
                if (known != 0) {
                    // What is on the levels above is far apart, and soon found.
                    if (known < _level(inserted) && known < _head->_level)
                        _find_place(value, predecessors, known);
                    return _link(inserted, predecessors[0][0], predecessors);
                }
            }
        }
        return _link(inserted, _find_place(value, predecessors, 0), predecessors);
    }

    // Notes the predecessors of a node that goes behind its run, on the lowest levels as
    // far as the ends of the run say, and returns how many levels those are.
    unsigned int _find_run(position** ends, position* inserted, position*** predecessors) {
        unsigned int known = 0;
        while (known < _noted_levels(inserted)) {
            position* const end = ends[known * _runs(_head->_capacity)];
            if (end == nullptr || !_are_equal(*_value(inserted), *_value(end)))
                break;
            if (_forward(end)[0] == &_end && _level(end) < _level(inserted))
                return 0;  // behind all, where no search is
            // Whatever of the run is linked on these levels stands before this one.
            for (; known < _level(end); ++known)
                predecessors[known] = _forward(end);
        }
        return known;
    }

    static bool _are_equal(T const& x, T const& y) {
        return !skip_list_order<T>::precedes(x, y) && !skip_list_order<T>::precedes(y, x);
    }

    // Notes the predecessors of `value` on each level in use from `lowest` on, and
    // returns the position that it goes before on that one.
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

    // Of those that are linked on level `lowest`, returns the first position for which
    // `test` holds, or the end, and notes for each level in use from there on the forward
    // links of the last node before it.
    template <class Test>
    position* _search(Test& test, position*** predecessors, unsigned int lowest) {
        // The node that stopped a higher level stops the lower ones untested.
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

    // The same for a node that is known, at least for the levels that it is linked
    // on. Equal elements may stand before it, so it is found by identity: what the
    // walk on each level has to stop at is the first node from here on that is linked
    // there. Returns the predecessor on level 0.
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
    unsigned int _seed;  // of the level generator
};

}  // namespace ovel

#endif
