// SPDX-License-Identifier: Apache-2.0
// Scopes, invocations and loops, as far as scenarios on the simulated kernel do not test them.
#include "ovel_test.h"

namespace {

using namespace ovel;

struct parallel_test : testing::TestWithParam<unsigned int> {
    work_group group{GetParam()};
};
INSTANTIATE_TEST_SUITE_P(threads, parallel_test, testing::Values(1u, 2u, 8u));

// A child's child runs after it, not inside it, and a waiter runs only descendants.
TEST_P(parallel_test, the_stack_is_bounded_by_the_nesting_of_scopes) {
    work_group small(GetParam(), 0.0, 16384);
    constexpr int links = 300'000;
    std::atomic<int> ran = 0;
    auto const held = std::make_shared<int>();
    long most = 0;
    auto const count = [&] {
        ++ran;
    };
    auto const chain = [&](auto const& self, task_scope& scope, int left) -> void {
        parallel_invoke(count, count);
        // Each leaves another child behind, so that no room stays for the next one; some leave
        // more than a thread runs in their order.
        for (int more = left % 1000 == 0 ? 100 : 1; more != 0; --more)
            scope.run(count);
        if (left != 0)
            scope.run([=, &scope] { self(self, scope, left - 1); });
    };
    small.run([&] {
        task_scope here(small);
        // Fills the deque, so that the chain begins as work that runs at once.
        for (int i = 0; i != 2000; ++i) {
            here.run([&ran, held] { ++ran; });
            most = std::max(most, held.use_count());
        }
        here.run([&] { chain(chain, here, links); });
        here.wait();
    });
    small.wait();
    EXPECT_EQ(ran, 3 * (links + 1) + 99 * (links / 1000 + 1) + 2000);
    EXPECT_LE(most, 1100) << "children wait without a bound";
    // Outside of any group, and on one.
    parallel_invoke(count, count);
    parallel_invoke(small, count);
    parallel_invoke(small, count, count, count);
    EXPECT_EQ(ran, 3 * (links + 1) + 99 * (links / 1000 + 1) + 2006);
}

// Every child throws, so do the scopes around them; what they hold is counted.
TEST_P(parallel_test, the_first_exception_wins_and_none_is_lost) {
    auto const held = std::make_shared<int>();
    for (int round = 0; round != 1000; ++round) {
        std::atomic<int> thrown = 0;
        task_scope outer(group);
        for (int i = 0; i != 4; ++i)
            outer.run([&, i, held] {
                {
                    // Without a wait the exception goes to the enclosing scope.
                    task_scope inner(group);
                    inner.run([&, held] {
                        ++thrown;
                        throw std::runtime_error(std::to_string(*held));
                    });
                    while (i % 2 == 0 && thrown == 0)
                        inner.wait();
                }
                if (i == 3)
                    parallel_invoke([held] { throw std::bad_alloc(); }, [held] { throw 1; });
            });
        EXPECT_ANY_THROW(outer.wait());
        outer.wait();  // the exception was reported
        outer.run([] { throw std::logic_error("again"); });
        EXPECT_THROW(outer.wait(), std::logic_error);
    }
    group.run([held] { throw std::runtime_error("run"); });
    EXPECT_THROW(group.wait(), std::runtime_error);
    group.wait();
    group.run([&, held] {
        // More than the deque holds, so some have run when the scope is closed without a wait.
        task_scope left(group);
        for (int i = 0; i != 1000; ++i)
            left.run([held] { throw std::bad_alloc(); });
    });
    EXPECT_THROW(group.wait(), std::bad_alloc);
    // A loop of a single part gets what a scope in it leaves behind.
    auto const leave = [&](int, int) {
        task_scope left(group), inner(group);
        left.run([held] { throw std::length_error("runs at once"); });
    };
    EXPECT_THROW(parallel_for(group, 0, 1, leave), std::length_error);
    group.wait();
    EXPECT_EQ(held.use_count(), 1);
}

TEST_P(parallel_test, after_a_stop_no_more_children_begin_than_there_are_threads) {
    std::atomic<bool> stopped = false;
    std::atomic<unsigned int> late = 0, begun = 0;
    std::stop_source outer;
    for (int by = 0; by != 3; ++by) {
        stopped = false;
        late = begun = 0;
        outer = {};
        task_scope here(group, outer.get_token());
        std::stop_token const token = here.stop_token();
        for (int i = 0; i != 20'000; ++i)
            here.run([&] {
                if (stopped)
                    ++late;
                if (++begun == 100) {
                    if (by == 0)
                        here.stop();
                    else if (by == 1)
                        outer.request_stop();
                    else
                        group.stop();  // does not stop scopes
                    stopped = by != 2;
                }
            });
        here.wait();
        EXPECT_LE(late, GetParam() + 1);
        EXPECT_EQ(token.stop_requested(), by != 2);
        EXPECT_EQ(begun == 20'000, by == 2);
    }
    task_scope ended(group);
    ended.stop();
    EXPECT_TRUE(ended.stop_token().stop_requested());
}

TEST_P(parallel_test, loops_visit_each_element_once) {
    for (std::size_t size : {0, 1, 2, 7, 1000, 4099})
        for (std::size_t grain : {0, 1, 3, 5000}) {
            std::vector<std::atomic<int>> visits(size);
            std::atomic<int> parts = 0;
            EXPECT_TRUE(parallel_for(group, visits.begin(), visits.end(),
                                     [&](auto begin, auto end) {
                                         ++parts;
                                         auto const size = static_cast<std::size_t>(end - begin);
                                         EXPECT_TRUE(begin < end && (grain == 0 || size <= grain));
                                         for (; begin != end; ++begin)
                                             ++*begin;
                                     },
                                     {.grain = grain}));
            EXPECT_TRUE(std::ranges::all_of(visits, [](int each) { return each == 1; }));
            EXPECT_TRUE(grain != 0 || parts <= 256);
        }
    parallel_for(group, 5, 2, [](int, int) { ADD_FAILURE(); });

    // The sizes of these fit neither the type of the elements nor, in 32 bits, a size_t.
    using wide = unsigned long long;
    auto const covers = [&](auto first, auto last, wide size) {
        std::atomic<wide> covered = 0;
        parallel_for(group, first, last, [&](auto begin, auto end) {
            EXPECT_TRUE(first <= begin && begin < end && end <= last);
            covered += static_cast<wide>(end) - static_cast<wide>(begin);
        });
        EXPECT_EQ(covered, size);
    };
    covers(-2'000'000'000, 2'000'000'000, 4'000'000'000);
    covers(0LL, 5'000'000'000LL, 5'000'000'000);
    covers(std::numeric_limits<long long>::min(), std::numeric_limits<long long>::max(),
           std::numeric_limits<wide>::max());
    covers(static_cast<signed char>(-128), static_cast<signed char>(127), 255);
}

// `join` is associative, not commutative, and the rounding of the sum depends on the order.
TEST_P(parallel_test, reductions_join_in_order_and_repeat_to_the_last_bit) {
    auto const join = [](std::string left, std::string const& right) {
        return left += right;
    };
    auto const spell = [](int begin, int end, std::string start) {
        for (; begin != end; ++begin)
            start += static_cast<char>('a' + begin % 26);
        return start;
    };
    EXPECT_EQ(parallel_reduce(group, 0, 3000, std::string(), spell, join, 7), spell(0, 3000, ""));
    EXPECT_EQ(parallel_reduce(group, 3, 3, std::string("none"), spell, join), "none");

    auto const harmonic = [](int begin, int end, float start) {
        for (; begin != end; ++begin)
            start += 1.0f / static_cast<float>(begin);
        return start;
    };
    float const alone = parallel_reduce(1, 100'000, 0.0f, harmonic, std::plus<>(), 64);
    for (int round = 0; round != 20; ++round)
        EXPECT_EQ(parallel_reduce(group, 1, 100'000, 0.0f, harmonic, std::plus<>(), 64), alone);
}

TEST_P(parallel_test, loops_end_early_and_say_so) {
    std::stop_source stop;
    std::atomic<int> parts = 0;
    std::atomic<int> late = 0;  // a thread may have decided to begin one when the stop came
    auto const count = [&](int, int) {
        late += stop.stop_requested();
        if (++parts == 50)
            stop.request_stop();
    };
    EXPECT_FALSE(parallel_for(group, 0, 100'000, count, {.grain = 1, .stop = stop.get_token()}));
    EXPECT_LE(late, static_cast<int>(GetParam()) + 1);
    EXPECT_GE(parts, 50);
    auto const count_on = [](int begin, int end, int start) {
        return start + end - begin;
    };
    std::plus<> const add;
    EXPECT_FALSE(parallel_reduce(group, 0, 10, 0, count_on, add, {.stop = stop.get_token()}));
    EXPECT_EQ(parallel_reduce(group, 0, 10, 0, count_on, add, loop_options{}), 10);
    for (int const bad : {0, 99'999}) {
        auto const fail = [&](int begin, int) {
            if (begin == bad)
                throw std::out_of_range("bad");
        };
        EXPECT_THROW(parallel_for(group, 0, 100'000, fail, {.grain = 1}), std::out_of_range);
    }
}

// Their space and its bounds are tested on the simulated kernel.
TEST(task_scope_test, queued_items_begin_in_the_order_of_their_space_and_time) {
    work_group budgeted(1, 3.0);
    latch busy(1), go_on(1);
    budgeted.run([&] {
        busy.count_down();
        go_on.wait();
    });
    busy.wait();
    std::vector<std::pair<int, int>> order, begun;
    int children = 0;
    for (int i = 0; i != 200; ++i) {
        int const space = 1 + i % 3, time = 1 + i % 7;
        order.emplace_back(-space, -time);
        budgeted.run(
            [&, here = order.back()] {
                begun.push_back(here);
                parallel_for(0, 8, [&](int begin, int end) { children += end - begin; });
            },
            {.time = static_cast<double>(time), .space = static_cast<double>(space)});
    }
    EXPECT_FALSE(budgeted.wait_until(std::chrono::milliseconds(0)));
    go_on.count_down();
    EXPECT_TRUE(budgeted.wait_until(std::chrono::hours(1)));
    EXPECT_EQ(children, 200 * 8);
    std::sort(order.begin(), order.end());
    EXPECT_EQ(begun, order);
}

// The opener waits in a child for the 99 others, so the other thread runs them. It begins the
// queued item after those.
TEST(task_scope_test, children_go_before_queued_items) {
    work_group group(2);
    latch forked(1), others(99);
    group.run([&] {
        task_scope here(group);
        for (int i = 0; i != 99; ++i)
            here.run([&] { others.count_down(); });
        here.run([&] { others.wait(); });
        forked.count_down();
        here.wait();
    });
    group.run([&] { forked.wait(); });
    group.run([&] { EXPECT_TRUE(others.try_wait()); });
    group.wait();
}

// The deque is full, so the first one throws before the last one begins.
TEST(task_scope_test, an_invocation_discards_what_has_not_begun) {
    work_group group(1);
    group.run([&] {
        task_scope fill(group);
        for (int i = 0; i != 960; ++i)
            fill.run([] {});
        parallel_invoke([] { throw std::runtime_error("first"); }, [] { ADD_FAILURE(); },
                        [] { ADD_FAILURE(); });
    });
    EXPECT_THROW(group.wait(), std::runtime_error);
}

TEST(task_scope_test, a_thread_may_have_scopes_of_several_groups_open) {
    work_group first(2), second(2);
    std::atomic<int> ran = 0;
    EXPECT_EQ(work_group::current(), nullptr);
    task_scope outer(first);
    {
        task_scope inner(second);
        EXPECT_EQ(work_group::current(), &second);
        task_scope again(first);
        EXPECT_EQ(work_group::current(), &first);
        again.run([&] {
            EXPECT_EQ(work_group::current(), &first);
            parallel_for(0, 13, [&](int begin, int end) { ran += end - begin; });
        });
        {
            task_scope last(second);
            // Runs at once: the deque is the inner scope's.
            outer.run([&] {
                EXPECT_EQ(work_group::current(), &first);
                ++ran;
            });
            EXPECT_EQ(work_group::current(), &second);
        }
        again.wait();
    }
    EXPECT_EQ(work_group::current(), &first);
    outer.wait();
    EXPECT_EQ(ran, 14);
}

// A call on another group stands between two on the same group, and none of them opens a scope.
TEST(task_scope_test, a_seat_is_its_owner_s_until_the_outermost_call_ends) {
    work_group first(1), second(1);
    auto const seat_of_another_thread = [&] {
        detail::task_seat* seat = nullptr;
        std::jthread([&] {
            parallel_for(first, 0, 1, [&](int, int) { seat = detail::task_crew::current_seat(); });
        }).join();
        return seat;
    };
    detail::task_seat* own = nullptr;
    parallel_for(first, 0, 1, [&](int, int) {
        own = detail::task_crew::current_seat();
        parallel_for(second, 0, 1, [&](int, int) { parallel_for(first, 0, 1, [](int, int) {}); });
        EXPECT_EQ(detail::task_crew::current_seat(), own);
        EXPECT_NE(seat_of_another_thread(), own);
    });
    // Seats are not used up: the next thread gets one of the two.
    detail::task_seat* const later = seat_of_another_thread();
    EXPECT_EQ(seat_of_another_thread(), later);
}

TEST(task_scope_test, misuse_fails_the_checks) {
    char const* const innermost = "_is_innermost_of_caller()";
    char const* const file = "includes/ovel_parallel.h";
    work_group group(2), other(1);
    auto const out_of_order = [&](work_group& of_inner) {
        task_scope outer(group), inner(of_inner);
        outer.wait();
    };
    EXPECT_CHECK(out_of_order(group), innermost, file);
    EXPECT_CHECK(out_of_order(other), innermost, file);
    // With the deque full, the last child runs inside its `run`.
    auto const by_a_child = [](int before) {
        work_group alone(1);
        alone.run([&] {
            task_scope here(alone);
            for (int i = 0; i != before; ++i)
                here.run([] {});
            here.run([&] { here.wait(); });
            here.wait();
        });
        alone.wait();
    };
    EXPECT_CHECK(by_a_child(0), innermost, file);
    EXPECT_CHECK(by_a_child(960), innermost, file);
    auto const in_work = [&](void (work_group::*end)()) {
        group.run([&, end] { (group.*end)(); });
        group.wait();
    };
    EXPECT_CHECK(work_group(0), "_threads != 0 && space >= 0", "sources/ovel_task_crew.cpp");
    EXPECT_CHECK(in_work(&work_group::wait), "!_runs_caller()", "includes/ovel_work.h");
    EXPECT_CHECK(in_work(&work_group::join), "!_runs_caller()", "includes/ovel_work.h");
    EXPECT_CHECK(group.run([] {}, {.space = 0.5}), "time_ > 0 && space_ >= 0 && space_ <= _space",
                 "sources/ovel_thread_group.cpp");
    // The group's only thread waits for a child that this thread runs.
    auto const in_a_grandchild = [] {
        work_group alone(1);
        latch begun(1), stolen(1);
        task_scope outer(alone);
        outer.run([&] {
            task_scope inner(alone);
            inner.run([&] {
                stolen.count_down();
                alone.wait();
            });
            begun.count_down();
            stolen.wait();
        });
        begun.wait();
        outer.wait();
    };
    EXPECT_CHECK(in_a_grandchild(), "!_runs_caller()", "includes/ovel_work.h");
}

}  // namespace
