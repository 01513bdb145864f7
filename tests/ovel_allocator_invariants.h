// SPDX-License-Identifier: Apache-2.0
// The invariants of an allocator between any two of its owner's operations.
#ifndef OVEL_TESTS_ALLOCATOR_INVARIANTS_H
#define OVEL_TESTS_ALLOCATOR_INVARIANTS_H

#include "ovel_allocator.h"

#include <cstddef>

namespace ovel::detail {

// The fields of an allocator that the invariants are about; `_full`, `_partial`,
// `_serving`, `_remote` and `_waiting` are arrays.
struct allocator_fields {
    allocator* self;
    bool global;
    chunk* full;
    chunk* partial;
    chunk* const* serving;
    chunk* empty;
    remote const* remotes;
    std::size_t remotes_size;
    detail::waiting const* waiting;
    block* pending;
    chain_parts const* parts;
    std::size_t size, capacity, minimum_capacity, pending_size;
};

// The sums over the allocators that were checked.
struct allocator_totals {
    std::size_t allocators = 0;
    std::size_t chunks = 0;
    std::size_t in_use = 0;   // bytes of blocks, headers included
    std::size_t on_way = 0;   // and of those that other threads freed and still hold
    std::size_t reserve = 0;  // capacity of the global allocator
};

// Null, or the text of an invariant that is broken. The functions read memory that is poisoned
// in builds for AddressSanitizer.
#define OVEL_INVARIANT(expression) \
    if (!(expression))             \
    return #expression

struct ring_sums {
    std::size_t size = 0, capacity = 0;
    std::size_t spare = 0;  // chunks without a block in use
};

[[gnu::no_sanitize_address]] inline char const* broken_in_ring(allocator_fields const& of,
                                                               chunk const& ring,
                                                               std::size_t block_size, bool full,
                                                               allocator_totals& all,
                                                               ring_sums& sums) {
    for (chunk const* one = ring._next; one != &ring; one = one->_next) {
        OVEL_INVARIANT(one->_allocator == of.self);
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
        sums.spare += one->_size == 0;
        ++all.chunks;
        sums.size += one->_size;
        sums.capacity += one->_capacity;
    }
    return nullptr;
}

// The serving chunk of a class is in its ring of partial chunks, or is the head of the ring if
// that has no chunk.
[[gnu::no_sanitize_address]] inline bool serves(chunk const& ring, chunk const* serving) {
    if (serving == &ring)
        return ring._next == &ring;
    chunk const* each = ring._next;
    while (each != &ring && each != serving)
        each = each->_next;
    return each == serving;
}

// Adds the bytes of a chain from `head` on to `bytes`, which are at most those of `entry`.
// The blocks are of the class `k`, or with `classes` of any.
[[gnu::no_sanitize_address]] inline char const* broken_in_chain(remote const& entry,
                                                                block const* head,
                                                                block const* tail, std::size_t k,
                                                                std::size_t& bytes) {
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
    return nullptr;
}

// The blocks of the first entry wait by class, and its own chain is empty.
[[gnu::no_sanitize_address]] inline char const* broken_in_remote(allocator_fields const& of,
                                                                 remote const& entry,
                                                                 std::size_t& on_way) {
    std::size_t bytes = 0;
    if (&entry == of.remotes) {
        OVEL_INVARIANT(entry.head == nullptr);
        for (std::size_t k = 0; k != classes; ++k)
            if (auto const broken =
                    broken_in_chain(entry, of.waiting[k].head, of.waiting[k].tail, k, bytes))
                return broken;
    } else if (auto const broken = broken_in_chain(entry, entry.head, entry.tail, classes, bytes)) {
        return broken;
    }
    OVEL_INVARIANT(entry.size == bytes);
    OVEL_INVARIANT((entry.owner == nullptr) == (bytes == 0));
    on_way += bytes;
    return nullptr;
}

[[gnu::no_sanitize_address]] inline char const* broken_invariant(allocator_fields const& of,
                                                                 allocator_totals& all) {
    ring_sums sums;
    for (std::size_t k = 0; k != classes; ++k) {
        if (auto const broken = broken_in_ring(of, of.full[k], block_sizes[k], true, all, sums))
            return broken;
        sums.spare = 0;
        if (auto const broken = broken_in_ring(of, of.partial[k], block_sizes[k], false, all, sums))
            return broken;
        OVEL_INVARIANT(sums.spare <= 1);
        OVEL_INVARIANT(serves(of.partial[k], of.serving[k]));
    }
    std::size_t const in_use = sums.size;
    if (auto const broken = broken_in_ring(of, *of.empty, 0, false, all, sums))
        return broken;
    OVEL_INVARIANT(sums.size == in_use);
    OVEL_INVARIANT(of.size == sums.size);
    OVEL_INVARIANT(of.capacity == sums.capacity);
    OVEL_INVARIANT(of.minimum_capacity <= sums.capacity);

    std::size_t on_way = 0;
    std::size_t part = 0;
    for (block const* one = of.pending; one != nullptr; one = one->_next) {
        OVEL_INVARIANT(one->_chunk->_allocator == of.self);
        on_way += one->_chunk->_block_size;
        part += part != of.parts->count && one == of.parts->begin[part];
    }
    OVEL_INVARIANT(of.pending_size == on_way);
    OVEL_INVARIANT(of.parts->count == part);
    for (std::size_t i = 0; i != of.remotes_size; ++i)
        if (auto const broken = broken_in_remote(of, of.remotes[i], on_way))
            return broken;
    if (of.global) {
        OVEL_INVARIANT(sums.size == 0);
        all.reserve = sums.capacity;
    }
    ++all.allocators;
    all.in_use += sums.size;
    all.on_way += on_way;
    return nullptr;
}

#undef OVEL_INVARIANT

}  // namespace ovel::detail

#endif
