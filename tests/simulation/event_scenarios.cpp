// SPDX-License-Identifier: Apache-2.0
// Events and latches: all that wait are let go, and nobody else. Deadlines on the caller's own
// clock: no wait ends before that clock reaches the deadline, and a timeout takes one wait and two
// readings.

#include "accounts.h"
#include "ovel_memory.h"
#include "ovel_std.h"

#include <cstddef>
#include <memory>
#include <mutex>

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

using namespace std::chrono_literals;

// The machine's clock, at `speed` eighths of its speed.
struct caller_clock {
    using duration = std::chrono::nanoseconds;
    using rep = duration::rep;
    using period = duration::period;
    using time_point = std::chrono::time_point<caller_clock>;
    [[maybe_unused]] static constexpr bool is_steady = true;

    static time_point now() {
        ++readings;
        return time_point(duration(static_cast<rep>(nanoseconds()) / 8 * speed));
    }

    static inline rep speed;
    static inline unsigned int readings;
};

// With variant 0 the caller's clock is the machine's. A thread may wake the waiters of the
// condition early.
void points_on_the_caller_s_clock(unsigned int variant) {
    constexpr caller_clock::rep speeds[] = {8, 7, 9};
    caller_clock::speed = speeds[variant];
    open_books(false, 0);
    lockable<timed_mutex> held, lock;
    timed_condition changed;
    bool over = false;
    bool const woken = pick(2) == 0;
    begin();
    held.lock();
    // The most kernel calls of an attempt that nothing disturbs.
    auto const keeps = [&](std::chrono::microseconds span, unsigned int most, auto const& attempt) {
        auto const point = caller_clock::now() + span;
        caller_clock::readings = 0;
        unsigned int const calls = kernel_calls();
        assure(!attempt(point));
        if (variant == 0 && !woken && span < 24h * 24)
            assure(caller_clock::readings <= 2 && kernel_calls() - calls <= most);
        assure(caller_clock::now() >= point);
    };
    {
        worker waker([&] {
            for (bool done = !woken; !done;) {
                Sleep(1 + pick(40'000'000));
                std::lock_guard const hold(lock);
                changed.release_all();
                done = over;
            }
        });
        // The last is longer than a wait can be.
        for (auto const span :
             {300us, 1490us, 25'000'000us, 3'600'000'000us, 5'184'000'000'000us}) {
            keeps(span, 1, [&](auto point) { return held.try_lock_until(point); });
            std::lock_guard const hold(lock);
            // The wait releases the mutex and takes it again.
            keeps(span, 3, [&](auto point) {
                return wait_until(changed, lock, point, [] { return false; });
            });
        }
        std::lock_guard const hold(lock);
        over = true;
    }
}

registration const table{
    {.name = "deadline_of_the_caller_is_kept", .run = points_on_the_caller_s_clock, .variants = 3},
    {.name = "event_lets_all_go_that_waited", .run = set_and_reset, .variants = 2},
    {.name = "event_may_be_destroyed_once_set", .run = destruction},
    {.name = "latch_lets_all_go", .run = steps, .variants = 4},
};

}  // namespace

}  // namespace ovel::simulation
