// SPDX-License-Identifier: Apache-2.0
// Typed nets and the threads outside: places that end, waits with limits, and every way in
// which a blocked thread is let go.
#include "ovel_typed_nets.h"

#include <functional>
#include <random>
#include <stop_token>

namespace {

template <class T>
std::vector<T> all_of(place<T> const& from) {
    std::vector<T> tokens;
    while (std::optional<T> token = from.next())
        tokens.push_back(*std::move(token));
    return tokens;
}

// Batches of three, the last of which is flushed, through two places that close by
// themselves; a second consumer of the first place ends as well.
TEST(petri_streams_test, the_end_of_a_place_passes_through_the_net_behind_all_tokens) {
    for (int const count : {0, 3, 8, 100}) {
        SCOPED_TRACE(count);
        net tested(2);
        auto const numbers = tested.insert_place<int>("numbers", 4);
        auto const doubled = tested.insert_place<int>("doubled", 2, ovel::closes);
        auto const batches = tested.insert_place<std::vector<int>>("batches", 1, ovel::closes);
        tested.insert_transition("double", from(numbers), to(doubled),
                                 [](int number) { return 2 * number; });
        tested.insert_transition("double too", from(numbers), to(doubled),
                                 [](int number) { return 2 * number; }, {.reentrant = true});
        int flushes = 0;
        tested.insert_transition(
            "batch", from(doubled), to(batches),
            [&, batch = std::vector<int>()](std::optional<int> number) mutable {
                flushes += !number.has_value();
                if (number)
                    batch.push_back(*number);
                bool const full = batch.size() == 3 || (!number && !batch.empty());
                return full ? std::optional(std::exchange(batch, {})) : std::nullopt;
            });
        tested.start();
        std::jthread const sender([&] {
            for (int number = 0; number != count; ++number)
                EXPECT_TRUE(numbers.send(number));
            numbers.close();
            numbers.close();
            EXPECT_FALSE(numbers.send(1));
            EXPECT_FALSE(numbers.try_send(1));
        });
        int sum = 0;
        for (std::vector<int> const& batch : all_of(batches))
            for (int const number : batch)
                sum += number;
        EXPECT_EQ(sum, count * (count - 1));
        EXPECT_EQ(flushes, 1);
        EXPECT_TRUE(batches.ended() && doubled.ended());
        EXPECT_THROW(batches.receive(), ovel::stopped);
        tested.join();
    }
}

// Deadlines and stop requests race with a net that makes room: what was sent has arrived,
// and what was not is still its sender's.
TEST(petri_streams_test, an_interrupted_send_leaves_the_value_with_its_sender) {
    net tested(1);
    using token = std::unique_ptr<int>;
    auto const in = tested.insert_place<token>("in", 1);
    int received = 0;
    tested.insert_transition("take", from(in), [&](token held) { received += *held; });
    tested.start();
    std::atomic<int> sent{0};
    {
        std::vector<std::stop_source> sources(300);
        auto const senders = crew(3, [&](int member) {
            for (int each = 0; each != 300; ++each) {
                auto mine = std::make_unique<int>(1);
                std::stop_source& source = sources[static_cast<unsigned int>(each)];
                bool const done =
                    member == 0 ? in.send_until(std::move(mine), std::chrono::microseconds(each))
                                : in.send_until(std::move(mine), source.get_token());
                EXPECT_EQ(done, mine == nullptr);
                sent += done;
                if (member == 1)
                    source.request_stop();
            }
        });
    }
    tested.join();
    EXPECT_EQ(received, sent);
    EXPECT_GE(sent, 300);  // that of member 1, which nobody but itself stops, but for late ones
}

TEST(petri_streams_test, a_limit_that_has_passed_still_tries_once) {
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
}

// A thread is blocked in each operation when the net is halted, stopped, failed, closed or
// destroyed, running or not.
TEST(petri_streams_test, no_thread_stays_blocked) {
    enum class way { halt, stop, fail, close, end };
    std::stop_source never;
    for (bool const running : {true, false})
        for (way const how : {way::halt, way::stop, way::fail, way::close, way::end}) {
            SCOPED_TRACE(static_cast<int>(how));
            auto tested = std::make_optional<net>(1);
            auto const empty = tested->insert_place<int>("empty", 1);
            auto const full = tested->insert_place<std::unique_ptr<int>>("full", 1);
            auto const idle = tested->insert_place<int>("idle", 1);
            tested->insert_transition("idle", from(idle), [](int) {});
            full.send(std::make_unique<int>(0));
            if (running || how == way::stop)
                tested->start();
            using token = std::unique_ptr<int>;
            std::function<bool(token&)> const calls[] = {
                [&](token&) { return empty.receive(), true; },
                [&](token&) { return empty.next().has_value(); },
                [&](token&) { return empty.receive_until(24h).has_value(); },
                [&](token&) { return empty.receive_until(never.get_token()).has_value(); },
                [&](token& kept) { return full.send(std::move(kept)); },
                [&](token& kept) { return full.send_until(std::move(kept), 24h); },
                [&](token& kept) {
                    return full.send_until(std::move(kept), never.get_token());
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
            until([&] { return ovel::detail::inspector::blocked(*tested) == 7; });
            if (how == way::halt)
                tested->halt();
            else if (how == way::stop)
                EXPECT_TRUE(stop(*tested, 1h));
            else if (how == way::fail)
                tested->fail(std::make_exception_ptr(1));
            else if (how == way::close)
                empty.close(), full.close();
            else
                tested.reset();
            if (tested)
                until([&] { return ovel::detail::inspector::blocked(*tested) == 0; });
            callers.clear();
            EXPECT_EQ(failures, how == way::fail ? 7 : 0);
        }
}

// Between a halt and the end of the join threads are not let in; then the net may be fed and
// started again.
TEST(petri_streams_test, a_halted_net_lets_nobody_in_until_it_is_stopped) {
    net tested(1);
    auto const in = tested.insert_place<int>("in", 1);
    auto const out = tested.insert_place<int>("out", 1);
    tested.insert_transition("pass", from(in), to(out), [](int token) { return token; });
    tested.start();
    tested.halt();
    EXPECT_THROW(out.receive(), ovel::stopped);
    EXPECT_TRUE(in.send(1));
    EXPECT_FALSE(in.send(2));
    tested.join();
    std::jthread const receiver([&] { EXPECT_EQ(out.next(), 1); });
    until([&] { return ovel::detail::inspector::blocked(tested) == 1; });
    tested.start();
    tested.join();
}

// The body that takes the end has failed before, so it gets the call after the next start.
TEST(petri_streams_test, a_failure_is_thrown_where_a_place_has_ended) {
    net tested(1);
    auto const in = tested.insert_place<int>("in", 1);
    auto const out = tested.insert_place<int>("out", 1, ovel::closes);
    tested.insert_transition("fail", from(in), to(out), [](std::optional<int> token) {
        if (token)
            throw std::runtime_error("token");
        return 0;
    });
    in.send(1);
    in.close();
    tested.start();
    EXPECT_THROW(static_cast<void>(out.next()), std::runtime_error);
    EXPECT_THROW(tested.join(), std::runtime_error);
    EXPECT_THROW(static_cast<void>(out.next()), std::runtime_error);
    tested.start();  // the end was not lost
    EXPECT_EQ(all_of(out), std::vector{0});
    tested.join();
}

// An arc of weight 2 at a place with one token left; a transition that is switched off; and
// one whose result has no place any more.
TEST(petri_streams_test, a_transition_that_can_t_fire_again_has_ended) {
    net tested(1);
    auto const pairs = tested.insert_place<int>("pairs", 4);
    auto const off = tested.insert_place<int>("off", 4);
    auto const shut = tested.insert_place<int>("shut", 4);
    auto const out = tested.insert_place<int>("out", 4, ovel::closes);
    tested.insert_transition("pair", from(pairs.times(2)), to(out),
                             [](std::vector<int> pair) { return pair[0] + pair[1]; });
    auto const switched =
        tested.insert_transition("off", from(off), to(out), [](int token) { return token; });
    tested.insert_transition("both", to(out, shut), [] { return std::tuple(0, 0); });
    for (int const token : {1, 2, 3})
        pairs.send(token);
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
        auto const empty = tested.insert_place<int>("empty", 1);
        auto const other = tested.insert_place<int>("other", 1);
        auto const out = tested.insert_place<int>("out", 2, ovel::closes);
        if (again)
            run(tested);
        empty.close();
        other.send(1);
        other.close();
        tested.insert_transition("last", from(empty), to(out),
                                 [](std::optional<int> token) { return token.value_or(2); });
        tested.insert_transition("pass", from(other), to(out), [](int token) { return token; });
        EXPECT_FALSE(out.ended());
        tested.start();
        int sum = 0;
        for (int const token : all_of(out))
            sum += token;
        EXPECT_EQ(sum, 3);
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

// Random chains and forks of closing places, with bodies that throw, halts and restarts: each
// token is somewhere, or was lost by a body that threw, and the end comes last.
TEST(petri_streams_test, closing_nets_of_any_structure_keep_their_tokens) {
    for (unsigned int seed = 1; seed != 60; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 numbers(seed);
        auto const below = [&](unsigned int bound) {
            return static_cast<unsigned int>(numbers() % bound);
        };
        net tested(1 + below(2));
        unsigned int const stages = 2 + below(4);
        std::vector<place<int>> places;
        for (unsigned int each = 0; each != stages; ++each)
            places.push_back(tested.insert_place<int>("place " + std::to_string(each), 1 + below(3),
                                                      {.closes = each != 0}));
        std::atomic<int> lost{0}, fuse{static_cast<int>(below(30))}, flushed{0};
        int expected_flushes = 0;
        for (unsigned int each = 1; each != stages; ++each)
            for (unsigned int of = 1 + below(2); of != 0; --of) {
                auto const pass = [&](int token) {
                    if (--fuse == 0) {
                        ++lost;
                        throw token;
                    }
                    return token;
                };
                auto const flush = [&, pass](std::optional<int> token) {
                    flushed += !token;
                    return token ? std::optional(pass(*token)) : std::nullopt;
                };
                auto const in = from(places[each - 1]);
                auto const out = to(places[each]);
                ovel::transition_options const options{.reentrant = below(2) == 0};
                bool const flushes = below(2) == 0;
                expected_flushes += flushes;
                if (flushes)
                    tested.insert_transition("flush", in, out, flush, options);
                else
                    tested.insert_transition("pass", in, out, pass, options);
            }
        constexpr int tokens = 40;
        int failures = 0, received = 0;
        std::jthread const sender([&] {
            for (int token = 0; token != tokens;)
                try {
                    token += places.front().send(token);
                } catch (int) {
                    std::this_thread::yield();
                }
            places.front().close();
        });
        for (bool over = false; !over;) {
            tested.start();
            std::jthread const stopper([&, spins = below(200)] {
                for (unsigned int each = spins; each != 0; --each)
                    std::this_thread::yield();
                if (spins % 2 == 0)
                    tested.halt();
            });
            try {
                while (places.back().next())
                    ++received;
                over = places.back().ended();
            } catch (int) {}
            try {
                static_cast<void>(stop(tested, 0ms));
            } catch (int) {
                ++failures;
                over = false;
            }
        }
        EXPECT_EQ(received + lost, tokens);
        EXPECT_EQ(failures, lost);
        EXPECT_EQ(flushed, expected_flushes);
        for (auto const& each : places)
            EXPECT_TRUE(each.ended());
    }
}

}  // namespace
