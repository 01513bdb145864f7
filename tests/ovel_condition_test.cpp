#include "ovel_condition.h"

#include "ovel_guard.h"
#include "ovel_mutex.h"
#include "ovel_test.h"

#include <atomic>
#include <cstdint>
#include <limits>
#include <type_traits>
#include <utility>

using ovel::condition;
using ovel::timed_condition;
using ovel::detail::guard;

// The counters of a condition, and its private steps.
struct ovel::detail::inspector {
    template <class Condition>
    static unsigned int queued(Condition const& subject) {
        return subject._queued.load();
    }
    template <class Condition>
    static unsigned int released(Condition& subject) {
        guard const hold(subject._lock);
        return subject._released;
    }
    template <class Condition>
    static int gate(Condition const& subject) {
        return subject._gate._value.load();
    }
    template <class Condition>
    static bool take_unit(Condition& subject) {
        return subject._wait.try_acquire();
    }
    template <class Condition>
    static void arrive(Condition& subject) {
        subject._acquire_gate();
    }
    template <class Condition, class... Flag>
    static void leave(Condition& subject, Flag... flag) {
        subject._release_gate(flag...);
    }
    static ovel::time make_time(std::int64_t count) {
        return ovel::time(count);
    }
};

namespace {

using ovel::detail::inspector;

ovel::time const never = inspector::make_time(std::numeric_limits<std::int64_t>::max());
constexpr char file[] = "sources/ovel_condition.cpp";

// Nobody is counted, the gate is open, and no wake-up is left over.
template <class Condition>
void expect_at_rest(Condition& subject) {
    EXPECT_EQ(inspector::queued(subject), 0u);
    EXPECT_EQ(inspector::released(subject), 0u);
    EXPECT_EQ(inspector::gate(subject), 1);
    EXPECT_FALSE(inspector::take_unit(subject));
}

template <class Condition>
struct condition_test : testing::Test {};
using condition_types =
    testing::Types<std::pair<condition, ovel::mutex>, std::pair<condition, ovel::timed_mutex>,
                   std::pair<condition, ovel::recursive_mutex>,
                   std::pair<timed_condition, ovel::mutex>,
                   std::pair<timed_condition, ovel::timed_recursive_mutex>>;
TYPED_TEST_SUITE(condition_test, condition_types);

// Two threads hand a turn to and fro; each wakes the other and at once waits itself.
// `if`, not `while`: a wake-up stolen from the sleeper or out of the blue returns out
// of turn, and a lost one hangs.
TYPED_TEST(condition_test, every_release_wakes_the_thread_already_asleep) {
    constexpr int rounds = 1000;
    typename TypeParam::second_type lock;
    typename TypeParam::first_type turned;
    int turn = 0;  // whose turn it is; under lock
    auto const play = [&](int me) {
        for (int round = 0; round < rounds; ++round) {
            guard const hold(lock);
            if (turn != me)
                turned.acquire(lock);
            EXPECT_EQ(turn, me) << "round " << round;
            turn = 1 - me;
            turned.release_one();
        }
    };
    crew(2, play).clear();
    expect_at_rest(turned);
}

TYPED_TEST(condition_test, all_threads_asleep_are_woken_together_or_one_by_one) {
    for (bool const together : {true, false}) {
        typename TypeParam::second_type lock;
        typename TypeParam::first_type changed;
        int awake = 0;          // under lock
        changed.release_one();  // with nobody waiting: not remembered
        changed.release_all();
        auto sleepers = crew(3, [&](int) {
            guard const hold(lock);
            changed.acquire(lock);
            ++awake;
        });
        until([&] { return inspector::queued(changed) == 3; });
        if (together) {
            guard const hold(lock);
            changed.release_all();
        } else {
            changed.release_one();
            changed.release_one();
            EXPECT_EQ(inspector::queued(changed), 1u);
            until([&] {
                guard const hold(lock);
                return awake == 2;
            });
            EXPECT_EQ(inspector::queued(changed), 1u);
            changed.release_one();
        }
        sleepers.clear();
        EXPECT_EQ(awake, 3);
        expect_at_rest(changed);
    }
}

// The test is the last thread of a batch that is about to leave. Without the gate
// the newcomer is counted, and the second release wakes it in the other's place.
TYPED_TEST(condition_test, a_newcomer_waits_outside_until_the_batch_has_left) {
    using condition_type = typename TypeParam::first_type;
    typename TypeParam::second_type lock;
    condition_type changed;
    inspector::arrive(changed);
    changed.release_one();
    EXPECT_EQ(inspector::released(changed), 1u);

    std::jthread newcomer([&] {
        guard const hold(lock);
        changed.acquire(lock);
    });
    until([&] { return inspector::gate(changed) == -1; });
    changed.release_all();
    EXPECT_EQ(inspector::released(changed), 1u);
    EXPECT_EQ(inspector::queued(changed), 0u);

    EXPECT_TRUE(inspector::take_unit(changed));
    if constexpr (std::is_same_v<condition_type, condition>)
        inspector::leave(changed);
    else
        inspector::leave(changed, true);
    until([&] { return inspector::queued(changed) == 1; });
    changed.release_one();
    newcomer.join();
    expect_at_rest(changed);
}

template <class Mutex>
struct condition_depth_test : testing::Test {};
using recursive_types = testing::Types<ovel::recursive_mutex, ovel::timed_recursive_mutex>;
TYPED_TEST_SUITE(condition_depth_test, recursive_types);

TYPED_TEST(condition_depth_test, a_wait_frees_a_recursive_mutex_at_any_depth_and_restores_it) {
    TypeParam lock;
    condition changed;
    std::jthread sleeper([&] {
        guard const once(lock);
        guard const twice(lock);
        changed.acquire(lock);
        lock.release();
        EXPECT_FALSE(elsewhere([&] { return lock.try_acquire(); }));
        lock.acquire();
    });
    until([&] { return inspector::queued(changed) == 1; });
    guard const hold(lock);  // hangs unless the sleeper has freed it
    changed.release_one();
}

TEST(timed_condition_test, a_wait_until_a_deadline_returns_with_the_mutex) {
    ovel::mutex lock;
    timed_condition changed;
    guard const hold(lock);
    for (ovel::time const& deadline : {ovel::time(), ovel::time::then(0.002)}) {
        EXPECT_FALSE(changed.timed_acquire(lock, deadline));
        EXPECT_FALSE(lock.try_acquire());
        expect_at_rest(changed);
    }
    std::jthread releaser([&] {
        until([&] { return inspector::queued(changed) == 1; });
        guard const release(lock);
        changed.release_one();
    });
    EXPECT_TRUE(changed.timed_acquire(lock, never));
    EXPECT_FALSE(lock.try_acquire());
    releaser.join();
    expect_at_rest(changed);
}

// The test plays the waiting threads itself: `arrive` is a thread that comes in,
// `leave(false)` one whose deadline has passed. Of two that wait one is released,
// and the other's deadline passes first: it withdraws, and the wake-up stays.
TEST(timed_condition_test, who_times_out_while_others_are_queued_leaves_the_wake_up_to_them) {
    timed_condition changed;
    inspector::arrive(changed);
    inspector::arrive(changed);
    changed.release_one();
    inspector::leave(changed, false);
    EXPECT_EQ(inspector::queued(changed), 0u);
    EXPECT_EQ(inspector::released(changed), 1u);
    EXPECT_EQ(inspector::gate(changed), 0);
    EXPECT_TRUE(inspector::take_unit(changed));
    inspector::leave(changed, true);
    expect_at_rest(changed);
}

// With nobody queued every unit is for one of those that leave: one left behind would
// be the next batch's wake-up of nobody, and a gate left shut would stop everybody.
TEST(timed_condition_test, who_times_out_when_all_are_released_takes_its_wake_up_along) {
    timed_condition changed;
    inspector::arrive(changed);
    inspector::arrive(changed);
    changed.release_all();
    inspector::leave(changed, false);
    EXPECT_EQ(inspector::released(changed), 1u);
    EXPECT_EQ(inspector::gate(changed), 0);
    inspector::leave(changed, false);
    expect_at_rest(changed);
}

TEST(timed_condition_test, deadlines_that_race_with_releases_leave_it_at_rest) {
    ovel::mutex lock;
    timed_condition changed;
    std::atomic<int> waiting = 3;
    auto sleepers = crew(3, [&](int me) {
        guard const hold(lock);
        for (int round = 0; round < 300; ++round)
            changed.timed_acquire(lock, ovel::time::then((round + me) % 4 * 0.0001));
        --waiting;
    });
    for (int round = 0; waiting != 0; ++round) {
        round % 2 == 0 ? changed.release_one() : changed.release_all();
        std::this_thread::yield();
    }
    sleepers.clear();
    expect_at_rest(changed);
}

TEST(condition_death_test, a_departure_of_nobody_fails_the_checks) {
    condition changed;
    timed_condition timed;
    EXPECT_CHECK(inspector::leave(changed), "_released != 0", file);
    EXPECT_CHECK(inspector::leave(timed, false), "_queued != 0", file);
}

}  // namespace
