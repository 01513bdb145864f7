// SPDX-License-Identifier: Apache-2.0
// What survives the death of members, of the server, and of connections.
#include "ovel_durable_fixture.h"
#include "ovel_durable_ledger.h"
#include "ovel_durable_mortal_store.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

using ovel_durable_test::contains;
using ovel_durable_test::error_of;
using ovel_durable_test::folder;
using ovel_durable_test::ledger;
using ovel_durable_test::server;
using ovel_durable_test::wait_for;
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

// Between clients and a server: passes everything on, and can cut a connection between the
// server's answer to a prepared statement and its client.
class proxy {
public:
    explicit proxy(std::string const& server_folder) : _server(address(server_folder)) {
        _listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un const own = address(_folder.path());
        if (bind(_listener, reinterpret_cast<sockaddr const*>(&own), sizeof own) != 0 ||
            listen(_listener, 100) != 0)
            throw std::runtime_error("no proxy");
        _accepting = std::thread([this] { _accept(); });
    }
    ~proxy() {
        _over = true;
        _accepting.join();
        for (std::thread& each : _connections)
            each.join();
        close(_listener);
    }
    proxy(proxy const&) = delete;
    proxy& operator=(proxy const&) = delete;

    std::string url() const {
        return "postgresql://ovel@/postgres?host=" + _folder.path();
    }

    std::atomic<int> cuts_wanted = 0;
    std::atomic<int> cuts = 0;

    // Stops a client that has just locked others out: the server waits for its next statement.
    std::atomic<bool> stops_with_lock = false;
    std::atomic<bool> stopped = false;

private:
    static sockaddr_un address(std::string const& folder) {
        sockaddr_un made{};
        made.sun_family = AF_UNIX;
        std::strncpy(made.sun_path, (folder + "/.s.PGSQL.5432").c_str(), sizeof made.sun_path - 1);
        return made;
    }
    bool _wait(int one, int other) const {
        pollfd both[] = {{one, POLLIN, 0}, {other, POLLIN, 0}};
        while (!_over)
            if (poll(both, other == -1 ? 1 : 2, 20) > 0)
                return true;
        return false;
    }
    void _accept() {
        while (_wait(_listener, -1))
            if (int const client = accept(_listener, nullptr, nullptr); client != -1)
                _connections.emplace_back([this, client] { _pass(client); });
    }
    void _pass(int client) {
        int const server = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (connect(server, reinterpret_cast<sockaddr const*>(&_server), sizeof _server) == 0)
            while (_wait(client, server) && _pass_on(client, server)) {}
        close(client);
        close(server);
    }
    bool _pass_on(int client, int server) {
        char bytes[65536];
        ssize_t size = recv(client, bytes, sizeof bytes, MSG_DONTWAIT);
        if (size > 0) {
            bool const cut = bytes[0] == 'B' && cuts_wanted > 0;
            if (send(server, bytes, static_cast<std::size_t>(size), MSG_NOSIGNAL) != size)
                return false;
            if (std::string_view(bytes, static_cast<std::size_t>(size)).find("advisory") !=
                    std::string_view::npos &&
                stops_with_lock.exchange(false)) {
                stopped = true;
                while (_wait(server, -1) && recv(server, bytes, sizeof bytes, MSG_DONTWAIT) > 0) {}
                return false;
            }
            if (!cut)
                return true;
            --cuts_wanted;
            ++cuts;
            return _wait(server, -1) && false;  // the answer is there: it was committed
        }
        if (size == 0)
            return false;
        size = recv(server, bytes, sizeof bytes, MSG_DONTWAIT);
        if (size > 0)
            return send(client, bytes, static_cast<std::size_t>(size), MSG_NOSIGNAL) == size;
        return size != 0;
    }

    folder _folder;
    sockaddr_un const _server;
    int _listener = -1;
    std::atomic<bool> _over = false;
    std::thread _accepting;
    std::vector<std::thread> _connections;
};

class ovel_durable_crash_test : public testing::TestWithParam<char const*> {
protected:
    static void TearDownTestSuite() {
        _server.reset();
    }
    void SetUp() override {
        if (GetParam() == std::string("postgresql")) {
            if (_server == nullptr)
                _server = std::make_unique<server>();
            _url = _server->url();
        } else {
            _url = "sqlite:" + _folder.path() + "/store";
        }
        static int number = 0;
        _name = "crash " + std::to_string(++number);
    }

    durable::options quick() {
        durable::options chosen;
        chosen.threads = 2;
        chosen.batch = 5;
        chosen.poll = 0.1;
        chosen.lease = 0.5;
        chosen.report = [this](std::string const& line) {
            std::lock_guard const hold(_lock);
            _reports += line + '\n';
        };
        return chosen;
    }
    std::string reports() {
        std::lock_guard const hold(_lock);
        return _reports;
    }

    static std::unique_ptr<server> _server;
    folder _folder;
    std::string _url;
    std::string _name;

private:
    std::mutex _lock;
    std::string _reports;
};
std::unique_ptr<server> ovel_durable_crash_test::_server;

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
        run.net.explain();
        _server->run(
            "CREATE FUNCTION ovel_durable.full() RETURNS trigger LANGUAGE plpgsql AS 'BEGIN IF "
            "random() < 0.1 THEN RAISE EXCEPTION ''could not extend file'' USING ERRCODE = "
            "''disk_full''; END IF; RETURN NEW; END'; CREATE TRIGGER disk_full BEFORE INSERT ON "
            "ovel_durable.tokens FOR EACH ROW EXECUTE FUNCTION ovel_durable.full()");
        run.net.start();
        EXPECT_TRUE(contains(error_of([&] { run.net.join(); }), "could not extend file"));
        _server->run("DROP TRIGGER disk_full ON ovel_durable.tokens");
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
        run.net.explain();
        _server->run(
            "CREATE FUNCTION ovel_durable.abort() RETURNS trigger LANGUAGE plpgsql AS 'BEGIN IF "
            "random() < 0.1 THEN RAISE EXCEPTION ''deadlock detected'' USING ERRCODE = "
            "''deadlock_detected''; END IF; RETURN NEW; END'; CREATE TRIGGER abort BEFORE INSERT "
            "ON "
            "ovel_durable.tokens FOR EACH ROW EXECUTE FUNCTION ovel_durable.abort()");
        run.net.start();
        run.net.join();
        _server->run("DROP TRIGGER abort ON ovel_durable.tokens");
        run.verify();
    }
    EXPECT_EQ(reports(), "");
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
    std::vector<std::thread> receivers;
    for (int i = 0; i < 3; ++i)
        receivers.emplace_back([&] { place.receive(); });
    ASSERT_TRUE(wait_for([&] {
        return _server->run(
                   "SELECT count(*) FROM pg_stat_activity WHERE application_name = "
                   "'ovel'") == "3";
    }));
    for (int i = 0; i < 3; ++i)
        place.send(i);
    for (std::thread& each : receivers)
        each.join();
    _server->kill();
    _server->start();
    EXPECT_EQ(error_of([&] { place.send(4); }), "no error");
    EXPECT_EQ(place.try_receive(), 4);
}

// It holds the lock for those that make or compare nets.
TEST_P(ovel_durable_server_test, a_process_that_stops_in_a_transaction_does_not_stop_others) {
    proxy between(_server->socket_folder());
    between.stops_with_lock = true;
    std::string told;
    std::thread stopped([&] {
        durable::net net(between.url(), _name, quick());
        net.insert_place<int>("place", 1);
        told = error_of([&] { net.start(); });
    });
    ASSERT_TRUE(wait_for([&] { return between.stopped.load(); }));
    durable::net net(_url, _name, quick());
    auto const place = net.insert_place<int>("place", 1);
    place.send(1);
    stopped.join();
    EXPECT_TRUE(contains(told, "the connection to the store is lost")) << told;
}

TEST_P(ovel_durable_server_test, a_refused_login_is_one_error) {
    std::string url = _url;
    url.replace(url.find("ovel@"), 4, "stranger");
    durable::net net(url, _name);
    std::string const told = error_of([&] { net.start(); });
    EXPECT_TRUE(contains(told, "no connection to the store: ")) << told;
    EXPECT_TRUE(contains(told, "role \"stranger\" does not exist")) << told;
}

// The connection is cut after the commit of a call, or of a member's transaction, and before
// its answer.
TEST_P(ovel_durable_server_test, a_call_is_exact_though_its_answer_is_lost) {
    proxy between(_server->socket_folder());
    durable::net net(between.url(), _name, quick());
    auto const place = net.insert_place<int>("place", 100);
    for (int i = 0; i < 20; ++i) {
        between.cuts_wanted = i % 2;
        place.send(i);
    }
    EXPECT_EQ(between.cuts, 10);
    for (int i = 0; i < 20; ++i) {
        between.cuts_wanted = i % 2;
        EXPECT_EQ(place.receive(), i);
    }
    EXPECT_EQ(between.cuts, 20);
    EXPECT_EQ(place.try_receive(), std::nullopt);
    EXPECT_TRUE(contains(net.explain(), "place: 0 tokens of 100\n")) << net.explain();
}

TEST_P(ovel_durable_server_test, a_member_is_exact_though_answers_are_lost) {
    proxy between(_server->socket_folder());
    std::atomic<int> bodies = 0;
    ledger run(durable::detail::connect_to(between.url()), _name, quick(), [&] { ++bodies; });
    run.net.start();
    for (int cut = 1; cut <= 8; ++cut) {
        between.cuts_wanted = 1;
        ASSERT_TRUE(wait_for([&] { return between.cuts == cut; }));
        int const before = bodies;  // it goes on, unless it was at its end
        ASSERT_TRUE(wait_for(
            [&] { return bodies > before + 5 || run.net.join_until(std::chrono::seconds(0)); }));
        if (bodies <= before + 5)
            break;
    }
    EXPECT_GE(between.cuts, 3);
    between.cuts_wanted = 0;
    ledger last(durable::detail::connect_to(_url), _name, quick());
    last.net.start();
    last.net.join();
    last.verify();
}

}  // namespace
