#include "ovel_semaphore.h"

#include "ovel_test.h"

#include <atomic>
#include <cstdint>
#include <limits>
#include <memory>

using ovel::semaphore;
using ovel::timed_semaphore;

struct ovel::detail::inspector {
    static int value(semaphore const& subject) {
        return subject._value.load();
    }
    static ovel::time make_time(std::int64_t count) {
        return ovel::time(count);
    }
};

namespace {

using ovel::detail::inspector;

constexpr char file[] = "sources/ovel_semaphore.cpp";
constexpr int most = std::numeric_limits<int>::max();
ovel::time const long_past = inspector::make_time(std::numeric_limits<std::int64_t>::min());
ovel::time const never = inspector::make_time(std::numeric_limits<std::int64_t>::max());

template <class Semaphore>
struct semaphore_test : testing::Test {};
using semaphore_types = testing::Types<semaphore, timed_semaphore>;
TYPED_TEST_SUITE(semaphore_test, semaphore_types);

TYPED_TEST(semaphore_test, as_many_units_can_be_taken_as_there_are) {
    TypeParam units(1, 10);
    for (int released = 0; released < 3; ++released)
        units.release();
    units.acquire();
    for (int left = 3; left != 0; --left)
        EXPECT_TRUE(units.try_acquire());
    EXPECT_FALSE(units.try_acquire());
    units.release();
    EXPECT_TRUE(units.try_acquire());
}

// A turn is handed to and fro through two semaphores: a lost wake-up hangs, a unit
// too many is an answer before the question. The turn has no other protection.
TYPED_TEST(semaphore_test, a_unit_carries_what_was_written_before_its_release) {
    for (unsigned int const spin : {0u, 200u}) {
        constexpr int rounds = 2000;
        TypeParam asked(0, spin);
        TypeParam answered(0, spin);
        int turn = 0;
        std::jthread other([&] {
            for (int round = 0; round < rounds; ++round) {
                asked.acquire();
                EXPECT_EQ(turn, 2 * round + 1);
                ++turn;
                answered.release();
            }
        });
        for (int round = 0; round < rounds; ++round) {
            EXPECT_EQ(turn, 2 * round);
            ++turn;
            asked.release();
            answered.acquire();
        }
        other.join();
        EXPECT_FALSE(asked.try_acquire());
        EXPECT_FALSE(answered.try_acquire());
    }
}

TYPED_TEST(semaphore_test, units_are_conserved_under_contention) {
    constexpr int units = 2;
    TypeParam pool(units, 20);
    std::atomic<int> holders = 0;
    crew(4, [&](int me) {
        for (int round = 0; round < 1000; ++round) {
            if (me % 2 == 0)
                pool.acquire();
            else
                until([&] { return pool.try_acquire(); });
            EXPECT_LE(++holders, units);
            --holders;
            pool.release();
        }
    }).clear();
    for (int left = units; left != 0; --left)
        EXPECT_TRUE(pool.try_acquire());
    EXPECT_FALSE(pool.try_acquire());
}

// The thread that takes the unit destroys the semaphore at once; a release that
// still touches it then is seen by the address sanitizer.
TYPED_TEST(semaphore_test, whoever_took_the_last_unit_may_destroy_the_semaphore) {
    for (int round = 0; round < 500; ++round) {
        unsigned int const spin = round % 2 == 0 ? 0 : 1000;
        auto ready = std::make_unique<TypeParam>(0, spin);
        std::jthread other([subject = ready.get()] { subject->release(); });
        ready->acquire();
        ready.reset();
    }
}

// A release that wakes nobody leaves -2, one that wakes both 0.
TEST(semaphore_test, a_release_wakes_one_of_the_threads_asleep) {
    semaphore gate(0, 3);
    std::atomic<int> awake = 0;
    auto sleepers = crew(2, [&](int) {
        gate.acquire();
        ++awake;
    });
    until([&] { return inspector::value(gate) == -2; });
    EXPECT_FALSE(gate.try_acquire());
    gate.release();
    until([&] { return awake == 1; });
    EXPECT_EQ(inspector::value(gate), -1);
    gate.release();
    sleepers.clear();
    EXPECT_EQ(inspector::value(gate), 0);
    EXPECT_FALSE(gate.try_acquire());
}

TEST(timed_semaphore_test, a_wait_ends_at_its_deadline_but_takes_a_unit_that_is_there) {
    timed_semaphore units(1, 0);
    for (ovel::time const& passed : {ovel::time::now(), ovel::time(), long_past}) {
        EXPECT_TRUE(units.timed_acquire(passed));
        EXPECT_FALSE(units.timed_acquire(passed));
        ovel::time const deadline = ovel::time::then(0.01);
        EXPECT_FALSE(units.timed_acquire(deadline));
        EXPECT_GE(ovel::time::now(), deadline - ovel::time::seconds(0.0006));  // to the nearest ms
        units.release();
    }
}

// In milliseconds beyond 32 bits: cut off they are a short time, or none. The unit
// comes once a thread that waits would have given up many times.
TEST(timed_semaphore_test, a_deadline_beyond_what_the_kernel_can_wait_is_waited_for) {
    timed_semaphore asked(0, 0);
    for (ovel::time const& distant : {ovel::time::then(2147483.648 + 0.001),
                                      ovel::time::then(4294968.0), ovel::time::then(1e9), never}) {
        std::atomic<bool> waiting = false;
        std::jthread waiter([&] {
            waiting = true;
            EXPECT_TRUE(asked.timed_acquire(distant)) << distant.seconds();
        });
        until([&] { return waiting.load(); });
        ovel::time const moment = ovel::time::then(0.01);
        until([&] { return moment < ovel::time::now(); });
        asked.release();
    }
}

TEST(semaphore_death_test, misuse_fails_the_checks) {
    EXPECT_CHECK(semaphore(-1, 0), "_value >= 0", file);
    EXPECT_CHECK(timed_semaphore(-1, 0), "value >= 0", file);
    EXPECT_CHECK(timed_semaphore(most, 0).release(), "ReleaseSemaphore(_semaphore, 1, 0) != 0",
                 file);
}

}  // namespace
