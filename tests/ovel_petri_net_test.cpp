// Petri nets: what is not left to their scenarios on the simulated kernel, which
// see to the tokens, the clients and the stop under every interleaving.

#include "ovel_petri_net.h"

#include "ovel_allocator_group.h"
#include "ovel_allocator_support.h"
#include "ovel_guard.h"
#include "ovel_semaphore.h"
#include "ovel_test.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <iterator>
#include <limits>
#include <memory>
#include <tuple>
#include <utility>
#include <vector>

struct ovel::detail::inspector {
    static constexpr auto reserve_receive = &petri_place::reserve_receive;
    static constexpr auto commit_receive = &petri_place::commit_receive;
    static constexpr auto reserve_send = &petri_place::reserve_send;
    static constexpr auto commit_send = &petri_place::commit_send;
    static constexpr auto find_place = &petri_transition::find_place;
    static constexpr auto begin_fire = &petri_transition::begin_fire;
    static constexpr auto end_fire = &petri_transition::end_fire;
    static constexpr auto thread_groups = &petri_net::_thread_groups;
    static constexpr auto queue_thread = &petri_net::_queue_thread;

    static std::pair<unsigned int, unsigned int> weight(petri_connector const& connector) {
        return {connector._size, connector._capacity};
    }
    // Of the net, once everything that is queued has been dispatched: the queue
    // thread takes it and reserves for it under one hold of the mutex.
    static unsigned int firings_dispatched(petri_net& net) {
        until([&] {
            guard const hold(net._mutex);
            return net._queue.empty();
        });
        guard const hold(net._mutex);
        return net._firings;
    }
    static bool queued(petri_net& net, petri_transition const* t) {
        guard const hold(net._mutex);
        return t->queued();
    }
    // From the next to fire to the last.
    static std::vector<petri_transition*> queue(petri_net& net) {
        std::vector<petri_transition*> order;
        for (auto each = net._queue.begin(); each != net._queue.end(); ++each)
            order.push_back(*each);
        return order;
    }
    static unsigned int tokens(petri_net& net, petri_place const* place) {
        guard const hold(net._mutex);
        return place->_size;
    }
};

namespace {

using namespace ovel;
using detail::inspector;

constexpr unsigned int stack = 65536;

// Firing code that a test writes down where it needs it, with variables for the
// places; without any it moves a token.
struct code : petri_function {
    explicit code(std::function<void(code&)> does) : _does(std::move(does)) {}
    code() : code([](code& self) { self.put(self.take()); }) {}

    void operator()() override {
        _does(*this);
    }
    any take(int i = 0) {
        any token;
        in[i]->receive(token);
        return token;
    }
    void put(any const& token) {
        out[0]->send(token);
    }

    petri_place* in[2] = {};
    petri_place* out[2] = {};

private:
    std::function<void(code&)> _does;
};

// A net of one group, with shorter ways to build it.
struct test_net : petri_net {
    explicit test_net(unsigned int threads = 1) : petri_net(threads, 1.0, stack) {}

    petri_place* place(unsigned int capacity, int tokens = 0) {
        petri_place* const inserted = insert_place(capacity);
        for (int i = 0; i != tokens; ++i)
            send(inserted, i);
        return inserted;
    }
    petri_transition* transition(code& function, std::vector<petri_place*> const& in,
                                 std::vector<petri_place*> const& out, double time = 1.0,
                                 double space = 0.0, bool reentrant = false) {
        petri_transition* const inserted = insert_transition(function, reentrant, time, space, 0);
        for (std::size_t i = 0; i != in.size(); ++i)
            insert_input_arc(in[i], inserted->input(function.in[i]));
        for (std::size_t i = 0; i != out.size(); ++i)
            insert_output_arc(inserted->output(function.out[i]), out[i]);
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

TEST(petri_place_test, counts_that_cannot_be_end_the_process) {
    petri_place place(1);
    EXPECT_CHECK((place.*inspector::reserve_receive)(1), "_size >= _receive_size", header);
    EXPECT_CHECK((place.*inspector::commit_receive)(1), "_receive_size >= size", header);
    EXPECT_CHECK((place.*inspector::reserve_send)(2), "_size + _send_size <= _channel.capacity()",
                 header);
    EXPECT_CHECK((place.*inspector::commit_send)(1), "_send_size >= size", header);
}

TEST(petri_transition_test, arcs_are_found_by_their_variables) {
    test_net net;
    code function;
    petri_place* const place = net.place(5);
    petri_transition* const t = net.insert_transition(function, false, 2.0, 0.5, 0);
    EXPECT_EQ(function.transition(), t);

    petri_connector const input = t->input(function.in[0]);
    EXPECT_EQ(inspector::weight(input), std::pair(1u, 1u));
    EXPECT_EQ(inspector::weight(input.size(3)), std::pair(3u, 1u));
    EXPECT_EQ(inspector::weight(input.capacity(4)), std::pair(1u, 4u));
    petri_arc* const in = net.insert_input_arc(place, input.size(3));
    petri_arc* const out = net.insert_output_arc(t->output(function.out[0]), place);
    EXPECT_TRUE(in->input() && !in->output() && !out->input() && out->output());
    EXPECT_EQ(std::pair(in->size(), out->size()), std::pair(3u, 1u));
    EXPECT_EQ(std::pair(function.in[0], function.out[0]), std::pair(place, place));

    // Another variable that holds the place names no arc.
    petri_place* other = place;
    EXPECT_EQ(input.place(), place);
    EXPECT_EQ((t->*inspector::find_place)(other), nullptr);
    EXPECT_CHECK(t->input(other).place(), "place != 0", header);

    EXPECT_EQ(std::vector(net.begin_places(), net.end_places()), std::vector{place});
    EXPECT_EQ(std::vector(net.begin_transitions(), net.end_transitions()), std::vector{t});
    EXPECT_EQ(std::vector(net.begin_arcs(), net.end_arcs()), (std::vector{in, out}));

    EXPECT_CHECK((t->*inspector::end_fire)(), "_reentrant || _firing == 0", header);
    (t->*inspector::begin_fire)();
    EXPECT_CHECK((t->*inspector::begin_fire)(), "_reentrant || _firing == 0", header);
}

TEST(petri_net_test, its_groups_are_as_described) {
    triple<unsigned int, double, unsigned int> const two[] = {{2, 1.0, 65536}, {1, 0.0, 131072}};
    petri_net const plain;
    petri_net const grouped(std::begin(two), std::end(two));
    auto const group = [](petri_net const& net, int i) {
        thread_group const& found = *(net.*inspector::thread_groups)[i];
        return std::pair(found.threads(), found.stack_size());
    };
    EXPECT_EQ(group(plain, 0), std::pair(thread_support::processors(), 524288u));
    EXPECT_EQ(group(grouped, 0), std::pair(2u, 65536u));
    EXPECT_EQ(group(grouped, 1), std::pair(1u, 131072u));
    EXPECT_EQ((grouped.*inspector::queue_thread).stack_size(), 65536u);
    EXPECT_CHECK(petri_net(two, two), "_groups != 0", source);
}

TEST(petri_net_test, a_structure_that_cannot_work_ends_the_process) {
    test_net net;
    code function;
    petri_place* const place = net.place(2);
    petri_place* const other = net.place(2);
    petri_transition* const t = net.transition(function, {place}, {place});
    petri_place*& variable = function.in[1];
    EXPECT_CHECK(net.insert_place(0), "capacity != 0", source);

    struct {
        double time, space;
        unsigned int group;
    } const refused[] = {{0.0, 0.0, 0},
                         {std::numeric_limits<double>::quiet_NaN(), 0.0, 0},
                         {1.0, -1.0, 0},
                         {1.0, 0.0, 1}};
    for (auto const& each : refused)
        EXPECT_CHECK(net.insert_transition(function, false, each.time, each.space, each.group),
                     "time > 0 && space >= 0 && group < _groups", source);

    char const* const size = "connector.size() != 0 && connector.size() <= place->capacity()";
    EXPECT_CHECK(net.insert_input_arc(other, t->input(variable).size(0)), size, source);
    EXPECT_CHECK(net.insert_output_arc(t->output(variable).size(3), other), size, source);
    EXPECT_CHECK(net.insert_input_arc(other, t->output(variable)), "connector.input()", source);
    EXPECT_CHECK(net.insert_output_arc(t->input(variable), other), "connector.output()", source);
    EXPECT_CHECK(net.insert_input_arc(place, t->input(variable)),
                 "arc->input() != (*i)->input() || arc->place() != (*i)->place()", source);
    EXPECT_CHECK(net.insert_input_arc(other, t->input(function.out[0])),
                 "&arc->place_reference() != &(*i)->place_reference()", source);
    net.insert_transition(function, false, 1.0, 0.0, 0);
    EXPECT_CHECK(net.release(), "(*i)->input_size() != 0 || (*i)->output_size() != 0", source);
}

TEST(petri_net_test, a_net_is_changed_started_and_destroyed_only_while_stopped) {
    char const* const running = "!_queue_thread_acquired || _thread_group_acquireds != _groups";
    char const* const stopped =
        "_acquired && _queue_thread_acquired && _thread_group_acquireds == _groups";
    code function;
    auto net = std::make_unique<test_net>();
    petri_place* const place = net->place(1);
    petri_transition* const t = net->transition(function, {place}, {});
    EXPECT_CHECK(net->acquire(), running, source);
    EXPECT_CHECK(net->try_acquire(), running, source);
    EXPECT_CHECK(net->timed_acquire(ovel::time::now()), running, source);
    auto const started = [&]() -> std::unique_ptr<test_net>& {
        net->release();
        return net;
    };
    EXPECT_CHECK(started()->insert_place(1), stopped, source);
    EXPECT_CHECK(started()->insert_input_arc(place, t->input(function.in[1])), stopped, source);
    EXPECT_CHECK(started()->release(), stopped, source);
    EXPECT_CHECK(started().reset(), stopped, source);
}

// An arc that comes after the tokens must take its transition off the queue.
TEST(petri_net_test, a_transition_that_a_new_arc_disables_is_not_queued) {
    test_net net;
    code function;
    petri_transition* const t = net.transition(function, {net.place(2)}, {});
    net.send(function.in[0], 1);
    net.insert_input_arc(net.place(1, 1), t->input(function.in[1]));
    EXPECT_TRUE(inspector::queued(net, t));
    net.insert_output_arc(t->output(function.out[0]), net.place(1, 1));
    EXPECT_FALSE(inspector::queued(net, t));
}

// They draw 16807, 282475249, 1622650073, 984943658, 1144108930 and 470211272.
TEST(petri_engine_test, space_goes_before_time_and_time_before_the_number_drawn) {
    test_net net;
    std::deque<code> functions;
    std::vector<petri_transition*> made;
    for (auto const& [time, space] :
         {std::pair(2.0, 0.5), {5.0, 0.0}, {1.0, 1.0}, {3.0, 0.5}, {5.0, 0.0}, {5.0, 0.0}}) {
        code& function = functions.emplace_back();
        made.push_back(net.transition(function, {net.place(1)}, {}, time, space));
        net.send(function.in[0], 0);
    }
    EXPECT_EQ(inspector::queue(net),
              (std::vector{made[2], made[3], made[0], made[4], made[5], made[1]}));
}

TEST(petri_engine_test, a_dispatch_takes_as_many_firings_as_the_group_has_threads_or_one) {
    for (bool const reentrant : {true, false}) {
        test_net net(4);
        semaphore go(0, 0);
        code function([&](code& self) {
            go.acquire();
            self.take();
        });
        net.transition(function, {net.place(10, 10)}, {}, 1.0, 0.0, reentrant);
        net.release();
        EXPECT_EQ(inspector::firings_dispatched(net), reentrant ? 4u : 1u);
        for (int i = 0; i < 10; ++i)
            go.release();
        net.acquire();
    }
}

// All at once, more of them than are kept beside the queue, and of more spaces and times
// than a word has bits; each pair of those has two, whose numbers decide.
TEST(petri_engine_test, what_one_firing_enables_fires_in_order) {
    constexpr unsigned int number = 140;
    test_net net;
    petri_place* const shared = net.place(number);
    code starter([](code& self) {
        self.take();
        for (unsigned int i = 0; i != number; ++i)
            self.put(0);
    });
    petri_transition* const starts = net.transition(starter, {net.place(1, 1)}, {}, 1.0, 1.0);
    net.insert_output_arc(starts->output(starter.out[0]).size(number), shared);
    std::deque<code> functions;
    std::vector<std::tuple<double, double, std::uint64_t, unsigned int>> expected;
    std::vector<unsigned int> fired;
    std::uint64_t drawn = 16807;
    for (unsigned int i = 0; i != number; ++i) {
        code& function = functions.emplace_back([&fired, i](code& self) {
            self.take();
            fired.push_back(i);
        });
        double const space = 0.5 * (i % 2);
        double const time = 1.0 + i % 35;
        net.transition(function, {shared}, {}, time, space);
        drawn = drawn * 16807 % 2147483647;
        expected.emplace_back(-space, -time, -drawn, i);
    }
    std::ranges::sort(expected);
    net.run();
    ASSERT_EQ(fired.size(), number);
    for (unsigned int i = 0; i != number; ++i)
        EXPECT_EQ(fired[i], std::get<3>(expected[i])) << i;
}

// Each of the two groups has one thread, and each firing waits for one of the other: on
// one group both would wait for ever.
TEST(petri_engine_test, a_transition_fires_on_the_threads_of_its_group) {
    triple<unsigned int, double, unsigned int> const two[] = {{1, 0.0, stack}, {1, 2.0, stack}};
    petri_net net(std::begin(two), std::end(two));
    semaphore here[2] = {{0, 0}, {0, 0}};
    std::deque<code> functions;
    for (unsigned int i = 0; i != 2; ++i) {
        code& function = functions.emplace_back([&, i](code& self) {
            here[i].release();
            here[1 - i].acquire();
            self.take();
        });
        petri_transition* const t = net.insert_transition(function, true, 1.0, 2.0 * i, i);
        net.insert_input_arc(net.insert_place(3), t->input(function.in[0]));
        for (int token = 0; token < 3; ++token)
            net.send(function.in[0], token);
    }
    net.release();
    net.acquire();
}

TEST(petri_engine_test, a_thread_that_never_rests_takes_back_what_others_free) {
    constexpr unsigned int number = 1000;
    constexpr std::size_t most = std::size_t{1} << 20;  // of 4 MB
    std::size_t const before = allocator_support::allocated_size();
    test_net net;
    code maker([](code& self) {
        self.take();
        self.put(std::array<char, 4000>());
    });
    // It leaves its token, and allocates nothing.
    code ticker([](code& self) { self.in[0]->receive_skip(); });
    petri_place* const made = net.place(number);
    net.transition(maker, {net.place(number, number)}, {made}, 2.0);
    petri_transition* const ticks = net.transition(ticker, {net.place(1, 1)}, {});
    net.release();
    until([&] { return inspector::tokens(net, made) == number; });
    for (unsigned int i = 0; i != number; ++i) {
        any token;
        net.receive(made, token);
    }
    until([&] { return allocator_support::allocated_size() < before + most; });
    ticks->deactivate();
    net.acquire();
}

TEST(petri_engine_test, firing_code_that_throws_ends_the_process) {
    test_net net;
    code function([](code&) { throw 1; });
    net.transition(function, {net.place(1, 1)}, {});
    EXPECT_CHECK(net.run(), "(\"unexpected exception\", 0)", source);
}

TEST(petri_lifecycle_test, starting_and_stopping_a_thousand_times_leaves_nothing_behind) {
    unsigned int threads = 0;
    std::size_t bytes = 0;
    for (int round = 0; round <= 1000; ++round) {
        {
            test_net net(2);
            code function;
            petri_place* const out = net.place(2);
            net.transition(function, {net.place(2, 2)}, {out}, 1.0, 0.0, true);
            net.run();
            net.run();
            ASSERT_EQ(inspector::tokens(net, out), 2u);
        }
        if (round == 0) {
            threads = detail::thread_element_group::global()->size();
            bytes = allocator_support::allocated_size();
        }
    }
    EXPECT_EQ(detail::thread_element_group::global()->size(), threads);
    // What the pool and the queues remember their elements in may vary a little.
    EXPECT_LT(allocator_support::allocated_size(), bytes + 1000);
}

}  // namespace
