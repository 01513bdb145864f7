// SPDX-License-Identifier: Apache-2.0
#include "ovel_typed_nets.h"

namespace {

using ovel::firing;

TEST(petri_test, parameters_and_results_are_the_tokens_of_the_places_in_order) {
    net tested(2);
    auto const names = tested.insert_place<std::string>("names", 4);
    auto const [ages, adults] = insert_places<int>(tested, 4, "ages", "adults");
    auto const lines = tested.insert_place<std::unique_ptr<std::string>>("lines", 4);
    tested.insert_transition("greet", from(names, ages), to(lines, adults),
                             [](std::string name, int age) {
                                 auto const adult = age >= 18 ? std::optional(age) : std::nullopt;
                                 name += ' ' + std::to_string(age);
                                 return std::tuple(std::make_unique<std::string>(name), adult);
                             });
    fill(names, {"at", "at", "at"});
    fill(ages, {17, 18, 19});
    run(tested);
    std::string all;
    for (auto const& line : drain(lines))
        all += *line + '\n';
    EXPECT_EQ(all, "at 17\nat 18\nat 19\n");
    EXPECT_EQ(drain(adults), (std::vector{18, 19}));
}

// Wrong counts would leave tokens behind, or slots that stay reserved.
TEST(petri_test, tokens_and_slots_that_a_body_does_not_use_are_skipped) {
    net tested(1);
    auto const left = tested.insert_place<int>("left", 6);
    auto const right = tested.insert_place<int>("right", 6);
    int firings = 0;
    tested.insert_transition("there", from(left.times(3)), to(right.times(3)), [&](firing& now) {
        for (int count = firings++; count != 0; --count) {
            int const seen = now.peek(left);
            now.put(right, now.take(left) == seen ? seen : 0);
        }
    });
    fill(left, {1, 2, 3, 4, 5, 6});
    run(tested);
    EXPECT_EQ(drain(right), (std::vector{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(firings, 4);
}

// After the failure no token can be copied. Every token but the one that the body took stays in
// its place, including those ahead of a blocked sender and those that the failing transition did
// not take.
TEST(petri_test, a_failed_net_keeps_its_tokens_and_its_first_failure_even_if_none_can_be_copied) {
    net tested(2);
    auto const jobs = tested.insert_place<fragile>("jobs", 4);
    auto const full = tested.insert_place<fragile>("full", 2);
    EXPECT_EQ(full.capacity(), 2u);
    tested.insert_transition("work", from(jobs.times(2)), [jobs](firing& now) {
        now.take(jobs);
        fragile::copies_left = 0;
        throw std::runtime_error("first");
    });
    full.send(fragile(1));
    full.send(fragile(2));
    {
        auto const sender =
            crew(1, [&](int) { EXPECT_THROW(full.send(fragile(3)), std::runtime_error); });
        until([&] { return ovel::detail::inspector::blocked(tested) == 1; });
        tested.start();
        for (int const job : {4, 5, 6})
            jobs.send(fragile(job));
    }
    tested.fail(std::make_exception_ptr(std::logic_error("second")));
    EXPECT_THROW(tested.join(), std::runtime_error);
    std::vector<int> left;
    for (auto const& tokens : {drain(full), drain(jobs)})
        for (fragile const& each : tokens)
            left.push_back(each.number);
    fragile::copies_left = -1;
    EXPECT_EQ(left, (std::vector{1, 2, 5, 6}));
}

// It cannot be assigned, so what was moved away could not be moved back. Its move may throw, after
// the net has counted it.
TEST(petri_test, a_token_that_could_not_be_sent_was_not_touched) {
    struct heavy {
        explicit heavy(bool& stuck) : stuck(stuck) {}
        heavy(heavy&& other) noexcept(false)
            : stuck(other.stuck), held(std::exchange(other.held, stuck)) {
            if (stuck)
                static_cast<void>(std::string().at(1));
        }
        bool& stuck;
        bool held = true;
    };
    net tested(1);
    auto const only = tested.insert_place<heavy>("only", 1);
    int firings = 0;
    tested.insert_transition("take", from(only), [&](heavy) { ++firings; });
    bool stuck = true;
    heavy first(stuck), second(stuck);
    EXPECT_THROW(static_cast<void>(only.try_send(std::move(first))), std::out_of_range);
    run(tested);
    EXPECT_EQ(firings, 0);
    stuck = false;
    EXPECT_TRUE(only.try_send(std::move(first)));
    EXPECT_FALSE(only.try_send(std::move(second)));
    EXPECT_TRUE(!first.held && second.held);
    run(tested);
    EXPECT_EQ(firings, 1);
}

TEST(petri_test, misuse_fails_checks) {
    char const* const file = "includes/ovel_petri.h";
    // The joining body is in the second group: the first would be joined before.
    ovel::triple<unsigned int, double, unsigned int> const groups[] = {{1, 0.0, 16384},
                                                                       {1, 0.0, 131072}};
    net tested(groups, groups + 2);
    auto const more = tested.insert_place<int>("more", 2);
    auto const only = tested.insert_place<int>("only", 1);
    tested.insert_transition("greedy", from(more), [more](firing& now) {
        now.take(more);
        now.take(more);
    });
    auto const shown = tested.insert_place<int>("shown", 1);
    tested.insert_transition("keep", from(reads(shown)), to(only),
                             [shown](firing& now) { now.take(shown); });
    tested.insert_transition("join", from(only), [&](int) { tested.join(); }, {.group = 1});
    EXPECT_CHECK(tested.insert_transition("two", from(more.times(2)), [](std::array<int, 3>) {}),
                 "weight == array_size<Argument>", "includes/ovel_petri_body.h");
    EXPECT_CHECK(tested.insert_transition("both", from(more, reads(more)), [](int, int) {}),
                 "!is_input", "sources/ovel_petri_elements.cpp");
    EXPECT_CHECK(tested.insert_transition("both", from(reads(more), more), [](int, int) {}),
                 "!is_read", "sources/ovel_petri_net.cpp");
    EXPECT_CHECK((fill(more, {1, 2}), run(tested)), "left != 0", file);
    EXPECT_CHECK((shown.send(1), run(tested)), "left != 0", file);
    EXPECT_CHECK((only.send(1), run(tested)), "!_runs_caller()", "sources/ovel_petri_net.cpp");
    net other(1);
    auto const there = other.insert_place<int>("there", 1);
    EXPECT_CHECK(tested.name(there.base()), "name != 0", file);
    EXPECT_CHECK(tested.insert_transition("take", from(there), [](int) {}),
                 "arc.place->owner == this", file);
    EXPECT_CHECK(tested.insert_transition("take", from(more, unless(there)), [](int) {}),
                 "place->owner == this", file);
}

TEST(petri_test, a_net_that_never_rests_is_stopped_by_a_deadline_and_where_its_scope_ends) {
    net tested(1);
    ovel::petri_net& plain = tested.base();
    auto const turn = tested.insert_place<int>("turn", 2);
    auto const turning =
        tested.insert_transition("turn", from(turn), to(turn), [](int count) { return count + 1; });
    turn.send(0);
    plain.release();
    EXPECT_FALSE(stop(plain, 1ms));
    plain.release();  // the transition is still deactivated
    EXPECT_TRUE(stop(plain, 1h));
    turning.activate();
    tested.start();
}

// The recorder outlives the names, whose memory is reused.
TEST(petri_test, a_trace_has_the_firings_and_waits_of_a_destroyed_net) {
    ovel::trace::recorder recorded;
    {
        net tested(1);
        auto const ready = tested.insert_place<int>("tokens that are ready", 1);
        tested.insert_transition("produce what is consumed", to(ready), [made = 0]() mutable {
            if (++made == 2)
                throw 2;
            return made;
        });
        auto const last =
            tested.insert_transition("consume what was produced", from(ready), [](int) {});
        EXPECT_THROW(run(tested), int);
        EXPECT_THROW(ready.receive(), int);
        EXPECT_EQ(tested.name(last.base()), "consume what was produced");
        EXPECT_EQ(tested.name(ready.base()), "tokens that are ready");
    }
    std::vector<std::string> const others(100, std::string(24, '?'));
    std::string names;
    recorded.each([&](unsigned int, ovel::trace::event const& each) {
        names += each.name;
        names += each.what == ovel::trace::firing ? "; " : "...";
    });
    EXPECT_EQ(names,
              "produce what is consumed; consume what was produced; produce what is consumed; "
              "tokens that are ready...");
}

}  // namespace
