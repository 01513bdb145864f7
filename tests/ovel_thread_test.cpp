// Threads of their own, the pool, and pooled threads.

#include "ovel_thread.h"

#include "ovel_allocator_group.h"
#include "ovel_allocator_support.h"
#include "ovel_test.h"
#include "ovel_thread_support.h"

#include <gtest/gtest.h>

using namespace ovel;

namespace {

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
        if (waits)
            proceed.acquire();
        ++runs;
    }

    bool const waits;
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

template <class Thread>
void start(Thread& driven, thread_function& function) {
    driven.schedule(function);
    driven.release();
}

// Both kinds of thread keep one contract towards whoever drives them.
template <class Thread>
struct thread_test : testing::Test {};

using kinds = testing::Types<thread_base, ovel::thread>;
TYPED_TEST_SUITE(thread_test, kinds);

TYPED_TEST(thread_test, many_runs_leave_neither_threads_nor_memory_behind) {
    TypeParam driven;
    EXPECT_EQ(driven.stack_size(), 524288u);
    work counted;
    start(driven, counted);
    driven.acquire();
    EXPECT_NE(counted.identifier, thread_support::thread_identifier());
    EXPECT_TRUE(counted.own_allocator);
    unsigned int const idle = thread_element_group::global()->size();
    std::size_t const used = allocator_support::allocated_size();
    for (int run = 0; run != 10'000; ++run) {  // the same work without a new schedule
        driven.release();
        driven.acquire();
    }
    EXPECT_EQ(counted.runs, 10'001);
    EXPECT_EQ(thread_element_group::global()->size(), idle);
    EXPECT_EQ(allocator_support::allocated_size(), used);
}

TYPED_TEST(thread_test, a_run_is_joined_once_it_has_ended_and_then_at_any_deadline) {
    TypeParam driven;
    work held(true);
    start(driven, held);
    EXPECT_FALSE(driven.try_acquire());
    time const deadline = time::then(0.02);
    EXPECT_FALSE(driven.timed_acquire(deadline));
    EXPECT_GE((time::now() - deadline).seconds(), -0.0006);  // whole milliseconds
    held.proceed.release();
    until([&] { return driven.timed_acquire(time()); });
    EXPECT_EQ(held.runs, 1);
}

TYPED_TEST(thread_test, work_that_throws_ends_the_process) {
    EXPECT_CHECK(
        {
            TypeParam driven;
            thrower work;
            start(driven, work);
            driven.acquire();
        },
        "(\"unexpected exception\", 0)", "sources/ovel_thread_base.cpp");
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
            start(driven, held);
            driven.schedule(held);
        },
        "_thread == 0", source);
}

TEST(run_loop_test, a_terminated_loop_ends_without_the_run_that_it_has_not_begun) {
    detail::thread_function_base loop;
    work counted;
    start(loop, counted);
    loop.terminate();
    thread_base driven;
    start(driven, loop);
    driven.acquire();
    EXPECT_EQ(counted.runs, 0);
    EXPECT_FALSE(loop.try_acquire());
}

// Sizes of its own, so that it does not matter what other tests left here.
TEST(thread_pool_test, an_idle_thread_is_lent_when_its_stack_fits_and_is_not_wasted) {
    thread_element_group& pool = *thread_element_group::global();
    auto const lend = [&](unsigned int stack) {
        return pool.acquire_element(stack);
    };
    constexpr unsigned int large = 64u << 20;
    thread_element* const first = lend(large);
    pool.release_element(first);
    thread_element* const wasteful = lend(large / 4);
    EXPECT_NE(wasteful, first);
    EXPECT_EQ(lend(large / 4 + 1), first);

    // Of those that fit, the smallest stack, and of equal ones the last put back. 0 is
    // the system's own size.
    thread_element* const larger = lend(large + 1);
    thread_element* const twin = lend(large);
    thread_element* const plain = lend(0);
    for (thread_element* each : {larger, first, wasteful, twin, plain})
        pool.release_element(each);
    for (thread_element* each : {twin, first, larger})
        EXPECT_EQ(lend(large), each);
    EXPECT_EQ(lend(0), plain);
    for (thread_element* each : {larger, twin, first, plain})
        pool.release_element(each);
}

TEST(pooled_thread_test, misuse_is_named) {
    auto const source = "sources/ovel_thread.cpp";
    work held(true);
    EXPECT_CHECK(ovel::thread().release(), "_acquired && _function != 0", source);
    EXPECT_CHECK(ovel::thread().acquire(), "!_acquired", source);
    EXPECT_CHECK(ovel::thread().timed_acquire(time()), "!_acquired", source);
    for (bool const again : {true, false})
        EXPECT_CHECK(
            {
                ovel::thread driven;
                start(driven, held);
                if (again)
                    driven.schedule(held);
            },
            "_acquired", source);
}

}  // namespace
