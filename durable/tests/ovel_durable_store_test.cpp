// SPDX-License-Identifier: Apache-2.0
// What members ask of a store, in orders that threads and processes rarely come to.
#include "ovel_durable_fixture.h"
#include "ovel_durable_sql.h"

using namespace ovel_durable_test;

namespace {

// Two transitions into one place. In `a` and `b` are as many tokens as the test says.
parts::structure plan(std::string const& name, std::size_t in_a, std::size_t in_b) {
    std::vector<std::string> const a(in_a, "1"), b(in_b, "2");
    return {
        name,
        {{"a", 10, "whole number", a}, {"b", 10, "whole number", b}, {"c", 10, "whole number", {}}},
        {{"one", {{0, true, 1}, {2, false, 1}}}, {"two", {{1, true, 1}, {2, false, 1}}}}};
}

// One transition that joins the tokens of `a` and `b`, and one that cannot fire.
parts::structure join_plan(std::string const& name, std::vector<std::string> const& a,
                           std::vector<std::string> const& b) {
    parts::structure net = plan(name, 0, 0);
    net.places[0].initial = a;
    net.places[1].initial = b;
    net.transitions[0].arcs = {{0, true, 1}, {1, true, 1}, {2, false, 1}};
    net.transitions[1].arcs = {{2, true, 9}};
    return net;
}

template <class Body>
void build(durable::net& net, Body const& body) {
    auto const a = net.insert_place<int>("a", 10);
    auto const b = net.insert_place<int>("b", 10);
    auto const c = net.insert_place<int>("c", 10);
    net.insert_transition("one", from(a), to(c), body);
    net.insert_transition("two", from(b), to(c), body);
}

using claims = std::vector<parts::claim>;
using claim_name = std::pair<std::int64_t, std::int64_t>;  // number, epoch

// A member of a net that asks the store by itself. It begins with one claim of `transition`,
// or none if that cannot fire.
struct seat {
    seat(std::unique_ptr<parts::store> connected, parts::structure const& plan,
         std::size_t transition)
        : store(std::move(connected)),
          net(store->open(plan)),
          member(store->enter(net.net, "seat", 60, net.transitions)),
          first(claim(transition, 1)) {}

    parts::turned turn(parts::turn const& asked) {
        return store->take_turn(net.net, member, asked);
    }
    claims claim(std::size_t transition, std::int64_t most) {
        return turn({{}, {}, {net.transitions[transition]}, most, false}).claims;
    }
    claims take_over(std::int64_t most = 10) {
        return turn({{}, {}, net.transitions, most, true}).claims;
    }
    // Ends firings, each of which puts the first of its tokens into `c`.
    parts::turned end(claims const& ended, std::vector<claim_name> const& returned = {}) {
        parts::turn asked{{}, returned, {}, 0, false};
        for (parts::claim const& each : ended)
            asked.ended.push_back(
                {each.number, each.epoch, each.transition, {{net.places[2], each.values[0]}}, {}});
        return turn(asked);
    }
    void lease(double seconds) {
        store->renew(net.net, member, "seat", seconds, net.transitions);
    }

    std::unique_ptr<parts::store> const store;
    parts::numbers const net;
    std::int64_t member;
    claims const first;
};

class ovel_durable_store_test : public on_either_store {
protected:
    seat enter(parts::structure const& plan, std::size_t transition, std::string const& more = "") {
        return {connect(more), plan, transition};
    }
    parts::state seen() {
        return connect()->look(_name);
    }
};
INSTANTIATE_TEST_SUITE_P(stores, ovel_durable_store_test, either_store, store_name);

// A member sleeps past its lease, another takes its claim over and dies, and the first takes
// it back while its old body still runs. Both bodies end in one batch.
TEST_P(ovel_durable_store_test, a_claim_that_is_ended_under_two_epochs_is_committed_once) {
    seat first = enter(plan(_name, 1, 0), 0);
    first.lease(-1);
    seat second = enter(plan(_name, 1, 0), 0);
    ASSERT_EQ(second.take_over().size(), 1U);
    second.lease(-1);
    first.lease(60);
    claims const back = first.take_over();
    ASSERT_EQ(back.size(), 1U);
    EXPECT_EQ(back[0].epoch, 3);
    EXPECT_EQ(first.end({first.first[0], back[0]}).committed, 1U);
    parts::state const state = seen();
    EXPECT_EQ(state.places[0].free, 10U);
    EXPECT_EQ(state.places[2].tokens, 1U);
    EXPECT_EQ(state.places[2].free, 9U);
    EXPECT_EQ(state.transitions[0].fired, 1U);
}

// Of firings that were claimed together, some are committed, some given back in their old
// order, and some are taken over by two members, one by one. Each keeps its number and token.
TEST_P(ovel_durable_store_test, firings_that_were_claimed_together_end_apart) {
    std::vector<std::string> const numbers = {"0", "1", "2", "3", "4", "5", "6"};
    parts::structure const own = join_plan(_name, numbers, numbers);
    seat first = enter(own, 1);
    claims const all = first.claim(0, 6);
    ASSERT_EQ(all.size(), 6U);
    for (std::size_t i = 0; i < all.size(); ++i)
        EXPECT_EQ(all[i].values, std::vector<std::string>(2, std::to_string(i)));
    auto const name = [&](std::size_t i) {
        return claim_name(all[i].number, all[i].epoch);
    };
    parts::turned const some = first.end({all[1]}, {name(3), name(0)});
    EXPECT_EQ(some.committed, 1U);
    EXPECT_EQ(some.returned, 2U);
    EXPECT_EQ(first.end({all[1]}, {name(3)}).committed, 0U);
    EXPECT_EQ(first.store->claims_of(first.member).size(), 3U);
    parts::state const state = seen();
    EXPECT_EQ(state.claims.at(0).firings, 3U);
    EXPECT_EQ(state.places[0].tokens, 6U);
    EXPECT_EQ(state.places[0].claimed, 3U);

    first.lease(-1);
    std::map<std::int64_t, std::vector<std::string>> got;
    seat second = enter(own, 1), third = enter(own, 1);
    for (seat* const each : {&second, &third, &second}) {
        claims const taken = each->take_over(1);
        ASSERT_EQ(taken.size(), 1U);
        EXPECT_EQ(taken[0].epoch, 2);
        got[taken[0].number] = taken[0].values;
        EXPECT_EQ(each->end(taken).committed, 1U);
    }
    for (std::size_t const i : {2U, 4U, 5U})
        EXPECT_EQ(got[all[i].number], all[i].values);
    EXPECT_EQ(first.end({all[2]}, {name(4)}).committed, 0U);
    claims const again = third.claim(0, 1);
    ASSERT_EQ(again.size(), 1U);
    EXPECT_EQ(again[0].values, std::vector<std::string>(2, "0"));
    EXPECT_EQ(seen().places[2].tokens, 4U);
}

TEST_P(ovel_durable_store_test, another_structure_is_refused) {
    parts::structure const own = plan(_name, 0, 0);
    connect()->open(own);
    std::pair<void (*)(parts::structure&), char const*> const others[] = {
        {[](auto& net) { net.places.pop_back(); }, "place \"c\" is missing here"},
        {[](auto& net) {
             net.places.push_back({"d", 1, "", {}});
         },
         "place \"d\" is missing there"},
        {[](auto& net) { std::swap(net.places[0], net.places[1]); },
         "place number 1 is \"a\" there and \"b\" here"},
        {[](auto& net) { net.places[1].capacity = 7; },
         "place \"b\" has capacity 10 there and 7 here"},
        {[](auto& net) { net.places[1].codec = "text"; },
         "place \"b\" has codec \"whole number\" there and \"text\" here"},
        {[](auto& net) { net.transitions.pop_back(); }, "transition \"two\" is missing here"},
        {[](auto& net) { net.transitions[1].arcs[1].place = 0; },
         "transition \"two\" puts 1 of \"c\" there and 1 of \"a\" here"},
        {[](auto& net) { net.transitions[0].arcs[0].weight = 2; },
         "transition \"one\" takes 1 of \"a\" there and 2 of \"a\" here"},
    };
    for (auto const& [change, difference] : others) {
        parts::structure other = own;
        change(other);
        EXPECT_EQ(error_of([&] { connect()->open(other); }),
                  "the net \"" + _name + "\" in the store is another one: " + difference);
    }
}

// Members that are long gone are forgotten, and what they have fired is not. One that was
// only asleep is entered again.
TEST_P(ovel_durable_store_test, firings_of_forgotten_members_count) {
    seat first = enter(plan(_name, 2, 0), 0);
    first.end(first.first);
    first.lease(-4000);
    seat second = enter(plan(_name, 2, 0), 0);
    second.end(second.first);
    second.lease(-1);
    EXPECT_EQ(first.store->fired_by(first.member), 0);
    parts::state const state = seen();
    EXPECT_EQ(state.transitions[0].fired, 2U);
    EXPECT_FALSE(state.transitions[1].runs);
    first.lease(60);
    EXPECT_TRUE(seen().transitions[1].runs);
}

// A commit in the name of a member may come after it has looked for such, on a new connection.
TEST_P(ovel_durable_store_test, a_member_gives_up_claims_that_it_does_not_know) {
    seat late = enter(plan(_name, 0, 0), 0);
    connect()->put(late.net.net, late.net.places[0], "1", {"key", false, {}});
    durable::net idle(_url, _name, quick({.lease = 1}));
    build(idle, same);
    idle.start({});
    ++late.member;  // members are numbered
    EXPECT_EQ(late.claim(0, 1).size(), 1U);
    durable::net other(_url, _name, quick());
    build(other, same);
    other.start();
    EXPECT_TRUE(other.join_until(10s)) << other.explain();
    EXPECT_EQ(seen().transitions[0].fired, 1U);
}

// It stops before its commit, or its connection is lost there, for longer than its lease.
TEST_P(ovel_durable_store_test, a_member_whose_firing_others_took_over_is_told) {
    for (bool const loses : {true, false}) {
        std::atomic<bool> reached = false, overtaken = false;
        auto const stop_once = [&](std::string const& here) {
            if (here != "before" || reached.exchange(true))
                return;
            wait_for([&] { return overtaken.load(); });
            if (loses)
                throw parts::unreachable("cut");
        };
        _name = new_name();
        connect()->open(plan(_name, 1, 0));
        durable::net sleeper(observed(stop_once), _name, quick({.lease = 0.3})),
            other(_url, _name, quick());
        build(sleeper, same);
        build(other, same);
        sleeper.start();
        EXPECT_TRUE(wait_for([&] { return reached.load(); }));
        other.start();
        other.join();
        overtaken = true;
        sleeper.join();
        EXPECT_TRUE(contains(reports(), "others had taken over 1 of its firings"));
        EXPECT_EQ(seen().places[2].tokens, 1U);
        EXPECT_EQ(seen().transitions[0].fired, 1U);
    }
}

// The connection is lost between the commit of every other call and its answer.
TEST_P(ovel_durable_store_test, a_call_is_exact_though_its_answer_is_lost) {
    bool cut = false;
    int cuts = 0;
    auto const lose = [&](std::string const& here) {
        if ((here != "put" && here != "taken") || !std::exchange(cut, false))
            return;
        ++cuts;
        throw parts::unreachable("cut");
    };
    durable::net net(observed(lose), _name, quick());
    auto const place = net.insert_place<int>("place", 100);
    for (int i = 0; i < 20; ++i) {
        cut = i % 2 != 0;
        place.send(i);
    }
    for (int i = 0; i < 20; ++i) {
        cut = i % 2 != 0;
        EXPECT_EQ(place.receive(), i);
    }
    EXPECT_EQ(cuts, 20);
    EXPECT_EQ(place.try_receive(), std::nullopt);
    EXPECT_TRUE(contains(net.explain(), "place: 0 tokens of 100\n"));
}

TEST_P(ovel_durable_store_test, patience_ends_though_connections_succeed) {
    durable::net net(observed([](std::string const& here) {
                         if (here == "before")
                             throw parts::unreachable("cut at each commit");
                     }),
                     _name, quick({.patience = 0.3}));
    connect()->open(plan(_name, 1, 0));
    build(net, same);
    net.start();
    EXPECT_EQ(error_of([&] { EXPECT_TRUE(net.join_until(20s)); }), "cut at each commit");
}

// Lost claims count like new ones, of whichever transition they are.
TEST_P(ovel_durable_store_test, no_more_is_fired_than_was_allowed) {
    for (std::size_t const lost : {0U, 1U}) {
        std::string const name = _name + std::to_string(lost);
        seat dead = enter(plan(name, 7, 1), lost);
        ASSERT_EQ(dead.first.size(), 1U);
        dead.lease(-1);
        durable::net net(_url, name, quick({.batch = 2, .firings = 5}));
        build(net, same);
        net.start();
        ASSERT_TRUE(net.join_until(20s)) << net.explain();
        parts::state const state = connect()->look(name);
        EXPECT_EQ(state.transitions[0].fired + state.transitions[1].fired, 5U);
        EXPECT_TRUE(state.claims.empty());
    }
}

TEST_P(ovel_durable_store_test, tables_of_another_version_are_refused) {
    auto const open = [&] {
        return error_of([&] { connect()->open(plan(_name, 0, 0)); });
    };
    auto const set = [&](std::string const& version) {
        if (on_server())
            postgresql().run("UPDATE ovel_durable.version SET number = " + version);
        else
            sqlite_file(file()).run("PRAGMA user_version = " + version);
    };
    EXPECT_EQ(open(), "no error");
    auto const number = std::to_string(parts::tables_version);
    set("1");
    std::string const told =
        "the store's tables are of version 1, and this program knows version " + number +
        ": end its nets with the release that made them, or use another store";
    EXPECT_EQ(open(), told);
    EXPECT_EQ(error_of([&] { connect()->nets(); }), told);
    EXPECT_EQ(error_of([&] { seen(); }), told);
    set(number);
    EXPECT_EQ(open(), "no error");
}

// A program that looks for a net makes no file, and none turns another's file into a store.
TEST(ovel_durable_file_test, a_file_that_is_no_store_stays_as_it_is) {
    folder const place;
    std::string const file = place / "file";
    auto const connect = parts::connect_to("sqlite:" + file);
    std::string const absent = "the store " + file + ": unable to open database file";
    EXPECT_EQ(error_of([&] { parts::nets_of(connect); }), absent);
    EXPECT_EQ(error_of([&] { parts::state_of(connect, "net"); }), absent);
    EXPECT_FALSE(fs::exists(file));

    sqlite_file other(file);
    other.run("CREATE TABLE t (x)");
    std::string const foreign = "the store " + file + " is a database of another program";
    EXPECT_EQ(error_of([&] { parts::nets_of(connect); }), foreign);
    EXPECT_EQ(error_of([&] { connect()->open(plan("net", 0, 0)); }), foreign);
    EXPECT_EQ(other.run("PRAGMA journal_mode"), "delete");
}

// Only PostgreSQL runs transactions at the same time.
class ovel_durable_race_test : public ovel_durable_store_test {
protected:
    // Waits until the server answers a question with "1".
    static bool comes_true(std::string const& question) {
        return wait_for([&] { return postgresql().run("SELECT " + question) == "1"; });
    }
};
INSTANTIATE_TEST_SUITE_P(stores, ovel_durable_race_test, server_only, store_name);

// Two members find the same lost claim. One is slow: it reads the clock, to compare it with
// the lease, when the other has already taken the claim over.
TEST_P(ovel_durable_race_test, a_claim_is_not_taken_from_the_member_that_took_it_over) {
    enter(plan(_name, 1, 0), 0).lease(-1);
    seat quick = enter(plan(_name, 1, 0), 0);
    seat slow = enter(plan(_name, 1, 0), 0, "&application_name=slow");
    std::string const clock =
        "CREATE OR REPLACE FUNCTION ovel_durable.clock() RETURNS double precision ";
    postgresql().run(
        clock +
        "LANGUAGE plpgsql AS 'BEGIN IF current_setting(''application_name'') = ''slow'' "
        "THEN PERFORM pg_advisory_lock_shared(1), pg_advisory_unlock_shared(1); END IF; "
        "RETURN extract(epoch FROM clock_timestamp()); END'");
    PGconn* const gate = PQconnectdb(_url.c_str());
    PQclear(PQexec(gate, "SELECT pg_advisory_lock(1)"));
    auto late = std::async(std::launch::async, [&] { return slow.take_over(); });
    EXPECT_TRUE(comes_true("count(*) FROM pg_locks WHERE locktype = 'advisory' AND NOT granted"));
    claims const first = quick.take_over();
    PQfinish(gate);
    EXPECT_TRUE(late.get().empty());
    EXPECT_EQ(first.size(), 1U);
    EXPECT_EQ(quick.end(first).committed, 1U);
    postgresql().run(clock +
                     "LANGUAGE sql AS 'SELECT extract(epoch FROM clock_timestamp())::double "
                     "precision'");
}

// A row may not have more than 1 GB, however many large values a member claims at once.
TEST_P(ovel_durable_race_test, large_values_are_in_rows_of_their_own) {
    std::string const large(1'500'000, 'x');
    std::vector<std::string> const some = {"1", large, large, large, "2", "3"};
    seat member = enter(join_plan(_name, some, std::vector(6, large)), 1);
    claims const all = member.claim(0, 6);
    ASSERT_EQ(all.size(), 6U);
    EXPECT_TRUE(comes_true("least(count(*) / 4, 1) FROM ovel_durable.claims WHERE net = " +
                           std::to_string(member.net.net)));
    for (std::size_t i = 0; i < all.size(); ++i)
        EXPECT_TRUE(all[i].values[0] == some[i] && all[i].values[1] == large);
    EXPECT_EQ(member.end(all).committed, 6U);
    EXPECT_EQ(seen().places[2].tokens, 6U);
}

// What follows a commit cannot undo it: a token that was received is there.
TEST_P(ovel_durable_race_test, an_error_after_a_commit_loses_nothing) {
    durable::net receiver(_url, _name, quick()), sender(_url, _name, quick());
    auto const out = receiver.insert_place<int>("place", 1);
    auto const in = sender.insert_place<int>("place", 1);
    EXPECT_EQ(in.try_receive(), std::nullopt);  // makes the tables
    auto blocked = std::async(std::launch::async, [&] { return out.receive(); });
    EXPECT_TRUE(comes_true(
        "count(*) FROM ovel_durable.watchers w JOIN ovel_durable.nets n ON n.id = w.net WHERE "
        "n.name = '" +
        _name + "'"));
    postgresql().run(
        "CREATE FUNCTION ovel_durable.full() RETURNS trigger LANGUAGE plpgsql AS 'BEGIN RAISE "
        "EXCEPTION ''full''; END'; CREATE TRIGGER disk_full BEFORE DELETE ON ovel_durable.watchers "
        "FOR EACH ROW EXECUTE FUNCTION ovel_durable.full(); CREATE FUNCTION "
        "ovel_durable.pg_notify(text, text) RETURNS void LANGUAGE plpgsql AS 'BEGIN RAISE "
        "EXCEPTION ''full''; END'");
    EXPECT_EQ(error_of([&] { in.send(7); }), "no error");
    EXPECT_EQ(blocked.get(), 7);
    postgresql().run(
        "DROP FUNCTION ovel_durable.pg_notify; DROP TRIGGER disk_full ON ovel_durable.watchers; "
        "DROP FUNCTION ovel_durable.full");
}

}  // namespace
