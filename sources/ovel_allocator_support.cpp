// The door to memory: small blocks of the calling thread's allocator, large ones
// of the runtime heap.
//
// A large block, from the beginning of its region:
//
//     padding   less than a cacheline, so that the memory is aligned to one
//     record    the size of the padding, in as many bytes as a header
//     header    a `detail::block` with a null `_chunk`
//     memory
//
// So the header before any memory tells the two kinds apart.

#include "ovel_allocator_support.h"

#include "kernel.h"
#include "ovel_allocator.h"
#include "ovel_allocator_group.h"
#include "ovel_assure.h"
#include "ovel_malloc.h"

#include <stddef.h>

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

// What the region of a large block has beyond the block itself.
constexpr std::size_t surroundings = sizeof(cacheline) + sizeof(record);

// What the layout of a block may add to the bytes asked for, rounding included.
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

}  // namespace

constinit detail::atomic<std::size_t> allocator_support::_large_size{0};

void* allocator_support::allocate(std::size_t bytes) {
    if (bytes > std::numeric_limits<std::size_t>::max() - overhead)
        throw std::bad_alloc();
    std::size_t const size =
        (bytes + sizeof(detail::block) + detail::granule - 1) & ~(detail::granule - 1);
    if (size > detail::largest_block)
        return _allocate_large(size);
    return allocator_group::global()->specific_allocator()->allocate(size) + 1;
}

void* allocator_support::_allocate_large(std::size_t size) {
    auto const region = static_cast<char*>(malloc(size + surroundings));
    if (region == nullptr)
        throw std::bad_alloc();
    _large_size.fetch_add(_msize(region), std::memory_order_relaxed);

    std::size_t const earliest =
        reinterpret_cast<std::size_t>(region) + sizeof(record) + sizeof(detail::block);
    std::size_t const padding = ~(earliest - 1) & (sizeof(cacheline) - 1);
    auto const b = reinterpret_cast<detail::block*>(region + padding);
    assure((reinterpret_cast<size_t>(b + 2) & (sizeof(cacheline) - 1)) == 0);
    new (b) record{padding, 0};
    new (b + 1) detail::block{nullptr, nullptr};
    return b + 2;
}

void* allocator_support::allocate_nothrow(std::size_t bytes) {
    try {
        return allocate(bytes);
    } catch (std::bad_alloc&) {
        return nullptr;
    }
}

void allocator_support::deallocate(void* memory) {
    if (memory == nullptr)
        return;
    detail::block* const header = header_of(memory);
    if (header->_chunk != nullptr) {
        header->_chunk->_allocator->deallocate(header);
        return;
    }
    void* const region = region_of(header);
    _large_size.fetch_sub(_msize(region), std::memory_order_relaxed);
    free(region);
}

std::size_t allocator_support::size(void const* memory) {
    if (memory == nullptr)
        return 0;
    detail::block* const header = header_of(memory);
    if (header->_chunk != nullptr)
        return header->_chunk->_block_size - sizeof(detail::block);
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

}  // namespace ovel

void* ovel_malloc(size_t bytes) {
    return ovel::allocator_support::allocate_nothrow(bytes);
}

void* ovel_calloc(size_t count, size_t size) {
    size_t bytes;
    if (__builtin_mul_overflow(count, size, &bytes))
        return nullptr;
    void* const memory = ovel::allocator_support::allocate_nothrow(bytes);
    if (memory != nullptr)
        std::memset(memory, 0, bytes);
    return memory;
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

void ovel_free(void* memory) {
    ovel::allocator_support::deallocate(memory);
}
