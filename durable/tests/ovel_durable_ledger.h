// SPDX-License-Identifier: Apache-2.0
// A net with joins, cycles, optional results and little room, whose tokens can be counted:
// each of the numbers it starts with is split into two halves, one goes through three drafts
// with a clerk at hand, and any two halves are joined. In the end each half is there once,
// and each clerk, and the number of firings is known.
#ifndef OVEL_DURABLE_LEDGER_H
#define OVEL_DURABLE_LEDGER_H

#include "ovel_durable_fixture.h"

namespace ovel_durable_test {

class ledger {
public:
    static constexpr int numbers = 40;

    // `in_body` is called in each body.
    ledger(
        parts::connector const& to_store, std::string const& name, durable::options chosen,
        std::function<void()> const& in_body = [] {})
        : net(to_store, name, std::move(chosen)), connect(to_store) {
        std::vector<std::string> all;
        for (int i = 0; i < numbers; ++i)
            all.push_back(std::to_string(i));
        auto const start = net.insert_place<std::string>("start", numbers, all);
        auto const left = net.insert_place<std::string>("left", 4);
        auto const right = net.insert_place<std::string>("right", 4);
        auto const drafts = net.insert_place<std::string>("drafts", 4);
        auto const again = net.insert_place<std::string>("again", numbers);
        auto const good = net.insert_place<std::string>("good", 4);
        _clerks = net.insert_place<std::string>("clerks", 6, {"c1", "c2", "c3"});
        _done = net.insert_place<std::string>("done", numbers);
        net.insert_transition("split", from(start), to(left, right),
                              [in_body](std::string const& number) {
                                  in_body();
                                  return std::tuple(number + "L", number + "R");
                              });
        auto const write = [in_body](std::string const& draft, std::string const& clerk) {
            in_body();
            return std::tuple(draft + '#', clerk);
        };
        net.insert_transition("draft", from(left, *_clerks), to(drafts, *_clerks), write);
        net.insert_transition("redraft", from(again, *_clerks), to(drafts, *_clerks), write);
        net.insert_transition(
            "check", from(drafts), to(again, good), [in_body](std::string const& draft) {
                in_body();
                bool const ready = draft.ends_with("###");
                using some = std::optional<std::string>;
                return std::tuple(ready ? some() : some(draft), ready ? some(draft) : some());
            });
        net.insert_transition("join", from(good, right), to(*_done),
                              [in_body](std::string const& one, std::string const& other) {
                                  in_body();
                                  return one + '+' + other;
                              });
    }

    void run() {
        net.start();
        net.join();
    }

    // The net is at rest: nothing was lost or duplicated.
    void verify() {
        parts::state const seen = connect()->look(net.name());
        EXPECT_TRUE(seen.claims.empty());
        EXPECT_EQ(seen.failure, "");
        for (auto const& place : seen.places)
            EXPECT_EQ(place.tokens + place.free, place.capacity) << place.name;
        std::map<std::string, std::uint64_t> const expected{{"split", numbers},
                                                            {"draft", numbers},
                                                            {"redraft", 2 * numbers},
                                                            {"check", 3 * numbers},
                                                            {"join", numbers}};
        for (auto const& each : seen.transitions)
            EXPECT_EQ(each.fired, expected.at(each.name)) << each.name;
        std::set<std::string> clerks, halves, wanted;
        while (auto const clerk = _clerks->try_receive())
            EXPECT_TRUE(clerks.insert(*clerk).second) << *clerk;
        EXPECT_EQ(clerks, (std::set<std::string>{"c1", "c2", "c3"}));
        while (auto const both = _done->try_receive()) {
            std::size_t const middle = both->find('+');
            EXPECT_TRUE(halves.insert(both->substr(0, middle)).second) << *both;
            EXPECT_TRUE(halves.insert(both->substr(middle + 1)).second) << *both;
        }
        for (int i = 0; i < numbers; ++i) {
            wanted.insert(std::to_string(i) + "L###");
            wanted.insert(std::to_string(i) + 'R');
        }
        EXPECT_EQ(halves, wanted);
    }

    durable::net net;
    parts::connector const connect;

private:
    std::optional<durable::place<std::string>> _clerks, _done;
};

}  // namespace ovel_durable_test

#endif
