// SPDX-License-Identifier: Apache-2.0
// The end of the process while its threads use the library.
#include "ovel_traffic.h"

namespace {

std::atomic<bool> exits = false;

// Runs after the exit hooks of the library, which must still work for this thread and all
// others.
[[gnu::destructor]] void use_after_the_hooks() {
    if (!exits)
        return;
    traffic::use_all();
    traffic::wait_for_rounds(2);
}

void leave() {
    exits = true;
    std::exit(0);
}

// Each calls `exit` on another kind of thread, and does not return.
constexpr void (*callers[])() = {
    leave,
    [] { std::thread(leave).join(); },
    [] { traffic::run_on<ovel::thread_base>(leave); },
    [] { traffic::run_on<ovel::thread>(leave); },
    [] { traffic::run_in_work_group(leave); },
    [] { traffic::run_in_net(leave); },
};

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
