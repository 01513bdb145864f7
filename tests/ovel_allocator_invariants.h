// SPDX-License-Identifier: Apache-2.0
// The invariants of an allocator between any two of its owner's operations: a part of the
// program's inspector, which is defined before and says what becomes of a text that is `broken`.
#ifndef OVEL_TESTS_ALLOCATOR_INVARIANTS_H
#define OVEL_TESTS_ALLOCATOR_INVARIANTS_H

#include "ovel_allocator.h"

#include <cstddef>

#define OVEL_INVARIANT(expression) \
    if (!(expression))             \
    broken(#expression)

// Allocators that were checked, and sums over them. The functions read memory that is poisoned
// in builds for AddressSanitizer.
struct ovel::detail::inspector::allocators {
    std::size_t count = 0;
    std::size_t chunks = 0;
    std::size_t in_use = 0;   // bytes of blocks, headers included
    std::size_t on_way = 0;   // and of those that other threads freed and still hold
    std::size_t reserve = 0;  // capacity of the global allocator

    [[gnu::no_sanitize_address]] void check(allocator const& of) {
        std::size_t size = 0, capacity = 0;
        for (std::size_t k = 0; k != classes; ++k) {
            ring const full = _check(of, of._full[k], block_sizes[k], true);
            ring const partial = _check(of, of._partial[k], block_sizes[k], false);
            OVEL_INVARIANT(partial.spare <= 1);
            OVEL_INVARIANT(_serves(of._partial[k], of._serving[k]));
            size += full.size + partial.size;
            capacity += full.capacity + partial.capacity;
        }
        ring const empty = _check(of, of._empty, 0, false);
        OVEL_INVARIANT(empty.size == 0);
        OVEL_INVARIANT(of._size == size);
        OVEL_INVARIANT(of._capacity == capacity + empty.capacity);
        OVEL_INVARIANT(of._minimum_capacity <= of._capacity);

        std::size_t pending = 0, part = 0;
        for (block const* one = of._pending; one != nullptr; one = one->_next) {
            OVEL_INVARIANT(one->_chunk->_allocator == &of);
            pending += one->_chunk->_block_size;
            part += part != of._parts.count && one == of._parts.begin[part];
        }
        OVEL_INVARIANT(of._pending_size == pending);
        OVEL_INVARIANT(of._parts.count == part);
        on_way += pending;
        for (remote const& entry : of._remote)
            on_way += _check(of, entry);
        if (of._parent == nullptr) {
            OVEL_INVARIANT(size == 0);
            reserve = of._capacity;
        }
        ++count;
        in_use += size;
    }

private:
    struct ring {
        std::size_t size = 0, capacity = 0;
        std::size_t spare = 0;  // chunks without a block in use
    };

    [[gnu::no_sanitize_address]] ring _check(allocator const& of, chunk const& head,
                                             std::size_t block_size, bool full) {
        ring sums;
        for (chunk const* one = head._next; one != &head; one = one->_next) {
            OVEL_INVARIANT(one->_allocator == &of);
            OVEL_INVARIANT(one->_next->_previous == one);
            // Empty chunks keep the layout that they had.
            OVEL_INVARIANT(block_size == 0 || one->_block_size == block_size);
            std::size_t free_bytes = 0;
            for (block const* unused = one->_free; unused != nullptr; unused = unused->_next) {
                OVEL_INVARIANT(unused->_chunk == one);
                free_bytes += one->_block_size;
                OVEL_INVARIANT(free_bytes <= one->_capacity);  // also ends a cycle
            }
            OVEL_INVARIANT(one->_size + free_bytes == one->_capacity);
            OVEL_INVARIANT(full == (free_bytes == 0));
            ++chunks;
            sums.size += one->_size;
            sums.capacity += one->_capacity;
            sums.spare += one->_size == 0;
        }
        return sums;
    }

    // The serving chunk of a class is in its ring of partial chunks, or is the head of the ring
    // if that has no chunk.
    [[gnu::no_sanitize_address]] static bool _serves(chunk const& head, chunk const* serving) {
        if (serving == &head)
            return head._next == &head;
        chunk const* each = head._next;
        while (each != &head && each != serving)
            each = each->_next;
        return each == serving;
    }

    // Returns the bytes of an entry. The blocks of the first one wait by class, and its own
    // chain is empty.
    [[gnu::no_sanitize_address]] static std::size_t _check(allocator const& of,
                                                           remote const& entry) {
        std::size_t bytes = 0;
        if (&entry == of._remote) {
            OVEL_INVARIANT(entry.head == nullptr);
            for (std::size_t k = 0; k != classes; ++k)
                bytes += _check(entry, of._waiting[k].head, of._waiting[k].tail, k);
        } else {
            bytes = _check(entry, entry.head, entry.tail, classes);
        }
        OVEL_INVARIANT(entry.size == bytes);
        OVEL_INVARIANT((entry.owner == nullptr) == (bytes == 0));
        return bytes;
    }

    // Returns the bytes of a chain. Its blocks are of the class `k`, or with `classes` of any.
    [[gnu::no_sanitize_address]] static std::size_t _check(remote const& entry, block const* head,
                                                           block const* tail, std::size_t k) {
        std::size_t bytes = 0;
        block const* last = nullptr;
        for (block const* one = head; one != nullptr; one = one->_next) {
            OVEL_INVARIANT(one->_chunk->_allocator == entry.owner);
            OVEL_INVARIANT(one->_chunk->_block_size == one->_chunk->_constant_size);
            OVEL_INVARIANT(k == classes || one->_chunk->_block_size == block_sizes[k]);
            bytes += one->_chunk->_block_size;
            OVEL_INVARIANT(bytes <= entry.size);
            last = one;
        }
        OVEL_INVARIANT(head == nullptr || tail == last);
        return bytes;
    }
};

#undef OVEL_INVARIANT

#endif
