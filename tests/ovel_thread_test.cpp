// SPDX-License-Identifier: Apache-2.0
// Dedicated threads, the pool, and pooled threads.
#include "ovel_test.h"

using namespace ovel;

namespace {

using detail::thread_element;
using detail::thread_element_group;
using ovel::time;

template <class Thread>
Thread& start(Thread& driven, thread_function& function) {
    driven.schedule(function);
    driven.release();
    return driven;
}

// Both kinds of thread have the same contract.
template <class Thread>
struct thread_test : testing::Test {};

using kinds = testing::Types<thread_base, ovel::thread>;
TYPED_TEST_SUITE(thread_test, kinds);

TYPED_TEST(thread_test, the_same_work_runs_again_without_a_new_schedule) {
    TypeParam driven;
    int runs = 0;
    work counted([&] { ++runs; });
    driven.schedule(counted);
    for (int run = 0; run != 1000; ++run) {
        driven.release();
        if (run % 2 == 0)
            driven.acquire();
        else
            EXPECT_TRUE(driven.timed_acquire(time::then(99.0)));
    }
    EXPECT_EQ(runs, 1000);
}

TYPED_TEST(thread_test, misuse_fails_the_checks) {
    constexpr bool pooled = std::is_same_v<TypeParam, ovel::thread>;
    std::string const source = "sources/ovel_thread_base.cpp";
    std::string const file = pooled ? "sources/ovel_thread.cpp" : source;
    std::string const idle = pooled ? "_acquired" : "_thread == 0";
    std::string const running = pooled ? "!_acquired" : "_thread != 0";
    semaphore never(0, 0);
    work held([&] { never.acquire(); });
    work thrower([] { throw 1; });
    TypeParam driven;
    EXPECT_CHECK(driven.release(), idle + " && _function != 0", file);
    EXPECT_CHECK(driven.acquire(), running, file);
    EXPECT_CHECK(driven.try_acquire(), running, file);
    EXPECT_CHECK(driven.timed_acquire(time()), running, file);
    EXPECT_CHECK(start(driven, held).schedule(held), idle, file);
    if (pooled) {
        EXPECT_CHECK(start(*std::make_unique<TypeParam>(), held), idle, file);
    }
    EXPECT_CHECK(start(driven, thrower).acquire(), "(\"unexpected exception\", 0)", source);
}

TEST(run_loop_test, a_terminated_loop_skips_a_run_that_has_not_begun) {
    detail::thread_function_base loop;
    int runs = 0;
    work counted([&] { ++runs; });
    start(loop, counted).terminate();
    thread_base driven;
    start(driven, loop).acquire();
    EXPECT_EQ(runs, 0);
    EXPECT_FALSE(loop.try_acquire());
}

// Stack sizes that no other test uses: threads that those left in the pool do not matter.
TEST(thread_pool_test, an_idle_thread_is_lent_if_its_stack_fits_without_waste) {
    thread_element_group& pool = *thread_element_group::global();
    auto const lend = [&](unsigned int stack) {
        return pool.acquire_element(stack);
    };
    constexpr unsigned int large = 64u << 20;
    thread_element* const larger = lend(large + 1);
    thread_element* const first = lend(large);
    thread_element* const last = lend(large);
    thread_element* const plain = lend(0);  // of the system's own size
    auto const give_back = [&] {
        for (thread_element* each : {larger, first, last, plain})
            pool.release_element(each);
    };
    give_back();
    // Of those that fit, the smallest stack, and of equal ones the last put back.
    thread_element* const small = lend(large / 4);
    EXPECT_EQ(small->thread_base_().stack_size(), large / 4);
    EXPECT_EQ(lend(large / 4 + 1), last);
    EXPECT_EQ(lend(large), first);
    EXPECT_EQ(lend(large), larger);
    EXPECT_EQ(lend(0), plain);
    give_back();
    pool.release_element(small);
}

// With one processor every mask is the same, and the test shows nothing.
TEST(thread_pool_test, a_thread_that_returns_drops_the_processors_that_its_work_set) {
    unsigned int const all = thread_support::process_affinity();
    unsigned long restricted = 0;
    work restricts([&] {
        thread_support::thread_affinity(all & -all);
        restricted = thread_support::thread_identifier();
    });
    ovel::thread driven(48u << 20);  // a size that no other test uses
    start(driven, restricts).acquire();
    work looks([&] {
        EXPECT_TRUE(thread_support::thread_identifier_equal(thread_support::thread_identifier(),
                                                            restricted));
        EXPECT_EQ(thread_support::thread_affinity(), all);
    });
    start(driven, looks).acquire();
    EXPECT_FALSE(
        thread_support::thread_identifier_equal(thread_support::thread_identifier(), restricted));
}

TYPED_TEST(thread_test, system_monitors_show_its_name) {
    auto const read_name = [] {
        std::string name;
        std::getline(std::ifstream("/proc/thread-self/comm"), name);
        return name;
    };
    // The first thread has the program's name there, except under Wine, whose server answers.
    std::string const own = read_name();
    if (own.empty() || testing::internal::GetArgvs().front().find(own) == std::string::npos)
        GTEST_SKIP() << "the system does not show the names of threads as files";
    std::string name;
    work looks([&] { name = read_name(); });
    TypeParam driven;
    start(driven, looks).acquire();
    EXPECT_EQ(name, (std::is_same_v<TypeParam, ovel::thread>) ? "ovel-pool" : "ovel-thread");
}

}  // namespace
