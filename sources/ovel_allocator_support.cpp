// SPDX-License-Identifier: Apache-2.0
// Where memory comes from: small blocks from the calling thread's allocator, large ones
// from the runtime heap.
//
// A large block, from the beginning of its region:
//
//     padding   less than a cacheline, to align the memory to one
//     record    the size of the padding, as long as a header
//     header    a `detail::block` with a null `_chunk`
//     memory
//
// So the header before the memory distinguishes the two kinds.

#include "ovel_allocator_support.h"

#include "kernel.h"
#include "ovel_allocator.h"
#include "ovel_allocator_group.h"
#include "ovel_assure.h"
#include "ovel_malloc.h"
#include "ovel_poison.h"

#include <stddef.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>

namespace ovel {

namespace {

struct record {
    std::size_t padding;
    std::size_t unused;
};
static_assert(sizeof(record) == sizeof(detail::block));

// The bytes of a large block's region that are not part of the block.
constexpr std::size_t surroundings = sizeof(cacheline) + sizeof(record);

// The most that layout and rounding add to a request.
constexpr std::size_t overhead = sizeof(detail::block) + detail::granule - 1 + surroundings;

detail::block* header_of(void const* memory) {
    return static_cast<detail::block*>(const_cast<void*>(memory)) - 1;
}

std::size_t padding_of(detail::block* header) {
    return reinterpret_cast<record*>(header - 1)->padding;
}

// Of a large block.
void* region_of(detail::block* header) {
    return reinterpret_cast<char*>(header - 1) - padding_of(header);
}

// The length of the region for a large request.
std::size_t region_length_for(std::size_t bytes) {
    constexpr std::size_t rounding = detail::granule - 1;
    return ((bytes + sizeof(detail::block) + rounding) & ~rounding) + surroundings;
}

// The padding that aligns the memory of a large block to a cacheline.
std::size_t padding_for(char const* region) {
    std::size_t const earliest =
        reinterpret_cast<std::size_t>(region) + sizeof(record) + sizeof(detail::block);
    return ~(earliest - 1) & (sizeof(cacheline) - 1);
}

// The class for a request of `bytes`, at most `largest_request`.
constexpr std::size_t largest_request = detail::largest_block - sizeof(detail::block);

std::size_t class_for(std::size_t bytes) {
    constexpr std::size_t granule = detail::granule;
    return detail::class_of((bytes + sizeof(detail::block) + granule - 1) & ~(granule - 1));
}

// The memory of a small block, to hand out.
[[gnu::always_inline]] inline void* memory_of(detail::block* taken) {
    detail::unpoison(taken + 1, taken->_chunk->_constant_size - sizeof(detail::block));
    return taken + 1;
}

// The fast path, inline in each function that allocates: a small block that the thread has
// ready. Null if there is none.
[[gnu::always_inline]] inline void* allocate_ready(std::size_t bytes) {
    void* const own = quick_pointer();
    if (bytes > largest_request || own == nullptr) [[unlikely]]
        return nullptr;
    detail::block* const ready = static_cast<allocator*>(own)->allocate_ready(class_for(bytes));
    return ready != nullptr ? memory_of(ready) : nullptr;
}

// The fast path of each function that frees: a small block of the thread's allocator, or of
// the owner of its first entry. False, with nothing freed, for any other block.
[[gnu::always_inline]] inline bool deallocate_at_once(void* memory) {
    if (memory == nullptr)
        return true;
    detail::block* const header = header_of(memory);
    detail::chunk* const home = header->_chunk;
    auto const own = static_cast<allocator*>(quick_pointer());
    if (home == nullptr) [[unlikely]]
        return false;
    detail::poison(memory, home->_constant_size - sizeof(detail::block));
    allocator* const owner = home->_allocator;
    if (owner == nullptr)
        __builtin_unreachable();  // so a null `own` is not the owner
    if (owner != own) [[unlikely]]
        return own != nullptr && own->file_remote(*header, *owner);
    own->deallocate(*header, *home);
    return true;
}

// A block of class `k` for a thread that has none ready. Null when memory is exhausted.
detail::block* allocate_small(std::size_t k) noexcept {
    if (allocator* const current = detail::current_allocator())
        return current->allocate(k);
    detail::borrowed_allocator const borrowed;
    return borrowed.get() != nullptr ? borrowed.get()->allocate(k) : nullptr;
}

}  // namespace

constinit detail::atomic<std::size_t> allocator_support::_large_size{0};

[[gnu::aligned(64)]] void* allocator_support::allocate(std::size_t bytes) {
    void* const ready = allocate_ready(bytes);
    return ready != nullptr ? ready : _allocate(bytes);
}

void* allocator_support::allocate_nothrow(std::size_t bytes) {
    void* const ready = allocate_ready(bytes);
    return ready != nullptr ? ready : _allocate_nothrow(bytes);
}

void* allocator_support::_allocate(std::size_t bytes) {
    void* const memory = _allocate_nothrow(bytes);
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}

void* allocator_support::_allocate_nothrow(std::size_t bytes) noexcept {
    if (bytes > largest_request)
        return _allocate_large(bytes, false);
    detail::block* const taken = allocate_small(class_for(bytes));
    return taken != nullptr ? memory_of(taken) : nullptr;
}

void* allocator_support::allocate_zeroed_nothrow(std::size_t bytes) {
    if (bytes <= largest_request) {
        void* const memory = allocate_nothrow(bytes);
        if (memory != nullptr)
            std::memset(memory, 0, bytes);
        return memory;
    }
    return _allocate_large(bytes, true);
}

void* allocator_support::_allocate_large(std::size_t bytes, bool zeroed) noexcept {
    if (bytes > std::numeric_limits<std::size_t>::max() - overhead)
        return nullptr;
    std::size_t const length = region_length_for(bytes);
    auto const region = static_cast<char*>(zeroed ? calloc(1, length) : malloc(length));
    if (region == nullptr)
        return nullptr;
    _large_size.fetch_add(_msize(region), std::memory_order_relaxed);
    return _place_large(region);
}

// Writes the record and header of a large block into its region. Returns its memory.
void* allocator_support::_place_large(char* region) {
    std::size_t const padding = padding_for(region);
    auto const b = reinterpret_cast<detail::block*>(region + padding);
    assure((reinterpret_cast<size_t>(b + 2) & (sizeof(cacheline) - 1)) == 0);
    new (b) record{padding, 0};
    new (b + 1) detail::block{nullptr, nullptr};
    return b + 2;
}

void* allocator_support::resize(void* memory, std::size_t bytes) {
    if (memory == nullptr)
        return allocate(bytes);
    bool const large = bytes > largest_request;
    bool const was_large = header_of(memory)->_chunk == nullptr;
    if (large && was_large)
        return _resize_large(memory, bytes);
    std::size_t const old = size(memory);
    if (!large && !was_large && class_for(bytes) == class_for(old))
        return memory;
    void* const moved = allocate(bytes);
    std::memcpy(moved, memory, std::min(old, bytes));
    deallocate(memory);
    return moved;
}

// A large block that stays one.
void* allocator_support::_resize_large(void* memory, std::size_t bytes) {
    if (bytes > std::numeric_limits<std::size_t>::max() - overhead)
        throw std::bad_alloc();
    std::size_t const old = size(memory);
    detail::block* const header = header_of(memory);
    void* const region = region_of(header);
    std::size_t const before = static_cast<char*>(memory) - static_cast<char*>(region);
    std::size_t const size_before = _msize(region);
    auto const moved = static_cast<char*>(realloc(region, region_length_for(bytes)));
    if (moved == nullptr)
        throw std::bad_alloc();
    // The difference may wrap around; the sum is right modulo the range.
    _large_size.fetch_add(_msize(moved) - size_before, std::memory_order_relaxed);
    // If the region has moved to a different offset in a cache line, its contents move
    // before the new header overwrites them.
    std::size_t const after = sizeof(record) + sizeof(detail::block) + padding_for(moved);
    if (after != before)
        std::memmove(moved + after, moved + before, std::min(old, bytes));
    return _place_large(moved);
}

void allocator_support::_deallocate(void* memory) {
    detail::block* const header = header_of(memory);
    detail::chunk* const home = header->_chunk;
    if (home == nullptr)
        return _deallocate_large(region_of(header));
    detail::poison(memory, home->_constant_size - sizeof(detail::block));
    allocator* const current = detail::current_allocator();
    allocator* const owner = home->_allocator;
    if (current == nullptr)
        owner->take_back(*header);
    else if (current == owner)
        current->deallocate(*header, *home);
    else
        current->deallocate_remote(*header, *owner);
}

void allocator_support::_deallocate_large(void* region) {
    _large_size.fetch_sub(_msize(region), std::memory_order_relaxed);
    free(region);
}

[[gnu::aligned(64)]] void allocator_support::deallocate(void* memory) {
    if (!deallocate_at_once(memory))
        _deallocate(memory);
}

std::size_t allocator_support::size(void const* memory) {
    if (memory == nullptr)
        return 0;
    detail::block* const header = header_of(memory);
    if (header->_chunk != nullptr)
        return header->_chunk->_constant_size - sizeof(detail::block);
    return _msize(region_of(header)) - padding_of(header) - sizeof(record) - sizeof(detail::block);
}

std::size_t allocator_support::allocated_size() {
    std::size_t const large = _large_size.load(std::memory_order_relaxed);
    return large + allocator_group::global()->global_allocator()->allocated_size();
}

std::size_t allocator_support::allocated_capacity() {
    std::size_t const large = _large_size.load(std::memory_order_relaxed);
    return large + allocator_group::global()->global_allocator()->allocated_capacity();
}

// The slow paths, for the plain functions.
struct detail::plain_functions {
    static void* allocate(std::size_t bytes) noexcept {
        return allocator_support::_allocate_nothrow(bytes);
    }
    static void deallocate(void* memory) {
        allocator_support::_deallocate(memory);
    }
};

}  // namespace ovel

// The fast paths begin a cache line. Where they begin makes a pair up to a tenth slower.
[[gnu::aligned(64)]] void* ovel_malloc(size_t bytes) {
    void* const ready = ovel::allocate_ready(bytes);
    return ready != nullptr ? ready : ovel::detail::plain_functions::allocate(bytes);
}

void* ovel_calloc(size_t count, size_t size) {
    size_t bytes;
    if (__builtin_mul_overflow(count, size, &bytes))
        return nullptr;
    return ovel::allocator_support::allocate_zeroed_nothrow(bytes);
}

void* ovel_realloc(void* memory, size_t bytes) {
    void* const moved = ovel::allocator_support::allocate_nothrow(bytes);
    if (memory == nullptr || moved == nullptr)
        return moved;
    size_t const old = ovel::allocator_support::size(memory);
    std::memmove(moved, memory, old < bytes ? old : bytes);
    ovel::allocator_support::deallocate(memory);
    return moved;
}

[[gnu::aligned(64)]] void ovel_free(void* memory) {
    if (!ovel::deallocate_at_once(memory))
        ovel::detail::plain_functions::deallocate(memory);
}
