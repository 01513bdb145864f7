// SPDX-License-Identifier: Apache-2.0
#include "ovel_allocator.h"
#include "ovel_test.h"

namespace {

using namespace ovel;
using ovel::detail::alignment_of;
using ovel::detail::block;
using ovel::detail::block_sizes;
using ovel::detail::largest_block;

constexpr std::size_t largest_small = largest_block - sizeof(block);
constexpr std::size_t too_much = std::numeric_limits<std::size_t>::max();

// The alignments that callers rely on.
static_assert(alignment_of(24) == 8 && alignment_of(192) == 64 && alignment_of(1024) == 128);

// The block that serves a request, found without the library's own table.
std::size_t block_for(std::size_t bytes) {
    std::size_t k = 0;
    while (block_sizes[k] < bytes + sizeof(block))
        ++k;
    return block_sizes[k];
}

bool is_all(void const* memory, std::size_t bytes, unsigned char value) {
    auto const first = static_cast<unsigned char const*>(memory);
    return std::all_of(first, first + bytes, [=](auto byte) { return byte == value; });
}

TEST(allocator_support_test, every_small_request_gets_the_first_class_that_holds_it) {
    for (std::size_t bytes = 0; bytes <= largest_small; ++bytes) {
        std::size_t const before = allocator_support::allocated_size();
        void* const memory = allocator_support::allocate(bytes);
        std::size_t const expected = block_for(bytes);
        ASSERT_EQ(allocator_support::size(memory), expected - sizeof(block)) << bytes;
        ASSERT_EQ(allocator_support::allocated_size(), before + expected) << bytes;
        ASSERT_TRUE(aligned(memory, alignment_of(expected))) << bytes;
        std::memset(memory, 0x5a, allocator_support::size(memory));
        allocator_support::deallocate(memory);
        ASSERT_EQ(allocator_support::allocated_size(), before);
    }
    // Wraps if the capacity is less than the size.
    EXPECT_LT(allocator_support::allocated_capacity() - allocator_support::allocated_size(),
              64u << 20);
}

TEST(allocator_support_test, larger_requests_are_aligned_blocks_of_the_runtime_heap) {
    for (std::size_t const bytes : {largest_small + 1, std::size_t{1000003}}) {
        std::size_t const before = allocator_support::allocated_size();
        std::size_t const capacity = allocator_support::allocated_capacity();
        void* const memory = allocator_support::allocate(bytes);
        std::size_t const usable = allocator_support::size(memory);
        EXPECT_TRUE(aligned(memory, 128));
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

TEST(allocator_support_test, impossible_sizes_fail_as_out_of_memory) {
    std::size_t const before = allocator_support::allocated_size();
    void* const kept = ovel_realloc(nullptr, 10);
    std::memset(kept, 0x5a, 10);
    // Either the sum with the headers overflows or the heap refuses.
    for (std::size_t less = 0; less != 400; ++less)
        EXPECT_EQ(allocator_support::allocate_nothrow(too_much - less), nullptr) << less;
    for (std::size_t const bytes : {too_much, too_much - 400}) {
        EXPECT_THROW(allocator_support::allocate(bytes), std::bad_alloc);
        EXPECT_EQ(ovel_malloc(bytes), nullptr);
        EXPECT_EQ(ovel_realloc(nullptr, bytes), nullptr);
        EXPECT_EQ(ovel_realloc(kept, bytes), nullptr);
    }
    EXPECT_EQ(ovel_calloc(too_much / 4 + 1, 4), nullptr);
    EXPECT_EQ(allocator_support::size(nullptr), 0u);
    EXPECT_TRUE(is_all(kept, 10, 0x5a));
    ovel_free(kept);
    EXPECT_EQ(allocator_support::allocated_size(), before);
}

// `calloc` clears the memory that the round before has filled.
TEST(plain_functions_test, calloc_clears_and_realloc_keeps_the_common_bytes) {
    for (std::size_t const old : {100, 6000}) {
        for (std::size_t const bytes : {0, 5, 500, 20000}) {
            std::size_t const before = allocator_support::allocated_size();
            void* const memory = ovel_calloc(old / 4, 4);
            EXPECT_TRUE(is_all(memory, old, 0));
            std::size_t const usable = allocator_support::size(memory);
            std::memset(memory, 0x5a, usable);
            void* const moved = ovel_realloc(memory, bytes);
            EXPECT_NE(moved, memory);
            EXPECT_GE(allocator_support::size(moved), bytes);
            EXPECT_TRUE(is_all(moved, std::min(usable, bytes), 0x5a));
            ovel_free(moved);
            EXPECT_EQ(allocator_support::allocated_size(), before);
        }
    }
}

#if !defined(OVEL_SANITIZED)

// The resident pages of the process; 0 if the system does not report them.
std::size_t resident_pages() {
    std::size_t all = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> all >> resident;
    return resident;
}

// The heaps of sanitizers touch what they clear.
TEST(plain_functions_test, clearing_what_the_system_has_cleared_touches_no_page) {
    std::size_t const before = resident_pages();
    if (before == 0)
        GTEST_SKIP() << "the system does not report resident pages";
    constexpr std::size_t bytes = 512u << 20;
    void* const memory = ovel_calloc(bytes, 1);
    ASSERT_NE(memory, nullptr);
    EXPECT_LT(resident_pages() - before, bytes / 4096 / 2);
    EXPECT_TRUE(is_all(static_cast<char*>(memory) + bytes / 2, 10000, 0));
    ovel_free(memory);
}

#else

TEST(allocator_support_test, a_block_that_is_freed_twice_in_a_row_fails_a_check) {
    auto const free_twice = [](void* memory) {
        ovel_free(memory);
        ovel_free(memory);
    };
    constexpr char file[] = "sources/ovel_allocator.h";
    EXPECT_CHECK(free_twice(ovel_malloc(100)), "last != &freed", file);
    auto const free_of_another = [&] {
        void* const memory = ovel_malloc(100);
        std::jthread([&] {
            ovel::thread_allocator const own;
            free_twice(memory);
        }).join();
    };
    EXPECT_CHECK(free_of_another(), "last != &freed", file);
}

#endif

}  // namespace
