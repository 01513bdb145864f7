// SPDX-License-Identifier: Apache-2.0
// Events and latches: all that wait are let go, and nobody else.

#include "accounts.h"
#include "ovel_memory.h"
#include "ovel_std.h"

#include <cstddef>
#include <memory>

namespace ovel::simulation {

namespace {

// Threads that wait are let go by a `set` that a `reset` follows at once, while another begins
// to wait, which only the next `set` lets go. Or they give up at deadlines meanwhile.
void set_and_reset(unsigned int variant) {
    bool const timed = variant == 1;
    open_books(timed, 0);
    event opened;
    detail::atomic<bool> again = false;
    begin();
    auto const wait = [&] {
        if (timed)
            static_cast<void>(opened.wait_until(time::then(0.003)));
        else
            opened.wait();
    };
    worker first(wait), second(wait);
    if (!timed)
        settle();
    opened.set();
    opened.reset();
    worker late([&] {
        opened.wait();
        assure(again);
    });
    first.join();
    second.join();
    again = true;
    opened.set();
}

// So large that its memory goes back to the runtime heap, which sees each later access.
struct watched {
    event done;
    std::byte rest[8192];
};

// A thread that finds the event set destroys it while the thread that set it has yet to leave.
void destruction(unsigned int) {
    open_books(true, 0);
    container_allocator<watched> heap;
    watched* const memory = std::construct_at(heap.allocate(1));
    begin();
    worker setter([memory] { memory->done.set(); });
    if (!memory->done.wait_until(time::then(0.003)))
        memory->done.wait();
    std::destroy_at(memory);
    heap.deallocate(memory, 1);
}

// The last step lets all go that wait. Each of them finds all steps done, and may destroy
// the latch if it is the only one.
void steps(unsigned int variant) {
    bool const timed = variant % 2 != 0;
    unsigned int const waiters = 1 + variant / 2;
    open_books(timed, 0);
    auto loaded = std::make_unique<latch>(2);
    detail::atomic<int> done = 0;
    begin();
    std::deque<worker> others;
    for (int step = 0; step != 2; ++step)
        others.emplace_back([&] {
            ++done;
            loaded->count_down();
        });
    auto const wait = [&] {
        if (!timed || !loaded->wait_until(time::then(0.003)))
            loaded->wait();
        assure(done == 2 && loaded->try_wait());
    };
    if (waiters == 2)
        others.emplace_back(wait);
    wait();
    if (waiters == 2)
        others.clear();
    loaded.reset();
}

registration const table{
    {.name = "event_lets_all_go_that_waited", .run = set_and_reset, .variants = 2},
    {.name = "event_may_be_destroyed_once_set", .run = destruction},
    {.name = "latch_lets_all_go", .run = steps, .variants = 4},
};

}  // namespace

}  // namespace ovel::simulation
