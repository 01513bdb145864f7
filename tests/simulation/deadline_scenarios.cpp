// SPDX-License-Identifier: Apache-2.0
// Deadlines on the caller's own clock: no wait ends before that clock reaches the deadline, and
// a timeout takes one wait and two readings.

#include "accounts.h"
#include "ovel_std.h"

#include <mutex>

namespace ovel::simulation {

namespace {

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
};

}  // namespace

}  // namespace ovel::simulation
