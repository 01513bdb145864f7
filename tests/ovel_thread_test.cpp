// Threads of their own, the pool, and pooled threads.

#include "ovel_thread.h"

#include "ovel_allocator_group.h"
#include "ovel_allocator_support.h"
#include "ovel_test.h"
#include "ovel_thread_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <vector>

using namespace ovel;

// Idle elements in the order in which the pool would hand them out.
struct ovel::detail::inspector {
    static std::vector<unsigned int> idle_stacks() {
        std::vector<unsigned int> stacks;
        thread_element_group& pool = *thread_element_group::global();
        for (auto i = pool._elements.begin(); i != pool._elements.end(); ++i)
            stacks.push_back((*i)->thread_base_().stack_size());
        return stacks;
    }
    static unsigned int pool_lock_spin() {
        return thread_element_group::global()->_lock._spin;
    }
};

namespace {

using detail::inspector;
using detail::thread_element;
using detail::thread_element_group;
using ovel::time;

// Counts its runs and notes the thread of the last; waits, when it is told to, for
// a unit of `proceed` before it ends.
struct work : thread_function {
    explicit work(bool waits = false) : waits(waits) {}

    void operator()() override {
        identifier = thread_support::thread_identifier();
        own_allocator = allocator_group::global()->specific_allocator() !=
                        allocator_group::global()->default_allocator();
        begun.release();
        if (waits)
            proceed.acquire();
        ++runs;
    }

    bool const waits;
    semaphore begun{0, 0};
    semaphore proceed{0, 0};
    int runs = 0;
    unsigned long identifier = 0;
    bool own_allocator = false;
};

struct thrower : thread_function {
    void operator()() override {
        throw 1;
    }
};

// Both kinds of thread keep one contract towards whoever drives them.
template <class Thread>
struct thread_test : testing::Test {};

using kinds = testing::Types<thread_base, ovel::thread>;
TYPED_TEST_SUITE(thread_test, kinds);

TYPED_TEST(thread_test, a_run_happens_once_on_another_thread_with_an_allocator_of_its_own) {
    TypeParam driven;
    EXPECT_EQ(driven.stack_size(), 524288u);
    work counted;
    driven.schedule(counted);
    for (int run = 1; run <= 3; ++run) {  // the same work without a new schedule
        driven.release();
        driven.acquire();
        EXPECT_EQ(counted.runs, run);
    }
    EXPECT_NE(counted.identifier, thread_support::thread_identifier());
    EXPECT_TRUE(counted.own_allocator);
}

TYPED_TEST(thread_test,
           a_run_that_goes_on_is_not_joined_and_one_that_has_ended_is_at_any_deadline) {
    TypeParam driven;
    work held(true);
    driven.schedule(held);
    driven.release();
    held.begun.acquire();
    EXPECT_FALSE(driven.try_acquire());
    EXPECT_FALSE(driven.timed_acquire(time::now()));
    time const deadline = time::then(0.02);
    EXPECT_FALSE(driven.timed_acquire(deadline));
    EXPECT_GE((time::now() - deadline).seconds(), -0.0006);  // whole milliseconds
    held.proceed.release();
    EXPECT_TRUE(driven.timed_acquire(time::then(3600.0)));

    held.proceed.release();
    driven.release();
    while (!driven.timed_acquire(time())) {}
    EXPECT_EQ(held.runs, 2);
}

TYPED_TEST(thread_test, many_runs_leave_neither_threads_nor_memory_behind) {
    TypeParam driven;
    work counted;
    driven.schedule(counted);
    driven.release();
    driven.acquire();
    unsigned int const idle = thread_element_group::global()->size();
    std::size_t const used = allocator_support::allocated_size();
    for (int run = 0; run != 10'000; ++run) {
        driven.release();
        driven.acquire();
    }
    EXPECT_EQ(counted.runs, 10'001);
    EXPECT_EQ(thread_element_group::global()->size(), idle);
    EXPECT_EQ(allocator_support::allocated_size(), used);
}

TYPED_TEST(thread_test, work_that_throws_ends_the_process) {
    EXPECT_CHECK(
        {
            TypeParam driven;
            thrower work;
            driven.schedule(work);
            driven.release();
            driven.acquire();
        },
        "(\"unexpected exception\", 0)", "sources/ovel_thread_base.cpp");
}

TEST(thread_base_test, a_start_returns_once_the_thread_has_begun_and_the_object_may_go) {
    work counted;
    for (int round = 0; round != 200; ++round) {
        auto driven = std::make_unique<thread_base>(16384u);
        driven->schedule(counted);
        driven->release();
        counted.begun.acquire();
        driven->acquire();
    }
    EXPECT_EQ(counted.runs, 200);
}

TEST(thread_base_test, misuse_is_named) {
    auto const source = "sources/ovel_thread_base.cpp";
    work held(true);
    EXPECT_CHECK(thread_base().release(), "_thread == 0 && _function != 0", source);
    EXPECT_CHECK(thread_base().acquire(), "_thread != 0", source);
    EXPECT_CHECK(thread_base().try_acquire(), "_thread != 0", source);
    EXPECT_CHECK(
        {
            thread_base driven;
            driven.schedule(held);
            driven.release();
            driven.schedule(held);
        },
        "_thread == 0", source);
}

TEST(run_loop_test, a_running_loop_may_be_told_to_end_at_any_moment) {
    work counted;
    for (int round = 0; round != 100; ++round) {
        detail::thread_function_base loop;
        thread_base driven;
        driven.schedule(loop);
        driven.release();
        loop.schedule(counted);
        loop.release();
        loop.terminate();
        driven.acquire();
    }
    EXPECT_LE(counted.runs, 100);
}

TEST(run_loop_test, a_terminated_loop_ends_without_the_run_that_it_has_not_begun) {
    detail::thread_function_base loop;
    work counted;
    loop.schedule(counted);
    loop.release();
    loop.terminate();
    thread_base driven;
    driven.schedule(loop);
    driven.release();
    driven.acquire();
    EXPECT_EQ(counted.runs, 0);
    EXPECT_FALSE(loop.try_acquire());
}

TEST(thread_pool_test, an_idle_thread_is_lent_when_its_stack_fits_and_is_not_wasted) {
    thread_element_group& pool = *thread_element_group::global();
    // Sizes of its own, so that it does not matter what other tests left here.
    constexpr unsigned int large = 64u << 20;
    std::size_t const before = pool.size();
    thread_element* const first = pool.acquire_element(large);
    pool.release_element(first);
    EXPECT_EQ(pool.size(), before + 1);

    thread_element* const wasteful = pool.acquire_element(large / 4);
    EXPECT_NE(wasteful, first);
    thread_element* const fits = pool.acquire_element(large / 4 + 1);
    EXPECT_EQ(fits, first);
    EXPECT_EQ(pool.size(), before);
    thread_element* const larger = pool.acquire_element(large + 1);
    EXPECT_NE(larger, first);

    // Put back in another order, they stand in the order of their stacks, and of
    // equal ones the last comes first.
    thread_element* const twin = pool.acquire_element(large);
    for (thread_element* each : {larger, first, wasteful, twin})
        pool.release_element(each);
    auto const stacks = inspector::idle_stacks();
    EXPECT_TRUE(std::is_sorted(stacks.begin(), stacks.end()));
    EXPECT_EQ(pool.acquire_element(large), twin);
    EXPECT_EQ(pool.acquire_element(large), first);
    pool.release_element(first);
    pool.release_element(twin);
}

TEST(thread_pool_test, a_thread_of_the_systems_stack_size_serves_the_next_such_request) {
    thread_element_group& pool = *thread_element_group::global();
    thread_element* const first = pool.acquire_element(0);
    pool.release_element(first);
    thread_element* const again = pool.acquire_element(0);
    EXPECT_EQ(again, first);
    pool.release_element(again);
}

TEST(thread_pool_test, its_lock_is_built_before_there_is_a_spin_count) {
    EXPECT_EQ(inspector::pool_lock_spin(), 0u);
}

TEST(pooled_thread_test, runs_one_after_another_share_a_thread_and_runs_at_once_do_not) {
    ovel::thread first(100'000);
    ovel::thread second(100'000);
    work one(true);
    work other(true);
    first.schedule(one);
    second.schedule(other);
    first.release();
    second.release();
    one.begun.acquire();
    other.begun.acquire();
    EXPECT_NE(one.identifier, other.identifier);
    unsigned long const was = one.identifier;
    one.proceed.release();
    first.acquire();
    one.proceed.release();
    first.release();
    first.acquire();
    EXPECT_EQ(one.identifier, was);
    other.proceed.release();
    second.acquire();
}

TEST(pooled_thread_test, misuse_is_named) {
    auto const source = "sources/ovel_thread.cpp";
    work held(true);
    auto const start = [&held](ovel::thread& driven) {
        driven.schedule(held);
        driven.release();
    };
    EXPECT_CHECK(ovel::thread().release(), "_acquired && _function != 0", source);
    EXPECT_CHECK(ovel::thread().acquire(), "!_acquired", source);
    EXPECT_CHECK(ovel::thread().timed_acquire(time()), "!_acquired", source);
    EXPECT_CHECK(
        {
            ovel::thread driven;
            start(driven);
            driven.schedule(held);
        },
        "_acquired", source);
    EXPECT_CHECK(
        {
            ovel::thread driven;
            start(driven);
        },
        "_acquired", source);
}

}  // namespace
