// SPDX-License-Identifier: Apache-2.0
#include "ovel_test.h"

namespace {

using namespace std::chrono_literals;
using namespace ovel;

TEST(work_group_test, all_that_is_submitted_runs_and_its_future_says_how) {
    work_group group(2);
    EXPECT_EQ(group.submit([held = std::make_unique<int>(42)] { return *held; }).get(), 42);
    group.submit([] {}).get();
    EXPECT_THROW(group.submit([]() -> int { throw std::logic_error("no"); }).get(),
                 std::logic_error);
    EXPECT_THROW(group.submit([] { throw std::bad_alloc(); }).get(), std::bad_alloc);
    // A group that ended as soon as it looked idle would refuse what its work submits. Dropped
    // futures change nothing.
    std::atomic<int> leaves{0};
    auto const grow = [&](auto const& self, int depth) -> void {
        for (int child = 0; child < 2; ++child)
            if (depth == 0)
                ++leaves;
            else
                group.submit([&self, depth] { self(self, depth - 1); });
    };
    grow(grow, 8);
    group.join();
    EXPECT_EQ(leaves, 1 << 9);
    EXPECT_THROW(group.submit([] {}).get(), std::future_error);
}

// By a call, or because it is destroyed. The work that runs notices, since what it submits is
// discarded, too.
TEST(work_group_test, stopping_a_group_breaks_the_promises_of_what_has_not_begun) {
    auto const alive = std::make_shared<int>();
    for (bool const destroyed : {false, true}) {
        ovel::latch begun(1);
        auto group = std::make_optional<work_group>(1);
        auto running = group->submit([&begun, &group = *group, alive] {
            begun.count_down();
            std::future<void> late;
            do
                late = group.submit([alive] {});
            while (late.wait_for(0s) != std::future_status::ready);
            EXPECT_THROW(late.get(), std::future_error);
        });
        begun.wait();
        auto queued = group->submit([alive] {});
        EXPECT_FALSE(group->join_until(0s));
        if (destroyed) {
            group.reset();
        } else {
            group->stop();
            EXPECT_THROW(group->submit([alive] {}).get(), std::future_error);
            EXPECT_TRUE(group->join_until(1h));
        }
        running.get();
        EXPECT_THROW(queued.get(), std::future_error);
        EXPECT_EQ(alive.use_count(), 1);
    }
}

}  // namespace
