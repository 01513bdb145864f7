// SPDX-License-Identifier: Apache-2.0
// Typed nets and the threads outside: places that end, waits with limits, and every way in
// which a blocked thread is let go.
#include "ovel_typed_nets.h"

namespace {

TEST(petri_streams_test, behind_its_limit_a_call_still_tries_once) {
    net tested(1);
    auto const only = tested.insert_place<int>("only", 1);
    std::stop_source asked;
    asked.request_stop();
    auto const past = std::chrono::system_clock::now() - 1h;
    EXPECT_TRUE(only.send_until(1, past));
    EXPECT_FALSE(only.send_until(2, past));
    EXPECT_EQ(only.receive_until(past), 1);
    EXPECT_FALSE(only.receive_until(past).has_value());
    EXPECT_TRUE(only.send_until(3, asked.get_token()));
    EXPECT_FALSE(only.send_until(4, asked.get_token()));
    EXPECT_EQ(only.receive_until(asked.get_token()), 3);
    EXPECT_FALSE(only.receive_until(asked.get_token()).has_value());
    auto const point = std::chrono::steady_clock::now() + 20ms;
    EXPECT_FALSE(only.receive_until(point).has_value());
    EXPECT_GE(std::chrono::steady_clock::now(), point);
    // Nor is anybody let in between a halt and the end of the join.
    tested.start();
    tested.halt();
    EXPECT_TRUE(only.send(5));
    EXPECT_FALSE(only.send(6));
    EXPECT_EQ(only.receive(), 5);
    EXPECT_THROW(only.receive(), ovel::stopped);
    tested.join();
}

// A thread is blocked in each operation when the net is halted, is stopped, fails or is destroyed,
// or its places are closed. Two are asked to stop before. What was not sent is still its sender's.
TEST(petri_streams_test, no_thread_stays_blocked) {
    using token = std::unique_ptr<int>;
    for (std::string_view const how : {"halt", "stop", "fail", "close", "end"}) {
        auto owner = std::make_unique<net>(1u);
        net& tested = *owner;
        auto const empty = tested.insert_place<int>("empty", 1);
        auto const full = tested.insert_place<token>("full", 1);
        full.send(std::make_unique<int>(0));
        tested.start();
        std::stop_source asked;
        std::function<bool(token&)> const calls[] = {
            [&](token&) { return empty.receive(), true; },
            [&](token&) { return empty.next().has_value(); },
            [&](token&) { return empty.receive_until(24h).has_value(); },
            [&](token&) { return empty.receive_until(asked.get_token()).has_value(); },
            [&](token& kept) { return full.send(std::move(kept)); },
            [&](token& kept) { return full.send_until(std::move(kept), 24h); },
            [&](token& kept) {
                return full.send_until(std::move(kept), asked.get_token());
            }};
        std::atomic<int> failures = 0;
        auto callers = crew(7, [&](int call) {
            auto kept = std::make_unique<int>(1);
            try {
                EXPECT_FALSE(calls[call](kept)) << call;
            } catch (ovel::stopped const&) {
                EXPECT_EQ(call, 0);
            } catch (int) {
                ++failures;
            }
            EXPECT_TRUE(kept != nullptr);
        });
        auto const await_blocked = [&](unsigned int count) {
            until([&] { return ovel::detail::inspector::blocked(tested) == count; });
        };
        await_blocked(7);
        asked.request_stop();
        await_blocked(5);
        if (how == "halt")
            tested.halt();
        else if (how == "stop")
            EXPECT_TRUE(stop(tested, 1h));
        else if (how == "fail")
            tested.fail(std::make_exception_ptr(1));
        else if (how == "close")
            empty.close(), full.close();
        else
            owner.reset();
        callers.clear();
        EXPECT_EQ(failures, how == "fail" ? 5 : 0);
    }
}

TEST(petri_streams_test, a_call_at_the_end_that_throws_fails_the_net) {
    net tested(1);
    auto const in = tested.insert_place<int>("in", 1);
    auto const out = tested.insert_place<int>("out", 2, ovel::closes);
    tested.insert_transition("last", from(in), to(out), [](std::optional<int> token) {
        return token.has_value() ? token : throw 1;
    });
    in.send(2);
    in.close();
    EXPECT_THROW(run(tested), int);
    EXPECT_EQ(out.receive(), 2);
    EXPECT_THROW(out.receive(), int);
}

TEST(petri_streams_test, other_threads_may_halt_and_ask_while_a_net_is_built) {
    net tested(1);
    auto const in = tested.insert_place<int>("in", 1);
    std::atomic<int> halts{0};
    std::jthread const other([&](std::stop_token stop) {
        for (; !stop.stop_requested(); ++halts) {
            tested.halt();
            static_cast<void>(tested.explain());
        }
    });
    for (int each = 0; each < 100 || halts < 100; ++each) {
        tested.insert_place<int>("more", 1);
        tested.insert_transition("take", from(in), [](std::optional<int>, std::stop_token) {});
    }
}

}  // namespace
