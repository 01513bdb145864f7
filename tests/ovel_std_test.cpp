// SPDX-License-Identifier: Apache-2.0
#include "ovel_test.h"

namespace {

using namespace std::chrono_literals;
using ovel::deadline;
using ovel::lockable;
using ovel::time;

TEST(lockable_test, guards_of_the_standard_library_exclude) {
    lockable<ovel::mutex> first;
    ovel::timed_recursive_mutex second;
    lockable view(second);
    auto const free = [&] {
        return std::try_lock(first, view) == -1;
    };
    {
        std::scoped_lock const hold(first, view);
        EXPECT_FALSE(elsewhere(free));
    }
    EXPECT_TRUE(elsewhere(free));
}

template <class Lock>
concept has_deadlines = requires(Lock& lock) {
    lock.try_lock_for(1h);
};
static_assert(has_deadlines<lockable<ovel::timed_recursive_mutex&>>);
static_assert(!has_deadlines<lockable<ovel::mutex>>);

// Another thread wakes the waiting one until the predicate holds.
TEST(wait_test, a_predicate_decides_for_every_kind_of_lock) {
    lockable<ovel::recursive_mutex> lock;
    lockable<ovel::recursive_mutex&> view(lock);
    ovel::condition changed;
    std::jthread const waker([&](std::stop_token const& over) {
        until([&] { return changed.release_all(), over.stop_requested(); });
    });
    auto const waits = [&](auto&& hold) {
        int looks = 0;
        wait(changed, hold, [&] { return ++looks == 3; });
        EXPECT_FALSE(elsewhere([&] { return lock.try_lock(); }));
        hold.unlock();
    };
    lock.lock();
    waits(lock);
    waits(std::unique_lock(view));
    waits(std::unique_lock(lock));
}

// What `attempt_until` waits for, in milliseconds, at attempt number `number`.
template <class End>
unsigned int wait_of(End const& end, int number = 0) {
    unsigned int lasted = 9999;
    EXPECT_TRUE(ovel::detail::attempt_until(end, [&](unsigned int milliseconds) {
        lasted = milliseconds;
        return number-- == 0;
    }));
    return lasted;
}

// A further reading of the clock would find a moment of the span gone.
TEST(wait_test, waits_last_the_whole_span) {
    EXPECT_EQ(wait_of(1'000'001ns), 2u);
    EXPECT_EQ(wait_of(20ms), 20u);
    EXPECT_EQ(wait_of(1.5s), 1500u);
    EXPECT_EQ(wait_of(-1h), 0u);
    EXPECT_EQ(deadline(time::seconds(3)), time::seconds(3));
}

// An end that is out of range is not reached after the longest wait either.
TEST(wait_test, the_longest_spans_never_pass_and_the_shortest_have_passed) {
    auto const never_passes = [](auto end) {
        EXPECT_GT(deadline(end), time::then(1e9));
        for (int const number : {0, 1})
            EXPECT_EQ(wait_of(end, number), 0u + ovel::detail::longest_wait);
    };
    never_passes(std::chrono::hours::max());
    never_passes(std::chrono::duration<double>(INFINITY));
    never_passes(std::chrono::steady_clock::time_point::max());
    never_passes(std::chrono::sys_time<std::chrono::hours>::max());
    never_passes(time::then(INFINITY));
    // A span that ends at the clock's last points is rounded up.
    for (int each = 0; each != 1000; ++each) {
        auto const now = std::chrono::steady_clock::now();
        std::chrono::duration<double> const span = now.max() - now;
        EXPECT_GT(ovel::detail::point_of(span), now);
    }
    auto const has_passed = [](auto end) {
        EXPECT_LT(deadline(end), time::now());
        EXPECT_EQ(wait_of(end), 0u);
    };
    has_passed(std::chrono::hours::min());
    has_passed(std::chrono::system_clock::time_point::min());
    has_passed(std::chrono::sys_time<std::chrono::hours>::min());
}

// On the clock that the caller reads, without any tolerance.
TEST(wait_test, nothing_gives_up_before_its_deadline) {
    using steady = std::chrono::steady_clock;
    using system = std::chrono::system_clock;
    lockable<ovel::timed_mutex> lock;
    lockable<ovel::timed_recursive_mutex> other;
    ovel::timed_semaphore none(0, 0);
    ovel::event unset;
    ovel::latch undone(1);
    ovel::timed_condition changed;
    std::unique_lock hold(lock);
    auto const never = [] {
        return false;
    };
    auto const keeps = [&](auto now, auto span, auto const& attempt) {
        auto const point = now() + span;
        EXPECT_FALSE(attempt(point));
        EXPECT_GE(now(), point);
    };
    std::jthread([&] { other.lock(); }).join();
    for (auto const span : {1us, 300us, 499us, 1300us, 1490us, 2450us, 20'700us}) {
        keeps(steady::now, span, [&](auto) { return lock.try_lock_for(span); });
        keeps(steady::now, span, [&](auto point) { return other.try_lock_until(point); });
        keeps(system::now, span, [&](auto point) { return lock.try_lock_until(point); });
        keeps(steady::now, span, [&](auto) { return wait_for(changed, hold, span, never); });
        keeps(system::now, span, [&](auto end) { return wait_until(changed, hold, end, never); });
        keeps(steady::now, span, [&](auto) { return none.timed_acquire(deadline(span)); });
        keeps(steady::now, span, [&](auto end) { return none.timed_acquire(deadline(end)); });
        keeps(steady::now, span, [&](auto) { return unset.wait_for(span); });
        keeps(system::now, span, [&](auto point) { return undone.wait_until(point); });
        auto const ticks = time::seconds(std::chrono::duration<double>(span).count());
        keeps(time::now, ticks, [&](auto end) { return lock.try_lock_until(end); });
    }
    EXPECT_FALSE(lock.try_lock_for(-1h) || lock.try_lock_until(time()));

    // A predicate that became true without a notification counts when the deadline passes.
    int looks = 0;
    EXPECT_TRUE(wait_until(changed, hold, std::chrono::system_clock::now() + 1ms,
                           [&] { return ++looks == 2; }));
    EXPECT_THROW(static_cast<void>(
                     wait_for(changed, hold, 1h, []() -> bool { throw std::runtime_error(""); })),
                 std::runtime_error);
    EXPECT_FALSE(lock.try_lock());
}

TEST(latch_test, counts_its_steps_and_refuses_more) {
    ovel::latch one(1), two(2);
    one.arrive_and_wait();
    EXPECT_TRUE(one.try_wait() && one.wait_for(-1h));
    EXPECT_FALSE(two.try_wait());
    EXPECT_CHECK(ovel::latch(-1), "expected >= 0 && expected <= max()", "includes/ovel_std.h");
    EXPECT_CHECK(two.count_down(3), "steps >= 0 && steps <= left", "includes/ovel_std.h");
    EXPECT_CHECK(two.count_down(-1), "steps >= 0 && steps <= left", "includes/ovel_std.h");
}

}  // namespace
