// SPDX-License-Identifier: Apache-2.0
#include "ovel_test.h"

struct ovel::detail::inspector {
    template <class Mutex>
    static unsigned int& depth(Mutex& subject) {
        return subject._depth;
    }
};

namespace {

// That one thread at a time owns a mutex, of any kind, is tested with conditions.
template <class Mutex>
struct mutex_test : testing::Test {};
using recursive_types = testing::Types<ovel::recursive_mutex, ovel::timed_recursive_mutex>;
TYPED_TEST_SUITE(mutex_test, recursive_types);

TYPED_TEST(mutex_test, a_depth_that_wraps_fails_the_check) {
    TypeParam lock;
    lock.acquire();
    ovel::detail::inspector::depth(lock) = std::numeric_limits<unsigned int>::max();
    EXPECT_CHECK(lock.acquire(), "++_depth != 0", "sources/ovel_mutex.cpp");
    EXPECT_CHECK(lock.try_acquire(), "++_depth != 0", "sources/ovel_mutex.cpp");
}

}  // namespace
