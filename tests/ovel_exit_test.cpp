// SPDX-License-Identifier: Apache-2.0
// The end of the process while its threads use the library.

#include "ovel_traffic.h"

#include <cstdlib>

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

void leave() {
    exits = true;
    std::exit(0);
}

template <class Thread>
void leave_from() {
    ovel::work work(leave);
    Thread thread;
    thread.schedule(work);
    thread.release();
    thread.acquire();
}

// Each calls `exit` on another kind of thread, and does not return.
constexpr void (*callers[])() = {leave,
                                 [] { std::thread(leave).join(); },
                                 leave_from<ovel::thread_base>,
                                 leave_from<ovel::thread>,
                                 [] { ovel::work_group(1).submit(leave).get(); },
                                 [] {
                                     ovel::net net(1);
                                     auto const place = net.insert_place<int>("place", 1);
                                     net.insert_transition("leave", ovel::from(place),
                                                           [](int) { leave(); });
                                     net.start();
                                     place.send(1);
                                     net.join();
                                 }};

// While threads of all kinds use the library.
void exit_beside_traffic(void (*call)()) {
    for (int kind = 0; kind != traffic::kinds; ++kind)
        std::thread(traffic::use_until_over, kind).detach();
    traffic::fill_pool(300);
    traffic::wait_for_rounds(1);
    ovel::allocator_recycler::global()->release(1.0);
    call();
}

// The child would print a failed check, and hang if a thread waited for one that has ended.
TEST(exit_death_test, any_thread_may_end_the_process_while_all_others_use_the_library) {
    for (auto* const& call : callers)
        EXPECT_EXIT(exit_beside_traffic(call), testing::ExitedWithCode(0), "^$") << &call - callers;
}

}  // namespace
