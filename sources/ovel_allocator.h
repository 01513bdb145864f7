// SPDX-License-Identifier: Apache-2.0
// The allocator of one thread: small blocks cut from chunks, each chunk for one size
// class. Internal: programs use it through `allocator_support`.
#ifndef OVEL_ALLOCATOR_H
#define OVEL_ALLOCATOR_H

#include "kernel.h"
#include "ovel_allocator_group.h"
#include "ovel_assure.h"
#include "ovel_atomic.h"
#include "ovel_counter.h"
#include "ovel_frame.h"
#include "ovel_semaphore.h"

#include <cstddef>

namespace ovel {

class allocator;

namespace detail {

struct chunk;
struct process_hooks;

// The header in front of the memory of every block. It stays in place while the block is
// in use: freeing and measuring a block find its chunk through `_chunk`.
struct block {
    chunk* _chunk;  // null for a large block
    block* _next;   // in a free chain; meaningless while the block is in use
};

// Size classes. Block sizes include the header and are multiples of `granule`, which is
// also the unit of the table that maps sizes to classes. Classes smaller than the target's
// header stay unused.
inline constexpr std::size_t granule = 8;
inline constexpr std::size_t classes = 18;
inline constexpr std::size_t block_sizes[classes] = {
    8, 16, 24, 32, 48, 64, 96, 128, 192, 256, 384, 512, 768, 1024, 1536, 2048, 3072, 4096};
inline constexpr std::size_t largest_block = block_sizes[classes - 1];

// Bytes of freed blocks for which a thread takes their owner's lock.
inline constexpr std::size_t batch = 0x40000;

// The surplus test ignores one mebibyte of the capacity.
inline constexpr std::size_t allowance = 1048576 / 7 * 5;
static_assert(allowance == 748980);

// The alignment of the memory of a block: the largest power of two that divides its size,
// at most a cacheline.
constexpr std::size_t alignment_of(std::size_t block_size) {
    std::size_t const alignment = block_size & (~block_size + 1);
    return alignment < sizeof(cacheline) ? alignment : sizeof(cacheline);
}

struct class_table {
    unsigned char classes[largest_block / granule + 1];
};

consteval class_table make_class_table() {
    class_table table{};
    unsigned char fitting = 0;
    for (std::size_t index = 0; index != sizeof table.classes; ++index) {
        if (index * granule > block_sizes[fitting])
            ++fitting;
        table.classes[index] = fitting;
    }
    return table;
}

inline constexpr class_table size_classes = make_class_table();

// The first class whose blocks hold `size` bytes, header included; `size` is a
// multiple of `granule`, at most `largest_block`.
constexpr std::size_t class_of(std::size_t size) {
    return size_classes.classes[size / granule];
}

// A region of the runtime heap from which the blocks of one class are cut; it begins with
// these fields. An object with `_length` 0 is the sentinel of a ring.
//
// Rings are circular: the sentinel of an empty one is its own neighbour.
//
// Threads that hold a block of the chunk, or hand one over, read only the three words
// before `_free`. These do not change while a block is in use. Where the platform can, it
// places them in a cache line that the owner does not write.
struct chunk {
    [[maybe_unused]] char _before[sizeof(cacheline) - 2 * sizeof(std::size_t)];
    std::size_t _class;            // of `_block_size`
    std::size_t _constant_size;    // a copy of `_block_size`
    allocator* _allocator;         // the owner of the ring it is in
    block* _free;                  // the first block not in use
    std::size_t _length;           // bytes of the region
    std::size_t _block_size;       // bytes of a block; 0 in the sentinel of mixed classes
    std::size_t _block_alignment;  // of the memory of a block
    chunk* _next;
    chunk* _previous;
    std::size_t _size;      // bytes of blocks in use
    std::size_t _capacity;  // bytes of blocks laid out

    // Makes this a chunk without a ring, all its blocks free, the highest first;
    // or, with `length` 0, an empty ring.
    void format(allocator* owner, std::size_t length, std::size_t block_size,
                std::size_t block_alignment);

    bool has_chunk() const {
        return _next != this;
    }

    void unlink() {
        chunk* const next = _next;
        chunk* const previous = _previous;
        previous->_next = next;
        next->_previous = previous;
    }
    // Stores the two links separately, with a store in between: as one vector they would be
    // slower to store and to load again.
    void insert_front(chunk& ring) {
        chunk* const first = ring._next;
        _previous = &ring;
        first->_previous = this;
        _next = first;
        ring._next = this;
    }
    void move_to(chunk& ring) {
        unlink();
        insert_front(ring);
    }
};

// Blocks of one other allocator that wait in the freeing thread's allocator to
// be handed over; linked through `_next`, the tail's is null.
struct remote {
    allocator* owner;  // null: the entry is empty
    block* head;
    block* tail;
    std::size_t size;  // bytes, headers included
};

// Those blocks of an entry that are of one class, linked likewise. `tail` has no meaning
// while `head` is null.
struct waiting {
    block* head;
    block* tail;
};

// Where the blocks of each class begin in a chain that an allocator has handed over from its
// first entry. The owner follows all these parts at once, so that their cache misses overlap.
struct chain_parts {
    unsigned int count;     // 0: the chain has no known parts
    block* begin[classes];  // in the chain's order; each part ends where the next begins
    block* end;             // of the last part: what was pending before
};

}  // namespace detail

// A pool of small blocks, owned by one thread at a time. There are three kinds of object.
// The global allocator serves no thread and keeps empty chunks for all. The default
// allocator is lent to one thread that has none of its own. Threads acquire a thread
// allocator or are lent one, and it is reused after they have given it back. None is ever
// destroyed. Allocators and chunks come from the runtime heap, not from the library's own
// memory.
//
// Rings. A chunk is in exactly one ring of its `_allocator`:
//
//     _full[k]     no block free     its `_size` equals its `_capacity`
//     _partial[k]  some block free   one chunk of the ring may have no block in use
//     _empty       no block in use   laid out for the class it last served
//
// `_serving[k]` is the chunk of `_partial[k]` that hands out the next block: the one that a
// block was freed into last, or a new one. Once it has left the ring, full or empty, the
// first chunk of the ring serves. The serving chunk keeps its place in the ring. Blocks freed
// in random order go to a different chunk each time, and moving that chunk would cost more
// than the rest of the free.
//
// `_size` and `_capacity` are the sums of those of the chunks. The global
// allocator has chunks in `_empty` only.
//
// Threads. The owner works on rings, chunks and counters with no lock and no
// locked instruction. Blocks that other threads free wait in those threads' `_remote` and
// arrive as chains in `_pending`; the owner puts them back later. Until a thread hands such
// blocks over, it reuses them when no chunk of its own in `_partial[k]` has a free block. A
// reused block still belongs to its owner, which counts it as in use throughout.
//
// While the allocator is deactivated, its owner does not use it. The thread that hands a
// chain over puts the blocks back at once, under `_lock`. It may then also hand over what
// the owner left in `_remote`. Any thread may use the global allocator, under its `_lock`,
// which also guards `_allocators` and `_released_allocators`.
//
// Lock order: an allocator's `_lock`, then the global allocator's. The locks of
// two allocators that are not the global one are never held together, except by a thread that
// forks: it holds all of them, and takes none.
class allocator {
public:
    // Builds the global allocator, or with false the default one; without an argument a
    // thread's allocator, and the allocator group first if there is none. Registers itself.
    explicit allocator(bool global);
    allocator();
    allocator(allocator const&) = delete;
    allocator& operator=(allocator const&) = delete;

    // A thread's; null when memory is exhausted, for its lock as well: a thread that has not
    // asked for an allocator must not end the process. The group exists.
    static allocator* build_to_lend() noexcept;

    // The runtime heap; allocation throws std::bad_alloc.
    static void* operator new(std::size_t size);
    static void operator delete(void* memory);

    // A block of class `k`; null when memory is exhausted. Owner only.
    detail::block* allocate(std::size_t k) noexcept;

    // The fast path of `allocate`: null if no block is ready or pending blocks must be
    // collected first. Takes no lock and makes no call.
    detail::block* allocate_ready(std::size_t k);

    // Frees a block of this allocator's chunk `home`. Owner only.
    void deallocate(detail::block& freed, detail::chunk& home);

    // Frees a block of another allocator. Called on the calling thread's allocator.
    void deallocate_remote(detail::block& freed, allocator& owner);

    // The fast path of `deallocate_remote`: false, with nothing done, if that needs a lock
    // or a search.
    bool file_remote(detail::block& freed, allocator& owner);

    // Returns empty chunks of the global allocator to the runtime heap, up to `fraction`
    // (0 to 1; NaN is 0) of its idle capacity, or with `minimum` of the lowest idle
    // capacity since the last such call. Keeps about a mebibyte. Does nothing on any other
    // allocator. Any thread. Drops and retakes `_lock` around each chunk that it returns.
    void recycle(double fraction, bool minimum);

    // On the global allocator: the sum of `_size`, or of `_capacity`, over all allocators.
    // Not a consistent snapshot: each is read at a different moment. Any thread.
    std::size_t allocated_size();
    std::size_t allocated_capacity();

    // The owner returns (check "!_activated") or leaves (check "_activated"). With `keep`
    // it does not hand the blocks of others over. Owner only.
    void activate();
    void deactivate(bool keep);

    // Deactivates for a long time, or for good: nothing stays pending. Owner only.
    void retire();

    // The same, activated or not.
    void leave();

    // Puts pending blocks back and, unless `keep`, hands over the blocks of others. Owner
    // only.
    void flush(bool keep);

    // Frees a block of this allocator for a thread that no allocator serves.
    void take_back(detail::block& freed);

private:
    friend class allocator_group;
    friend struct detail::inspector;
    friend struct detail::process_hooks;

    using counter = detail::atomic<std::size_t>;

    allocator(allocator* parent, HANDLE lock);
    ~allocator() = default;  // never called

    static std::size_t _read(counter const& word);

    semaphore& _registry_lock();
    std::size_t _sum(counter allocator::*word);

    bool _has_surplus() const;
    void _find_surplus();
    void _take_block(detail::block& taken, detail::chunk& home);
    detail::block* _take_waiting(std::size_t k);
    detail::block* _take_ready(std::size_t k);
    detail::block* _allocate_from_new(std::size_t k) noexcept;
    static void _assure_in_use(detail::block const& freed, detail::block const* last);
    std::size_t _put_back(detail::block& freed, detail::chunk& home);
    void _give_surplus();
    detail::chunk& _remove_empty();
    detail::chunk* _take_chunk(std::size_t k);
    void _give_chunk();

    static void _file(detail::block& freed, detail::remote& entry);
    void _file_by_class(detail::block& freed);
    void _join_classes(detail::chain_parts& parts);
    void _hand_over(detail::remote& entry);
    void _flush_remote();
    void _detach_remote(detail::block*& kept);
    void _receive(detail::block* head, detail::block* tail, std::size_t size,
                  detail::chain_parts const& parts);
    void _put_back_pending(detail::block*& kept);
    void _accept(detail::block* head, detail::block* tail, std::size_t size,
                 detail::chain_parts const& parts, detail::block*& kept);
    void _collect();
    void _deallocate_parts(detail::chain_parts const& parts);
    void _deallocate_chain(detail::block* from, detail::block const* to);

    // The process's allocators. The first two are set while the group is built, before
    // other threads can see it. The lists are under the global allocator's `_lock`.
    static allocator* _global_allocator;
    static allocator* _default_allocator;
    static detail::atomic<bool> _default_is_lent;
    static allocator* _allocators;           // all, through `_next`; only grows
    static allocator* _released_allocators;  // through `_next_released`

    // Guards `_activated`, `_pending` and writes of `_pending_size`; while the allocator is
    // deactivated, everything below but the links. The global allocator's guards all its
    // fields, both lists above, and the links of every allocator.
    semaphore _lock;
    allocator* const _parent;   // the global allocator; null in itself
    allocator* _next;           // set when registered
    allocator* _next_released;  // under the global allocator's `_lock`

    // Written by the thread that may use the rings, read by all. Relaxed: each is an
    // independent number, and orders nothing.
    counter _size;              // bytes of blocks in use, headers included
    counter _capacity;          // bytes of blocks laid out
    counter _minimum_capacity;  // low-water mark of `_capacity`, of the global allocator's

    bool _activated;          // under `_lock`
    detail::block* _pending;  // under `_lock`; chain linked through `_next`
    counter _pending_size;    // bytes; written under `_lock`, read by the owner
    detail::remote _remote[4];

    detail::chunk _full[detail::classes];
    detail::chunk _partial[detail::classes];
    detail::chunk _empty;
    [[maybe_unused]] cacheline _after;

    // With less than this in use, there is a surplus and `_empty` has a chunk to give.
    // Unused in the global allocator, which gives nothing.
    std::size_t _surplus_below;

    // The sentinel, which never has a free block, while `_partial[k]` is empty.
    detail::chunk* _serving[detail::classes];

    // The blocks of the first entry of `_remote`, whose own chain is made of these when it
    // is handed over, and is empty before.
    detail::waiting _waiting[detail::classes];
    [[maybe_unused]] cacheline _end;

    // Of the chain that was handed over last. Under `_lock`.
    detail::chain_parts _parts;
};

namespace detail {

// The allocator that serves the calling thread, which is lent one if it has none. Builds the
// group if there is none. Null if the thread is past its end, or if memory for a new allocator
// is exhausted. Makes no call where the quick pointer is set.
inline allocator* current_allocator() {
    void* const quick = quick_pointer();
    return quick != nullptr ? static_cast<allocator*>(quick) : find_current_allocator();
}

// For a thread of the library that only waits from here on. Its allocator may have been that
// of a thread that has ended: the threads that free blocks of that put them back.
void retire_current_allocator();

// An allocator for a single operation of a thread to which none can be lent.
class borrowed_allocator {
public:
    borrowed_allocator() noexcept;
    ~borrowed_allocator();
    borrowed_allocator(borrowed_allocator const&) = delete;
    borrowed_allocator& operator=(borrowed_allocator const&) = delete;

    // Null when memory is exhausted.
    allocator* get() const {
        return _borrowed;
    }

private:
    allocator* const _borrowed;
};

// The check "_activated" of allocators, for a thread that has no allocator to deactivate.
void expect_activated(bool _activated);

}  // namespace detail

inline std::size_t allocator::_read(counter const& word) {
    return word.load(std::memory_order_relaxed);
}

// Whether the capacity, less the allowance, is more than about seven fifths of the size.
inline bool allocator::_has_surplus() const {
    return _read(_size) + detail::allowance < _read(_capacity) / 7 * 5;
}

// Called after each change of `_capacity`, or of whether `_empty` has a chunk.
inline void allocator::_find_surplus() {
    std::size_t const most = _read(_capacity) / 7 * 5;
    bool const any = _empty.has_chunk() && most > detail::allowance;
    _surplus_below = any ? most - detail::allowance : 0;
}

// Takes `taken`, which is the first free block of `home`.
inline void allocator::_take_block(detail::block& taken, detail::chunk& home) {
    home._free = taken._next;
    std::size_t const block_size = home._block_size;
    home._size += block_size;
    detail::add(_size, block_size);
}

// The block of class `k` that was filed last in the first entry, or null. It still belongs
// to its owner, whose `_size` counts it throughout. The only block of an entry is not
// taken, so an entry with an owner is never empty.
inline detail::block* allocator::_take_waiting(std::size_t k) {
    detail::remote& entry = _remote[0];
    detail::block* const taken = _waiting[k].head;
    if (taken == nullptr || entry.size == detail::block_sizes[k])
        return nullptr;
    _waiting[k].head = taken->_next;
    entry.size -= detail::block_sizes[k];
    return taken;
}

// A block of class `k` from the serving chunk, otherwise a waiting one, otherwise null.
inline detail::block* allocator::_take_ready(std::size_t k) {
    detail::chunk& home = *_serving[k];
    detail::block* const taken = home._free;
    if (taken == nullptr)
        return _take_waiting(k);
    detail::block* const next = taken->_next;
    __builtin_prefetch(next);  // for the next allocation of the class
    _take_block(*taken, home);
    if (next == nullptr) [[unlikely]] {
        home.move_to(_full[k]);
        _serving[k] = _partial[k]._next;
    }
    return taken;
}

inline detail::block* allocator::allocate_ready(std::size_t k) {
    return _read(_pending_size) < detail::batch ? _take_ready(k) : nullptr;
}

// Checks, in builds for a sanitizer, that a block was not freed twice in a row.
inline void allocator::_assure_in_use(detail::block const& freed, detail::block const* last) {
#if defined(OVEL_SANITIZED)
    assure(last != &freed);
#else
    static_cast<void>(freed);
    static_cast<void>(last);
#endif
}

// Puts a block back into its chunk, and the chunk into the ring that matches its new state.
// Returns `_size`.
inline std::size_t allocator::_put_back(detail::block& freed, detail::chunk& home) {
    detail::block* const rest = home._free;
    _assure_in_use(freed, rest);
    freed._next = rest;
    home._free = &freed;
    std::size_t const block_size = home._constant_size;
    std::size_t const size = home._size - block_size;
    home._size = size;
    std::size_t const left = detail::add(_size, -block_size);

    // A class keeps its last chunk even if no block is in use, so a thread that frees its
    // only block and allocates again does not format a chunk each time.
    std::size_t const k = home._class;
    bool const spare = size == 0 && home._next != home._previous;
    if (spare) [[unlikely]] {
        home.move_to(_empty);
        if (_serving[k] == &home)
            _serving[k] = _partial[k]._next;
        _find_surplus();
        return left;
    }
    if (rest == nullptr) [[unlikely]]
        home.move_to(_partial[k]);
    _serving[k] = &home;
    return left;
}

// Gives at most one chunk back, after at most four hand-overs.
inline void allocator::deallocate(detail::block& freed, detail::chunk& home) {
    std::size_t const left = _put_back(freed, home);  // may change `_surplus_below`
    if (left < _surplus_below) [[unlikely]]
        _give_surplus();
}

inline void allocator::flush(bool keep) {
    // Relaxed: a chain that this load misses stays pending until the next collection.
    if (_read(_pending_size) != 0) [[unlikely]]
        _collect();
    if (!keep)
        _flush_remote();
}

inline void allocator::_file(detail::block& freed, detail::remote& entry) {
    _assure_in_use(freed, entry.head);
    freed._next = entry.head;
    entry.head = &freed;
    entry.size += freed._chunk->_constant_size;
}

// In the first entry.
inline void allocator::_file_by_class(detail::block& freed) {
    detail::chunk const& home = *freed._chunk;
    detail::waiting& chain = _waiting[home._class];
    _assure_in_use(freed, chain.head);
    freed._next = chain.head;
    if (chain.head == nullptr)
        chain.tail = &freed;
    chain.head = &freed;
    _remote[0].size += home._constant_size;
}

inline bool allocator::file_remote(detail::block& freed, allocator& owner) {
    detail::remote const& entry = _remote[0];
    if (entry.owner != &owner || entry.size >= detail::batch) [[unlikely]]
        return false;
    _file_by_class(freed);
    return true;
}

}  // namespace ovel

#endif
