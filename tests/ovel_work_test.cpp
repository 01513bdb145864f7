// SPDX-License-Identifier: Apache-2.0
#include "ovel_test.h"

namespace {

using namespace std::chrono_literals;
using namespace ovel;

TEST(work_group_test, results_and_exceptions_come_through_the_future) {
    work_group group(2);
    EXPECT_EQ(group.submit([held = std::make_unique<int>(42)] { return *held; }).get(), 42);
    group.submit([] {}).get();
    EXPECT_THROW(group.submit([]() -> int { throw std::logic_error("no"); }).get(),
                 std::logic_error);
    EXPECT_THROW(group.submit([] { throw std::bad_alloc(); }).get(), std::bad_alloc);
    bool ran = false;  // although its future is dropped
    static_cast<void>(group.submit([&] { ran = true; }));
    group.join();
    EXPECT_TRUE(ran);
    EXPECT_THROW(group.submit([] {}).get(), std::future_error);
}

// A group that ended as soon as it looked idle would refuse what its work submits.
TEST(work_group_test, a_join_waits_for_work_that_work_submits) {
    std::atomic<int> leaves{0};
    work_group group(3);
    auto const grow = [&](auto const& self, int depth) -> void {
        if (depth == 0)
            ++leaves;
        else
            for (int child = 0; child < 2; ++child)
                group.submit([&self, depth] { self(self, depth - 1); });
    };
    grow(grow, 9);
    EXPECT_TRUE(group.join_until(1h));
    EXPECT_EQ(leaves, 1 << 9);
    EXPECT_EQ(group.submit([] {}).wait_for(0s), std::future_status::ready);
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
        EXPECT_FALSE(group->join_until(0s));
        if (destroyed) {
            group.reset();
        } else {
            group->stop();
            EXPECT_THROW(group->submit([alive] {}).get(), std::future_error);
            EXPECT_TRUE(group->join_until(1h));
        }
        running.get();
        EXPECT_EQ(alive.use_count(), 1);
    }
}

}  // namespace
