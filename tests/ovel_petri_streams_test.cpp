// SPDX-License-Identifier: Apache-2.0
// Typed nets and the threads outside: places that end, waits with limits, and every way in
// which a blocked thread is let go.
#include "ovel_typed_nets.h"

#include <functional>
#include <stop_token>

namespace {

template <class T>
std::vector<T> all_of(place<T> const& from) {
    std::vector<T> tokens;
    while (std::optional<T> token = from.next())
        tokens.push_back(*std::move(token));
    return tokens;
}

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

// A thread is blocked in each operation when the net is halted, stopped, failed, closed or
// destroyed, running or not. Where it runs, two are asked to stop before. What was not sent is
// still its sender's.
TEST(petri_streams_test, no_thread_stays_blocked) {
    using token = std::unique_ptr<int>;
    for (bool const running : {true, false})
        for (std::string_view const how : {"halt", "stop", "fail", "close", "destroy"}) {
            SCOPED_TRACE(how);
            auto tested = std::make_optional<net>(1);
            auto const empty = tested->insert_place<int>("empty", 1);
            auto const full = tested->insert_place<token>("full", 1);
            auto const idle = tested->insert_place<int>("idle", 1);
            tested->insert_transition("idle", from(idle), [](int) {});
            full.send(std::make_unique<int>(0));
            if (running || how == "stop")
                tested->start();
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
                until([&] { return ovel::detail::inspector::blocked(*tested) == count; });
            };
            await_blocked(7);
            if (running) {
                asked.request_stop();
                await_blocked(5);
            }
            if (how == "halt")
                tested->halt();
            else if (how == "stop")
                EXPECT_TRUE(stop(*tested, 1h));
            else if (how == "fail")
                tested->fail(std::make_exception_ptr(1));
            else if (how == "close")
                empty.close(), full.close();
            else
                tested.reset();
            if (tested)
                await_blocked(0);
            callers.clear();
            EXPECT_EQ(failures, how != "fail" ? 0 : running ? 5 : 7);
        }
}

// An arc of weight 2 at a place with one token left; a transition that is switched off; and
// one whose result has no place any more.
TEST(petri_streams_test, a_transition_that_can_t_fire_again_has_ended) {
    net tested(1);
    auto const [pairs, off, shut] = insert_places<int>(tested, 4, "pairs", "off", "shut");
    auto const out = tested.insert_place<int>("out", 4, ovel::closes);
    tested.insert_transition("pair", from(pairs.times(2)), to(out),
                             [](std::vector<int> pair) { return pair[0] + pair[1]; });
    auto const switched = tested.insert_transition("off", from(off), to(out), pass_on);
    tested.insert_transition("both", to(out, shut), [] { return std::tuple(0, 0); });
    fill(pairs, {1, 2, 3});
    pairs.close();
    switched.deactivate();
    shut.close();
    tested.start();
    EXPECT_EQ(out.receive(), 3);
    EXPECT_FALSE(out.receive_until(1ms).has_value());
    EXPECT_EQ(pairs.size(), 1u);
    EXPECT_FALSE(pairs.ended() || out.ended());
    off.close();
    EXPECT_FALSE(out.next().has_value());
    EXPECT_TRUE(out.ended());
    switched.activate();
    tested.join();
}

// One place has ended before a body is there to hear of it, another before the transition that
// puts behind it; also where the net has run before.
TEST(petri_streams_test, what_is_closed_while_a_net_is_built_ends_at_its_start) {
    for (bool const again : {false, true}) {
        net tested(1);
        auto const [empty, other] = insert_places<int>(tested, 1, "empty", "other");
        auto const out = tested.insert_place<int>("out", 2, ovel::closes);
        if (again)
            run(tested);
        empty.close();
        other.send(1);
        other.close();
        tested.insert_transition("last", from(empty), to(out),
                                 [](std::optional<int> token) { return token.value_or(2); });
        tested.insert_transition("pass", from(other), to(out), pass_on);
        EXPECT_FALSE(out.ended());
        tested.start();
        std::vector<int> tokens = all_of(out);
        std::ranges::sort(tokens);
        EXPECT_EQ(tokens, (std::vector{1, 2}));
        tested.join();
    }
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
