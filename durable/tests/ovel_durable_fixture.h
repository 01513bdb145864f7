// SPDX-License-Identifier: Apache-2.0
// What the suites share that run on either store.
#ifndef OVEL_DURABLE_FIXTURE_H
#define OVEL_DURABLE_FIXTURE_H

#include "../../tests/ovel_test.h"
#include "ovel_durable.h"
#include "ovel_durable_server.h"
#include "ovel_durable_store.h"

#include <sqlite3.h>

namespace ovel_durable_test {

namespace durable = ovel::durable;
namespace parts = ovel::durable::detail;
using namespace std::chrono_literals;

// What a call throws.
template <class Call>
std::string error_of(Call const& call) {
    try {
        call();
    } catch (std::exception const& thrown) {
        return thrown.what();
    }
    return "no error";
}

// The same, on a thread of its own.
template <class Call>
std::future<std::string> error_later(Call const& call) {
    return std::async(std::launch::async, [call] { return error_of(call); });
}

// What another program does with a file of SQLite.
class sqlite_file {
public:
    explicit sqlite_file(std::string const& path) {
        sqlite3* opened = nullptr;
        sqlite3_open(path.c_str(), &opened);
        _file.reset(opened, sqlite3_close);
    }

    // Runs SQL, and returns the first field of the last row.
    std::string run(std::string const& statements) {
        std::string field;
        auto const keep = [](void* kept, int, char** fields, char**) {
            *static_cast<std::string*>(kept) = fields[0];
            return 0;
        };
        if (sqlite3_exec(_file.get(), statements.c_str(), keep, &field, nullptr) != SQLITE_OK)
            throw std::runtime_error(sqlite3_errmsg(_file.get()));
        return field;
    }

private:
    std::shared_ptr<sqlite3> _file;
};

// Forwards to another store, and calls an observer at some points, which may kill the process
// or throw what a lost connection throws.
class mortal_store : public parts::store {
public:
    using observer = std::function<void(std::string const& point)>;

    mortal_store(std::unique_ptr<parts::store> behind, observer pass)
        : _behind(std::move(behind)), _pass(std::move(pass)) {}

    parts::turned take_turn(std::int64_t net, std::int64_t member,
                            parts::turn const& asked) override {
        if (!asked.ended.empty())
            _pass("before");
        parts::turned made = _behind->take_turn(net, member, asked);
        if (made.committed != 0)
            _pass("after");
        if (!made.claims.empty())
            _pass("claimed");
        return made;
    }

    parts::answer put(std::int64_t net, std::int64_t place, std::string const& value,
                      parts::call const& named) override {
        parts::answer const made = _behind->put(net, place, value, named);
        _pass("put");
        return made;
    }
    parts::answer take(std::int64_t net, std::int64_t place, parts::call const& named,
                       parts::acceptor const& accept) override {
        parts::answer const made = _behind->take(net, place, named, accept);
        _pass("taken");
        return made;
    }
    void fail(std::int64_t net, std::string const& why) override {
        _pass("failing");
        _behind->fail(net, why);
    }

// What is only forwarded.
#define FORWARD(result, name, parameters, ...) \
    result name parameters override {          \
        return _behind->name(__VA_ARGS__);     \
    }
    using number = std::int64_t;
    using numbers = std::vector<std::int64_t>;
    using text = std::string;
    FORWARD(parts::numbers, open, (parts::structure const& net), net)
    FORWARD(number, enter, (number net, text const& name, double lease, numbers const& runs), net,
            name, lease, runs)
    FORWARD(void, renew,
            (number net, number member, text const& name, double lease, numbers const& runs), net,
            member, name, lease, runs)
    FORWARD(std::vector<parts::claim>, claims_of, (number member), member)
    FORWARD(number, fired_by, (number member), member)
    FORWARD(void, disown, (number member, number claim), member, claim)
    FORWARD(parts::rest_state, rest, (number net), net)
    FORWARD(std::vector<text>, nets, ())
    FORWARD(parts::state, look, (text const& net), net)
    FORWARD(bool, repeats, (text const& net), net)
    FORWARD(void, watch, (number net, text const& watcher, double seconds), net, watcher, seconds)
    FORWARD(void, unwatch, (text const& watcher), watcher)
    FORWARD(void, tell, (number net), net)
    FORWARD(bool, wait, (double seconds, int bell), seconds, bell)
#undef FORWARD

private:
    std::unique_ptr<parts::store> const _behind;
    observer const _pass;
};

// The place `in`, with `out`, to which the transition `work` passes its tokens on.
template <class Body>
auto insert_work(durable::net& net, Body const& body, std::uint64_t room = 100) {
    auto const in = net.insert_place<int>("in", 100);
    auto const out = net.insert_place<int>("out", room);
    net.insert_transition("work", from(in), to(out), body);
    return std::pair(in, out);
}

inline int same(int number) {
    return number;
}

// For members that are killed often.
inline durable::options quickly(durable::options chosen = {}) {
    chosen.threads = 2;
    chosen.batch = 5;
    chosen.poll = 0.1;
    chosen.lease = 0.5;
    return chosen;
}

// The parameters of the suites, and the names of their tests.
inline auto const either_store = testing::Values("sqlite", "postgresql");
inline auto const server_only = testing::Values("postgresql");
inline std::string store_name(testing::TestParamInfo<char const*> const& chosen) {
    return chosen.param;
}

class on_either_store : public testing::TestWithParam<char const*> {
protected:
    // One for all tests, started by the first that needs it.
    static server& postgresql() {
        static server started;
        return started;
    }
    static bool on_server() {
        return GetParam() == std::string("postgresql");
    }
    std::string file() const {
        return _folder / "store";
    }

    // A name that no other test has.
    static std::string new_name() {
        static int number = 0;
        return "net " + std::to_string(++number);
    }

    durable::options quick(durable::options chosen = {.threads = 2}) {
        chosen.poll = 0.2;
        chosen.lease = std::min(chosen.lease, 5.0);
        chosen.report = [this](std::string const& line) {
            std::lock_guard const hold(_lock);
            _reports += line + '\n';
        };
        return chosen;
    }

    // Since the last call.
    std::string reports() {
        std::lock_guard const hold(_lock);
        return std::exchange(_reports, "");
    }

    std::unique_ptr<parts::store> connect(std::string const& more = "") {
        return parts::connect_to(_url + more)();
    }
    parts::connector observed(mortal_store::observer const& pass) {
        return [this, pass] {
            return std::make_unique<mortal_store>(connect(), pass);
        };
    }

    folder _folder;
    std::string _url = on_server() ? postgresql().url() : "sqlite:" + file();
    std::string _name = new_name();

private:
    std::mutex _lock;
    std::string _reports;
};

}  // namespace ovel_durable_test

#endif
