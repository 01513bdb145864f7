// SPDX-License-Identifier: Apache-2.0
// The operators new and delete that the library keeps to itself. They are part of this program.
#include "ovel_test.h"

namespace {

using ovel::allocator_support;

constexpr auto wide = std::align_val_t(64);

template <class... Tags>
void take_and_give_back(std::size_t alignment, Tags... tags) {
    std::size_t const before = allocator_support::allocated_size();
    void* const one = ::operator new(100, tags...);
    void* const many = ::operator new[](100, tags...);
    EXPECT_GE(allocator_support::allocated_size(), before + 200);
    EXPECT_TRUE(aligned(one, alignment) && aligned(many, alignment));
    ::operator delete(one, tags...);
    ::operator delete[](many, tags...);
    EXPECT_EQ(allocator_support::allocated_size(), before);
}

TEST(new_test, every_form_serves_from_the_library) {
    take_and_give_back(16);
    take_and_give_back(16, std::nothrow);
    take_and_give_back(64, wide);
    take_and_give_back(64, wide, std::nothrow);
    std::size_t const before = allocator_support::allocated_size();
#ifdef __cpp_sized_deallocation
    ::operator delete(::operator new(100), 100);
    ::operator delete[](::operator new[](100), 100);
    ::operator delete(::operator new(100, wide), 100, wide);
    ::operator delete[](::operator new[](100, wide), 100, wide);
#endif
    EXPECT_EQ(allocator_support::allocated_size(), before);
    EXPECT_CHECK(::operator new(1, std::align_val_t(256)), "alignment <= sizeof(cacheline)",
                 "sources/ovel_new.cpp");
}

}  // namespace
