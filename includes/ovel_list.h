// SPDX-License-Identifier: Apache-2.0
// A doubly linked list in insertion order.
#ifndef OVEL_LIST_H
#define OVEL_LIST_H

#include "ovel_allocator_support.h"
#include "ovel_frame.h"

#include <cstddef>
#include <memory>

namespace ovel {

namespace detail {

// The links of a node. The end node consists of nothing else.
struct list_links {
    list_links* _next;
    list_links* _previous;
};

}  // namespace detail

// A list that stores copies of values. An iterator stays valid until its element is
// erased. Not synchronised: threads that share a list guard it with a lock. Memory comes
// from `allocator_support`.
//
//     list<task*> tasks;
//     tasks.push_back(&first);
//     for (task* each : tasks)
//         each->start();
template <class T>
class list : private detail::list_links {
    struct node : detail::list_links {
        explicit node(T const& copied) : detail::list_links(), value(copied) {}

        // The library and its clients may both contain this code. With their own
        // operators, one could free a node that the other allocated.
        static void* operator new(std::size_t size) {
            return allocator_support::allocate(size);
        }
        static void operator delete(void* memory) {
            allocator_support::deallocate(memory);
        }

        T value;
    };
    static_assert(alignof(T) <= 16, "allocator_support aligns no further");

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
            return static_cast<node*>(_position)->value;
        }
        T* operator->() const {
            return &**this;
        }
        // Moves to the next element, or to the end.
        iterator& operator++() {
            _position = _position->_next;
            return *this;
        }
        iterator operator++(int) {
            iterator const before = *this;
            ++*this;
            return before;
        }

        // Whether both are the same position.
        friend bool operator==(iterator const&, iterator const&) = default;

    private:
        friend class list;
        explicit iterator(detail::list_links* position) : _position(position) {}

        detail::list_links* _position = nullptr;
    };

    // A position that gives read-only access to the elements.
    class const_iterator {
    public:
        using value_type = T;                    // required of iterators
        using difference_type = std::ptrdiff_t;  // likewise

        // Belongs to no list, or points where `position` does.
        const_iterator() = default;
        const_iterator(iterator position) : _position(position) {}

        // The element at this position, which must exist.
        T const& operator*() const {
            return *_position;
        }
        T const* operator->() const {
            return &*_position;
        }
        // Moves to the next element, or to the end.
        const_iterator& operator++() {
            ++_position;
            return *this;
        }
        const_iterator operator++(int) {
            return _position++;
        }

        // Whether both are the same position.
        friend bool operator==(const_iterator const&, const_iterator const&) = default;

    private:
        iterator _position;
    };

    // An element that is in no list yet. The handle frees it unless a list takes it.
    using prepared = std::unique_ptr<node>;

    // An empty list. Allocates nothing.
    list() : detail::list_links{this, this}, _size(0) {}

    // Throws whatever copying a value or allocating throws, and then leaks nothing.
    list(list const& other) : list() {
        for (T const& value : other)
            push_back(value);
    }
    list& operator=(list const&) = delete;

    ~list() {
        clear();
    }

    // The first element, or the end.
    iterator begin() {
        return iterator(_next);
    }
    // The position after the last element.
    iterator end() {
        return iterator(this);
    }

    // The same with read-only access.
    const_iterator begin() const {
        return iterator(_next);
    }
    const_iterator end() const {
        return const_cast<list*>(this)->end();
    }

    // The number of elements, in constant time.
    unsigned int size() const {
        return _size;
    }

    // Performs the part of an insertion that can fail, so that a caller can add one value
    // to several lists or to none. Throws whatever copying the value or allocating
    // throws.
    static prepared prepare(T const& value) {
        return prepared(new node(value));
    }

    // Appends a prepared element.
    void push_back(prepared&& element) noexcept {
        node* const last = element.release();
        last->_next = this;
        last->_previous = _previous;
        _previous->_next = last;
        _previous = last;
        ++_size;
    }

    // Appends a copy. If copying or allocating throws, the list is unchanged.
    void push_back(T const& value) {
        push_back(prepare(value));
    }

    // Erases the elements from `first` up to, not including, `last`; returns `last`.
    iterator erase(iterator first, iterator last) {
        while (first != last) {
            node* const erased = static_cast<node*>(first._position);
            ++first;
            erased->_previous->_next = erased->_next;
            erased->_next->_previous = erased->_previous;
            --_size;
            delete erased;
        }
        return last;
    }

    // Erases all elements.
    void clear() {
        if (_size != 0)
            erase(begin(), end());
    }

private:
    friend struct detail::inspector;

    // The list is its own end node: `_next` points to the first element and `_previous`
    // to the last. In an empty list both point to the list itself.
    unsigned int _size;  // elements
};

}  // namespace ovel

#endif
