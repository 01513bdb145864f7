#include "ovel_allocator_support.h"

#include "ovel_allocator.h"
#include "ovel_malloc.h"

#include <cstdint>
#include <cstring>
#include <limits>
#include <new>
#include <set>
#include <vector>

#include <gtest/gtest.h>

namespace {

using ovel::allocator_support;
using ovel::detail::alignment_of;
using ovel::detail::block;
using ovel::detail::block_sizes;
using ovel::detail::largest_block;

constexpr std::size_t largest_small = largest_block - sizeof(block);
constexpr std::size_t too_much = std::numeric_limits<std::size_t>::max();

bool is_aligned(void const* memory, std::size_t alignment) {
    return reinterpret_cast<std::uintptr_t>(memory) % alignment == 0;
}

// The block that serves a request, found without the library's own table.
std::size_t block_for(std::size_t bytes) {
    std::size_t k = 0;
    while (block_sizes[k] < bytes + sizeof(block))
        ++k;
    return block_sizes[k];
}

bool is_all(void const* memory, std::size_t bytes, unsigned char value) {
    auto const first = static_cast<unsigned char const*>(memory);
    for (std::size_t i = 0; i != bytes; ++i) {
        if (first[i] != value)
            return false;
    }
    return true;
}

TEST(allocator_support_test, every_small_request_gets_the_first_class_that_holds_it) {
    for (std::size_t bytes = 0; bytes <= largest_small; ++bytes) {
        std::size_t const before = allocator_support::allocated_size();
        void* const memory = allocator_support::allocate(bytes);
        ASSERT_NE(memory, nullptr);
        std::size_t const expected = block_for(bytes);
        ASSERT_EQ(allocator_support::size(memory), expected - sizeof(block)) << bytes;
        ASSERT_EQ(allocator_support::allocated_size(), before + expected) << bytes;
        ASSERT_TRUE(is_aligned(memory, alignment_of(expected))) << bytes;
        std::memset(memory, 0x5a, allocator_support::size(memory));
        allocator_support::deallocate(memory);
        ASSERT_EQ(allocator_support::allocated_size(), before);
    }
    EXPECT_LE(allocator_support::allocated_size(), allocator_support::allocated_capacity());
}

TEST(allocator_support_test, the_classes_have_the_alignments_that_callers_rely_on) {
    struct {
        std::size_t bytes, alignment;
    } const table[] = {{0, 8},     {8, 8},    {17, 16},   {40 - sizeof(void*), 16},
                       {100, 128}, {150, 64}, {240, 128}, {1000, 128}};
    for (auto const& row : table) {
        std::vector<void*> memory;
        for (int i = 0; i != 50; ++i) {
            memory.push_back(allocator_support::allocate(row.bytes));
            EXPECT_TRUE(is_aligned(memory.back(), row.alignment)) << row.bytes;
        }
        EXPECT_EQ(std::set<void*>(memory.begin(), memory.end()).size(), memory.size());
        for (void* each : memory)
            allocator_support::deallocate(each);
    }
}

TEST(allocator_support_test, larger_requests_are_aligned_blocks_of_the_runtime_heap) {
    for (std::size_t const bytes : {largest_small + 1, largest_small + 2, std::size_t{5000},
                                    std::size_t{65536}, std::size_t{1000003}}) {
        std::size_t const before = allocator_support::allocated_size();
        std::size_t const capacity = allocator_support::allocated_capacity();
        void* const memory = allocator_support::allocate(bytes);
        std::size_t const usable = allocator_support::size(memory);
        EXPECT_TRUE(is_aligned(memory, 128)) << bytes;
        EXPECT_GE(usable, bytes);
        std::memset(memory, 0x5a, usable);
        std::size_t const region = allocator_support::allocated_size() - before;
        EXPECT_GE(region, usable + 2 * sizeof(block));
        EXPECT_LT(region, usable + 2 * sizeof(block) + 128);
        EXPECT_EQ(allocator_support::allocated_capacity() - capacity, region);
        allocator_support::deallocate(memory);
        EXPECT_EQ(allocator_support::allocated_size(), before);
        EXPECT_EQ(allocator_support::allocated_capacity(), capacity);
    }
}

TEST(allocator_support_test, what_no_memory_can_have_is_exhausted_memory) {
    std::size_t const before = allocator_support::allocated_size();
    void* const kept = ovel_malloc(10);
    std::memset(kept, 0x5a, 10);
    // Whether it is the sum with the headers that overflows, or the heap that
    // refuses.
    for (std::size_t const bytes : {too_much, too_much - 15, too_much - 150, too_much - 400}) {
        EXPECT_THROW(allocator_support::allocate(bytes), std::bad_alloc);
        EXPECT_EQ(allocator_support::allocate_nothrow(bytes), nullptr);
        EXPECT_EQ(ovel_malloc(bytes), nullptr);
        EXPECT_EQ(ovel_realloc(nullptr, bytes), nullptr);
        EXPECT_EQ(ovel_realloc(kept, bytes), nullptr);
    }
    EXPECT_EQ(ovel_calloc(too_much / 4 + 1, 4), nullptr);
    EXPECT_EQ(ovel_calloc(too_much, too_much), nullptr);
    EXPECT_TRUE(is_all(kept, 10, 0x5a));
    ovel_free(kept);
    EXPECT_EQ(allocator_support::allocated_size(), before);
}

TEST(allocator_support_test, null_is_memory_of_no_bytes) {
    allocator_support::deallocate(nullptr);
    ovel_free(nullptr);
    EXPECT_EQ(allocator_support::size(nullptr), 0u);
}

TEST(plain_functions_test, cleared_memory_is_zero_where_other_bytes_were) {
    for (std::size_t const size : {std::size_t{5}, std::size_t{2000}}) {
        void* const dirty = ovel_malloc(3 * size);
        std::memset(dirty, 0xff, 3 * size);
        ovel_free(dirty);
        void* const cleared = ovel_calloc(3, size);
        EXPECT_TRUE(is_all(cleared, 3 * size, 0));
        ovel_free(cleared);
    }
}

TEST(plain_functions_test, reallocation_moves_what_both_places_can_hold) {
    for (std::size_t const old : {std::size_t{100}, std::size_t{6000}}) {
        for (std::size_t const bytes :
             {std::size_t{0}, std::size_t{5}, std::size_t{500}, std::size_t{20000}}) {
            std::size_t const before = allocator_support::allocated_size();
            void* const memory = ovel_realloc(nullptr, old);
            std::size_t const usable = allocator_support::size(memory);
            std::memset(memory, 0x5a, usable);
            void* const moved = ovel_realloc(memory, bytes);
            EXPECT_NE(moved, memory);
            EXPECT_GE(allocator_support::size(moved), bytes);
            EXPECT_TRUE(is_all(moved, usable < bytes ? usable : bytes, 0x5a));
            ovel_free(moved);
            EXPECT_EQ(allocator_support::allocated_size(), before);
        }
    }
}

}  // namespace
