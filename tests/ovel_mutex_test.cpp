// SPDX-License-Identifier: Apache-2.0
#include "ovel_mutex.h"

#include "ovel_test.h"

#include <type_traits>

using ovel::mutex;
using ovel::recursive_mutex;
using ovel::timed_mutex;
using ovel::timed_recursive_mutex;

struct ovel::detail::inspector {
    template <class Mutex>
    static unsigned int& depth(Mutex& subject) {
        return subject._depth;
    }
};

namespace {

using ovel::detail::inspector;

template <class Mutex>
struct mutex_test : testing::Test {
    static constexpr bool is_recursive =
        std::is_same_v<Mutex, recursive_mutex> || std::is_same_v<Mutex, timed_recursive_mutex>;
};
using mutex_types = testing::Types<mutex, timed_mutex, recursive_mutex, timed_recursive_mutex>;
TYPED_TEST_SUITE(mutex_test, mutex_types);

TYPED_TEST(mutex_test, one_thread_at_a_time_owns_it) {
    TypeParam lock;
    int count = 0;
    auto const add = [&](int me) {
        for (int round = 0; round < 2000; ++round) {
            if (me == 0)
                until([&] { return lock.try_acquire(); });
            else
                lock.acquire();
            if (TestFixture::is_recursive) {
                EXPECT_TRUE(lock.try_acquire());
                lock.acquire();
                lock.release();
                lock.release();
            }
            ++count;
            lock.release();
        }
    };
    crew(3, add).clear();
    EXPECT_EQ(count, 6000);
    EXPECT_TRUE(elsewhere([&] { return lock.try_acquire(); }));  // its owner has ended
    EXPECT_FALSE(lock.try_acquire());
}

TYPED_TEST(mutex_test, a_depth_that_wraps_fails_the_check) {
    if constexpr (TestFixture::is_recursive) {
        TypeParam lock;
        lock.acquire();
        inspector::depth(lock) = std::numeric_limits<unsigned int>::max();
        EXPECT_CHECK(lock.acquire(), "++_depth != 0", "sources/ovel_mutex.cpp");
        EXPECT_CHECK(lock.try_acquire(), "++_depth != 0", "sources/ovel_mutex.cpp");
    }
}

}  // namespace
