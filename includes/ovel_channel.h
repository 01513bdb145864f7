// SPDX-License-Identifier: Apache-2.0
// A bounded FIFO queue of tokens: the contents of a Petri net's place.
#ifndef OVEL_CHANNEL_H
#define OVEL_CHANNEL_H

#include "ovel_allocator_support.h"
#include "ovel_any.h"
#include "ovel_assure.h"
#include "ovel_frame.h"

#include <cstddef>
#include <limits>
#include <new>
#include <utility>

namespace ovel {

namespace detail {
class petri_port;
}

// A ring of tokens in a buffer that is allocated once. `send` copies a token in and
// `receive` moves one out. Not synchronised and never waits: threads that share a channel
// guard it with a lock and keep track of its free slots and tokens. Sending into a full
// channel or receiving from an empty one fails a check.
class channel {
public:
    // Has room for `capacity` tokens. Throws std::bad_alloc.
    explicit channel(unsigned int capacity)
        : _capacity(capacity),
          _size(0),
          _begin(_allocate(capacity)),
          _end(_begin + capacity),
          _back(_begin),
          _front(_begin) {}
    channel(channel const&) = delete;
    channel& operator=(channel const&) = delete;

    ~channel() {
        while (_size != 0)
            _remove_front();
        allocator_support::deallocate(_begin);
    }

    // The number of slots for tokens.
    unsigned int capacity() const {
        return _capacity;
    }

    // Appends a copy of `token` (check "_size != _capacity"). If copying throws, the
    // channel is unchanged.
    void send(any const& token) {
        assure(_size != _capacity);
        ::new (static_cast<void*>(_back)) any(token);
        _back = _after(_back);
        ++_size;
    }

    // Appends `token` and leaves it empty (check "_size != _capacity").
    void put(any&& token) {
        assure(_size != _capacity);
        ::new (static_cast<void*>(_back)) any(std::move(token));
        _back = _after(_back);
        ++_size;
    }

    // Moves the oldest token into `target` and destroys the value that `target` had
    // (check "_size != 0"). Copies nothing.
    void receive(any& target) {
        assure(_size != 0);
        target.swap(*_front);
        _remove_front();
    }

    // Copies the oldest token into `target` and leaves it in the channel (check
    // "_size != 0"). If copying throws, `target` is empty.
    void peek(any& target) {
        assure(_size != 0);
        target = *_front;
    }

private:
    friend class detail::petri_port;
    friend struct detail::inspector;

    static any* _allocate(unsigned int capacity) {
        std::size_t const slots = capacity;
        if (slots > std::numeric_limits<std::size_t>::max() / sizeof(any))
            throw std::bad_alloc();
        return static_cast<any*>(allocator_support::allocate(slots * sizeof(any)));
    }

    any* _after(any* slot) const {
        return slot + 1 == _end ? _begin : slot + 1;
    }

    void _remove_front() {
        _front->~any();
        _front = _after(_front);
        --_size;
    }

    // The `_size` slots from `_front` on hold tokens; after the last slot comes `_begin`.
    // The other slots are raw memory, and `_back` is the first of them.
    unsigned int const _capacity;
    unsigned int _size;
    any* const _begin;
    any* const _end;
    any* _back;   // the slot for the next token
    any* _front;  // the oldest token
};

}  // namespace ovel

#endif
