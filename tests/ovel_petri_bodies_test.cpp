// SPDX-License-Identifier: Apache-2.0
// Typed nets: what bodies take and return, how a program reads the state of its net, and nets
// that move.
#include "ovel_typed_nets.h"

#include <any>
#include <span>
#include <variant>

namespace {

// Of what cannot be copied, in the order in which they came; fewer than the arc puts leave
// slots free. An array may be a token as well.
TEST(petri_bodies_test, weighted_arcs_are_arrays_and_vectors) {
    using token = std::unique_ptr<int>;
    net tested(1);
    auto const in = tested.insert_place<token>("in", 6);
    auto const middle = tested.insert_place<token>("middle", 8);
    auto const out = tested.insert_place<int>("out", 4);
    auto const points = tested.insert_place<std::array<int, 3>>("points", 1);
    tested.insert_transition("swap", from(in.times(2)), to(middle.times(3)),
                             [](std::array<token, 2> pair) {
                                 std::vector<token> made;
                                 made.push_back(std::move(pair[1]));
                                 made.push_back(std::move(pair[0]));
                                 return made;
                             });
    tested.insert_transition("digits", from(middle.times(3)), to(out), [](auto digits) {
        return 100 * *digits[0] + 10 * *digits[1] + *digits[2];
    });
    tested.insert_transition("sum", from(points), to(out), [](std::array<int, 3> point) {
        return point[0] + point[1] + point[2];
    });
    points.send({1, 2, 4});
    for (int const each : {1, 2, 3, 4, 5, 6})
        in.send(std::make_unique<int>(each));
    run(tested);
    std::vector<int> made = drain(out);
    std::ranges::sort(made);
    EXPECT_EQ(made, (std::vector{7, 214, 365}));
}

// A call operator may have any qualifiers.
struct body;
template <class... Functions>
constexpr bool all_take_a_number =
    (std::is_same_v<typename ovel::detail::parameters<Functions>::type, std::tuple<int>> && ...);
static_assert(all_take_a_number<void (*)(int), void (*)(int const&) noexcept, void (body::*)(int),
                                void (body::*)(int) const, void (body::*)(int) noexcept,
                                void (body::*)(int) const noexcept, void (body::*)(int) &,
                                void (body::*)(int) & noexcept, void (body::*)(int) const&,
                                void (body::*)(int) const& noexcept>);

// Of views, ranges of proxies, and what it returns by reference.
TEST(petri_bodies_test, elements_that_a_body_keeps_are_copied) {
    net tested(1);
    auto const in = tested.insert_place<int>("in", 2);
    auto const names = tested.insert_place<std::string>("names", 4);
    auto const flags = tested.insert_place<bool>("flags", 4);
    auto const words = tested.insert_place<std::string>("words", 2);
    auto const numbers = tested.insert_place<int>("numbers", 2);
    std::vector<std::string> table{"one", "two"};
    tested.insert_transition("tell", from(in), to(names.times(2), flags.times(2)), [&](int) {
        return std::tuple(std::span<std::string>(table), std::vector<bool>{true, false});
    });
    std::string const word = "a word that is too long to be kept in place";
    std::tuple returned(word, 1);
    tested.insert_transition(
        "repeat", to(words, numbers), [&]() -> auto& { return returned; });
    fill(in, {1, 2});
    run(tested);
    EXPECT_EQ(drain(names), (std::vector<std::string>{"one", "two", "one", "two"}));
    EXPECT_EQ(drain(flags), (std::vector{true, false, true, false}));
    EXPECT_EQ(drain(words), std::vector(2, word));
}

// A variant chooses a place by its index, also where its alternatives are of one type.
TEST(petri_bodies_test, a_variant_goes_to_one_place_and_an_optional_tuple_to_all_or_none) {
    net tested(1);
    auto const [in, even, odd, half] = insert_places<int>(tested, 8, "in", "even", "odd", "half");
    auto const names = tested.insert_place<std::string>("names", 8);
    tested.insert_transition("sort", from(in), to(even, odd), [](int number) {
        using either = std::variant<int, int>;
        return number % 2 == 0 ? either(std::in_place_index<0>, number)
                               : either(std::in_place_index<1>, number);
    });
    tested.insert_transition("halve", from(even), to(half, names), [](int number) {
        return number == 0 ? std::nullopt
                           : std::optional(std::tuple(number / 2, std::to_string(number)));
    });
    fill(in, {0, 1, 2, 3, 4});
    run(tested);
    EXPECT_EQ(drain(odd), (std::vector{1, 3}));
    EXPECT_EQ(drain(half), (std::vector{1, 2}));
    EXPECT_EQ(drain(names), (std::vector<std::string>{"2", "4"}));
}

// The other tokens can be made of an optional as well.
TEST(petri_bodies_test, an_empty_optional_puts_nothing_unless_it_is_a_token) {
    using maybe = std::optional<int>;
    net tested(1);
    auto const in = tested.insert_place<int>("in", 2);
    auto const anything = tested.insert_place<std::any>("anything", 4);
    auto const many = tested.insert_place<std::any>("many", 2);
    auto const same = tested.insert_place<maybe>("same", 2);
    auto const nested = tested.insert_place<std::optional<maybe>>("nested", 2);
    tested.insert_transition("wrap", from(in), to(anything, same, nested, many.times(2)),
                             [](int number) {
                                 maybe const made = number == 0 ? maybe() : number;
                                 return std::tuple(made, made, std::make_optional(made),
                                                   std::optional<std::vector<int>>());
                             });
    fill(in, {0, 1});
    run(tested);
    EXPECT_EQ(std::any_cast<int>(anything.receive()), 1);
    EXPECT_EQ(std::pair(anything.size(), many.size()), std::pair(0u, 0u));
    EXPECT_EQ(drain(same), (std::vector<maybe>{maybe(), 1}));
    EXPECT_EQ(nested.size(), 2u);
}

// The bodies run until they are asked to stop, by a token and beside a `firing&`.
TEST(petri_bodies_test, bodies_that_poll_a_stop_token_end_when_the_net_is_stopped) {
    net tested(2);
    auto const [in, other] = insert_places<int>(tested, 2, "in", "other");
    std::atomic<int> begun = 0;
    auto const poll = [&](std::stop_token const& stop) {
        ++begun;
        until([&] { return stop.stop_requested(); });
    };
    tested.insert_transition("poll", from(in), to(in), [&](int token, std::stop_token stop) {
        poll(stop);
        return token;
    });
    tested.insert_transition("leave", from(other),
                             [&](ovel::firing&, std::stop_token stop) { poll(stop); });
    in.send(1);
    other.send(2);
    auto const start = [&] {
        begun = 0;
        tested.start();
        until([&] { return begun == 2; });
    };
    for (int round = 0; round != 2; ++round) {
        start();
        EXPECT_FALSE(stop(tested, 1ms));
        EXPECT_EQ(std::pair(in.size(), other.size()), std::pair(1u, 1u));
    }
    start();
    tested.fail(std::make_exception_ptr(1));
    EXPECT_THROW(tested.join(), int);
}

// The place is filled and emptied by a client, by a firing, and before the transition is there.
TEST(petri_bodies_test, a_transition_fires_only_while_the_place_of_unless_is_empty) {
    net tested(2);
    auto const in = tested.insert_place<int>("in", 8);
    auto const alarms = tested.insert_place<int>("alarms", 2);
    auto const [raise, spare] = insert_places<int>(tested, 2, "raise", "spare");
    auto const out = tested.insert_place<int>("out", 8);
    alarms.send(1);
    in.send(1);
    tested.insert_transition("refill", from(unless(spare)), to(spare), [] { return 1; });
    tested.insert_transition("pass", from(in, unless(alarms)), to(out), pass_on);
    tested.insert_transition("raise", from(raise), to(alarms), pass_on);
    run(tested);
    EXPECT_EQ(spare.size(), 1u);
    EXPECT_EQ(out.size(), 0u);
    EXPECT_TRUE(
        tested.explain().text().ends_with("transition pass: lacks an empty alarms\n"
                                          "transition raise: lacks 1 token of raise\n"));
    tested.start();
    EXPECT_EQ(alarms.receive(), 1);
    EXPECT_EQ(out.receive(), 1);
    fill(raise, {2, 3});
    until([&] { return alarms.size() == 2; });
    in.send(2);
    EXPECT_EQ(alarms.receive(), 2);
    EXPECT_FALSE(out.try_receive().has_value());
    EXPECT_EQ(alarms.receive(), 3);
    EXPECT_EQ(out.receive(), 2);
    tested.join();
}

// One firing takes a token and reads another one, both by hand.
TEST(petri_bodies_test, a_net_tells_what_keeps_its_transitions_from_firing) {
    net tested(2);
    auto const jobs = tested.insert_place<int>("jobs \"of\" all", 3);
    auto const [desks, held] = insert_places<int>(tested, 2, "desks", "held");
    auto const [done, in, slow, price] =
        insert_places<int>(tested, 1, "done", "in", "slow", "price");
    auto const out = tested.insert_place<int>("out", 1, ovel::closes);
    ovel::latch begun(1), go(1);
    auto const hold = [&, held = held, price = price](ovel::firing& now) {
        begun.count_down();
        go.wait();
        now.put(jobs, now.take(held) * now.peek(price));
    };
    auto const work = tested.insert_transition("work", from(jobs, desks.times(2)), to(done),
                                               [](int job, std::vector<int>) { return job; });
    work.deactivate();
    work.activate();
    tested.insert_transition("clean", from(desks), [](int) {}).deactivate();
    tested.insert_transition("last", from(done), [](std::optional<int>) { ADD_FAILURE(); })
        .deactivate();
    tested.insert_transition("sum", from(in), to(out),
                             [](std::optional<int> token) { return token.value_or(0); });
    tested.insert_transition("late", from(in), [](int) {}, {.after = 24h});
    tested.insert_transition("hold", from(held, reads(price)), to(jobs), hold,
                             {.reentrant = true, .limit = 1});
    tested.insert_transition("update", from(price), to(slow), pass_on);
    tested.insert_transition("wait", from(slow), [](int) {}, {.after = 24h});
    for (auto const& each : {jobs, desks, held, held, done, in, slow, price})
        each.send(1);
    in.close();
    tested.start();
    begun.wait();
    until([&] { return tested.explain().transitions[3].flushes; });
    ovel::explanation const told = tested.explain();
    std::string const text =
        "place jobs \"of\" all: 1 token of 3, 1 expected from firings\n"
        "place desks: 1 token of 2\n"
        "place held: 2 tokens of 2, 1 taken by firings\n"
        "place done: 1 token of 1\n"
        "place in: 0 tokens of 1, ended\n"
        "place slow: 1 token of 1\n"
        "place price: 1 token of 1, read by 1 firing\n"
        "place out: 1 token of 1\n"
        "transition work: lacks 1 token of desks and 1 slot of done\n"
        "transition clean: not active, lacks nothing\n"
        "transition last: not active, lacks nothing\n"
        "transition sum: at its end, lacks 1 slot of out\n"
        "transition late: ended\n"
        "transition hold: 1 firing, as many as may run at once\n"
        "transition update: lacks 1 token of price and 1 slot of slow\n"
        "transition wait: ";
    EXPECT_EQ(told.text(), text + "waits for its delay\n");
    EXPECT_EQ(told.transitions[0].arcs[1].available, 1u);
    EXPECT_FALSE(price.try_receive().has_value());
    EXPECT_EQ(price.try_peek(), 1);
    std::string const drawing = told.dot();
    for (char const* const line : {"    p0 [shape=ellipse, label=\"jobs \\\"of\\\" all 1/3\"];\n",
                                   "    p0 -> t0 [arrowhead=normal, label=\"\"];\n",
                                   "    p1 -> t0 [arrowhead=normal, label=\"2\", color=red];\n",
                                   "    t0 -> p3 [arrowhead=normal, label=\"\", color=red];\n",
                                   "    t1 [shape=box, label=\"clean\", style=dashed];\n",
                                   "    p6 -> t5 [arrowhead=none, label=\"\"];\n"})
        EXPECT_TRUE(contains(drawing, line));
    tested.halt();
    std::string const still = "no transition fires until the next start\n";
    EXPECT_EQ(tested.explain().text(), still + text + "lacks nothing\n");
    go.count_down();
    tested.join();
    done.close();
    for (auto const& each : {jobs, held, done})
        EXPECT_EQ(each.try_receive(), 1);
    std::string const end = tested.explain().text();
    EXPECT_TRUE(contains(end, "place done: 0 tokens of 1, ended\n"));
    EXPECT_TRUE(contains(end,
                         "transition work: ended\n"
                         "transition clean: not active, lacks nothing\n"
                         "transition last: not active, at its end, lacks nothing\n"));
    tested.start();
    EXPECT_EQ(out.receive(), 1);
    EXPECT_EQ(out.receive(), 0);  // of the last call
    EXPECT_FALSE(out.next().has_value());
    EXPECT_TRUE(out.ended());
    tested.halt();
    tested.join();
    for (auto i = tested.base().begin_places(); i != tested.base().end_places(); ++i)
        EXPECT_FALSE(tested.name(*i).empty());
}

TEST(petri_bodies_test, a_net_that_runs_can_be_moved) {
    auto const made = [] {
        net built(1);
        auto const [in, out] = insert_places<int>(built, 1, "in", "out");
        built.insert_transition("pass", from(in), to(out), pass_on);
        built.start();
        return std::tuple(std::move(built), in, out);
    };
    auto [first, in, out] = made();
    auto [second, other_in, other_out] = made();
    in.send(1);
    net kept(std::move(first));
    EXPECT_EQ(out.receive(), 1);
    second = std::move(kept);  // stops the second
    in.send(2);
    EXPECT_EQ(out.receive(), 2);
    second.join();
}

}  // namespace
