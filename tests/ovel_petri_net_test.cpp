// SPDX-License-Identifier: Apache-2.0
// Petri nets, as far as scenarios on the simulated kernel do not test them. Those test tokens,
// clients and the stop under every interleaving.
#include "ovel_typed_nets.h"

namespace {

using namespace ovel;
using detail::inspector;

constexpr unsigned int stack = 65536;

// With variables for the places. Where it must not fire, its exception would end the test.
struct code : petri_function {
    void operator()() override {
        throw 1;
    }

    petri_place* in[2] = {};
    petri_place* out = nullptr;
};

// A net of one thread, with shorter ways to build it.
struct test_net : petri_net {
    test_net() : petri_net(1, 1.0, stack) {}

    petri_place* place(unsigned int capacity, int tokens = 0) {
        petri_place* const inserted = insert_place(capacity);
        for (int i = 0; i != tokens; ++i)
            send(inserted, i);
        return inserted;
    }
    // One that takes a token from `in`.
    petri_transition* transition(code& function, petri_place* in) {
        petri_transition* const inserted = insert_transition(function, false, 1.0, 0.0, 0);
        insert_input_arc(in, inserted->input(function.in[0]));
        return inserted;
    }
    // Starts the net and stops it when it has come to rest.
    void run() {
        release();
        acquire();
    }
};

constexpr char source[] = "sources/ovel_petri_net.cpp";
constexpr char header[] = "includes/ovel_petri_net.h";

TEST(petri_transition_test, an_arc_is_named_by_its_variable) {
    test_net net;
    code function;
    petri_place* const place = net.place(5);
    petri_transition* const t = net.insert_transition(function, false, 2.0, 0.5, 0);
    petri_arc* const in = net.insert_input_arc(place, t->input(function.in[0]).size(3).capacity(4));
    petri_arc* const out = net.insert_output_arc(t->output(function.out), place);
    EXPECT_TRUE(in->input() && !in->output() && !out->input() && out->output());
    EXPECT_EQ(std::pair(in->size(), out->size()), std::pair(3u, 1u));
    EXPECT_EQ(std::pair(function.in[0], function.out), std::pair(place, place));
    EXPECT_EQ(t->input(function.in[0]).place(), place);
    EXPECT_TRUE(&t->function() == &function && function.transition() == t && t->net() == &net);
    EXPECT_FALSE(inspector::enabled(petri_transition(*t)));  // the copy has the arcs

    // Another variable that holds the place names no arc.
    petri_place* other = place;
    EXPECT_CHECK(t->input(other).place(), "place != 0", header);

    EXPECT_EQ(std::vector(net.begin_places(), net.end_places()), std::vector{place});
    EXPECT_EQ(std::vector(net.begin_transitions(), net.end_transitions()), std::vector{t});
    EXPECT_EQ(std::vector(net.begin_arcs(), net.end_arcs()), (std::vector{in, out}));
}

TEST(petri_net_test, an_unusable_structure_fails_checks) {
    test_net net;
    code function;
    petri_place* const place = net.place(2);
    petri_place* const other = net.place(2);
    petri_transition* const t = net.transition(function, place);
    net.insert_output_arc(t->output(function.out), place);
    petri_place*& variable = function.in[1];
    EXPECT_CHECK(petri_net(nullptr, nullptr), "_groups != 0", source);
    EXPECT_CHECK(net.insert_place(0), "capacity != 0", source);
    EXPECT_CHECK(net.limit(t, 0), "firings != 0", source);

    auto const refuses = [&](double time, double space, unsigned int group) {
        EXPECT_CHECK(net.insert_transition(function, false, time, space, group),
                     "time > 0 && space >= 0 && group < _groups", source);
    };
    refuses(0.0, 0.0, 0);
    refuses(NAN, 0.0, 0);
    refuses(1.0, -1.0, 0);
    refuses(1.0, 0.0, 1);

    char const* const size = "connector.size() != 0 && connector.size() <= place->capacity()";
    EXPECT_CHECK(net.insert_input_arc(other, t->input(variable).size(0)), size, source);
    EXPECT_CHECK(net.insert_output_arc(t->output(variable).size(3), other), size, source);
    EXPECT_CHECK(net.insert_input_arc(other, t->output(variable)), "connector.input()", source);
    EXPECT_CHECK(net.insert_output_arc(t->input(variable), other), "connector.output()", source);
    EXPECT_CHECK(net.insert_input_arc(place, t->input(variable)),
                 "arc->input() != (*i)->input() || arc->place() != (*i)->place()", source);
    EXPECT_CHECK(net.insert_input_arc(other, t->input(function.out)),
                 "&arc->place_reference() != &(*i)->place_reference()", source);
    net.insert_transition(function, false, 1.0, 0.0, 0);
    EXPECT_CHECK(net.release(), "(*i)->input_size() != 0 || (*i)->output_size() != 0", source);
}

TEST(petri_net_test, misuse_of_a_net_fails_checks) {
    char const* const running = "!_queue_thread_acquired || _thread_group_acquireds != _groups";
    char const* const stopped =
        "_acquired && _queue_thread_acquired && _thread_group_acquireds == _groups";
    code function;
    auto net = std::make_unique<test_net>();
    petri_place* const place = net->place(1);
    petri_transition* const t = net->transition(function, place);
    EXPECT_CHECK(net->acquire(), running, source);
    EXPECT_CHECK((net->release(), net->insert_place(1)), stopped, source);
    EXPECT_CHECK((net->release(), net->insert_input_arc(place, t->input(function.in[1]))), stopped,
                 source);
    EXPECT_CHECK((net->release(), net->release()), stopped, source);
    EXPECT_CHECK((net->send(place, 0), net->run()), "(\"unexpected exception\", 0)", source);
    EXPECT_CHECK((net->release(), net.reset()), stopped, source);
}

// An arc that comes after the tokens must take its transition off the queue.
TEST(petri_engine_test, a_transition_that_a_new_arc_disables_does_not_fire) {
    for (bool const input : {true, false}) {
        test_net net;
        code function;
        petri_transition* const t = net.transition(function, net.place(1));
        net.send(function.in[0], 0);
        if (input)
            net.insert_input_arc(net.place(1), t->input(function.in[1]));
        else
            net.insert_output_arc(t->output(function.out), net.place(1, 1));
        net.run();
    }
}

// A dispatch takes as many firings as the group has threads, or one, and the end of each firing
// takes more, unless a limit forbids it.
TEST(petri_engine_test, firings_that_run_or_wait_are_bounded) {
    constexpr unsigned int tokens = 10;
    constexpr struct {
        unsigned int threads, limit;
        bool reentrant;
        unsigned int running, ended, taken;
    } cases[] = {{4, 0, true, 4, 0, 4}, {4, 0, false, 1, 0, 1}, {2, 3, true, 2, 3, 6}};
    for (auto const& [threads, limit, reentrant, running, ended, taken] : cases) {
        net tested(threads);
        semaphore begun(0, 0), go(0, 0);
        auto const place = tested.insert_place<unsigned int>("place", tokens);
        auto const body = [&](unsigned int) {
            begun.release();
            go.acquire();
        };
        tested.insert_transition("bounded", from(place), body,
                                 {.reentrant = reentrant, .limit = limit});
        for (unsigned int token = 0; token != tokens; ++token)
            place.send(token);
        tested.start();
        for (unsigned int firing = 0; firing != running; ++firing)
            begun.acquire();
        for (unsigned int firing = 0; firing != ended; ++firing) {
            go.release();
            begun.acquire();
        }
        EXPECT_EQ(drain(place).size(), tokens - taken);
        for (unsigned int firing = 0; firing != tokens; ++firing)
            go.release();
        tested.join();
    }
}

// More transitions than the array holds, with more pairs of space and time than a word has bits,
// each of two transitions. Priorities let the shortest time go first and the next one last. The
// last ones get no token.
TEST(petri_engine_test, transitions_that_one_firing_enables_fire_in_order) {
    constexpr unsigned int transitions = 164;
    constexpr unsigned int tokens = 140;
    net tested(1, 1.0, stack);
    auto const first = tested.insert_place<int>("first", 1);
    auto const shared = tested.insert_place<int>("shared", tokens);
    tested.insert_transition("start", from(first), to(shared.times(tokens)),
                             [](int) { return std::vector<int>(tokens); }, {.space = 1.0});
    std::vector<std::tuple<double, int, double>> expected, fired;
    for (unsigned int i = 0; i != transitions; ++i) {
        double const space = 0.5 * (i % 2), time = 1.0 + i % 41;
        int const priority = time == 1.0 ? 5000 : time == 2.0 ? -5000 : 0;
        expected.emplace_back(-space, -priority, -time);
        tested.insert_transition("take", from(shared),
                                 [&fired, mine = expected.back()](int) { fired.push_back(mine); },
                                 {.time = time * 1e-30, .space = space, .priority = priority});
    }
    std::ranges::sort(expected);
    expected.resize(tokens);
    first.send(0);
    run(tested);
    EXPECT_EQ(fired, expected);
}

// A plain net has a thread for each processor.
TEST(petri_net_test, the_threads_of_a_net_are_of_their_groups) {
    triple<unsigned int, double, unsigned int> const two[] = {{1, 0.0, stack}, {1, 2.0, 2 * stack}};
    petri_net const tested(std::begin(two), std::end(two));
    EXPECT_EQ(inspector::group(tested, 1).stack_size(), 2 * stack);
    EXPECT_EQ(inspector::queue_thread(tested).stack_size(), stack);
    EXPECT_EQ(inspector::group(petri_net(), 0).threads(), thread_support::processors());
    EXPECT_EQ(inspector::group(petri_net(), 0).stack_size(), 524288u);
}

TEST(petri_engine_test, a_thread_that_never_rests_collects_blocks_that_others_free) {
    constexpr int number = 1000;
    constexpr std::size_t most = std::size_t{1} << 20;  // of 4 MB
    using large = std::array<char, 4000>;
    std::size_t const before = allocator_support::allocated_size();
    net tested(1);
    auto const [in, ticks] = insert_places<int>(tested, number, "in", "ticks");
    auto const out = tested.insert_place<large>("out", number);
    std::atomic<int> made = 0;
    tested.insert_transition("make", from(in), to(out), [&](int) {
        ++made;
        return large();
    });
    // It leaves its token, and allocates nothing.
    auto const ticking = tested.insert_transition("tick", from(ticks), [](firing&) {});
    for (int i = 0; i != number; ++i)
        in.send(i);
    ticks.send(0);
    tested.start();
    until([&] { return made == number; });
    drain(out);
    until([&] { return allocator_support::allocated_size() < before + most; });
    ticking.deactivate();
    tested.join();
}

}  // namespace
