// SPDX-License-Identifier: Apache-2.0
// What survives the death of members, of the server, and of connections.
#include "ovel_durable_fixture.h"
#include "ovel_durable_ledger.h"

using namespace ovel_durable_test;

namespace {

class ovel_durable_crash_test : public on_either_store {
protected:
    // A member of the net `name`, in a process of its own whose error stream goes to a file, after
    // commands of the shell: how the process ends.
    std::future<int> member(std::string const& name, std::string const& does,
                            std::string const& commands = "") {
        std::string const command = commands + "echo $$ >" + _folder / "process" +
                                    "; exec " OVEL_DURABLE_MEMBER " '" + _url + "' '" + name +
                                    "' " + does + " 2>>" + _folder / "errors";
        return std::async(std::launch::async, [command] { return std::system(command.c_str()); });
    }
    // Sends a signal to the last of them.
    void signal(std::string const& number) {
        EXPECT_EQ(std::system(("kill -" + number + " " + content(_folder / "process")).c_str()), 0);
    }
    // What they have said.
    std::string errors() {
        return content(_folder / "errors");
    }

    parts::connector store() {
        return parts::connect_to(_url);
    }
    durable::options quick(durable::options const& chosen = {}) {
        return quickly(on_either_store::quick(chosen));
    }

    // What is left of the ledger's firings goes on as if nothing had happened.
    void finish(std::string const& name) {
        ledger last(store(), name, quick());
        last.run();
        last.verify();
    }

    // Runs the ledger on a server that refuses one in ten of its tokens: with what it fails.
    std::string error_of_run(std::string const& refusal) {
        ledger run(store(), _name, quick());
        run.net.explain();  // makes the tables
        postgresql().run(
            "CREATE OR REPLACE FUNCTION ovel_durable.refuse() RETURNS trigger LANGUAGE plpgsql AS "
            "'BEGIN IF random() < 0.1 THEN RAISE " +
            refusal +
            "; END IF; RETURN NEW; END'; CREATE TRIGGER refuse BEFORE INSERT ON "
            "ovel_durable.tokens FOR EACH ROW EXECUTE FUNCTION ovel_durable.refuse()");
        std::string const told = error_of([&] { run.run(); });
        postgresql().run("DROP TRIGGER refuse ON ovel_durable.tokens");
        return told;
    }
};
INSTANTIATE_TEST_SUITE_P(stores, ovel_durable_crash_test, either_store, store_name);

// Three processes fire the ledger; each is killed at some point, and another takes its place,
// until enough were. No place ever has more tokens than room. OVEL_DURABLE_KILLS says how many that
// is.
TEST_P(ovel_durable_crash_test, no_token_is_lost_or_duplicated_by_kills) {
    char const* const asked = std::getenv("OVEL_DURABLE_KILLS");
    int const wanted = asked != nullptr ? std::atoi(asked) : 24;
    char const* const points[] = {"claimed", "body", "before", "after"};
    std::mt19937 random(20);
    int kills = 0, rounds = 0, started = 0;
    while (kills < wanted) {
        std::string const name = _name + " round " + std::to_string(++rounds);
        auto const start = [&] {
            // Each point in turn; after enough kills, none.
            std::string const point = kills < wanted ? points[started++ % 4] : "none";
            int const count = 1 + static_cast<int>(random() % (point == "body" ? 12 : 4));
            return member(name, point + ' ' + std::to_string(count));
        };
        ledger last(store(), name, quick());
        last.net.explain();  // makes the net
        auto const watcher = connect();
        std::vector<std::future<int>> members;
        for (int i = 0; i < 3; ++i)
            members.push_back(start());
        // A member that comes to rest leaves; then all will.
        bool at_rest = false;
        while (!members.empty()) {
            auto ended = members.end();
            ASSERT_TRUE(wait_for([&] {
                for (auto const& place : watcher->look(name).places)
                    EXPECT_TRUE(place.tokens <= place.capacity &&
                                place.free <= place.capacity - place.tokens)
                        << place.name;
                ended = std::ranges::find_if(members, [](auto const& each) {
                    return each.wait_for(0s) == std::future_status::ready;
                });
                return ended != members.end();
            })) << errors();
            int const status = ended->get();
            bool const killed = status == SIGKILL;  // a wait status, without a core
            EXPECT_TRUE(killed || status == 0) << errors();
            kills += killed;
            at_rest = at_rest || !killed;
            members.erase(ended);
            if (killed && !at_rest)
                members.push_back(start());
        }
        // Those that are left may all have been killed when the first had found it at rest,
        // but no firing was open then.
        last.run();
        last.verify();
        if (HasFailure())
            return;
    }
    std::printf("%d kills in %d runs of the ledger\n", kills, rounds);
}

// No file may grow beyond some size: one error, and what was committed is there later.
TEST_P(ovel_durable_crash_test, a_full_disk_is_an_error_that_loses_nothing) {
    if (on_server()) {
        EXPECT_TRUE(contains(error_of_run("disk_full"), "disk_full"));
    } else {
        ledger(store(), _name, quick()).net.explain();  // makes the tables
        EXPECT_EQ(WTERMSIG(member(_name, "none 0", "trap '' XFSZ; ulimit -f 400; ").get()),
                  SIGABRT);
        EXPECT_TRUE(contains(errors(), "the store " + file() + ": disk I/O error"));
    }
    finish(_name);
}

// Transactions that the database aborts in favour of others are repeated without a report.
TEST_P(ovel_durable_crash_test, an_aborted_transaction_is_repeated) {
    if (on_server()) {
        EXPECT_EQ(error_of_run("deadlock_detected"), "no error");
        finish(_name);
    } else {
        // A new file that another connection is writing to: a switch to the write-ahead log is
        // refused at once. Then one that has the log.
        for (std::string const mode : {"delete", "wal"}) {
            sqlite_file other(file() + mode);
            other.run("PRAGMA journal_mode = " + mode +
                      "; BEGIN IMMEDIATE; CREATE TABLE t (x); DROP TABLE t");
            auto told = error_later(
                [&] { ledger(parts::connect_to(_url + mode), _name, quick()).net.start(); });
            told.wait_for(100ms);
            other.run("COMMIT");
            EXPECT_EQ(told.get(), "no error") << mode;
        }
    }
    EXPECT_EQ(reports(), "");
}

// The connection is lost between each fifth commit and its answer.
TEST_P(ovel_durable_crash_test, a_member_is_exact_though_answers_are_lost) {
    int commits = 0;  // the server thread's
    auto const lose = [&](std::string const& here) {
        if (here == "after" && ++commits % 5 == 0)
            throw parts::unreachable("cut");
    };
    ledger run(observed(lose), _name, quick());
    run.run();
    EXPECT_GE(commits, 15);
    EXPECT_FALSE(contains(reports(), "taken over"));
    run.verify();
}

// Only PostgreSQL has a server and connections.
class ovel_durable_server_test : public ovel_durable_crash_test {
protected:
    std::atomic<int> bodies = 0;
    std::function<void()> const count_body = [this] {
        ++bodies;
    };
};
INSTANTIATE_TEST_SUITE_P(stores, ovel_durable_server_test, server_only, store_name);

// Two members of the ledger, under whose hands the server crashes and comes back.
TEST_P(ovel_durable_server_test, a_crash_of_the_server_loses_nothing) {
    ledger left(store(), _name, quick(), count_body), right(store(), _name, quick(), count_body);
    left.net.start();
    right.net.start();
    for (int crash = 1; crash <= 2; ++crash) {
        ASSERT_TRUE(wait_for([&] { return bodies > 60 * crash; }));
        postgresql().kill();
        postgresql().start();
    }
    left.net.join();
    right.net.join();
    left.verify();
    std::string const told = reports();
    EXPECT_TRUE(contains(told, "trying again"));
    EXPECT_TRUE(contains(told, "the connection to the store is back"));
}

TEST_P(ovel_durable_server_test, a_server_that_stays_away_is_one_error) {
    ledger run(store(), _name, quick({.patience = 0.3}), count_body);
    run.net.start();
    ASSERT_TRUE(wait_for([&] { return bodies > 30; }));
    postgresql().stop();
    std::string const told = error_of([&] { run.net.join(); });
    EXPECT_TRUE(contains(told, "store"));
    EXPECT_FALSE(contains(told, "\n"));
    EXPECT_TRUE(contains(error_of([&] { run.net.start(); }), "no connection to the store"));
    postgresql().start();
    run.run();
    run.verify();
}

// The server's crash has cut all connections that a client has in store.
TEST_P(ovel_durable_server_test, a_call_after_a_crash_connects_anew) {
    durable::net net(_url, _name, quick({.patience = 0}));
    auto const place = net.insert_place<int>("place", 10);
    auto receivers = crew(3, [&](int) { place.receive(); });
    ASSERT_TRUE(wait_for([&] {
        return postgresql().run(
                   "SELECT count(*) FROM pg_stat_activity WHERE application_name = "
                   "'ovel'") == "3";
    }));
    for (int i = 0; i < 3; ++i)
        place.send(i);
    receivers.clear();
    postgresql().kill();
    postgresql().start();
    EXPECT_EQ(error_of([&] { place.send(4); }), "no error");
    EXPECT_EQ(place.try_receive(), 4);
}

// It is stopped while it waits for the lock of those that make or compare nets, and then has it.
TEST_P(ovel_durable_server_test, a_process_that_stops_in_a_transaction_does_not_stop_others) {
    PGconn* const gate = PQconnectdb(_url.c_str());
    PQclear(PQexec(gate, "SELECT pg_advisory_lock(7310021996)"));
    auto stopped = member(_name, "none 0");
    EXPECT_TRUE(wait_for([&] {
        return postgresql().run("SELECT count(*) FROM pg_locks WHERE NOT granted") == "1";
    }));
    signal("STOP");
    PQfinish(gate);
    durable::net net(_url, new_name(), quick());
    net.insert_place<int>("place", 1).send(1);
    signal("CONT");
    stopped.wait();
    EXPECT_TRUE(contains(errors(), "the connection to the store is lost"));
}

}  // namespace
