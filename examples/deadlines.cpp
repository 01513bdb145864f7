// SPDX-License-Identifier: Apache-2.0
// Deadlines and cancellation: how to give up waiting, and how to make others give up.

#include <ovel_condition.h>
#include <ovel_mutex.h>
#include <ovel_petri.h>
#include <ovel_std.h>
#include <ovel_work.h>

#include <chrono>
#include <cstdio>
#include <exception>
#include <future>
#include <mutex>
#include <stdexcept>
#include <stop_token>

using namespace std::chrono_literals;

namespace {

int failures = 0;

void expect(bool holds, char const* what) {
    std::printf("%s: %s\n", holds ? "yes" : "NO", what);
    failures += holds ? 0 : 1;
}

}  // namespace

int main() {
    ovel::lockable<ovel::timed_mutex> lock;
    ovel::timed_condition changed;
    bool ready = false;
    ovel::work_group group(1);

    // A lock that stays taken, and a condition that becomes true.
    {
        std::unique_lock hold(lock);
        auto tried = group.submit([&] { return lock.try_lock_for(5ms); });
        expect(!tried.get(), "who waits for a lock gives up after 5 ms");
        auto const told = group.submit([&] {
            std::lock_guard const inside(lock);
            ready = true;
            changed.release_all();
        });
        expect(wait_for(changed, hold, 1h, [&] { return ready; }), "who waits is told in time");
    }

    // Work that never ends by itself is asked to stop. Work that waits behind it is
    // dropped.
    std::stop_source cancel;
    auto endless = group.submit([token = cancel.get_token()] {
        int rounds = 0;
        while (!token.stop_requested())
            ++rounds;
        return rounds;
    });
    auto behind = group.submit([] { return 1; });
    expect(!group.join_until(10ms), "the group is not done after 10 ms");
    group.stop();
    cancel.request_stop();
    group.join();
    endless.wait();
    try {
        behind.get();
        expect(false, "what waited was dropped");
    } catch (std::future_error const&) {
        expect(true, "what waited was dropped");
    }

    // A net that never rests, and a net in which a thread is blocked.
    ovel::net net;
    auto const ball = net.insert_place<int>("ball", 2);
    auto const never = net.insert_place<int>("never", 1);
    net.insert_transition("play", from(ball), to(ball), [](int passes) { return passes + 1; });
    net.insert_transition("unused", from(never), [](int) {});
    ball.send(0);
    net.start();
    expect(!stop(net, 10ms), "the net was still at play after 10 ms");
    expect(ball.try_receive().value_or(0) > 0, "the ball is still there");

    auto blocked = std::async(std::launch::async, [never] { return never.receive(); });
    net.fail(std::make_exception_ptr(std::runtime_error("cancelled")));
    try {
        blocked.get();
        expect(false, "who was blocked in the net is told why");
    } catch (std::runtime_error const&) {
        expect(true, "who was blocked in the net is told why");
    }
    return failures;
}
