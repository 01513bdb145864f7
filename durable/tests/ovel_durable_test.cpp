// SPDX-License-Identifier: Apache-2.0
// Durable nets within one process, on either store.
#include "../../tests/ovel_test.h"
#include "ovel_durable_fixture.h"

#include <fstream>
#include <mutex>
#include <optional>
#include <set>

#include <sys/wait.h>
#include <unistd.h>

using namespace std::chrono_literals;
using namespace ovel_durable_test;
namespace durable = ovel::durable;

namespace {

// A value whose bytes cannot always be read, or made.
struct brittle {
    std::string text;
};

}  // namespace

template <>
struct ovel::durable::codec<brittle> {
    static constexpr char const* name = "brittle";
    static std::string encode(brittle const& value) {
        if (value.text == "unwritable")
            throw std::runtime_error("no way to write it");
        return value.text;
    }
    static brittle decode(std::string_view bytes) {
        if (bytes == "unreadable")
            throw std::runtime_error("no way to read it");
        return {std::string(bytes)};
    }
};

namespace {

class ovel_durable_test : public on_either_store {};
INSTANTIATE_TEST_SUITE_P(stores, ovel_durable_test, testing::Values("sqlite", "postgresql"),
                         [](auto const& chosen) { return std::string(chosen.param); });

// Weights, tuples, optional results and keys, and values of any bytes.
TEST_P(ovel_durable_test, a_body_gets_and_gives_what_its_arcs_say) {
    std::string const odd("a\0'\"\\\n{,}\xff", 10);
    durable::net net(_url, _name, quick());
    auto const words = net.insert_place<std::string>("words", 10, {"b", odd});
    auto const pairs = net.insert_place<std::string>("pairs", 10);
    auto const rests = net.insert_place<int>("rests", 10);
    auto const made = net.insert_place<std::string>("made", 3);
    std::mutex lock;
    std::set<std::string> keys;
    net.insert_transition("pair", from(words.times(2)), to(pairs, rests),
                          [&](durable::key const& firing, std::vector<std::string> two) {
                              std::lock_guard const hold(lock);
                              keys.insert(firing.text());
                              return std::tuple(two[0] + two[1], two[0] == "b"
                                                                     ? std::optional<int>()
                                                                     : std::optional<int>(-7));
                          });
    net.insert_transition("burst", from(rests), to(made.times(3)), [](int number) {
        return std::vector<std::string>{std::to_string(number), ""};
    });
    net.start();
    EXPECT_EQ(pairs.receive(), "b" + odd);
    words.send("c");
    words.send("d");
    EXPECT_EQ(pairs.receive(), "cd");
    net.join();
    EXPECT_EQ(keys.size(), 2U);
    EXPECT_EQ(made.try_receive(), "-7");
    EXPECT_EQ(made.try_receive(), "");
    EXPECT_EQ(made.try_receive(), std::nullopt);
    // The slots that were left are free.
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(made.try_send("x"));
    EXPECT_FALSE(made.try_send("x"));
}

// Another process would find the tokens, in their order, and the numbers of firings.
TEST_P(ovel_durable_test, a_net_goes_on_where_it_was) {
    auto const build = [](durable::net& net) {
        auto const in = net.insert_place<int>("in", 100);
        auto const out = net.insert_place<int>("out", 5);
        net.insert_transition("pass", from(in), to(out), [](int number) { return number; });
        return std::pair(in, out);
    };
    {
        durable::net net(_url, _name, quick(1));
        auto const in = build(net).first;
        for (int i = 0; i < 10; ++i)
            in.send(i);
        net.start();
        net.join();  // the other place is full
    }
    durable::net net(_url, _name, quick(1));
    auto const [in, out] = build(net);
    EXPECT_TRUE(contains(net.explain(), "in: 5 tokens of 100\n")) << net.explain();
    EXPECT_TRUE(contains(net.explain(), "pass: 5 firings, no member runs it\n")) << net.explain();
    net.start();
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(out.receive(), i);
    net.join();
    EXPECT_TRUE(contains(net.explain(), "pass: 10 firings")) << net.explain();
}

// The child of a fork ends neither the threads of a net nor its connections.
TEST_P(ovel_durable_test, a_fork_only_destroys_its_copy) {
    auto net = std::make_unique<durable::net>(_url, _name, quick());
    auto const in = net->insert_place<int>("in", 10);
    auto const out = net->insert_place<int>("out", 10);
    net->insert_transition("pass", from(in), to(out), [](int number) { return number; });
    net->start();
    in.send(1);
    EXPECT_EQ(out.receive(), 1);
    pid_t const child = fork();
    if (child == 0) {
        net.reset();
        _exit(0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    in.send(2);
    EXPECT_EQ(out.receive(), 2);
    net->join();
    EXPECT_EQ(reports(), "");
}

// Of two nets with the same transition, each runs only its own.
TEST_P(ovel_durable_test, members_run_what_they_name) {
    std::atomic<int> first = 0, second = 0;
    auto const build = [](durable::net& net, std::atomic<int>& count) {
        auto const a = net.insert_place<int>("a", 100);
        auto const b = net.insert_place<int>("b", 100);
        auto const c = net.insert_place<int>("c", 100);
        net.insert_transition("one", from(a), to(b), [&](int number) {
            ++count;
            return number;
        });
        net.insert_transition("two", from(b), to(c), [&](int number) {
            count += 1000;
            return number;
        });
        return std::pair(a, c);
    };
    durable::net left(_url, _name, quick()), right(_url, _name, quick());
    auto const in = build(left, first).first;
    auto const out = build(right, second).second;
    EXPECT_EQ(error_of([&] {
                  left.start({"one", "three"});
              }),
              "the net \"" + _name + "\" has not every transition that is to be run");
    left.start({"one"});
    for (int i = 0; i < 20; ++i)
        in.send(i);
    // No member runs the other one, so the net is not at rest.
    EXPECT_FALSE(left.join_until(100ms));
    EXPECT_TRUE(contains(left.explain(), "two: 0 firings, enabled, no member runs it"))
        << left.explain();
    right.start({"two"});
    std::multiset<int> got;
    for (int i = 0; i < 20; ++i)
        got.insert(out.receive());
    left.join();
    right.join();
    EXPECT_EQ(first, 20);
    EXPECT_EQ(second, 20000);
    EXPECT_EQ(std::set<int>(got.begin(), got.end()).size(), 20U);
}

// One member has a long body, the other nothing to do: neither is at rest.
TEST_P(ovel_durable_test, rest_is_not_premature) {
    std::atomic<bool> begun = false, go_on = false;
    auto const build = [&](durable::net& net) {
        auto const a = net.insert_place<int>("a", 1);
        auto const b = net.insert_place<int>("b", 1);
        net.insert_transition("long", from(a), to(b), [&](int number) {
            begun = true;
            while (!go_on)
                std::this_thread::sleep_for(1ms);
            return number;
        });
        return a;
    };
    durable::net busy(_url, _name, quick()), idle(_url, _name, quick());
    auto const a = build(busy);
    build(idle);
    a.send(1);
    busy.start();
    ASSERT_TRUE(wait_for([&] { return begun.load(); }));
    idle.start();
    EXPECT_FALSE(idle.join_until(300ms));
    EXPECT_TRUE(contains(idle.explain(),
                         "a: 1 token of 1, 1 claimed\n  b: 0 tokens of 1, 1 slot "
                         "reserved\n"))
        << idle.explain();
    EXPECT_TRUE(contains(idle.explain(), "1 firing of long by ")) << idle.explain();
    go_on = true;
    idle.join();
    busy.join();
    EXPECT_TRUE(contains(idle.explain(), "b: 1 token of 1\n")) << idle.explain();
}

// Two members race for the last slot, over and over: a body of the second place would see
// that there are two tokens where one has room.
TEST_P(ovel_durable_test, capacity_holds_between_members) {
    char const* const asked = std::getenv("OVEL_DURABLE_ROUNDS");
    int const rounds = asked != nullptr ? std::atoi(asked) : 300;
    std::atomic<int> inside = 0, most = 0;
    auto const build = [&](durable::net& net) {
        std::vector<int> const tokens(static_cast<std::size_t>(rounds));
        auto const in = net.insert_place<int>("in", tokens.size(), tokens);
        auto const slot = net.insert_place<int>("slot", 1);
        net.insert_transition("enter", from(in), to(slot), [](int number) { return number; });
        net.insert_transition("leave", from(slot), [&](int) {
            int const now = ++inside;
            if (now > most)
                most = now;
            --inside;
        });
    };
    durable::net left(_url, _name, quick()), right(_url, _name, quick());
    build(left);
    build(right);
    left.start();
    right.start();
    std::atomic<bool> over = false;
    bool held = true;
    std::thread watcher([&] {
        durable::detail::connector const look = durable::detail::connect_to(_url);
        while (!over) {
            durable::detail::state const seen = durable::detail::state_of(look, _name);
            for (auto const& place : seen.places)
                held = held && place.tokens + place.free <= place.capacity;
            std::this_thread::sleep_for(1ms);
        }
    });
    left.join();
    right.join();
    over = true;
    watcher.join();
    EXPECT_TRUE(held);
    EXPECT_EQ(most, 1);
    EXPECT_TRUE(contains(left.explain(), "leave: " + std::to_string(rounds) + " firings"))
        << left.explain();
    EXPECT_TRUE(contains(left.explain(), "slot: 0 tokens of 1\n")) << left.explain();
}

TEST_P(ovel_durable_test, a_call_with_the_same_key_is_the_same_call) {
    durable::net net(_url, _name, quick());
    auto const place = net.insert_place<std::string>("place", 2);
    auto const other = net.insert_place<std::string>("other", 2);
    durable::key const one("order 1"), two("order 2"), take("take");
    place.send("one", one);
    place.send("one", one);
    EXPECT_TRUE(place.try_send("two", two));
    EXPECT_FALSE(place.try_send("three"));
    place.send("one", one);  // though there is no room
    EXPECT_EQ(place.receive(take), "one");
    EXPECT_EQ(place.receive(take), "one");
    EXPECT_EQ(place.receive(), "two");
    EXPECT_EQ(place.try_receive(take), "one");
    EXPECT_EQ(place.try_receive(), std::nullopt);
    // A key knows its call.
    auto const refused = [&](auto const& call) {
        EXPECT_TRUE(contains(error_of(call), "is the key of an earlier call, of another kind"));
    };
    refused([&] { place.receive(one); });
    refused([&] { place.send("one", take); });
    refused([&] { other.send("one", one); });
    refused([&] { other.try_receive(take); });
    // As a process that does not know that its earlier life has sent it.
    durable::net again(_url, _name, quick());
    auto const same = again.insert_place<std::string>("place", 2);
    again.insert_place<std::string>("other", 2);
    same.send("one", one);
    EXPECT_EQ(place.try_receive(), std::nullopt);
}

// A blocked sender goes on when a token is taken; a blocked receiver when there is one. The
// first use comes from several threads.
TEST_P(ovel_durable_test, blocked_clients_are_woken) {
    durable::net net(_url, _name, quick());
    auto const place = net.insert_place<int>("place", 1);
    auto const senders = crew(4, [&](int member) {
        for (int i = 0; i < 5; ++i)
            place.send(5 * member + i);
    });
    std::set<int> got;
    for (int i = 0; i < 20; ++i)
        EXPECT_TRUE(got.insert(place.receive()).second);
}

TEST_P(ovel_durable_test, an_exception_fails_the_net_and_keeps_the_tokens) {
    std::atomic<bool> broken = true;
    std::mutex lock;
    std::vector<std::string> keys;
    auto const build = [&](durable::net& net) {
        auto const in = net.insert_place<int>("in", 10);
        auto const out = net.insert_place<int>("out", 10);
        net.insert_transition("work", from(in), to(out),
                              [&](durable::key const& firing, int number) {
                                  if (number == 3) {
                                      std::lock_guard const hold(lock);
                                      keys.push_back(firing.text());
                                      if (broken)
                                          throw std::logic_error("not today");
                                  }
                                  return number;
                              });
        return std::pair(in, out);
    };
    durable::net net(_url, _name, quick()), other(_url, _name, quick()),
        client(_url, _name, quick());
    auto const [in, out] = build(net);
    build(other);
    auto const blocked = build(client).second;
    other.start({});
    std::string told;
    std::thread receiver([&] {
        told = error_of([&] {
            for (;;)
                blocked.receive();
        });
    });
    for (int i = 1; i <= 3; ++i)
        in.send(i);
    net.start();
    EXPECT_THROW(net.join(), std::logic_error);
    EXPECT_EQ(error_of([&] { other.join(); }), "not today");
    receiver.join();
    EXPECT_EQ(told, "not today");
    EXPECT_TRUE(contains(net.explain(), "Failed: not today")) << net.explain();
    EXPECT_TRUE(contains(net.explain(), " of 10, 1 claimed")) << net.explain();
    broken = false;
    other.start();
    other.join();
    std::set<int> got;
    while (std::optional<int> const next = out.try_receive())
        EXPECT_TRUE(got.insert(*next).second);
    EXPECT_TRUE(got.contains(3));
    ASSERT_EQ(keys.size(), 2U);
    EXPECT_EQ(keys[0], keys[1]);
}

TEST_P(ovel_durable_test, a_codec_that_throws_keeps_the_token_and_names_it) {
    for (std::string const text : {"unreadable", "unwritable"}) {
        std::string const name = new_name();
        durable::net net(_url, name, quick());
        auto const in = net.insert_place<brittle>("in", 10, {{text == "unreadable" ? text : "x"}});
        auto const out = net.insert_place<brittle>("out", 10);
        net.insert_transition("work", from(in), to(out), [&](brittle) { return brittle{text}; });
        net.start();
        std::string const told = error_of([&] { net.join(); });
        EXPECT_TRUE(contains(told, text == "unreadable"
                                       ? "the codec \"brittle\" cannot decode token "
                                       : "the codec \"brittle\" cannot encode a token for the "
                                         "place \"out\", of the firing "))
            << told;
        EXPECT_TRUE(contains(told, text == "unreadable" ? "of the place \"in\": no way to read it"
                                                        : " of \"work\" with token "))
            << told;
        EXPECT_TRUE(contains(net.explain(), "in: 1 token of 10, 1 claimed")) << net.explain();
    }
    // A client that is no member.
    durable::net net(_url, new_name(), quick());
    auto const in = net.insert_place<brittle>("in", 10, {{"unreadable"}});
    for (int i = 0; i < 2; ++i)
        EXPECT_TRUE(contains(error_of([&] { in.receive(); }), "cannot decode token ")) << i;
    EXPECT_TRUE(contains(net.explain(), "in: 1 token of 10\n")) << net.explain();
    EXPECT_TRUE(contains(net.explain(), "Failed: the codec \"brittle\" cannot decode token "))
        << net.explain();
}

// Claimed firings that were not begun are returned at once, in their old order.
TEST_P(ovel_durable_test, a_member_that_is_halted_gives_back_what_it_has_not_begun) {
    std::atomic<int> begun = 0;
    std::atomic<bool> go_on = false;
    durable::net net(_url, _name, quick(1));
    auto const in = net.insert_place<int>("in", 100);
    auto const out = net.insert_place<int>("out", 100);
    net.insert_transition("work", from(in), to(out), [&](int number) {
        ++begun;
        if (number == 30)
            while (!go_on)
                std::this_thread::sleep_for(1ms);
        return number;
    });
    for (int i = 0; i < 60; ++i)
        in.send(i);
    net.start();
    ASSERT_TRUE(wait_for([&] { return begun == 31; }));
    net.halt();
    go_on = true;
    net.join();
    EXPECT_EQ(begun, 31);
    EXPECT_TRUE(contains(net.explain(), "No claim is open")) << net.explain();
    for (int i = 0; i < 31; ++i)
        EXPECT_EQ(out.try_receive(), i);
    for (int i = 31; i < 60; ++i)
        EXPECT_EQ(in.try_receive(), i);
    EXPECT_TRUE(contains(net.explain(), "out: 0 tokens of 100\n")) << net.explain();
}

TEST_P(ovel_durable_test, no_more_is_fired_than_was_allowed) {
    auto chosen = quick();
    chosen.firings = 17;
    durable::net net(_url, _name, chosen);
    auto const circle = net.insert_place<int>("circle", 10, {1, 2, 3});
    net.insert_transition("turn", from(circle), to(circle), [](int number) { return number; });
    net.start();
    net.join();
    EXPECT_TRUE(contains(net.explain(), "turn: 17 firings, enabled")) << net.explain();
    EXPECT_TRUE(contains(net.explain(), "circle: 3 tokens of 10\n")) << net.explain();
}

// The names of stores, and what refuses them.
TEST(ovel_durable_error_test, a_store_that_cannot_be_used_is_one_clear_error) {
    auto const start = [](std::string const& url) {
        durable::net net(url, "net");
        net.insert_place<int>("place", 1);
        net.start();
    };
    EXPECT_EQ(error_of([&] { start("mysql:x"); }),
              "a store is sqlite:FILE or postgresql://..., not \"mysql:x\"");
    EXPECT_EQ(error_of([&] { start("sqlite:/nowhere/at/all"); }),
              "the store /nowhere/at/all: unable to open database file");
    folder const place;
    std::ofstream(place.path() + "/text") << std::string(5000, 'x');
    EXPECT_TRUE(contains(error_of([&] { start("sqlite:" + place.path() + "/text"); }),
                         "file is not a database"));
    durable::net twice("sqlite:x", "net");
    auto const first = twice.insert_place<int>("place", 1);
    EXPECT_CHECK(twice.insert_place<int>("place", 1), "each.name != name",
                 "durable/sources/ovel_durable_client.cpp");
    durable::net other("sqlite:x", "net");
    EXPECT_CHECK(other.insert_transition("take", from(first), [](int) {}),
                 "from.end._owner == &_owner", "durable/includes/ovel_durable.h");
    EXPECT_TRUE(contains(error_of([&] { start("postgresql://ovel@/x?host=" + place.path()); }),
                         "no connection to the store: connection to server on socket"));
}

}  // namespace
