// SPDX-License-Identifier: Apache-2.0
// Durable nets within one process, on either store.
#include "ovel_durable_fixture.h"

using namespace ovel_durable_test;

// A value whose bytes cannot always be read, or made.
struct brittle {
    std::string text;
};

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
INSTANTIATE_TEST_SUITE_P(stores, ovel_durable_test, either_store, store_name);

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

// Claimed firings that were not begun are given back at once, in their old order. Another
// process would find them, and the numbers of firings.
TEST_P(ovel_durable_test, the_next_member_goes_on_where_a_halted_one_stopped) {
    std::atomic<int> begun = 0;
    std::atomic<bool> go_on = false;
    auto const pass = [&](int number) {
        if (++begun == 31)
            until([&] { return go_on.load(); });
        return number;
    };
    durable::net halted(_url, _name, quick({.threads = 1}));
    durable::net next(_url, _name, quick({.threads = 1}));
    auto const in = insert_work(halted, pass).first;
    auto const out = insert_work(next, pass).second;
    for (int i = 0; i < 60; ++i)
        in.send(i);
    halted.start();
    ASSERT_TRUE(wait_for([&] { return begun == 31; }));
    halted.halt();
    go_on = true;
    halted.join();
    EXPECT_EQ(begun, 31);
    EXPECT_TRUE(contains(next.explain(), "No claim is open"));
    EXPECT_TRUE(contains(next.explain(), "in: 29 tokens of 100\n  out: 31 tokens of 100\n"));
    EXPECT_TRUE(contains(next.explain(), "work: 31 firings, enabled, no member runs it\n"));
    next.start();
    for (int i = 0; i < 60; ++i)
        EXPECT_EQ(out.receive(), i);
    next.join();
    EXPECT_TRUE(contains(next.explain(), "work: 60 firings"));
}

// The child of a fork ends neither the threads of a net nor its connections.
TEST_P(ovel_durable_test, a_fork_only_destroys_its_copy) {
    auto net = std::make_unique<durable::net>(_url, _name, quick());
    auto const [in, out] = insert_work(*net, same);
    net->start();
    in.send(1);
    EXPECT_EQ(out.receive(), 1);
    EXPECT_TRUE(in_fork([&] { net.reset(); }));
    in.send(2);
    EXPECT_EQ(out.receive(), 2);
    net->join();
    EXPECT_EQ(reports(), "");
}

// Of two nets with the same transitions, each runs only its own. No member is at rest while a
// transition is enabled that none runs, or while the body of another one runs.
TEST_P(ovel_durable_test, members_run_what_they_name_and_rest_together) {
    std::atomic<bool> begun = false, go_on = false;
    auto const build = [&](durable::net& net, int one, int two) {
        auto const a = net.insert_place<int>("a", 100);
        auto const b = net.insert_place<int>("b", 100);
        auto const c = net.insert_place<int>("c", 100);
        net.insert_transition("one", from(a), to(b), [=](int number) { return number + one; });
        net.insert_transition("two", from(b), to(c), [&begun, &go_on, two](int number) {
            begun = true;
            until([&] { return go_on.load(); });
            return number + two;
        });
        return std::pair(a, c);
    };
    durable::net left(_url, _name, quick()), right(_url, _name, quick());
    auto const in = build(left, 100, 1000).first;
    auto const out = build(right, 2000, 200).second;
    EXPECT_EQ(error_of([&] {
                  left.start({"one", "three"});
              }),
              "the net \"" + _name + "\" has not every transition that is to be run");
    left.start({"one"});
    in.send(0);
    EXPECT_FALSE(left.join_until(100ms));
    EXPECT_TRUE(contains(left.explain(), "two: 0 firings, enabled, no member runs it"));
    right.start({"two"});
    ASSERT_TRUE(wait_for([&] { return begun.load(); }));
    EXPECT_FALSE(left.join_until(300ms));
    EXPECT_TRUE(contains(left.explain(),
                         "b: 1 token of 100, 1 claimed\n  c: 0 tokens of 100, 1 slot reserved\n"));
    EXPECT_TRUE(contains(left.explain(), "1 firing of two by "));
    go_on = true;
    for (int i = 1; i < 20; ++i)
        in.send(i);
    std::set<int> got;
    for (int i = 0; i < 20; ++i)
        got.insert(out.receive());
    left.join();
    right.join();
    EXPECT_TRUE(got.size() == 20 && *got.begin() == 300 && *got.rbegin() == 319);
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

// Though the first attempt to record it is cut, and its text is no UTF-8.
TEST_P(ovel_durable_test, an_exception_fails_the_net_for_all_and_keeps_the_tokens) {
    bool cut = false;  // the server thread's
    auto const cut_once = [&](std::string const& here) {
        if (here == "failing" && !std::exchange(cut, true))
            throw parts::unreachable("cut");
    };
    std::atomic<bool> broken = true;
    std::mutex lock;
    std::vector<std::string> keys;
    auto const work = [&](durable::key const& firing, int number) {
        if (number == 3) {
            std::lock_guard const hold(lock);
            keys.push_back(firing.text());
            if (broken)
                throw std::logic_error("bytes \xff\xed\xa0\x80 of \xc3\xa4");
        }
        return number;
    };
    durable::net net(observed(cut_once), _name, quick()), other(_url, _name, quick()),
        client(_url, _name, quick());
    auto const [in, out] = insert_work(net, work);
    insert_work(other, work);
    auto const blocked = insert_work(client, work).second;
    other.start({});
    auto told = error_later([&] {
        for (;;)
            blocked.receive();
    });
    for (int i = 1; i <= 3; ++i)
        in.send(i);
    net.start();
    EXPECT_THROW(net.join(), std::logic_error);
    std::string const all = "bytes \\xff\\xed\\xa0\\x80 of \xc3\xa4";
    EXPECT_EQ(error_of([&] { other.join(); }), all);
    EXPECT_EQ(told.get(), all);
    EXPECT_TRUE(contains(net.explain(), "Failed: " + all));
    EXPECT_TRUE(contains(net.explain(), " of 100, 1 claimed"));
    broken = false;
    other.start();
    other.join();
    std::set<int> got;
    while (std::optional<int> const next = out.try_receive())
        EXPECT_TRUE(got.insert(*next).second);
    EXPECT_TRUE(got.contains(3));
    ASSERT_EQ(keys.size(), 2U);
    EXPECT_EQ(keys[0], keys[1]);
    // From a program that is no member.
    other.start({});
    net.fail(std::make_exception_ptr(std::runtime_error("enough")));
    EXPECT_EQ(connect()->look(_name).failure, "enough");
}

TEST_P(ovel_durable_test, a_codec_that_throws_keeps_the_token_and_names_it) {
    struct {
        char const* token;
        char const* result;
        char const* what;
        char const* which;
    } const faults[] = {
        {"unreadable", "x", "cannot decode token ", "of the place \"in\": no way to read it"},
        {"x", "unwritable", "cannot encode a token for the place \"out\", of the firing ",
         " of \"work\" with token "},
    };
    for (auto const& [token, result, what, which] : faults) {
        durable::net net(_url, new_name(), quick());
        auto const in = net.insert_place<brittle>("in", 10, {{token}});
        auto const out = net.insert_place<brittle>("out", 10);
        net.insert_transition("work", from(in), to(out),
                              [&, text = result](brittle) { return brittle{text}; });
        net.start();
        std::string const told = error_of([&] { net.join(); });
        EXPECT_TRUE(contains(told, std::string("the codec \"brittle\" ") + what));
        EXPECT_TRUE(contains(told, which));
        EXPECT_TRUE(contains(net.explain(), "in: 1 token of 10, 1 claimed"));
    }
    // A client that is no member.
    durable::net net(_url, new_name(), quick());
    auto const in = net.insert_place<brittle>("in", 10, {{"unreadable"}});
    for (int i = 0; i < 2; ++i)
        EXPECT_TRUE(contains(error_of([&] { in.receive(); }), "cannot decode token "));
    EXPECT_TRUE(contains(net.explain(), "in: 1 token of 10\n"));
    EXPECT_TRUE(contains(net.explain(), "Failed: the codec \"brittle\" cannot decode token "));
}

// The names of stores, and what refuses them.
TEST(ovel_durable_error_test, a_store_that_cannot_be_used_is_one_clear_error) {
    folder const place;
    std::ofstream(place / "text") << std::string(5000, 'x');
    std::pair<std::string, char const*> const stores[] = {
        {"mysql:x", "a store is sqlite:FILE or postgresql://..., not \"mysql:x\""},
        {"sqlite:/nowhere/at/all", "the store /nowhere/at/all: unable to open database file"},
        {"sqlite:" + place / "text", "file is not a database"},
        {"postgresql://ovel@/x?host=" + place.path(),
         "no connection to the store: connection to server on socket"},
    };
    for (auto const& [url, error] : stores)
        EXPECT_TRUE(contains(error_of([&, name = url] {
                                 durable::net net(name, "net");
                                 net.insert_place<int>("place", 1);
                                 net.start();
                             }),
                             error));
    durable::net twice("sqlite:x", "net"), other("sqlite:x", "net");
    auto const first = twice.insert_place<int>("place", 1);
    EXPECT_CHECK(twice.insert_place<int>("place", 1), "each.name != name",
                 "durable/sources/ovel_durable_client.cpp");
    EXPECT_CHECK(other.insert_transition("take", from(first), [](int) {}),
                 "from.end._owner == &_owner", "durable/includes/ovel_durable.h");
}

}  // namespace
