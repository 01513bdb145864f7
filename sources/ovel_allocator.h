// The allocator of one thread: small blocks cut from chunks, one size class a
// chunk. Internal: programs reach it through `allocator_support`.
#ifndef OVEL_ALLOCATOR_H
#define OVEL_ALLOCATOR_H

#include "ovel_atomic.h"
#include "ovel_frame.h"
#include "ovel_semaphore.h"

#include <cstddef>

namespace ovel {

class allocator;

namespace detail {

struct chunk;

// The header in front of the memory of every block. It stays in place while the
// block is in use: `_chunk` is what tells, when the block is freed or measured,
// where it came from.
struct block {
    chunk* _chunk;  // null for a large block
    block* _next;   // in a free chain; meaningless while the block is in use
};

// Size classes. Block sizes include the header, and are multiples of `granule`,
// which is also the unit of the table that finds the class of a size. On targets
// whose header is larger than the first class that class is never asked for.
inline constexpr std::size_t granule = 8;
inline constexpr std::size_t classes = 18;
inline constexpr std::size_t block_sizes[classes] = {
    8, 16, 24, 32, 48, 64, 96, 128, 192, 256, 384, 512, 768, 1024, 1536, 2048, 3072, 4096};
inline constexpr std::size_t largest_block = block_sizes[classes - 1];

// The alignment of the memory of a block: what its size allows, up to a cacheline.
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

// A region of the runtime heap from which the blocks of one class are cut; these
// fields are its beginning. An object with `_length` 0 is the sentinel of a ring.
//
// Rings are circular: the sentinel of an empty one is its own neighbour. Only
// what `_allocator` and `_block_size` say may be read by a thread that holds a
// block of the chunk: they stay as they are while a block is in use.
struct chunk {
    [[maybe_unused]] cacheline _before;
    allocator* _allocator;         // whose ring it is in
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
    bool holds_only(chunk const& one) const {
        return _next == &one && _previous == &one;
    }

    void unlink() {
        _previous->_next = _next;
        _next->_previous = _previous;
    }
    void insert_front(chunk& ring) {
        _next = ring._next;
        _previous = &ring;
        _next->_previous = this;
        ring._next = this;
    }
    void move_to_front(chunk& ring) {
        if (ring._next == this)
            return;
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

}  // namespace detail

// A pool of small blocks, owned by one thread at a time. Three kinds of object:
// the global allocator serves nobody and keeps empty chunks for all; the default
// allocator serves every thread without one of its own; thread allocators are
// reused when their thread has released them. None is ever destroyed, and
// neither they nor their chunks are taken from the library's own memory.
//
// Rings. A chunk is in exactly one ring of its `_allocator`:
//
//     _full[k]     no block free     its `_size` equals its `_capacity`
//     _partial[k]  some block free   its first chunk serves the class; one chunk
//                                    of the ring may have no block in use
//     _empty       no block in use   laid out for the class it last served
//
// `_size` and `_capacity` are the sums of those of the chunks. The global
// allocator has chunks in `_empty` only.
//
// Threads. The owner works on rings, chunks and counters with no lock and no
// locked instruction. Blocks that other threads free wait in those threads'
// `_remote` and arrive as chains in `_pending`; the owner puts them back later.
// While the allocator is deactivated its owner stays away, and whoever hands a
// chain over puts the blocks back at once, under `_lock`. The same goes for
// `_remote`, which holds what the owner kept when it deactivated. The global
// allocator is worked on by everybody, under its `_lock`, which also guards
// `_allocators` and `_released_allocators`.
//
// Lock order: an allocator's `_lock`, then the global allocator's. The locks of
// two allocators that are not the global one are never held together.
class allocator {
public:
    // The global allocator, or with false the default one, and a thread's, for
    // which the allocator group is built if there is none. Registers itself.
    explicit allocator(bool global);
    allocator();
    allocator(allocator const&) = delete;
    allocator& operator=(allocator const&) = delete;

    // The runtime heap; allocation throws std::bad_alloc.
    static void* operator new(std::size_t size);
    static void operator delete(void* memory);

    // A block of at least `size` bytes, header included; `size` is a multiple of
    // `granule`, at most `largest_block`. Owner only. Throws std::bad_alloc.
    detail::block* allocate(std::size_t size);

    // Frees a block of this allocator on whichever thread calls.
    void deallocate(detail::block* freed);

    // Returns empty chunks of the global allocator to the runtime heap, worth up
    // to `fraction` (0 to 1; a not-a-number is 0) of its idle capacity, or with
    // `minimum` of the least that it had since the last such call. Keeps about a
    // mebibyte. Does nothing on any other allocator. Any thread. Drops and retakes
    // `_lock` around each piece of memory that it returns.
    void recycle(double fraction, bool minimum);

    // On the global allocator: the sums of `_size`, resp. `_capacity`, over all
    // allocators, each read at a moment of its own. Any thread.
    std::size_t allocated_size();
    std::size_t allocated_capacity();

    // The owner comes back (check "!_activated"), or leaves (check "_activated");
    // `keep` leaves the blocks of others where they wait. Owner only.
    void activate();
    void deactivate(bool keep);

    // Puts back what has arrived and, unless `keep`, hands over what waits. Owner
    // only.
    void flush(bool keep);

private:
    friend class allocator_group;
    friend struct detail::inspector;

    using counter = detail::atomic<std::size_t>;

    explicit allocator(allocator* parent);
    ~allocator() = default;  // for no one to call

    static std::size_t _read(counter const& word);

    semaphore& _registry_lock();
    std::size_t _sum(counter allocator::*word);

    bool _has_surplus() const;
    detail::block* _take_block(detail::chunk& home);
    detail::block* _allocate_from_new(std::size_t k);
    void _put_back(detail::block& freed);
    void _release_block(detail::block& freed);
    detail::chunk& _remove_empty();
    detail::chunk* _take_chunk(std::size_t k);
    void _give_chunk();

    void _release_remote(detail::block& freed, allocator& owner);
    void _hand_over(detail::remote& entry);
    void _flush_remote();
    void _detach_remote(detail::block*& kept);
    void _receive(detail::block* head, detail::block* tail, std::size_t size);
    void _accept(detail::block* head, detail::block* tail, std::size_t size, detail::block*& kept);
    void _collect();

    // The process's allocators. The first two are set while the group is built,
    // before anyone can see it; the lists are under the global allocator's `_lock`.
    static allocator* _global_allocator;
    static allocator* _default_allocator;
    static allocator* _allocators;           // all, through `_next`; only grows
    static allocator* _released_allocators;  // through `_next_released`

    semaphore _lock;
    allocator* const _parent;   // the global allocator; null in itself
    allocator* _next;           // set when registered
    allocator* _next_released;  // under the global allocator's `_lock`

    // Written by whoever may work on the rings, read by all: relaxed loads and
    // stores, since each stands for itself and orders nothing.
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
};

}  // namespace ovel

#endif
