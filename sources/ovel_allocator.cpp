// SPDX-License-Identifier: Apache-2.0
// Small blocks: the rings of an allocator, the exchange of chunks with the global
// allocator, and how blocks that another thread frees return to their owner. The class
// documents which thread may touch what, and the lock order.

#include "ovel_allocator.h"

#include "kernel.h"
#include "ovel_allocator_group.h"
#include "ovel_assure.h"
#include "ovel_counter.h"
#include "ovel_guard.h"
#include "ovel_poison.h"

#include <stddef.h>

#include <cmath>
#include <limits>
#include <new>

namespace ovel {

namespace {

constexpr std::size_t chunk_length = region_length;

// Each block of a chain that another thread freed is a cache miss. Most chains are in
// the order of their addresses, or the reverse. So this prefetches the block eight
// places on, if the chain continues as from `one` to `next`.
void prefetch_along(detail::block& one, detail::block* next) {
    auto const here = reinterpret_cast<std::size_t>(&one);
    auto const there = reinterpret_cast<std::size_t>(next);
    __builtin_prefetch(reinterpret_cast<void*>(there + 8 * (there - here)), 1);
}

}  // namespace

constinit allocator* allocator::_global_allocator = nullptr;
constinit allocator* allocator::_default_allocator = nullptr;
constinit detail::atomic<bool> allocator::_default_is_lent{false};
constinit allocator* allocator::_allocators = nullptr;
constinit allocator* allocator::_released_allocators = nullptr;

void detail::chunk::format(allocator* owner, std::size_t length, std::size_t block_size,
                           std::size_t block_alignment) {
    _class = detail::class_of(block_size);
    _constant_size = block_size;
    _allocator = owner;
    _free = nullptr;
    _length = length;
    _block_size = block_size;
    _block_alignment = block_alignment;
    _next = this;
    _previous = this;
    _size = 0;
    _capacity = 0;
    if (length == 0)
        return;

    // The memory after the header is aligned. The last cache line of the region stays
    // unused, so that no block shares one with what follows the region.
    auto const earliest = reinterpret_cast<std::size_t>(this + 1);
    std::size_t const gap = ~(earliest + sizeof(block) - 1) & (block_alignment - 1);
    char* next = reinterpret_cast<char*>(this + 1) + gap;
    char* const end = reinterpret_cast<char*>(this) + length - sizeof(cacheline);
    auto const b = reinterpret_cast<block*>(next);
    // clang-format off
    assure((( reinterpret_cast<size_t>(b) + sizeof(detail::block) ) & (_block_alignment - 1)) == 0);
    // clang-format on
    for (; static_cast<std::size_t>(end - next) >= block_size; next += block_size) {
        _free = new (next) block{this, _free};
        _capacity += block_size;
    }
    poison(this, length);
}

allocator::allocator(allocator* parent, HANDLE lock)
    : _lock(forking() ? 0 : 1, detail::current_spin(), lock),
      _parent(parent),
      _next(nullptr),
      _next_released(nullptr),
      _size(0),
      _capacity(0),
      _minimum_capacity(0),
      _activated(true),
      _pending(nullptr),
      _pending_size(0),
      _remote{},
      _surplus_below(0),
      _waiting{},
      _parts{} {
    for (std::size_t k = 0; k != detail::classes; ++k) {
        std::size_t const size = detail::block_sizes[k];
        _full[k].format(this, 0, size, detail::alignment_of(size));
        _partial[k].format(this, 0, size, detail::alignment_of(size));
        _serving[k] = &_partial[k];
    }
    _empty.format(this, 0, 0, 0);

    detail::guard<semaphore> const hold(_registry_lock(), forking());
    _next = _allocators;
    _allocators = this;
}

allocator::allocator(bool global)
    : allocator(global ? nullptr : _global_allocator, semaphore::_create()) {}

allocator::allocator()
    : allocator(allocator_group::global()->global_allocator(), semaphore::_create()) {}

allocator* allocator::build_to_lend() noexcept {
    HANDLE const lock = semaphore::_create();
    if (lock == nullptr)
        return nullptr;
    void* const memory = malloc(sizeof(allocator));
    if (memory == nullptr) {
        assure(CloseHandle(lock) != 0);
        return nullptr;
    }
    return ::new (memory) allocator(_global_allocator, lock);
}

void* allocator::operator new(std::size_t size) {
    void* const memory = malloc(size);
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}

void allocator::operator delete(void* memory) {
    free(memory);
}

// The lock of the process-wide lists.
semaphore& allocator::_registry_lock() {
    return _parent != nullptr ? _parent->_lock : _lock;
}

// The rings, by the owner, or by a handing thread under `_lock` while the
// allocator is deactivated.

detail::block* allocator::allocate(std::size_t k) noexcept {
    if (_read(_pending_size) >= detail::batch)
        _collect();
    detail::block* const ready = _take_ready(k);
    return ready != nullptr ? ready : _allocate_from_new(k);
}

// Serves class `k` when no chunk of it has a free block: from an own empty chunk,
// otherwise one of the global allocator, otherwise a new one from the runtime heap.
detail::block* allocator::_allocate_from_new(std::size_t k) noexcept {
    std::size_t const block_size = detail::block_sizes[k];
    detail::chunk* home;
    if (_empty.has_chunk()) {
        home = &_remove_empty();
        if (home->_block_size != block_size)
            home->format(this, home->_length, block_size, detail::alignment_of(block_size));
    } else {
        // Collects pending blocks before it takes more memory. It does not search the
        // rings again: the collection may have given chunks away, and a class that has
        // run out of blocks is likely to need the new chunk anyway.
        if (_read(_pending_size) != 0)
            _collect();
        home = _take_chunk(k);
        if (home == nullptr) {
            void* const region = malloc_region(offsetof(detail::chunk, _free));
            if (region == nullptr)
                return nullptr;
            home = new (region) detail::chunk;
            home->format(this, chunk_length, block_size, detail::alignment_of(block_size));
        }
    }
    home->insert_front(_partial[k]);
    _serving[k] = home;
    detail::add(_capacity, home->_capacity);
    _find_surplus();
    detail::block& taken = *home->_free;
    _take_block(taken, *home);  // can't fill it: a chunk has at least 15 blocks
    return &taken;
}

void allocator::_give_surplus() {
    _flush_remote();
    _give_chunk();
}

// Unlinks the first chunk of `_empty`, which must have one. On the global allocator
// under its `_lock`.
detail::chunk& allocator::_remove_empty() {
    detail::chunk& removed = *_empty._next;
    removed.unlink();
    detail::add(_capacity, -removed._capacity);
    if (_read(_minimum_capacity) > _read(_capacity))
        _minimum_capacity.store(_read(_capacity), std::memory_order_relaxed);
    _find_surplus();
    return removed;
}

// Takes a chunk from the global allocator and formats it for class `k`; null if there is
// none. Takes the global allocator's lock, and formats after releasing it. Until the
// caller inserts the chunk into a ring, no allocator's capacity counts it.
detail::chunk* allocator::_take_chunk(std::size_t k) {
    detail::chunk* taken;
    {
        detail::guard<semaphore> const hold(_parent->_lock, forking());
        if (!_parent->_empty.has_chunk())
            return nullptr;
        taken = &_parent->_remove_empty();
    }
    std::size_t const block_size = detail::block_sizes[k];
    taken->format(this, taken->_length, block_size, detail::alignment_of(block_size));
    return taken;
}

// Moves the first chunk of `_empty` to the global allocator, under that one's lock. The
// blocks keep their layout, since the allocator that takes the chunk formats it.
void allocator::_give_chunk() {
    detail::guard<semaphore> const hold(_parent->_lock, forking());
    detail::chunk& given = _remove_empty();
    given._allocator = _parent;
    given.insert_front(_parent->_empty);
    detail::add(_parent->_capacity, given._capacity);
}

void allocator::recycle(double fraction, bool minimum) {
    // A thread that forks must not drop the lock.
    if (_parent != nullptr || forking())
        return;
    if (!(fraction > 0.0))  // true for NaN as well
        fraction = 0.0;
    else if (fraction > 1.0)
        fraction = 1.0;

    detail::guard<semaphore> const hold(_lock);
    std::size_t const base = _read(minimum ? _minimum_capacity : _capacity);
    std::size_t const excess = base > _read(_size) ? base - _read(_size) : 0;
    // Compares as double. If the bound is not representable it becomes the next power of
    // two, and every double below that fits.
    constexpr std::ptrdiff_t bound = std::numeric_limits<std::ptrdiff_t>::max();
    double const share = std::nearbyint(static_cast<double>(excess) * fraction);
    auto budget = static_cast<std::size_t>(
        share < static_cast<double>(bound) ? static_cast<std::ptrdiff_t>(share) : bound);

    while (_empty.has_chunk() && _has_surplus() && _empty._next->_capacity <= budget) {
        detail::chunk& surplus = _remove_empty();
        budget -= surplus._capacity;
        // Threads may exchange chunks meanwhile, so the loop reads the ring again.
        _lock.release();
        detail::unpoison(&surplus, surplus._length);
        free_region(&surplus);
        _lock.acquire();
    }
    if (minimum)
        _minimum_capacity.store(_read(_capacity), std::memory_order_relaxed);
}

std::size_t allocator::_sum(counter allocator::*word) {
    detail::guard<semaphore> const hold(_registry_lock(), forking());
    std::size_t sum = 0;
    for (allocator* each = _allocators; each != nullptr; each = each->_next)
        sum += _read(each->*word);
    return sum;
}

std::size_t allocator::allocated_size() {
    return _sum(&allocator::_size);
}

std::size_t allocator::allocated_capacity() {
    return _sum(&allocator::_capacity);
}

// Blocks that another thread frees.

void allocator::deallocate_remote(detail::block& freed, allocator& owner) {
    detail::remote* entry = _remote;
    detail::remote* const end = _remote + sizeof _remote / sizeof _remote[0];
    while (entry != end && entry->owner != &owner && entry->owner != nullptr)
        ++entry;
    if (entry == end) {
        _flush_remote();
        entry = _remote;
    } else if (entry->size >= detail::batch) {
        _hand_over(*entry);
    }

    if (entry->owner == nullptr) {
        entry->owner = &owner;
        entry->tail = &freed;
    }
    if (entry == _remote)
        _file_by_class(freed);
    else
        _file(freed, *entry);
}

// Makes one chain of the blocks of the first entry, whose parts are the classes.
void allocator::_join_classes(detail::chain_parts& parts) {
    detail::remote& entry = _remote[0];
    for (detail::waiting& chain : _waiting) {
        if (chain.head == nullptr)
            continue;
        if (entry.head == nullptr)
            entry.head = chain.head;
        else
            entry.tail->_next = chain.head;
        entry.tail = chain.tail;
        parts.begin[parts.count++] = chain.head;
        chain.head = nullptr;
    }
}

void allocator::_hand_over(detail::remote& entry) {
    detail::chain_parts parts{};
    if (&entry == _remote)
        _join_classes(parts);
    entry.owner->_receive(entry.head, entry.tail, entry.size, parts);
    entry = {};
}

void allocator::_flush_remote() {
    for (detail::remote& entry : _remote) {
        if (entry.owner != nullptr)
            _hand_over(entry);
    }
}

// Empties the entries of a deactivated allocator onto the front of `kept`. Under
// `_lock`.
void allocator::_detach_remote(detail::block*& kept) {
    detail::chain_parts parts{};
    _join_classes(parts);
    for (detail::remote& entry : _remote) {
        if (entry.owner == nullptr)
            continue;
        entry.tail->_next = kept;
        kept = entry.head;
        entry = {};
    }
}

// Takes over a chain of this allocator's blocks. Called with no allocator's lock
// held, and returns so.
//
// A deactivated owner may still hold chains of others, and hands them over when it gives a
// chunk back. That happens under its `_lock`, and taking a second owner's lock there could
// deadlock: two allocators may hold each other's blocks. So `_accept` links those chains
// together in `kept`, and this function delivers them without a lock. It loops, because
// their owners may release further chains. Neighbours in `kept` with the same owner are one
// chain.
void allocator::_receive(detail::block* head, detail::block* tail, std::size_t size,
                         detail::chain_parts const& parts) {
    detail::block* kept = nullptr;
    _accept(head, tail, size, parts, kept);
    while (kept != nullptr) {
        allocator* const owner = kept->_chunk->_allocator;
        head = kept;
        size = 0;
        do {
            tail = kept;
            size += tail->_chunk->_constant_size;
            kept = tail->_next;
        } while (kept != nullptr && kept->_chunk->_allocator == owner);
        owner->_accept(head, tail, size, {}, kept);
    }
}

// Leaves the chain to the owner or, while the owner is deactivated, puts back all pending
// blocks.
void allocator::_accept(detail::block* head, detail::block* tail, std::size_t size,
                        detail::chain_parts const& parts, detail::block*& kept) {
    detail::guard<semaphore> const hold(_lock, forking());
    _parts = parts;
    _parts.end = _pending;
    tail->_next = _pending;
    _pending = head;
    detail::add(_pending_size, size);
    if (!_activated)
        _put_back_pending(kept);
}

// With the lock held and the owner away. Adds the chains of other owners that this releases
// to the front of `kept`.
void allocator::_put_back_pending(detail::block*& kept) {
    while (_pending != nullptr) {
        detail::block& freed = *_pending;
        _pending = freed._next;
        _put_back(freed, *freed._chunk);
        if (_empty.has_chunk() && _has_surplus()) {
            _detach_remote(kept);
            _give_chunk();
        }
    }
    _parts.count = 0;
    _pending_size.store(0, std::memory_order_relaxed);
}

// Puts back what other threads have handed over. Holds the lock only to take the chain, so
// threads that hand over do not wait for the rest.
void allocator::_collect() {
    detail::block* chain;
    detail::chain_parts parts;
    {
        detail::guard<semaphore> const hold(_lock, forking());
        chain = _pending;
        parts = _parts;
        _pending = nullptr;
        _parts.count = 0;
        _pending_size.store(0, std::memory_order_relaxed);
    }
    if (parts.count != 0) {
        chain = parts.end;
        _deallocate_parts(parts);
    }
    _deallocate_chain(chain, nullptr);
}

// Follows all parts in turn. Each block is a cache miss, prefetched while those of the other
// parts are put back.
void allocator::_deallocate_parts(detail::chain_parts const& parts) {
    detail::block* next[detail::classes];
    detail::block const* end[detail::classes];
    std::size_t left = parts.count;
    for (std::size_t part = 0; part != left; ++part) {
        next[part] = parts.begin[part];
        end[part] = part + 1 != left ? parts.begin[part + 1] : parts.end;
    }
    for (std::size_t part = 0; left != 1;) {
        detail::block& freed = *next[part];
        next[part] = freed._next;
        __builtin_prefetch(next[part], 1);
        deallocate(freed, *freed._chunk);
        if (next[part] != end[part]) {
            ++part;
        } else {
            --left;
            next[part] = next[left];
            end[part] = end[left];
        }
        if (part == left)
            part = 0;
    }
    _deallocate_chain(next[0], end[0]);
}

// From `from` on, but not `to`.
void allocator::_deallocate_chain(detail::block* from, detail::block const* to) {
    while (from != to) {
        detail::block& freed = *from;
        from = freed._next;
        prefetch_along(freed, from);
        deallocate(freed, *freed._chunk);
    }
}

void allocator::activate() {
    detail::guard<semaphore> const hold(_lock, forking());
    assure(!_activated);
    _activated = true;
}

// A chain that arrives between the flush and the clearing of the flag stays pending until
// the next collection or the next chain.
void allocator::deactivate(bool keep) {
    flush(keep);
    detail::guard<semaphore> const hold(_lock, forking());
    assure(_activated);
    _activated = false;
}

// Also puts back the chains that arrived between the flush and the clearing of the flag:
// perhaps no other chain follows. It has none of another owner that this could release.
void allocator::retire() {
    deactivate(false);
    detail::block* none = nullptr;
    detail::guard<semaphore> const hold(_lock, forking());
    _put_back_pending(none);
}

// Only the owner changes the flag, so it may read it without the lock.
void allocator::leave() {
    if (!_activated)
        activate();
    retire();
}

void allocator::take_back(detail::block& freed) {
    _receive(&freed, &freed, freed._chunk->_constant_size, {});
}

void detail::expect_activated(bool _activated) {
    assure(_activated);
}

}  // namespace ovel
