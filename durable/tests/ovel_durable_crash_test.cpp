// SPDX-License-Identifier: Apache-2.0
// What survives the death of members, of the server, and of connections.
#include "../../tests/ovel_test.h"
#include "ovel_durable_fixture.h"
#include "ovel_durable_ledger.h"
#include "ovel_durable_mortal_store.h"

#include <fcntl.h>
#include <libpq-fe.h>
#include <signal.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>

using namespace ovel_durable_test;
namespace durable = ovel::durable;
namespace fs = std::filesystem;

namespace {

std::string content(std::string const& file) {
    std::ifstream in(file);
    return {std::istreambuf_iterator<char>(in), {}};
}

// A process of ovel_durable_member, whose error stream goes to a file.
class process {
public:
    process(std::vector<std::string> arguments, std::string const& errors) {
        arguments.insert(arguments.begin(), OVEL_DURABLE_MEMBER);
        std::vector<char*> words;
        for (std::string& each : arguments)
            words.push_back(each.data());
        words.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errors.c_str(),
                                         O_WRONLY | O_CREAT | O_APPEND, 0666);
        if (posix_spawn(&_id, words[0], &actions, nullptr, words.data(), environ) != 0)
            throw std::runtime_error("no process");
        posix_spawn_file_actions_destroy(&actions);
    }
    ~process() {
        if (!_ended) {
            ::kill(_id, SIGKILL);
            waitpid(_id, nullptr, 0);
        }
    }
    process(process const&) = delete;
    process& operator=(process const&) = delete;

    void signal(int number) const {
        ::kill(_id, number);
    }

    // How it ended, once it has.
    bool has_ended() {
        _ended = _ended || waitpid(_id, &_status, WNOHANG) == _id;
        return _ended;
    }
    bool was_killed() const {
        return WIFSIGNALED(_status) && WTERMSIG(_status) == SIGKILL;
    }
    int status() const {
        return WIFEXITED(_status) ? WEXITSTATUS(_status) : -1;
    }

private:
    pid_t _id = 0;
    int _status = 0;
    bool _ended = false;
};

class ovel_durable_crash_test : public on_either_store {
protected:
    durable::options quick() {
        durable::options chosen = on_either_store::quick();
        chosen.batch = 5;
        chosen.poll = 0.1;
        chosen.lease = 0.5;
        return chosen;
    }

    // Runs the ledger on a server that refuses one in ten of its tokens: with what it fails.
    std::string error_of_run(ledger& run, std::string const& refusal) {
        run.net.explain();  // makes the tables
        _server->run(
            "CREATE OR REPLACE FUNCTION ovel_durable.refuse() RETURNS trigger LANGUAGE plpgsql AS "
            "'BEGIN IF random() < 0.1 THEN RAISE " +
            refusal +
            "; END IF; RETURN NEW; END'; CREATE TRIGGER refuse BEFORE INSERT ON "
            "ovel_durable.tokens FOR EACH ROW EXECUTE FUNCTION ovel_durable.refuse()");
        run.net.start();
        std::string const told = error_of([&] { run.net.join(); });
        _server->run("DROP TRIGGER refuse ON ovel_durable.tokens");
        return told;
    }
};
INSTANTIATE_TEST_SUITE_P(stores, ovel_durable_crash_test, testing::Values("sqlite", "postgresql"),
                         [](auto const& chosen) { return std::string(chosen.param); });

// Three processes fire the ledger; each is killed at some point, and another takes its place,
// until enough were. OVEL_DURABLE_KILLS says how many that is.
TEST_P(ovel_durable_crash_test, no_token_is_lost_or_duplicated_by_kills) {
    char const* const asked = std::getenv("OVEL_DURABLE_KILLS");
    int const wanted = asked != nullptr ? std::atoi(asked) : 24;
    char const* const points[] = {"claimed", "body", "before", "after"};
    std::mt19937 random(20);
    std::string const errors = _folder.path() + "/errors";
    int kills = 0, rounds = 0, started = 0;
    while (kills < wanted) {
        std::string const name = _name + " round " + std::to_string(++rounds);
        auto const start = [&] {
            // Each point in turn; after enough kills, none.
            std::string const point = kills < wanted ? points[started++ % 4] : "";
            int const count = 1 + static_cast<int>(random() % (point == "body" ? 12 : 4));
            return std::make_unique<process>(
                std::vector<std::string>{_url, name, "ledger", point, std::to_string(count)},
                errors);
        };
        std::vector<std::unique_ptr<process>> members;
        for (int i = 0; i < 3; ++i)
            members.push_back(start());
        // A member that comes to rest leaves; then all will.
        bool at_rest = false;
        while (!members.empty())
            ASSERT_TRUE(wait_for([&] {
                for (auto& each : members)
                    if (each->has_ended()) {
                        if (each->was_killed())
                            ++kills;
                        else
                            EXPECT_EQ(each->status(), 0) << content(errors);
                        at_rest = at_rest || !each->was_killed();
                        bool const again = each->was_killed() && !at_rest;
                        each.reset();
                        if (again)
                            each = start();
                        else
                            std::erase(members, nullptr);
                        return true;
                    }
                return false;
            })) << content(errors);
        // Those that are left may all have been killed when the first had found it at rest,
        // but no firing was open then.
        ledger last(durable::detail::connect_to(_url), name, quick());
        last.net.start();
        last.net.join();
        last.verify();
        if (HasFailure())
            return;
    }
    std::printf("%d kills in %d runs of the ledger\n", kills, rounds);
}

// Asleep past its lease, its firing is another's; awake, it changes nothing and says so.
TEST_P(ovel_durable_crash_test, a_member_that_slept_past_its_lease_is_fenced) {
    std::string const errors = _folder.path() + "/errors";
    process sleeper({_url, _name, "sleeper", _folder.path()}, errors);
    ASSERT_TRUE(wait_for([&] { return fs::exists(_folder.path() + "/begun"); }));
    sleeper.signal(SIGSTOP);
    durable::net net(_url, _name, quick());
    auto const in = net.insert_place<int>("in", 1);
    auto const out = net.insert_place<int>("out", 2);
    net.insert_transition("sleep", from(in), to(out), [](int number) { return number + 100; });
    net.start();
    net.join();
    EXPECT_TRUE(contains(net.explain(), "sleep: 1 firing"));
    std::ofstream(_folder.path() + "/go on");
    sleeper.signal(SIGCONT);
    ASSERT_TRUE(wait_for([&] { return sleeper.has_ended(); }));
    EXPECT_EQ(sleeper.status(), 0);
    EXPECT_TRUE(contains(content(errors),
                         "others had taken over 1 of its firings, whose commit "
                         "changed nothing"))
        << content(errors);
    EXPECT_EQ(out.try_receive(), 101);
    EXPECT_EQ(out.try_receive(), std::nullopt);
    EXPECT_TRUE(contains(net.explain(), "sleep: 1 firing")) << net.explain();
}

// No file may grow beyond some size: one error, and what was committed is there later.
TEST_P(ovel_durable_crash_test, a_full_disk_is_an_error_that_loses_nothing) {
    if (GetParam() == std::string("sqlite")) {
        std::string const errors = _folder.path() + "/errors";
        { ledger(durable::detail::connect_to(_url), _name, quick()).net.explain(); }
        process limited({_url, _name, "limited", "200000"}, errors);
        ASSERT_TRUE(wait_for([&] { return limited.has_ended(); }));
        EXPECT_EQ(limited.status(), 1);
        EXPECT_TRUE(contains(content(errors), "the store " + _url.substr(7) + ": disk I/O error"))
            << content(errors);
    } else {
        ledger run(durable::detail::connect_to(_url), _name, quick());
        EXPECT_TRUE(contains(error_of_run(run, "disk_full"), "disk_full"));
    }
    ledger later(durable::detail::connect_to(_url), _name, quick());
    later.net.start();
    later.net.join();
    later.verify();
}

// Transactions that the database aborts in favour of others are repeated without a report.
TEST_P(ovel_durable_crash_test, an_aborted_transaction_is_repeated) {
    if (GetParam() == std::string("sqlite")) {
        // A new file that another connection is writing to: a switch to the write-ahead log is
        // refused at once. Then one that has the log.
        for (char const* const mode : {"delete", "wal"}) {
            std::string const url = _url + mode;
            sqlite3* other = nullptr;
            ASSERT_EQ(sqlite3_open(url.c_str() + 7, &other), SQLITE_OK);
            std::string const begin = std::string("PRAGMA journal_mode = ") + mode +
                                      "; BEGIN IMMEDIATE; CREATE TABLE t (x); DROP TABLE t";
            ASSERT_EQ(sqlite3_exec(other, begin.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
            std::atomic<bool> over = false;
            std::string told;
            std::thread starter([&] {
                told = error_of(
                    [&] { ledger(durable::detail::connect_to(url), _name, quick()).net.start(); });
                over = true;
            });
            auto const end = std::chrono::steady_clock::now() + std::chrono::milliseconds(100);
            while (!over && std::chrono::steady_clock::now() < end)
                std::this_thread::yield();
            EXPECT_EQ(sqlite3_exec(other, "COMMIT", nullptr, nullptr, nullptr), SQLITE_OK);
            starter.join();
            EXPECT_EQ(told, "no error") << mode;
            sqlite3_close(other);
        }
    } else {
        ledger run(durable::detail::connect_to(_url), _name, quick());
        EXPECT_EQ(error_of_run(run, "deadlock_detected"), "no error");
        run.verify();
    }
    EXPECT_EQ(reports(), "");
}

// The connection is lost between each fifth commit and its answer.
TEST_P(ovel_durable_crash_test, a_member_is_exact_though_answers_are_lost) {
    int commits = 0;  // the server thread's
    auto const lose = [&](std::string const& here) {
        if (here == "after" && ++commits % 5 == 0)
            throw durable::detail::unreachable("cut");
    };
    auto const connect = [&] {
        return std::make_unique<mortal_store>(durable::detail::connect_to(_url)(), lose);
    };
    ledger run(connect, _name, quick());
    run.net.start();
    run.net.join();
    EXPECT_GE(commits, 15);
    run.verify();
}

// Only PostgreSQL has a server and connections.
class ovel_durable_server_test : public ovel_durable_crash_test {};
INSTANTIATE_TEST_SUITE_P(stores, ovel_durable_server_test, testing::Values("postgresql"),
                         [](auto const& chosen) { return std::string(chosen.param); });

// Two members of the ledger, under whose hands the server crashes and comes back.
TEST_P(ovel_durable_server_test, a_crash_of_the_server_loses_nothing) {
    std::atomic<int> bodies = 0;
    auto const in_body = [&] {
        ++bodies;
    };
    ledger left(durable::detail::connect_to(_url), _name, quick(), in_body);
    ledger right(durable::detail::connect_to(_url), _name, quick(), in_body);
    left.net.start();
    right.net.start();
    for (int crash = 1; crash <= 2; ++crash) {
        ASSERT_TRUE(wait_for([&] { return bodies > 60 * crash; }));
        _server->kill();
        _server->start();
    }
    left.net.join();
    right.net.join();
    left.verify();
    EXPECT_TRUE(contains(reports(), "trying again")) << reports();
    EXPECT_TRUE(contains(reports(), "the connection to the store is back")) << reports();
}

TEST_P(ovel_durable_server_test, a_server_that_stays_away_is_one_error) {
    std::atomic<int> bodies = 0;
    auto chosen = quick();
    chosen.patience = 0.3;
    ledger run(durable::detail::connect_to(_url), _name, chosen, [&] { ++bodies; });
    run.net.start();
    ASSERT_TRUE(wait_for([&] { return bodies > 30; }));
    _server->stop();
    std::string const told = error_of([&] { run.net.join(); });
    EXPECT_TRUE(contains(told, "store")) << told;
    EXPECT_FALSE(contains(told, "\n")) << told;
    EXPECT_TRUE(contains(error_of([&] { run.net.start(); }), "no connection to the store"));
    _server->start();
    run.net.start();
    run.net.join();
    run.verify();
}

// The server's crash has cut all connections that a client has in store.
TEST_P(ovel_durable_server_test, a_call_after_a_crash_connects_anew) {
    auto chosen = quick();
    chosen.patience = 0;
    durable::net net(_url, _name, chosen);
    auto const place = net.insert_place<int>("place", 10);
    auto receivers = crew(3, [&](int) { place.receive(); });
    ASSERT_TRUE(wait_for([&] {
        return _server->run(
                   "SELECT count(*) FROM pg_stat_activity WHERE application_name = "
                   "'ovel'") == "3";
    }));
    for (int i = 0; i < 3; ++i)
        place.send(i);
    receivers.clear();
    _server->kill();
    _server->start();
    EXPECT_EQ(error_of([&] { place.send(4); }), "no error");
    EXPECT_EQ(place.try_receive(), 4);
}

// It is stopped while it waits for the lock of those that make or compare nets, and then has it.
TEST_P(ovel_durable_server_test, a_process_that_stops_in_a_transaction_does_not_stop_others) {
    std::string const errors = _folder.path() + "/errors";
    PGconn* const gate = PQconnectdb(_url.c_str());
    PQclear(PQexec(gate, "SELECT pg_advisory_lock(7310021996)"));
    process stopped({_url, _name, "ledger", "", "0"}, errors);
    EXPECT_TRUE(wait_for(
        [&] { return _server->run("SELECT count(*) FROM pg_locks WHERE NOT granted") == "1"; }));
    stopped.signal(SIGSTOP);
    PQfinish(gate);
    durable::net net(_url, new_name(), quick());
    net.insert_place<int>("place", 1).send(1);
    stopped.signal(SIGCONT);
    ASSERT_TRUE(wait_for([&] { return stopped.has_ended(); }));
    EXPECT_TRUE(contains(content(errors), "the connection to the store is lost"))
        << content(errors);
}

TEST_P(ovel_durable_server_test, a_refused_login_is_one_error) {
    std::string url = _url;
    url.replace(url.find("ovel@"), 4, "stranger");
    durable::net net(url, _name);
    std::string const told = error_of([&] { net.start(); });
    EXPECT_TRUE(contains(told, "no connection to the store: ")) << told;
    EXPECT_TRUE(contains(told, "role \"stranger\" does not exist")) << told;
}

}  // namespace
