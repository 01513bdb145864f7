// SPDX-License-Identifier: Apache-2.0
// This program replaces its allocation operators by those of ovel_memory.h, so GoogleTest uses
// them too.
#include "ovel_test.h"

#include <list>
#include <memory_resource>

OVEL_REPLACE_NEW_AND_DELETE;

namespace {

using namespace ovel;

template <std::size_t alignment>
struct alignas(alignment) piece {
    char bytes[alignment];
};

// Many of each, since one may be aligned by luck.
template <class Piece>
void take_and_give_back() {
    constexpr int count = 20;
    std::size_t const before = allocator_support::allocated_size();
    {
        std::list<Piece, container_allocator<Piece>> contained;
        std::pmr::list<Piece> resources(count, memory_resource::global());
        EXPECT_EQ(*memory_resource::global(), memory_resource());
        for (Piece const& each : resources)
            EXPECT_TRUE(aligned(&each, sizeof each));
        std::vector<std::unique_ptr<Piece>> plain;
        for (int i = 0; i < count; ++i) {
            plain.push_back(std::make_unique<Piece>());
            contained.emplace_back();
            EXPECT_TRUE(aligned(plain.back().get(), sizeof(Piece)));
            EXPECT_TRUE(aligned(&contained.back(), sizeof(Piece)));
        }
        EXPECT_GT(allocator_support::allocated_size(), before + 3 * count * sizeof(Piece));
    }
    EXPECT_EQ(allocator_support::allocated_size(), before);
}

TEST(memory_test, every_entry_point_aligns_and_frees) {
    memory_resource::global();  // built by its first use, and kept
    take_and_give_back<piece<16>>();
    take_and_give_back<piece<64>>();
    take_and_give_back<piece<128>>();
    take_and_give_back<piece<256>>();
}

// Blocks include their header. The last is one that just fits: 272 bytes beside it.
TEST(memory_test, alignment_costs_no_more_than_it_must) {
    constexpr std::size_t bytes = 1024 - 256 - 2 * sizeof(void*);
    container_allocator<piece<64>> source;
    std::size_t const before = allocator_support::allocated_size();
    void* const plain = ::operator new(16, std::nothrow);
    EXPECT_TRUE(aligned(plain, 16));
    EXPECT_EQ(allocator_support::allocated_size(), before + 32);
    piece<64>* const contained = source.allocate(1);
    EXPECT_EQ(allocator_support::allocated_size(), before + 32 + 128);
    void* const resource = memory_resource::global()->allocate(bytes, 256);
    EXPECT_TRUE(aligned(resource, 256));
    EXPECT_EQ(allocator_support::allocated_size(), before + 32 + 128 + 1024);
    memory_resource::global()->deallocate(resource, bytes, 256);
    void* const wide = ::operator new(bytes, std::align_val_t(256), std::nothrow);
    EXPECT_TRUE(aligned(wide, 256));
    EXPECT_EQ(allocator_support::allocated_size(), before + 32 + 128 + 1024);
    ::operator delete(wide, std::align_val_t(256));
    source.deallocate(contained, 1);
    ::operator delete(plain);
    EXPECT_EQ(allocator_support::allocated_size(), before);
}

// Small ones, those that become large or small again, and large ones.
TEST(memory_test, an_array_keeps_what_fits_whatever_its_size_becomes) {
    std::size_t const before = allocator_support::allocated_size();
    unsigned int* array = nullptr;
    std::size_t filled = 0;
    for (std::size_t const size : {1, 2, 10, 500, 2000, 5000, 300'000, 5001, 1'000'000, 30, 0, 7}) {
        array = resize_array(array, size);
        EXPECT_GE(allocator_support::size(array), size * sizeof *array);
        for (std::size_t i = 0; i != std::min(filled, size); ++i)
            ASSERT_EQ(array[i], 7 * i) << size;
        for (filled = 0; filled != size; ++filled)
            array[filled] = static_cast<unsigned int>(7 * filled);
    }
    EXPECT_THROW(resize_array(array, std::numeric_limits<std::size_t>::max() / 2), std::bad_alloc);
    EXPECT_EQ(array[6], 42u);
    EXPECT_EQ(resize_array(array, 7), array);
    allocator_support::deallocate(array);
    EXPECT_EQ(allocator_support::allocated_size(), before);
}

TEST(memory_test, impossible_sizes_fail_as_out_of_memory) {
    std::size_t const most = std::numeric_limits<std::size_t>::max();
    container_allocator<piece<256>> source;
    EXPECT_THROW(source.allocate(most / 256), std::bad_alloc);
    EXPECT_THROW(source.allocate(most / 2), std::bad_alloc);
    // The new-handler may make room before each further attempt, until there is none.
    static int calls;
    calls = 0;
    std::set_new_handler([] {
        if (++calls == 3)
            std::set_new_handler(nullptr);
    });
    EXPECT_EQ(::operator new(most, std::align_val_t(256), std::nothrow), nullptr);
    EXPECT_EQ(calls, 3);
}

}  // namespace
