// SPDX-License-Identifier: Apache-2.0
// What members ask of a store, in orders that threads and processes rarely come to.
#include "ovel_durable_fixture.h"
#include "ovel_durable_mortal_store.h"
#include "ovel_durable_sql.h"

#include <gtest/gtest.h>
#include <libpq-fe.h>
#include <sqlite3.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using namespace std::chrono_literals;
using namespace ovel_durable_test;
namespace durable = ovel::durable;

namespace {

// Two transitions into one place. In `a` and `b` are as many tokens as the test says.
parts::structure plan(std::string const& name, int in_a, int in_b) {
    return {
        name,
        {{"a", 10, "whole number", std::vector<std::string>(static_cast<std::size_t>(in_a), "1")},
         {"b", 10, "whole number", std::vector<std::string>(static_cast<std::size_t>(in_b), "2")},
         {"c", 10, "whole number", {}}},
        {{"one", {{0, true, 1}, {2, false, 1}}}, {"two", {{1, true, 1}, {2, false, 1}}}}};
}

template <class Body>
void build(durable::net& net, Body const& body) {
    auto const a = net.insert_place<int>("a", 10);
    auto const b = net.insert_place<int>("b", 10);
    auto const c = net.insert_place<int>("c", 10);
    net.insert_transition("one", from(a), to(c), body);
    net.insert_transition("two", from(b), to(c), body);
}
int same(int number) {
    return number;
}

class ovel_durable_store_test : public on_either_store {
protected:
    std::unique_ptr<parts::store> connect(std::string const& more = "") {
        return parts::connect_to(_url + more)();
    }
    parts::connector observed(mortal_store::observer const& pass) {
        return [this, pass] {
            return std::make_unique<mortal_store>(connect(), pass);
        };
    }

    // Makes the net of the plan, with a member that has one claim of a transition, or none if
    // that cannot fire.
    struct seat {
        std::unique_ptr<parts::store> store;
        parts::numbers net;
        std::int64_t member;
        std::vector<parts::claim> claims;
    };
    seat enter(parts::structure const& plan, std::size_t transition, std::string const& more = "") {
        seat made{connect(more), {}, 0, {}};
        made.net = made.store->open(plan);
        made.member = made.store->enter(made.net.net, "seat", 60, made.net.transitions);
        made.claims = turn(made, {{}, {}, {made.net.transitions[transition]}, 1, false}).claims;
        return made;
    }
    static parts::turned turn(seat& of, parts::turn const& asked) {
        return of.store->take_turn(of.net.net, of.member, asked);
    }
    static parts::turned take_over(seat& of) {
        return turn(of, {{}, {}, of.net.transitions, 10, true});
    }
    static void lease(seat& of, double seconds) {
        of.store->renew(of.net.net, of.member, "seat", seconds, of.net.transitions);
    }
    static parts::outcome ended(seat const& of, parts::claim const& own) {
        return {own.number, own.epoch, own.transition, {{of.net.places[2], own.values[0]}}, {}};
    }
    parts::state seen() {
        return connect()->look(_name);
    }
};
INSTANTIATE_TEST_SUITE_P(stores, ovel_durable_store_test, testing::Values("sqlite", "postgresql"),
                         [](auto const& chosen) { return std::string(chosen.param); });

// A member sleeps past its lease, another takes its claim over and dies, and the first takes
// it back while its old body still runs. Both bodies end in one batch.
TEST_P(ovel_durable_store_test, a_claim_that_is_ended_under_two_epochs_is_committed_once) {
    seat first = enter(plan(_name, 1, 0), 0);
    lease(first, -1);
    seat second = enter(plan(_name, 1, 0), 0);
    ASSERT_EQ(take_over(second).claims.size(), 1U);
    lease(second, -1);
    lease(first, 60);
    parts::turned const back = take_over(first);
    ASSERT_EQ(back.claims.size(), 1U);
    EXPECT_EQ(back.claims[0].epoch, 3);
    parts::turned const made = turn(
        first, {{ended(first, first.claims[0]), ended(first, back.claims[0])}, {}, {}, 0, false});
    EXPECT_EQ(made.committed, 1U);
    parts::state const state = seen();
    EXPECT_EQ(state.places[0].free, 10U);
    EXPECT_EQ(state.places[2].tokens, 1U);
    EXPECT_EQ(state.places[2].free, 9U);
    EXPECT_EQ(state.transitions[0].fired, 1U);
}

// Of firings that were claimed together, some are committed, some given back in their old
// order, and some are taken over by two members, one by one. Each keeps its number and token.
TEST_P(ovel_durable_store_test, firings_that_were_claimed_together_end_apart) {
    parts::structure own = plan(_name, 0, 0);
    own.places[0].initial = {"0", "1", "2", "3", "4", "5", "6"};
    own.transitions[0].arcs = {{0, true, 1}, {1, true, 1}, {2, false, 1}};
    own.places[1].initial = own.places[0].initial;
    own.transitions[1].arcs = {{2, true, 9}};
    seat first = enter(own, 1);  // which cannot fire
    std::vector<parts::claim> const all =
        turn(first, {{}, {}, {first.net.transitions[0]}, 6, false}).claims;
    ASSERT_EQ(all.size(), 6U);
    for (std::size_t i = 0; i < all.size(); ++i)
        EXPECT_EQ(all[i].values, std::vector<std::string>(2, std::to_string(i)));
    auto const number = [&](std::size_t i) {
        return std::pair(all[i].number, all[i].epoch);
    };
    parts::turned const some =
        turn(first, {{ended(first, all[1])}, {number(3), number(0)}, {}, 0, false});
    EXPECT_EQ(some.committed, 1U);
    EXPECT_EQ(some.returned, 2U);
    EXPECT_EQ(turn(first, {{ended(first, all[1])}, {number(3)}, {}, 0, false}).committed, 0U);
    EXPECT_EQ(first.store->claims_of(first.member).size(), 3U);
    parts::state state = seen();
    EXPECT_EQ(state.claims.at(0).firings, 3U);
    EXPECT_EQ(state.places[0].tokens, 6U);
    EXPECT_EQ(state.places[0].claimed, 3U);

    lease(first, -1);
    std::map<std::int64_t, std::vector<std::string>> got;
    seat second = enter(own, 1), third = enter(own, 1);
    for (seat* const each : {&second, &third, &second}) {
        auto const taken = turn(*each, {{}, {}, each->net.transitions, 1, true}).claims;
        ASSERT_EQ(taken.size(), 1U);
        EXPECT_EQ(taken[0].epoch, 2);
        got[taken[0].number] = taken[0].values;
        EXPECT_EQ(turn(*each, {{ended(*each, taken[0])}, {}, {}, 0, false}).committed, 1U);
    }
    for (std::size_t const i : {2U, 4U, 5U})
        EXPECT_EQ(got[all[i].number], all[i].values);
    EXPECT_EQ(turn(first, {{ended(first, all[2])}, {number(4)}, {}, 0, false}).committed, 0U);
    auto const again = turn(third, {{}, {}, {third.net.transitions[0]}, 1, false}).claims;
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
    turn(first, {{ended(first, first.claims[0])}, {}, {}, 0, false});
    lease(first, -4000);
    seat second = enter(plan(_name, 2, 0), 0);
    turn(second, {{ended(second, second.claims[0])}, {}, {}, 0, false});
    lease(second, -1);
    EXPECT_EQ(first.store->fired_by(first.member), 0);
    parts::state const state = seen();
    EXPECT_EQ(state.transitions[0].fired, 2U);
    EXPECT_FALSE(state.transitions[1].runs);
    lease(first, 60);
    EXPECT_TRUE(seen().transitions[1].runs);
}

// A commit in the name of a member may come after it has looked for such, on a new connection.
TEST_P(ovel_durable_store_test, a_member_gives_up_claims_that_it_does_not_know) {
    class recorder : public mortal_store {
    public:
        recorder(std::unique_ptr<store> behind, std::atomic<std::int64_t>& member)
            : mortal_store(std::move(behind), [](std::string const&) {}), _member(member) {}
        std::int64_t enter(std::int64_t net, std::string const& name, double lease,
                           std::vector<std::int64_t> const& transitions) override {
            return _member = mortal_store::enter(net, name, lease, transitions);
        }

    private:
        std::atomic<std::int64_t>& _member;
    };
    seat late = enter(plan(_name, 0, 0), 0);
    connect()->put(late.net.net, late.net.places[0], "1", {"key", false, {}});
    std::atomic<std::int64_t> member = 0;
    auto chosen = quick();
    chosen.lease = 1;
    durable::net idle([&] { return std::make_unique<recorder>(connect(), member); }, _name, chosen);
    build(idle, same);
    idle.start({});
    late.member = member;
    EXPECT_EQ(turn(late, {{}, {}, {late.net.transitions[0]}, 1, false}).claims.size(), 1U);
    durable::net other(_url, _name, quick());
    build(other, same);
    other.start();
    EXPECT_TRUE(other.join_until(10s)) << other.explain();
    EXPECT_EQ(seen().transitions[0].fired, 1U);
}

// The connection is lost before a commit, which others had overtaken, or after it.
TEST_P(ovel_durable_store_test, a_member_is_told_though_its_connection_was_lost) {
    for (std::string const point : {"before", "after"}) {
        std::string const name = _name + point;
        std::atomic<bool> reached = false, overtaken = false;
        bool cut = false;  // the server thread's
        auto const pass = [&](std::string const& here) {
            if (here != point || std::exchange(cut, true))
                return;
            reached = true;
            wait_for([&] { return point == "after" || overtaken; });
            throw parts::unreachable("cut");
        };
        connect()->open(plan(name, 1, 0));
        std::string told;
        auto chosen = quick();
        chosen.lease = 0.3;
        chosen.report = [&](std::string const& line) {
            told += line + '\n';
        };
        durable::net sleeper(observed(pass), name, chosen), other(_url, name, quick());
        build(sleeper, same);
        build(other, same);
        sleeper.start();
        EXPECT_TRUE(wait_for([&] { return reached.load(); }));
        other.start();
        other.join();
        overtaken = true;
        sleeper.join();
        EXPECT_EQ(contains(told, "others had taken over 1 of its firings"), point == "before")
            << told;
        EXPECT_EQ(connect()->look(name).places[2].tokens, 1U);
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
    EXPECT_TRUE(contains(net.explain(), "place: 0 tokens of 100\n")) << net.explain();
}

TEST_P(ovel_durable_store_test, patience_ends_though_connections_succeed) {
    auto chosen = quick();
    chosen.patience = 0.3;
    durable::net net(observed([](std::string const& here) {
                         if (here == "before")
                             throw parts::unreachable("cut at each commit");
                     }),
                     _name, chosen);
    connect()->open(plan(_name, 1, 0));
    build(net, same);
    net.start();
    EXPECT_EQ(error_of([&] { EXPECT_TRUE(net.join_until(20s)); }), "cut at each commit");
}

// Though the first attempt to record it is cut, and its text is no UTF-8.
TEST_P(ovel_durable_store_test, a_failure_reaches_the_other_members) {
    bool cut = false;  // the server thread's
    auto const pass = [&](std::string const& here) {
        if (here == "failing" && !std::exchange(cut, true))
            throw parts::unreachable("cut");
    };
    connect()->open(plan(_name, 1, 0));
    durable::net failing(observed(pass), _name, quick()), other(_url, _name, quick());
    build(failing,
          [](int) -> int { throw std::runtime_error("bytes \xff\xed\xa0\x80 of \xc3\xa4"); });
    build(other, same);
    other.start({});
    failing.start();
    EXPECT_THROW(failing.join(), std::runtime_error);
    EXPECT_EQ(error_of([&] { EXPECT_TRUE(other.join_until(10s)); }),
              "bytes \\xff\\xed\\xa0\\x80 of \xc3\xa4");
    // From a program that is no member.
    other.start();
    EXPECT_TRUE(other.join_until(20s));
    other.start({});
    failing.fail(std::make_exception_ptr(std::runtime_error("enough")));
    EXPECT_EQ(seen().failure, "enough");
}

// Lost claims count like new ones, of whichever transition they are.
TEST_P(ovel_durable_store_test, lost_claims_are_within_what_a_member_may_fire) {
    for (std::size_t const lost : {0U, 1U}) {
        std::string const name = _name + std::to_string(lost);
        seat dead = enter(plan(name, lost == 0 ? 3 : 0, 1), lost);
        ASSERT_EQ(dead.claims.size(), 1U);
        lease(dead, -1);
        auto chosen = quick();
        chosen.firings = 1;
        durable::net net(_url, name, chosen);
        build(net, same);
        net.start();
        ASSERT_TRUE(net.join_until(20s)) << net.explain();
        parts::state const state = connect()->look(name);
        EXPECT_EQ(state.transitions[0].fired + state.transitions[1].fired, 1U);
    }
}

TEST_P(ovel_durable_store_test, tables_of_another_version_are_refused) {
    connect()->open(plan(_name, 0, 0));
    bool const postgresql = GetParam() == std::string("postgresql");
    auto const set = [&](std::string const& version) {
        if (postgresql) {
            _server->run("UPDATE ovel_durable.version SET number = " + version);
            return;
        }
        sqlite3* file = nullptr;
        ASSERT_EQ(sqlite3_open(_url.c_str() + 7, &file), SQLITE_OK);
        ASSERT_EQ(sqlite3_exec(file, ("PRAGMA user_version = " + version).c_str(), nullptr, nullptr,
                               nullptr),
                  SQLITE_OK);
        sqlite3_close(file);
    };
    auto const number = std::to_string(parts::tables_version);
    set("1");
    std::string const told =
        "the store's tables are of version 1, and this program knows version " + number +
        ": end its nets with the release that made them, or use another store";
    EXPECT_EQ(error_of([&] { connect()->open(plan(_name, 0, 0)); }), told);
    EXPECT_EQ(error_of([&] { connect()->nets(); }), told);
    EXPECT_EQ(error_of([&] { connect()->look(_name); }), told);
    set(number);
    EXPECT_EQ(error_of([&] { connect()->open(plan(_name, 0, 0)); }), "no error");
}

// A program that looks for a net makes no file, and none turns another's file into a store.
TEST(ovel_durable_file_test, a_file_that_is_no_store_stays_as_it_is) {
    folder const place;
    std::string const file = place.path() + "/file";
    auto const connect = parts::connect_to("sqlite:" + file);
    std::string const absent = "the store " + file + ": unable to open database file";
    EXPECT_EQ(error_of([&] { parts::nets_of(connect); }), absent);
    EXPECT_EQ(error_of([&] { parts::state_of(connect, "net"); }), absent);
    EXPECT_FALSE(std::filesystem::exists(file));

    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(file.c_str(), &other), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(other, "CREATE TABLE t (x)", nullptr, nullptr, nullptr), SQLITE_OK);
    std::string const foreign = "the store " + file + " is a database of another program";
    EXPECT_EQ(error_of([&] { parts::nets_of(connect); }), foreign);
    EXPECT_EQ(error_of([&] { connect()->open(plan("net", 0, 0)); }), foreign);
    sqlite3_stmt* mode = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(other, "PRAGMA journal_mode", -1, &mode, nullptr), SQLITE_OK);
    ASSERT_EQ(sqlite3_step(mode), SQLITE_ROW);
    EXPECT_STREQ(reinterpret_cast<char const*>(sqlite3_column_text(mode, 0)), "delete");
    sqlite3_finalize(mode);
    sqlite3_close(other);
}

// Only PostgreSQL runs transactions at the same time.
class ovel_durable_race_test : public ovel_durable_store_test {};
INSTANTIATE_TEST_SUITE_P(stores, ovel_durable_race_test, testing::Values("postgresql"),
                         [](auto const& chosen) { return std::string(chosen.param); });

// Two members find the same lost claim. One is slow: it reads the clock, to compare it with
// the lease, when the other has already taken the claim over.
TEST_P(ovel_durable_race_test, a_claim_is_not_taken_from_the_member_that_took_it_over) {
    seat dead = enter(plan(_name, 1, 0), 0);
    lease(dead, -1);
    seat quick = enter(plan(_name, 1, 0), 0);
    seat slow = enter(plan(_name, 1, 0), 0, "&application_name=slow");
    std::string const clock =
        "CREATE OR REPLACE FUNCTION ovel_durable.clock() RETURNS double precision ";
    _server->run(clock +
                 "LANGUAGE plpgsql AS 'BEGIN IF current_setting(''application_name'') = ''slow'' "
                 "THEN PERFORM pg_advisory_lock_shared(1), pg_advisory_unlock_shared(1); END IF; "
                 "RETURN extract(epoch FROM clock_timestamp()); END'");
    PGconn* const gate = PQconnectdb(_server->url().c_str());
    PQclear(PQexec(gate, "SELECT pg_advisory_lock(1)"));
    std::size_t taken = 0;
    std::thread late([&] { taken = take_over(slow).claims.size(); });
    EXPECT_TRUE(wait_for([&] {
        return _server->run(
                   "SELECT count(*) FROM pg_locks WHERE locktype = 'advisory' AND NOT "
                   "granted") == "1";
    }));
    parts::turned const first = take_over(quick);
    PQfinish(gate);
    late.join();
    EXPECT_EQ(first.claims.size(), 1U);
    EXPECT_EQ(taken, 0U);
    EXPECT_EQ(turn(quick, {{ended(quick, first.claims.at(0))}, {}, {}, 0, false}).committed, 1U);
    _server->run(clock +
                 "LANGUAGE sql AS 'SELECT extract(epoch FROM clock_timestamp())::double "
                 "precision'");
}

// A row may not have more than 1 GB, however many large values a member claims at once.
TEST_P(ovel_durable_race_test, large_values_are_in_rows_of_their_own) {
    parts::structure own = plan(_name, 0, 0);
    std::string const large(1'500'000, 'x');
    own.places[0].initial = {"1", large, large, large, "2", "3"};
    own.places[1].initial = {large, large, large, large, large, large};
    own.transitions[1].arcs = {{0, true, 1}, {1, true, 1}, {2, false, 1}};
    seat member = enter(own, 1);
    auto claims = turn(member, {{}, {}, member.net.transitions, 4, false}).claims;
    claims.insert(claims.begin(), member.claims.begin(), member.claims.end());
    ASSERT_EQ(claims.size(), 6U);
    EXPECT_GE(std::stoi(_server->run("SELECT count(*) FROM ovel_durable.claims WHERE net = " +
                                     std::to_string(member.net.net))),
              4);
    parts::turn all;
    std::set<std::int64_t> numbers;
    for (parts::claim const& each : claims) {
        numbers.insert(each.number);
        all.ended.push_back(ended(member, each));
        for (std::string const& value : each.values)
            EXPECT_TRUE(value.size() == large.size() || value.size() == 1);
    }
    EXPECT_EQ(numbers.size(), 6U);
    EXPECT_EQ(turn(member, all).committed, 6U);
    EXPECT_EQ(seen().places[2].tokens, 6U);
}

// What follows a commit cannot undo it: a token that was received is there.
TEST_P(ovel_durable_race_test, an_error_after_a_commit_loses_nothing) {
    durable::net receiver(_url, _name, quick()), sender(_url, _name, quick());
    auto const out = receiver.insert_place<int>("place", 1);
    auto const in = sender.insert_place<int>("place", 1);
    std::string told;
    int number = 0;
    std::thread blocked([&] { told = error_of([&] { number = out.receive(); }); });
    EXPECT_TRUE(wait_for([&] {
        return _server->run(
                   "SELECT count(*) FROM pg_tables WHERE schemaname = 'ovel_durable' AND "
                   "tablename = 'watchers'") == "1" &&
               _server->run(
                   "SELECT count(*) FROM ovel_durable.watchers w JOIN ovel_durable.nets n "
                   "ON n.id = w.net WHERE n.name = '" +
                   _name + "'") == "1";
    }));
    _server->run(
        "CREATE FUNCTION ovel_durable.full() RETURNS trigger LANGUAGE plpgsql AS 'BEGIN RAISE "
        "EXCEPTION ''full''; END'; CREATE TRIGGER disk_full BEFORE DELETE ON ovel_durable.watchers "
        "FOR "
        "EACH ROW EXECUTE FUNCTION ovel_durable.full(); CREATE FUNCTION ovel_durable.pg_notify("
        "text, text) RETURNS void LANGUAGE plpgsql AS 'BEGIN RAISE EXCEPTION ''full''; END'");
    EXPECT_EQ(error_of([&] { in.send(7); }), "no error");
    blocked.join();
    EXPECT_EQ(told, "no error");
    EXPECT_EQ(number, 7);
    _server->run(
        "DROP FUNCTION ovel_durable.pg_notify; DROP TRIGGER disk_full ON ovel_durable.watchers; "
        "DROP "
        "FUNCTION ovel_durable.full");
}

}  // namespace
