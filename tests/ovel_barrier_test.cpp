#include "ovel_barrier.h"

#include "ovel_guard.h"
#include "ovel_test.h"

#include <atomic>

using ovel::barrier;
using ovel::timed_barrier;
using ovel::detail::guard;

struct ovel::detail::inspector {
    template <class Barrier>
    static unsigned int count(Barrier const& subject) {
        return subject._count.load();
    }
    // Nobody has arrived, the way in is open, and no wake-up is left over.
    static bool at_rest(barrier& subject) {
        return count(subject) == 0 && !subject._complete && subject._lock._value.load() == 1 &&
               subject._wait._value.load() == 0;
    }
    static bool at_rest(timed_barrier& subject) {
        if (!subject._entry.try_acquire())
            return false;
        subject._entry.release();
        return count(subject) == 0 && !subject._complete && !subject._released &&
               subject._lock._value.load() == 1 && !subject._wait.try_acquire();
    }
    // A phase of one thread, whose deadline has passed, begins to leave.
    static void open(timed_barrier& subject, bool complete) {
        (complete ? subject._complete : subject._released) = true;
    }
    static bool locked(timed_barrier const& subject) {
        return subject._lock._value.load() == 0;
    }
    static timed_semaphore& entry(timed_barrier& subject) {
        return subject._entry;
    }
    static timed_semaphore& wait(timed_barrier& subject) {
        return subject._wait;
    }
};

namespace {

using ovel::detail::inspector;

template <class Barrier>
struct barrier_test : testing::Test {};
using barrier_types = testing::Types<barrier, timed_barrier>;
TYPED_TEST_SUITE(barrier_test, barrier_types);

TYPED_TEST(barrier_test, of_capacity_one_it_never_holds_anybody) {
    TypeParam one(1, 0);
    EXPECT_EQ(one.capacity(), 1u);
    for (int arrival = 0; arrival < 3; ++arrival) {
        bool last = false;
        EXPECT_TRUE(one.acquire(last));
        EXPECT_TRUE(last);
        EXPECT_TRUE(one.acquire());
    }
    EXPECT_TRUE(inspector::at_rest(one));
}

// Three threads step together; what one writes before a step the others read after
// it. `written` has no other protection than the barrier.
TYPED_TEST(barrier_test, nobody_passes_before_all_have_arrived_and_one_is_told_apart) {
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
        }
    };
    crew(size, walk).clear();
    EXPECT_EQ(lasts, steps);
    EXPECT_TRUE(inspector::at_rest(step));
}

// More threads than a phase takes: a newcomer that slipped into a phase that leaves
// would be let go by it, and some other thread's phase would never be complete.
TYPED_TEST(barrier_test, phases_never_mix) {
    constexpr int arrivals = 1000;
    TypeParam pair(2, 30);
    std::atomic<int> tickets = 0;
    std::atomic<int> lasts = 0;
    crew(5, [&](int) {
        while (tickets++ < arrivals) {
            bool last;
            EXPECT_TRUE(pair.acquire(last));
            lasts += last;
        }
    }).clear();
    EXPECT_EQ(lasts, arrivals / 2);
    EXPECT_TRUE(inspector::at_rest(pair));
}

TYPED_TEST(barrier_test, those_that_have_arrived_can_be_let_go_early) {
    for (unsigned int const capacity : {3u, 0u}) {
        TypeParam early(capacity, 0);
        early.release_all();  // nobody there: not remembered
        EXPECT_TRUE(inspector::at_rest(early));
        auto threads = crew(2, [&](int) {
            bool last = true;
            EXPECT_FALSE(early.acquire(last));
            EXPECT_FALSE(last);
        });
        until([&] { return inspector::count(early) == 2; });
        early.release_all();
        threads.clear();
        EXPECT_TRUE(inspector::at_rest(early));
    }
}

TEST(timed_barrier_test, who_gives_up_alone_leaves_no_trace) {
    timed_barrier pair(2, 0);
    bool last = true;
    EXPECT_FALSE(pair.timed_acquire(last, ovel::time()));
    EXPECT_FALSE(last);
    EXPECT_FALSE(pair.timed_acquire(ovel::time::then(0.002)));
    EXPECT_TRUE(inspector::at_rest(pair));
    std::jthread other([&] { EXPECT_TRUE(pair.timed_acquire(ovel::time::then(3600.0))); });
    EXPECT_TRUE(pair.acquire());
    other.join();
    EXPECT_TRUE(inspector::at_rest(pair));
}

TEST(timed_barrier_test, who_does_not_get_in_before_the_deadline_touches_nothing) {
    timed_barrier pair(2, 0);
    {
        guard const leaving(inspector::entry(pair));
        for (bool const before : {true, false}) {
            bool last = before;
            EXPECT_FALSE(pair.timed_acquire(last, ovel::time()));
            EXPECT_EQ(last, before);
        }
    }
    EXPECT_TRUE(inspector::at_rest(pair));
}

// The only thread of a phase gives up just when another one, played by the test, has
// opened the phase and is about to post the wake-up. The wake-up is then for the
// thread that gave up: left behind, it would let the next phase go before it is
// complete, and nobody would open the entry again.
TEST(timed_barrier_test, the_last_of_a_phase_that_leaves_takes_the_wake_up_and_opens_the_entry) {
    for (bool const complete : {true, false}) {
        timed_barrier pair(2, 0);
        inspector::open(pair, complete);
        std::atomic<bool> left = false;
        std::jthread late([&] {
            bool last = true;
            EXPECT_EQ(pair.timed_acquire(last, ovel::time()), complete);
            EXPECT_FALSE(last);
            left = true;
        });
        until([&] { return left || inspector::count(pair) == 1; });
        inspector::entry(pair).acquire();
        // It has given up, and keeps `_lock` while it waits for its unit.
        until([&] { return left || inspector::locked(pair); });
        EXPECT_FALSE(left);
        inspector::wait(pair).release();
        late.join();
        EXPECT_TRUE(inspector::at_rest(pair));
    }
}

TEST(timed_barrier_test, deadlines_that_race_with_the_phases_leave_it_at_rest) {
    timed_barrier pair(2, 0);
    std::atomic<int> running = 3;
    auto threads = crew(3, [&](int me) {
        for (int round = 0; round < 300; ++round)
            pair.timed_acquire(ovel::time::then((round + me) % 4 * 0.0001));
        --running;
    });
    while (running != 0) {
        pair.release_all();
        std::this_thread::yield();
    }
    threads.clear();
    EXPECT_TRUE(inspector::at_rest(pair));
}

}  // namespace
