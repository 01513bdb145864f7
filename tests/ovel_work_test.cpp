// SPDX-License-Identifier: Apache-2.0
#include "ovel_test.h"

namespace {

using namespace std::chrono_literals;
using namespace ovel;

TEST(thread_allocator_test, a_thread_has_its_own_within_the_outermost_scope_only) {
    allocator_group& group = *allocator_group::global();
    std::jthread([&] {
        auto own = std::make_optional<ovel::thread_allocator>();
        auto* const mine = group.specific_allocator();
        EXPECT_NE(mine, group.default_allocator());
        {
            ovel::thread_allocator const again;
            EXPECT_EQ(group.specific_allocator(), mine);
        }
        EXPECT_EQ(group.specific_allocator(), mine);
        own.reset();
        EXPECT_EQ(group.specific_allocator(), group.default_allocator());
    }).join();
}

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

// What has not begun is discarded, so the work that runs notices.
TEST(work_group_test, destroying_a_group_stops_it) {
    ovel::latch begun(1);
    std::future<void> late;
    {
        work_group group(1);
        group.run([&] {
            begun.count_down();
            do
                late = group.submit([] {});
            while (late.wait_for(0s) != std::future_status::ready);
        });
        begun.wait();
    }
    EXPECT_THROW(late.get(), std::future_error);
}

TEST(work_group_test, stopping_a_group_breaks_the_promises_of_waiting_work) {
    ovel::latch begun(1), go_on(1);
    auto alive = std::make_shared<int>();
    work_group group(1);
    auto running = group.submit([&] {
        begun.count_down();
        go_on.wait();
        return 1;
    });
    begun.wait();
    auto waiting = group.submit([alive] { return 2; });
    EXPECT_FALSE(group.join_until(0s));
    group.stop();
    EXPECT_THROW(group.submit([alive] { return 3; }).get(), std::future_error);
    go_on.count_down();
    EXPECT_EQ(running.get(), 1);
    EXPECT_THROW(waiting.get(), std::future_error);
    EXPECT_TRUE(group.join_until(1h));
    EXPECT_EQ(alive.use_count(), 1);
}

}  // namespace
