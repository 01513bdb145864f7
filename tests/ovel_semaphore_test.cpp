// SPDX-License-Identifier: Apache-2.0
#include "ovel_test.h"

using namespace ovel;

namespace {

constexpr char file[] = "sources/ovel_semaphore.cpp";

// That a release wakes, and what becomes visible with it, is tested with conditions, whose
// mutexes are semaphores.
template <class Semaphore>
struct semaphore_test : testing::Test {};
using semaphore_types = testing::Types<semaphore, timed_semaphore>;
TYPED_TEST_SUITE(semaphore_test, semaphore_types);

// The thread that takes the unit destroys the semaphore at once. AddressSanitizer reports a
// release that still accesses it.
TYPED_TEST(semaphore_test, the_thread_that_takes_the_last_unit_may_destroy_the_semaphore) {
    for (int round = 0; round < 500; ++round) {
        auto ready = std::make_unique<TypeParam>(0, round % 2 == 0 ? 0 : 1000);
        std::jthread other([subject = ready.get()] { subject->release(); });
        ready->acquire();
        ready.reset();
    }
}

TEST(semaphore_death_test, misuse_fails_the_checks) {
    EXPECT_CHECK(semaphore(-1, 0), "_value >= 0", file);
    EXPECT_CHECK(timed_semaphore(-1, 0), "value >= 0", file);
    EXPECT_CHECK(timed_semaphore(std::numeric_limits<int>::max(), 0).release(),
                 "ReleaseSemaphore(_semaphore, 1, 0) != 0", file);
}

}  // namespace
