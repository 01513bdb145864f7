// SPDX-License-Identifier: Apache-2.0
#include "ovel_test.h"

using namespace ovel;

namespace {

template <class Barrier>
struct barrier_test : testing::Test {};
using barrier_types = testing::Types<barrier, timed_barrier>;
TYPED_TEST_SUITE(barrier_test, barrier_types);

// Three threads step together; what one writes before a step the others read after
// it. `written` has no other protection than the barrier.
TYPED_TEST(barrier_test, no_thread_passes_before_all_have_arrived_and_exactly_one_is_last) {
    constexpr int steps = 500;
    constexpr int size = 3;
    TypeParam step(size, 30);
    int written[2][size] = {};
    std::atomic<int> lasts = 0;
    auto const walk = [&](int me) {
        for (int round = 1; round <= steps; ++round) {
            int(&row)[size] = written[round % 2];
            row[me] = round;
            bool last = round % 3 == 0;
            EXPECT_TRUE(step.acquire(last));
            lasts += last;
            for (int const each : row)
                EXPECT_EQ(each, round);
            EXPECT_TRUE(step.acquire());
        }
    };
    crew(size, walk).clear();
    EXPECT_EQ(lasts, steps);
    EXPECT_EQ(step.capacity(), unsigned{size});
}

}  // namespace
