// SPDX-License-Identifier: Apache-2.0
#include "ovel_guard.h"
#include "ovel_test.h"

using namespace ovel;
using ovel::detail::guard;

struct ovel::detail::inspector {
    // The departure of a thread, which must have arrived.
    template <class Condition, class... Flag>
    static void leave(Condition& subject, Flag... flag) {
        subject._release_gate(flag...);
    }
};

namespace {

using ovel::detail::inspector;

constexpr char file[] = "sources/ovel_condition.cpp";

template <class Condition>
struct condition_test : testing::Test {};
using condition_types =
    testing::Types<std::pair<condition, ovel::mutex>, std::pair<condition, ovel::recursive_mutex>,
                   std::pair<timed_condition, ovel::timed_mutex>,
                   std::pair<timed_condition, ovel::timed_recursive_mutex>>;
TYPED_TEST_SUITE(condition_test, condition_types);

// Two threads pass a turn back and forth; each wakes the other and then waits at once. `if`,
// not `while`: a stolen or spurious wake-up returns out of turn, and a lost one hangs.
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
}

TEST(condition_death_test, leaving_without_having_waited_fails_the_checks) {
    condition changed;
    timed_condition timed;
    EXPECT_CHECK(inspector::leave(changed), "_released != 0", file);
    EXPECT_CHECK(inspector::leave(timed, false), "_queued != 0", file);
}

}  // namespace
