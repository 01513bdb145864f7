// SPDX-License-Identifier: Apache-2.0
// How much the recycler returns on request. Scenarios on the simulated kernel test its
// thread.

#include "ovel_allocator_recycler.h"

#include "ovel_allocator.h"
#include "ovel_allocator_group.h"
#include "ovel_allocator_support.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

using namespace ovel;

struct ovel::detail::inspector {
    // Of the global allocator.
    static std::size_t capacity() {
        return allocator_group::global()->global_allocator()->_capacity;
    }
};

namespace {

using detail::inspector;

// Gives the global allocator at least `chunks` chunks, all of one class.
void fill(std::size_t chunks) {
    std::vector<void*> blocks;
    for (std::size_t i = 0; i != (chunks + 40) * 15; ++i)
        blocks.push_back(allocator_support::allocate(4000));
    for (void* block : blocks)
        allocator_support::deallocate(block);
}

TEST(recycler_test, a_fraction_is_returned_down_to_about_a_mebibyte) {
    allocator_recycler& recycler = *allocator_recycler::global();
    fill(60);
    constexpr std::size_t each = 61440;  // the capacity of a chunk
    std::size_t capacity = inspector::capacity();
    ASSERT_GE(capacity, 60 * each);

    // As many whole chunks as the rounded share has room for.
    capacity -= static_cast<std::size_t>(std::nearbyint(0.3 * double(capacity))) / each * each;
    recycler.recycle_capacity(0.3);
    EXPECT_EQ(inspector::capacity(), capacity);

    for (double none : {0.0, -1.0, std::numeric_limits<double>::quiet_NaN()})
        recycler.recycle_capacity(none);
    EXPECT_EQ(inspector::capacity(), capacity);

    // Of the least capacity since the last call, which set it to the current one.
    recycler.recycle_minimum_capacity(0.0);
    capacity -= each;
    recycler.recycle_minimum_capacity(double(each) / double(capacity + each));
    EXPECT_EQ(inspector::capacity(), capacity);

    recycler.recycle_capacity(7.0);
    EXPECT_LT(inspector::capacity(), 1048579u);
    EXPECT_GE(inspector::capacity() + each, 1048579u);
}

}  // namespace
