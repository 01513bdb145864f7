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
    static timed_semaphore& entry(timed_barrier& subject) {
        return subject._entry;
    }
};

namespace {

using ovel::detail::inspector;

template <class Barrier>
struct barrier_test : testing::Test {};
using barrier_types = testing::Types<barrier, timed_barrier>;
TYPED_TEST_SUITE(barrier_test, barrier_types);

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

TYPED_TEST(barrier_test, those_that_have_arrived_can_be_let_go_early) {
    for (unsigned int const capacity : {3u, 0u}) {
        TypeParam early(capacity, 0);
        early.release_all();  // nobody there: not remembered
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

TEST(timed_barrier_test, who_gives_up_leaves_no_trace) {
    timed_barrier pair(2, 0);
    bool last = true;
    EXPECT_FALSE(pair.timed_acquire(last, ovel::time()));
    EXPECT_FALSE(last);
    {
        guard const leaving(inspector::entry(pair));
        last = true;
        EXPECT_FALSE(pair.timed_acquire(last, ovel::time::then(0.002)));
        EXPECT_TRUE(last) << "touched without having entered";
    }
    EXPECT_TRUE(inspector::at_rest(pair));
    std::jthread other([&] { EXPECT_TRUE(pair.timed_acquire(ovel::time::then(3600.0))); });
    EXPECT_TRUE(pair.acquire());
    other.join();
    EXPECT_TRUE(inspector::at_rest(pair));
}

}  // namespace
