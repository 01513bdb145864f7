// SPDX-License-Identifier: Apache-2.0
// Thread groups, as far as scenarios on the simulated kernel do not test them.
#include "ovel_test.h"

using namespace ovel;

namespace {

// Starts the group and waits until it has run what is scheduled.
void run(thread_group& group) {
    group.release();
    group.conclude();
    group.acquire();
}

// The loop of a worker without a crew, on fields of the caller's: an item that does not fit waits
// until another one ends.
TEST(worker_loop_test, it_runs_what_fits_and_ends_with_the_queue) {
    mutex lock;
    condition changed;
    double space = 1.0;
    bool concluded = false;
    detail::thread_group_function_base::queue waiting;
    detail::thread_group_function_base first(lock, changed, space, concluded, waiting);
    detail::thread_group_function_base second(first);
    std::atomic<int> ran = 0, used = 0;
    work item([&] {
        EXPECT_EQ(used.fetch_add(1), 0);
        until(
            [start = ovel::time::now()] { return (ovel::time::now() - start).seconds() > 0.001; });
        --used;
        ++ran;
    });
    auto workers = crew(2, [&](int member) { member == 0 ? first() : second(); });
    for (int i = 0; i != 20; ++i) {
        lock.acquire();
        waiting.insert({&item, 1.0, 0.6});
        concluded = i == 19;
        lock.release();
        changed.release_all();
    }
    workers.clear();
    EXPECT_EQ(ran, 20);
    EXPECT_EQ(space, 1.0);
    EXPECT_FALSE(first.runs_caller());
}

TEST(thread_group_test, misuse_fails_the_checks) {
    char const* const file = "sources/ovel_thread_group.cpp";
    char const* const bounds = "time_ > 0 && space_ >= 0 && space_ <= _space";
    work none([] {});
    work thrower([] { throw 1; });
    thread_group group(1, 1.0, 65536), throwing;
    EXPECT_EQ(group.threads(), 1u);
    EXPECT_EQ(group.stack_size(), 65536u);
    EXPECT_CHECK(thread_group(0, 1.0, 65536), "_threads != 0 && space >= 0", file);
    EXPECT_CHECK(thread_group(1, -1.0, 65536), "_threads != 0 && space >= 0", file);
    EXPECT_CHECK(group.schedule(none, 1.0, 1.5), bounds, file);
    EXPECT_CHECK(group.schedule(none, 0.0, 0.5), bounds, file);
    EXPECT_CHECK(group.schedule(none, 1.0, -0.5), bounds, file);
    EXPECT_CHECK(group.acquire(), "_function != 0 && _acquired != _threads", file);
    EXPECT_CHECK((run(group), group.try_acquire()), "_function != 0 && _acquired != _threads",
                 file);
    EXPECT_CHECK((group.conclude(), group.schedule(none, 1.0, 0.0)), "!_concluded", file);
    EXPECT_CHECK((group.conclude(), group.clear()), "!_concluded", file);
    EXPECT_CHECK((group.conclude(), group.conclude()), "!_concluded", file);
    EXPECT_CHECK((group.release(), group.release()), "_acquired == _threads", file);
    EXPECT_CHECK(thread_group().release(), "_acquired == _threads", file);
    thread_group joining(2, 0.0, 65536);
    work joiner([&] { joining.acquire(); });
    joining.schedule(joiner, 1.0, 0.0);
    EXPECT_CHECK(run(joining), "!_runs_caller()", file);
    throwing.schedule(thrower, 1.0, 0.0);
    EXPECT_CHECK(run(throwing), "(\"unexpected exception\", 0)", file);
}

}  // namespace
