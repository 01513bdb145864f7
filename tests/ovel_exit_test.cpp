// SPDX-License-Identifier: Apache-2.0
// The end of the process while its threads use the library.

#include "ovel_traffic.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>

namespace {

std::atomic<bool> exits = false;

// Runs after the exit hooks of the library, which must still work for this thread and all
// others.
[[gnu::destructor]] void use_after_the_hooks() {
    if (!exits)
        return;
    traffic::fill_pool(3);
    for (int kind = 0; kind != traffic::kinds; ++kind)
        traffic::use(kind);
    traffic::wait_for_rounds(2);
}

enum class caller { first, foreign, owned, pooled, worker, firing };

// A thread of the kind given calls `exit` while threads of all kinds use the library.
[[noreturn]] void exit_from(caller which) {
    auto const leave = [] {
        exits = true;
        std::exit(0);
    };
    for (int kind = 0; kind != traffic::kinds; ++kind)
        std::thread(traffic::use_until_over, kind).detach();
    traffic::fill_pool(300);
    traffic::wait_for_rounds(1);
    ovel::allocator_recycler::global()->release(1.0);
    ovel::work work(leave);
    ovel::thread_base owned;
    ovel::thread pooled;
    ovel::work_group group(1);
    ovel::net net(1);
    auto const place = net.insert_place<int>("place", 1);
    net.insert_transition("leave", ovel::from(place), [&](int) { leave(); });
    switch (which) {
        case caller::first:
            leave();
            break;
        case caller::foreign:
            std::thread(leave).detach();
            break;
        case caller::owned:
            owned.schedule(work);
            owned.release();
            break;
        case caller::pooled:
            pooled.schedule(work);
            pooled.release();
            break;
        case caller::worker:
            group.submit(leave);
            break;
        case caller::firing:
            net.start();
            place.send(1);
            break;
    }
    for (;;)
        std::this_thread::yield();
}

// The child would print a failed check, and hang if a thread waited for one that has ended.
TEST(exit_death_test, any_thread_may_end_the_process_while_all_others_use_the_library) {
    for (caller const which : {caller::first, caller::foreign, caller::owned, caller::pooled,
                               caller::worker, caller::firing})
        EXPECT_EXIT(exit_from(which), testing::ExitedWithCode(0), "^$") << static_cast<int>(which);
}

}  // namespace
