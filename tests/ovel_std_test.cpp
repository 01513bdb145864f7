// SPDX-License-Identifier: Apache-2.0
#include "ovel_std.h"

#include "ovel_test.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <limits>
#include <mutex>
#include <stdexcept>

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

TEST(deadline_test, durations_out_of_range_saturate) {
    time const last = time::seconds(std::numeric_limits<double>::infinity());
    EXPECT_EQ(deadline(std::chrono::hours::max()), last);
    EXPECT_EQ(deadline(std::chrono::steady_clock::time_point::max()), time() + last);
    EXPECT_EQ(
        deadline(std::chrono::time_point<std::chrono::system_clock, std::chrono::hours>::max()),
        last);
    EXPECT_LT(deadline(std::chrono::hours::min()), time::now());
    EXPECT_LT(deadline(std::chrono::system_clock::time_point::min()), time::now());
    EXPECT_EQ(deadline(time::seconds(3)), time::seconds(3));
}

// The least that is more than nothing is one tick.
TEST(deadline_test, spans_are_rounded_up_to_ticks) {
    double const unit = ovel::time_support::time_unit();
    auto const ticks = [unit](double count) {
        return ovel::detail::ticks_above(static_cast<long double>(count) * unit).value();
    };
    EXPECT_EQ(ticks(0), 0);
    EXPECT_EQ(ticks(1e-9), 1);
    EXPECT_EQ(ticks(1.5), 2);
    EXPECT_EQ(ticks(1e9 + 0.25), 1'000'000'001);
}

// The turn goes round between waits through each kind of lock that a wait accepts.
TEST(wait_test, a_predicate_decides_whatever_the_lock_is) {
    constexpr int rounds = 500;
    lockable<ovel::recursive_mutex> lock;
    ovel::condition changed;
    int turn = 0;
    auto const threads = crew(3, [&](int member) {
        lockable<ovel::recursive_mutex&> view(lock);
        auto const play = [&](auto&& hold) {
            for (int round = 0; round < rounds; ++round) {
                hold.lock();
                wait(changed, hold, [&] { return turn % 3 == member; });
                ++turn;
                hold.unlock();
                changed.release_all();
            }
        };
        if (member == 0)
            play(lock);
        else if (member == 1)
            play(std::unique_lock(view, std::defer_lock));
        else
            play(std::unique_lock(lock, std::defer_lock));
    });
}

// A wait of the library ends at the nearest millisecond: a third of one is over
// before it begins. The system's clocks may run a little faster than ours.
TEST(wait_test, nothing_gives_up_before_its_deadline) {
    lockable<ovel::timed_mutex> lock;
    ovel::timed_condition changed;
    std::unique_lock hold(lock);
    std::function<bool(std::chrono::microseconds)> const attempts[] = {
        [&](auto span) { return lock.try_lock_for(span); },
        [&](auto span) { return lock.try_lock_until(std::chrono::system_clock::now() + span); },
        [&](auto span) { return wait_for(changed, hold, span, [] { return false; }); },
    };
    for (auto const& attempt : attempts)
        for (auto const span : {300us, 1300us, 2450us}) {
            auto const begin = std::chrono::steady_clock::now();
            EXPECT_FALSE(attempt(span));
            EXPECT_GE(std::chrono::steady_clock::now() - begin, span * 0.99);
        }
    EXPECT_FALSE(lock.try_lock_for(-1h) || lock.try_lock_until(time()));

    // What comes true without anybody being told counts when the deadline passes.
    int looks = 0;
    EXPECT_TRUE(wait_until(changed, hold, std::chrono::system_clock::now() + 1ms,
                           [&] { return ++looks == 2; }));
    EXPECT_THROW(wait_for(changed, hold, 1h, []() -> bool { throw std::runtime_error(""); }),
                 std::runtime_error);
    EXPECT_FALSE(lock.try_lock());
}

}  // namespace
