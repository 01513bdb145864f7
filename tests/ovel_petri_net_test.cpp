#include "ovel_petri_net.h"

#include "ovel_allocator_group.h"
#include "ovel_allocator_support.h"
#include "ovel_guard.h"
#include "ovel_semaphore.h"
#include "ovel_test.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <deque>
#include <functional>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <utility>
#include <vector>

// A place's committed tokens, of them reserved, slots reserved, skips of tokens
// and of slots to be settled, and the tokens that are really there.
using counts = std::array<unsigned int, 6>;

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

    static counts of(petri_place& place) {
        guard const hold(place._mutex);
        return {place._size,         place._receive_size, place._send_size,
                place._receive_skip, place._send_skip,    place._channel._size};
    }
    static counts of(petri_net& net, petri_place* place) {
        guard const hold(net._mutex);
        return of(*place);
    }
    static unsigned int firings(petri_net& net) {
        guard const hold(net._mutex);
        return net._firings;
    }
    static bool queue_empty(petri_net& net) {
        guard const hold(net._mutex);
        return net._queue.empty();
    }
    // The number that a queued transition drew; 0 for one that is not queued.
    static unsigned int queued(petri_net& net, petri_transition const* t) {
        guard const hold(net._mutex);
        return t->queued() ? t->random() : 0;
    }
    // What the start and the end of a firing do.
    static void dispatch(petri_net& net, petri_transition* t) {
        guard const hold(net._mutex);
        net._dequeue(t);
        net._initiate_transition(t);
    }
    static void terminate(petri_net& net, petri_transition* t) {
        guard const hold(net._mutex);
        net._terminate_transition(t);
    }
    // Callers that wait for a change of the net, each after it has looked.
    static unsigned int sleepers(petri_net const& net) {
        return net._condition._queued.load();
    }

    // What must hold whenever the net's mutex is free; with `at_rest`, also that
    // nothing is reserved, queued, enabled or left to be settled.
    static void expect_invariants(petri_net& net, bool at_rest) {
        guard const hold(net._mutex);
        for (petri_place* place : net._places) {
            unsigned int const size = place->_size;
            EXPECT_LE(place->_receive_size, size);
            EXPECT_LE(size + place->_send_size, place->capacity());
            EXPECT_TRUE(!at_rest || of(*place) == (counts{size, 0, 0, 0, 0, size}));
        }
        unsigned int queued = 0;
        unsigned int firings = 0;
        for (petri_transition* t : net._transitions) {
            bool const enabled = _enabled(net, t);
            EXPECT_TRUE(enabled || !t->queued());
            EXPECT_FALSE(enabled && at_rest);
            queued += t->queued();
            firings += t->_firing;
        }
        EXPECT_EQ(net._queue.size(), queued);
        EXPECT_EQ(net._firings, firings);
        EXPECT_TRUE(!at_rest || firings == 0);
    }

private:
    // From the counts alone.
    static bool _enabled(petri_net& net, petri_transition const* t) {
        bool enabled = t->_activated && (t->_reentrant || t->_firing == 0);
        for (petri_arc* arc : net._arcs) {
            petri_place const& place = *arc->place();
            if (arc->transition() == t)
                enabled &= arc->input()
                               ? place._receive_size + arc->size() <= place._size
                               : place._size + place._send_size + arc->size() <= place.capacity();
        }
        return enabled;
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

// A net of one group, with shorter ways to build it and to look at it.
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
        inspector::expect_invariants(*this, true);
    }
    // Everything that is queued has been dispatched, since it is taken from the queue
    // and reserved for under one hold of the mutex.
    void await_dispatch() {
        until([this] { return inspector::queue_empty(*this); });
    }
    void await_sleepers(unsigned int number) const {
        until([&] { return inspector::sleepers(*this) == number; });
    }
    counts of(petri_place* place) {
        return inspector::of(*this, place);
    }
    void await_tokens(petri_place* place, unsigned int number) {
        until([&] { return of(place)[0] == number; });
    }
    unsigned int queued(petri_transition const* t) {
        return inspector::queued(*this, t);
    }
};

// A thread of the program's own.
template <class Body>
std::jthread client(Body body) {
    return std::jthread([body] {
        allocator_group::global()->acquire_allocator();
        body();
        allocator_group::global()->release_allocator();
    });
}

// How a failed check reads, as a regular expression.
std::string check(char const* expression, char const* file = "sources/ovel_petri_net.cpp") {
    return failed_check(expression, file);
}
char const* const in_header = "includes/ovel_petri_net.h";
std::string const stopped =
    check("_acquired && _queue_thread_acquired && _thread_group_acquireds == _groups");
std::string const not_stopped =
    check("!_queue_thread_acquired || _thread_group_acquireds != _groups");

TEST(petri_place_test, counts_that_cannot_be_end_the_process) {
    petri_place place(1);
    EXPECT_DEATH((place.*inspector::reserve_receive)(1),
                 check("_size >= _receive_size", in_header));
    EXPECT_DEATH((place.*inspector::commit_receive)(1), check("_receive_size >= size", in_header));
    EXPECT_DEATH((place.*inspector::reserve_send)(2),
                 check("_size + _send_size <= _channel.capacity()", in_header));
    EXPECT_DEATH((place.*inspector::commit_send)(1), check("_send_size >= size", in_header));
}

TEST(petri_transition_test, arcs_are_found_by_their_variables) {
    test_net net;
    code function;
    petri_place* const place = net.place(5);
    petri_transition* const t = net.insert_transition(function, false, 2.0, 0.5, 0);
    EXPECT_EQ(function.transition(), t);
    EXPECT_EQ(&t->function(), &function);

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
    EXPECT_DEATH(t->input(other).place(), check("place != 0", in_header));

    EXPECT_EQ(std::vector(net.begin_places(), net.end_places()), std::vector{place});
    EXPECT_EQ(std::vector(net.begin_transitions(), net.end_transitions()), std::vector{t});
    EXPECT_EQ(std::vector(net.begin_arcs(), net.end_arcs()), (std::vector{in, out}));

    EXPECT_DEATH((t->*inspector::end_fire)(), check("_reentrant || _firing == 0", in_header));
    (t->*inspector::begin_fire)();
    EXPECT_DEATH((t->*inspector::begin_fire)(), check("_reentrant || _firing == 0", in_header));
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
    EXPECT_DEATH(petri_net(two, two), check("_groups != 0"));
}

TEST(petri_net_test, a_structure_that_cannot_work_ends_the_process) {
    test_net net;
    code function;
    petri_place* const place = net.place(2);
    petri_place* const other = net.place(2);
    petri_transition* const t = net.transition(function, {place}, {place});
    petri_place*& variable = function.in[1];
    auto const insert = [&](double time, double space, unsigned int group) {
        net.insert_transition(function, false, time, space, group);
    };
    std::string const ranges = check("time > 0 && space >= 0 && group < _groups");
    std::string const size =
        check("connector.size() != 0 && connector.size() <= place->capacity()");

    EXPECT_DEATH(net.insert_place(0), check("capacity != 0"));
    EXPECT_DEATH(insert(0.0, 0.0, 0), ranges);
    EXPECT_DEATH(insert(std::numeric_limits<double>::quiet_NaN(), 0.0, 0), ranges);
    EXPECT_DEATH(insert(1.0, -1.0, 0), ranges);
    EXPECT_DEATH(insert(1.0, 0.0, 1), ranges);
    EXPECT_DEATH(net.insert_input_arc(other, t->output(variable)), check("connector.input()"));
    EXPECT_DEATH(net.insert_output_arc(t->input(variable), other), check("connector.output()"));
    EXPECT_DEATH(net.insert_input_arc(other, t->input(variable).size(0)), size);
    EXPECT_DEATH(net.insert_output_arc(t->output(variable).size(3), other), size);
    EXPECT_DEATH(net.insert_input_arc(place, t->input(variable)),
                 check("arc->input() != (*i)->input() || arc->place() != (*i)->place()"));
    EXPECT_DEATH(net.insert_input_arc(other, t->input(function.out[0])),
                 check("&arc->place_reference() != &(*i)->place_reference()"));
    insert(1.0, 0.0, 0);
    EXPECT_DEATH(net.release(), check("(*i)->input_size() != 0 || (*i)->output_size() != 0"));
}

TEST(petri_net_test, a_net_is_changed_started_and_destroyed_only_while_stopped) {
    code function;
    auto net = std::make_unique<test_net>();
    petri_place* const place = net->place(1);
    petri_transition* const t = net->transition(function, {place}, {});
    EXPECT_DEATH(net->acquire(), not_stopped);
    EXPECT_DEATH(net->try_acquire(), not_stopped);
    EXPECT_DEATH(net->timed_acquire(ovel::time::now()), not_stopped);
    auto const while_running = [&](auto operation) {
        net->release();
        operation();
    };
    EXPECT_DEATH(while_running([&] { net->insert_place(1); }), stopped);
    EXPECT_DEATH(while_running([&] { net->insert_input_arc(place, t->input(function.in[1])); }),
                 stopped);
    EXPECT_DEATH(while_running([&] { net->release(); }), stopped);
    EXPECT_DEATH(while_running([&] { net.reset(); }), stopped);
}

// An arc that comes after the tokens must take its transition off the queue.
TEST(petri_net_test, a_transition_that_a_new_arc_disables_is_not_queued) {
    test_net net;
    code function;
    petri_transition* const t = net.transition(function, {net.place(2)}, {});
    net.send(function.in[0], 1);
    net.insert_input_arc(net.place(1, 1), t->input(function.in[1]));
    EXPECT_TRUE(net.queued(t));
    net.insert_output_arc(t->output(function.out[0]), net.place(1, 1));
    inspector::expect_invariants(net, true);
}

// Runs a net of transitions with these times and spaces, inserted in this order,
// that also take a token from `shared` and put it back, and returns the order in
// which they have fired.
std::vector<int> order_of_firing(std::vector<std::pair<double, double>> const& transitions,
                                 unsigned int shared) {
    test_net net;
    petri_place* const turns = net.place(2 * shared, static_cast<int>(shared));
    std::deque<code> functions;
    std::vector<int> order;
    for (auto const& [time, space] : transitions) {
        auto const me = static_cast<int>(functions.size());
        code& function = functions.emplace_back([&order, me](code& self) {
            self.take(1);
            self.put(self.take());
            order.push_back(me);
        });
        net.transition(function, {turns, net.place(1, 1)}, {turns}, time, space);
    }
    net.run();
    return order;
}

// The group runs what it is given in the order of space and time too. With one
// token to share, it is given one firing at a time, so that the net alone decides.
TEST(petri_engine_test, space_goes_before_time_and_time_before_the_number_drawn) {
    EXPECT_EQ(order_of_firing({{2.0, 0.5}, {5.0, 0.0}, {1.0, 1.0}, {3.0, 0.5}}, 1),
              (std::vector{2, 3, 0, 1}));
    // They draw 16807, 282475249 and 1622650073.
    EXPECT_EQ(order_of_firing({{1.0, 0.0}, {1.0, 0.0}, {1.0, 0.0}}, 3), (std::vector{2, 1, 0}));
}

// The firing is looked at before it takes its token and after it has put one.
TEST(petri_engine_test, what_a_firing_takes_is_gone_at_once_and_what_it_puts_comes_at_its_end) {
    test_net net;
    semaphore reached(0, 0), go(0, 0);
    code function([&](code& self) {
        reached.release();
        go.acquire();
        self.put(self.take());
        reached.release();
        go.acquire();
    });
    petri_place* const in = net.place(2, 2);
    petri_place* const out = net.place(1);
    net.transition(function, {in}, {out});
    net.release();
    reached.acquire();

    any token;
    EXPECT_EQ(net.of(in), (counts{2, 1, 0, 0, 0, 2}));
    EXPECT_EQ(net.of(out), (counts{0, 0, 1, 0, 0, 0}));
    EXPECT_FALSE(net.try_send(out, 8)) << "the slot is the firing's";
    EXPECT_TRUE(net.try_receive(in, token));
    EXPECT_FALSE(net.try_receive(in, token)) << "the other token is the firing's";
    EXPECT_FALSE(net.try_peek(in, token));
    go.release();
    reached.acquire();
    EXPECT_EQ(net.of(in), (counts{1, 1, 0, 0, 0, 0}));
    EXPECT_EQ(net.of(out), (counts{0, 0, 1, 0, 0, 1}));
    EXPECT_FALSE(net.try_receive(out, token));
    go.release();
    net.receive(out, token);
    EXPECT_EQ(any_cast<int>(token), 1);
    net.acquire();
    inspector::expect_invariants(net, true);
}

TEST(petri_engine_test, a_dispatch_takes_as_many_firings_as_the_group_has_threads_or_one) {
    for (bool const reentrant : {true, false}) {
        test_net net(4);
        semaphore go(0, 0);
        code function([&](code& self) {
            go.acquire();
            self.put(self.take());
        });
        petri_place* const out = net.place(10);
        net.transition(function, {net.place(10, 10)}, {out}, 1.0, 0.0, reentrant);
        net.release();
        net.await_dispatch();
        EXPECT_EQ(inspector::firings(net), reentrant ? 4u : 1u);
        go.release();
        net.await_tokens(out, 1);
        net.await_dispatch();
        EXPECT_EQ(inspector::firings(net), reentrant ? 7u : 1u);
        for (int i = 1; i < 10; ++i)
            go.release();
        net.acquire();
        EXPECT_EQ(net.of(out), (counts{10, 0, 0, 0, 0, 10}));
    }
}

// Consumers and producers of one place, each of two tokens, on a stopped net: the
// queue follows tokens, reservations and skips at once, on both sides of the place.
TEST(petri_engine_test, a_transition_is_queued_while_its_place_lets_it_fire) {
    test_net net;
    petri_place* const place = net.place(3);
    code functions[4];
    petri_transition* t[4];
    for (int i = 0; i < 4; ++i)
        t[i] = net.insert_transition(functions[i], false, 1.0, 0.0, 0);
    for (int i = 0; i < 2; ++i) {
        net.insert_input_arc(place, t[i]->input(functions[i].in[0]).size(2));
        net.insert_output_arc(t[i + 2]->output(functions[i + 2].out[0]).size(2), place);
        t[i + 2]->activate();
    }
    auto const expect_queued = [&](bool consumers, bool producers) {
        for (int i = 0; i < 4; ++i)
            EXPECT_EQ(net.queued(t[i]) != 0, i < 2 ? consumers : producers) << i;
    };
    expect_queued(false, true);
    // Skips are the place's: three are said in the first firing, one in the second.
    inspector::dispatch(net, t[2]);
    expect_queued(false, false);
    for (int i = 0; i < 3; ++i)
        place->send_skip();
    inspector::terminate(net, t[2]);
    EXPECT_EQ(net.of(place), (counts{0, 0, 0, 0, 1, 0}));
    inspector::dispatch(net, t[3]);
    place->send_skip();
    inspector::terminate(net, t[3]);
    EXPECT_EQ(net.of(place), (counts{0, 0, 0, 0, 0, 0}));
    expect_queued(false, true);

    any token;
    net.send(place, token);
    expect_queued(false, true);
    net.send(place, token);
    expect_queued(true, false);
    inspector::dispatch(net, t[0]);
    expect_queued(false, false);
    place->receive_skip();
    place->receive_skip();
    inspector::terminate(net, t[0]);
    expect_queued(true, false);
    net.receive(place, token);
    expect_queued(false, true);
    net.peek(place, token);
    EXPECT_EQ(net.of(place), (counts{1, 0, 0, 0, 0, 1}));
}

TEST(petri_engine_test, a_transition_is_dispatched_only_while_it_is_activated) {
    test_net net;
    semaphore started(0, 0), go(0, 0);
    code function([&](code& self) {
        started.release();
        go.acquire();
        self.take();
    });
    petri_place* const place = net.place(3, 3);
    petri_transition* const t = net.transition(function, {place}, {});
    t->activate();
    t->activate();
    EXPECT_EQ(net.queued(t), 16807u);
    t->deactivate();
    EXPECT_EQ(net.queued(t), 0u);
    t->activate();
    EXPECT_EQ(net.queued(t), 282475249u);
    net.deactivate(t);
    net.release();
    EXPECT_EQ(inspector::firings(net), 0u);

    net.activate(t);
    started.acquire();
    net.deactivate(t);
    go.release();
    net.await_tokens(place, 2);
    net.await_dispatch();
    EXPECT_EQ(inspector::firings(net), 0u) << "the firing under way was the last";
    net.activate(t);
    go.release();
    go.release();
    net.acquire();
    EXPECT_EQ(net.of(place)[0], 0u);
}

// Each of the two groups has one thread, and each firing waits for one of the other.
TEST(petri_engine_test, a_transition_fires_on_the_threads_of_its_group) {
    triple<unsigned int, double, unsigned int> const two[] = {{1, 0.0, stack}, {1, 2.0, stack}};
    petri_net net(std::begin(two), std::end(two));
    semaphore here[2] = {{0, 0}, {0, 0}};
    std::vector<std::thread::id> threads[2];
    std::deque<code> functions;
    for (unsigned int i = 0; i != 2; ++i) {
        code& function = functions.emplace_back([&, i](code& self) {
            here[i].release();
            here[1 - i].acquire();
            threads[i].push_back(std::this_thread::get_id());
            self.take();
        });
        petri_transition* const t = net.insert_transition(function, true, 1.0, 2.0 * i, i);
        net.insert_input_arc(net.insert_place(3), t->input(function.in[0]));
        for (int token = 0; token < 3; ++token)
            net.send(function.in[0], token);
    }
    net.release();
    net.acquire();
    EXPECT_EQ(threads[0], std::vector(3, threads[0].front()));
    EXPECT_EQ(threads[1], std::vector(3, threads[1].front()));
    EXPECT_NE(threads[0].front(), threads[1].front());
}

TEST(petri_engine_test, firing_code_that_throws_ends_the_process) {
    test_net net;
    code function([](code&) { throw std::bad_alloc(); });
    net.transition(function, {net.place(1, 1)}, {});
    EXPECT_DEATH(net.run(), check("(\"unexpected exception\", 0)"));
}

// The net is stopped: clients serve each other without it.
TEST(petri_token_test, blocked_callers_get_what_other_clients_put_and_take) {
    test_net net;
    petri_place* const place = net.place(1);
    any received, peeked;
    {
        auto const peeker = client([&] { net.peek(place, peeked); });
        net.await_sleepers(1);
        net.send(place, 1);
    }
    EXPECT_EQ(any_cast<int>(peeked), 1);
    {
        auto const sender = client([&] { net.send(place, 2); });
        net.await_sleepers(1);
        net.receive(place, received);
    }
    EXPECT_EQ(any_cast<int>(received), 1);
    EXPECT_FALSE(net.try_send(place, 3));
    EXPECT_TRUE(net.try_peek(place, peeked));
    EXPECT_TRUE(net.try_receive(place, received));
    EXPECT_FALSE(net.try_peek(place, peeked));
    EXPECT_FALSE(net.try_receive(place, received));
    EXPECT_EQ(any_cast<int>(peeked), 2);
    EXPECT_EQ(any_cast<int>(received), 2);

    // Each token goes to one of those who wait, and none of them is forgotten.
    std::array<any, 6> tokens;
    {
        std::vector<std::jthread> receivers;
        for (any& token : tokens)
            receivers.push_back(client([&] { net.receive(place, token); }));
        net.await_sleepers(6);
        for (int i = 0; i < 6; ++i)
            net.send(place, 1 << i);
    }
    int sum = 0;
    for (any& token : tokens)
        sum += any_cast<int>(token);
    EXPECT_EQ(sum, 63);
}

// Two sleep: one for the slot that a firing gives up, one for the token that it puts.
TEST(petri_token_test, blocked_callers_get_what_a_firing_leaves) {
    test_net net;
    code function;
    petri_place* const in = net.place(1, 1);
    petri_place* const out = net.place(2);
    petri_transition* const t = net.transition(function, {in}, {out});
    t->deactivate();
    net.release();
    any first, second;
    {
        auto const sender = client([&] { net.send(in, 7); });
        auto const receiver = client([&] { net.receive(out, first); });
        net.await_sleepers(2);
        t->activate();
    }
    net.receive(out, second);
    net.acquire();
    EXPECT_EQ(any_cast<int>(first), 0);
    EXPECT_EQ(any_cast<int>(second), 7);
}

// A value that counts its instances, and cannot be copied while `fails` is set.
struct fragile {
    fragile() {
        ++alive;
    }
    fragile(fragile const&) {
        if (fails)
            throw std::bad_alloc();
        ++alive;
    }
    ~fragile() {
        --alive;
    }
    static inline std::atomic<int> alive = 0;
    static inline std::atomic<bool> fails = false;
};

TEST(petri_token_test, a_token_that_cannot_be_copied_changes_nothing) {
    {
        test_net net;
        petri_place* const place = net.place(2);
        fragile const value;
        any const token = value;
        any target = 5;
        net.send(place, token);
        fragile::fails = true;
        for (int i = 0; i < 2; ++i) {
            EXPECT_THROW(net.send(place, token), std::bad_alloc);
            EXPECT_THROW(net.try_send(place, token), std::bad_alloc);
        }
        EXPECT_THROW(net.peek(place, target), std::bad_alloc);
        EXPECT_TRUE(target.empty());
        EXPECT_THROW(net.try_peek(place, target), std::bad_alloc);
        EXPECT_EQ(net.of(place), (counts{1, 0, 0, 0, 0, 1}));
        net.receive(place, target);
        fragile::fails = false;
        EXPECT_TRUE(net.try_send(place, token));
        EXPECT_TRUE(net.try_send(place, token));
        EXPECT_EQ(fragile::alive, 5);
    }
    EXPECT_EQ(fragile::alive, 0) << "a net destroys the tokens left in it";
}

TEST(petri_lifecycle_test, a_stop_waits_for_rest_and_may_be_asked_for_again) {
    test_net net;
    semaphore started(0, 0), go(0, 0);
    code first([&](code& self) {
        started.release();
        go.acquire();
        self.put(self.take());
    });
    code second;
    petri_place* const in = net.place(3, 3);
    petri_place* const between = net.place(1);
    petri_place* const out = net.place(4);
    net.transition(first, {in}, {between});
    net.transition(second, {between}, {out});
    net.release();
    started.acquire();
    EXPECT_FALSE(net.try_acquire());
    EXPECT_FALSE(net.timed_acquire(ovel::time::now()));
    for (int i = 0; i < 3; ++i)
        go.release();
    net.acquire();
    EXPECT_EQ(net.of(out)[0], 3u) << "a stopping net fires on";

    // What comes while it is stopped fires after the next start.
    net.send(in, 3);
    go.release();
    EXPECT_EQ(inspector::firings(net), 0u);
    net.release();
    while (!net.try_acquire())
        std::this_thread::yield();
    EXPECT_EQ(net.of(out)[0], 4u);
    net.release();
    EXPECT_TRUE(net.timed_acquire(ovel::time::then(100.0)));
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
            ASSERT_EQ(net.of(out)[0], 2u);
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
