// SPDX-License-Identifier: Apache-2.0
// Petri nets: no token is lost or duplicated, reservations are exact, and a net comes to rest only
// when no transition can fire.

#include "accounts.h"

namespace ovel::simulation {

namespace {

// Where each token is. A thread that makes one enters it before others can see it, and a
// thread that takes one removes it.
struct ledger {
    int enter(unsigned int place) {
        places.push_back(place);
        return static_cast<int>(places.size() - 1);
    }
    void cross_out(int token, unsigned int place) {
        assure(std::exchange(places[static_cast<unsigned int>(token)], ~0u) == place);
    }

    std::vector<unsigned int> places;
};

// Takes and puts what its arcs say, and skips some of it.
struct firing : petri_function {
    struct arc {
        petri_place* place = nullptr;
        unsigned int number;  // of the place
        unsigned int weight;
        bool input;
    };

    void operator()() override {
        assure(inside.fetch_add(1) == 0 || transition()->reentrant());
        auto const space = static_cast<int>(std::lround(10 * transition()->space()));
        assure(used->fetch_add(space) + space <= 10);
        for (arc& each : arcs)
            for (unsigned int token = 0; token != each.weight; ++token)
                pass(each);
        *used -= space;
        --inside;
        // Nets with cycles would never come to rest.
        if (fuel.fetch_sub(1) <= 1)
            transition()->deactivate();
    }

    void pass(arc& over) {
        if (skipping && pick(2) == 0) {
            over.input ? over.place->receive_skip() : over.place->send_skip();
        } else if (over.input) {
            any token;
            over.place->receive(token);
            tokens->cross_out(any_cast<int>(token), over.number);
        } else {
            over.place->send(tokens->enter(over.number));
        }
    }

    std::deque<arc> arcs;  // never moved: the net refers to them
    ledger* tokens = nullptr;
    detail::atomic<int>* used = nullptr;
    detail::atomic<int> inside = 0;
    detail::atomic<int> fuel = 3;
    bool skipping = false;
};

// A net of random structure, with clients that exchange tokens, switch transitions off and
// on, and limit their firings, started and stopped twice.
void random_nets(unsigned int variant) {
    bool const timed = variant / 2 == 1;
    accounts const books(variant % 2, timed);
    ledger tokens;
    detail::atomic<int> used[2] = {0, 0};
    triple<unsigned int, double, unsigned int> const groups[] = {{1 + pick(2), 1.0, 16384},
                                                                 {1, 1.0, 16384}};
    unsigned int const group_count = 1 + pick(2);
    petri_net net(groups, groups + group_count);

    std::vector<petri_place*> places;
    for (unsigned int each = 2 + pick(2); each != 0; --each)
        places.push_back(net.insert_place(2 + pick(2)));
    auto const place_count = static_cast<unsigned int>(places.size());
    firing functions[3];
    for (firing& each : functions) {
        unsigned int const group = pick(group_count);
        each.tokens = &tokens;
        each.used = &used[group];
        each.skipping = pick(3) == 0;
        petri_transition& of =
            *net.insert_transition(each, pick(2) == 0, 1.0 + pick(2), 0.1 * pick(8), group);
        for (unsigned int place = 0; place != place_count; ++place)
            for (bool const input : {true, false}) {
                // Each has an arc.
                if (pick(3) == 0 || (!input && place + 1 == place_count && each.arcs.empty())) {
                    each.arcs.push_back({nullptr, place, 1 + pick(2), input});
                    firing::arc& made = each.arcs.back();
                    if (input)
                        net.insert_input_arc(places[place], of.input(made.place).size(made.weight));
                    else
                        net.insert_output_arc(of.output(made.place).size(made.weight),
                                              places[place]);
                }
            }
    }
    auto const send = [&](unsigned int at) {
        int const number = tokens.enter(at);
        if (!net.try_send(places[at], number))
            tokens.cross_out(number, at);
    };
    auto const exchange = [&] {
        for (unsigned int round = 0; round != 4; ++round) {
            unsigned int const at = pick(place_count);
            petri_transition* const transition = functions[pick(3)].transition();
            unsigned int const what = pick(6);
            any token;
            if (what == 0) {
                if (net.try_receive(places[at], token))
                    tokens.cross_out(any_cast<int>(token), at);
            } else if (what == 1) {
                static_cast<void>(net.try_peek(places[at], token));
            } else if (what == 2) {
                transition->deactivate();
                transition->activate();
            } else if (what == 3) {
                net.limit(transition, 1 + pick(2));
            } else {
                send(at);
            }
            inspector::check_net(net);
        }
    };
    for (unsigned int each = pick(4); each != 0; --each)
        send(0);
    begin();
    for (unsigned int round = 0; round != 2; ++round) {
        bool clients_first = false;
        net.release();
        {
            client first(exchange), second(exchange);
            unsigned int const when = pick(3);
            clients_first = when != 0;
            if (clients_first) {
                first.join();
                second.join();
            }
            if (when == 1) {
                settle();
                inspector::expect_at_rest(net, [](petri_transition*) { return false; });
            }
            join(net, timed ? pick(3) : 0);
        }
        // Clients may have come after the net was at rest.
        inspector::expect_at_rest(net, [&](petri_transition*) { return !clients_first; });
        for (unsigned int place = 0; place != place_count; ++place)
            assure(places[place]->*inspector::size ==
                   static_cast<unsigned int>(std::ranges::count(tokens.places, place)));
        assure(used[0] == 0 && used[1] == 0);
        for (firing& each : functions) {
            each.fuel = 3;
            each.transition()->activate();
        }
    }
}

// Moves a token from one place to the next.
struct passing : petri_function {
    void operator()() override {
        any token;
        from->receive(token);
        into->send(token);
    }

    petri_place* from = nullptr;
    petri_place* into = nullptr;
};

constexpr int line_tokens = 4;

// Three places in a row, with little room.
struct line {
    explicit line(unsigned int threads) : net(threads, 0.0, 16384) {
        for (petri_place*& each : places)
            each = retried([&] { return net.insert_place(1 + pick(2)); });
        for (unsigned int each = 0; each != 2; ++each) {
            petri_transition*& made = transitions[each];
            passing& move = moves[each];
            made = retried([&] { return net.insert_transition(move, pick(2) == 0, 1.0, 0.0, 0); });
            retried([&] { return net.insert_input_arc(places[each], made->input(move.from)); });
            retried(
                [&] { return net.insert_output_arc(made->output(move.into), places[each + 1]); });
        }
    }

    // Memory may be refused. If a call throws, it has put its token, or taken one, or has not.
    bool try_receive(petri_place* place) {
        any token;
        attempt([&] { static_cast<void>(net.try_receive(place, token)); });
        if (!token.empty())
            ++received[any_cast<int>(token)];
        return !token.empty();
    }
    // Stops the net. No token that was sent is lost or duplicated.
    void balance() {
        refuse_memory(0, 0);
        // Examines the transitions that could not be queued.
        for (petri_transition* each : transitions)
            each->activate();
        net.acquire();
        inspector::expect_at_rest(net, [](petri_transition*) { return true; });
        for (petri_place* each : places)
            while (try_receive(each)) {}
        for (unsigned int token = 0; token != line_tokens; ++token)
            assure(received[token] <= 1 && (!sent[token] || received[token] == 1));
    }

    passing moves[2];
    petri_net net;
    petri_place* places[3];
    petri_transition* transitions[2];
    bool sent[line_tokens] = {};
    unsigned int received[line_tokens] = {};
};

// Two transitions whose firings need each other, and a third that takes a thread and some
// of the space meanwhile: a firing that fits waits only while all threads are busy. The
// third one's last token comes while the net stops; it is fired before the stop or stays.
void firings_that_meet(unsigned int variant) {
    accounts const books(variant % 2);
    bool const with_space = variant / 2 == 1;
    constexpr int tokens = 2;
    semaphore here[3] = {{0, 0}, {0, 0}, {0, 0}};
    net tested(2 + pick(2), with_space ? 10.0 : 0.0, net_stack);
    std::vector<place<int>> places;
    for (unsigned int each = 0; each != 3; ++each) {
        double const space = with_space ? 5.0 - (each == 2) * pick(3) : 0.0;
        places.push_back(tested.insert_place<int>("place", tokens));
        auto const meet = [&own = here[each], &other = here[each == 2 ? 2 : 1 - each]](int) {
            other.release();
            own.acquire();
        };
        tested.insert_transition(each == 2 ? "third" : "meet", from(places[each]), meet,
                                 {.time = 1.0 + pick(2), .space = space});
    }
    unsigned int const before = pick(3);
    for (unsigned int each = 0; each != before; ++each)
        places[each].send(0);
    begin();
    tested.start();
    {
        auto const send = [&](unsigned int place) {
            for (int token = place < before; token != tokens; ++token)
                places[place].send(token);
        };
        client one([&] { send(0); }), two([&] { send(1); });
        send(2);
    }
    places[2].send(0);
    {
        client late([&] { places[2].send(1); });
        tested.join();
    }
    inspector::expect_at_rest(tested.base(),
                              [&](petri_transition* each) { return tested.name(each) == "third"; });
}

// With memory, or a single block, refused while a line of places is built or works, calls
// throw and can be repeated, or the process ends with a message. Where it works, several threads
// send and receive, block and carry out each other's calls.
void refusals(unsigned int variant) {
    accounts const books(0);
    expect_failure("(\"unexpected exception\", 0)");
    begin();
    if (variant == 0)
        refuse_memory(1 + pick(16));
    else if (variant == 2)
        refuse_blocks(1 + pick(60), 1 + pick(2));
    std::unique_ptr<line> through;
    retried([&] {
        if (through == nullptr)
            through = std::make_unique<line>(1 + pick(2));
        inspector::check_net(through->net);
        through->net.release();
    });
    if (variant == 1)
        refuse_memory(1 + pick(12), 1 + pick(3));
    else if (variant == 3)
        refuse_blocks(1 + pick(12), 1 + pick(2));
    detail::atomic<unsigned int> sending{2};
    {
        auto const send = [&](int first) {
            for (int token = first; token != first + line_tokens / 2; ++token)
                through->sent[token] =
                    attempt([&] { through->net.send(through->places[0], token); });
            --sending;
        };
        worker one([&] { send(0); }), two([&] { send(line_tokens / 2); });
        worker three([&] {
            for (; sending != 0; YieldProcessor())
                through->try_receive(through->places[2]);
        });
    }
    through->balance();
}

// A token enables more transitions than fit beside the queue, and there may be no memory to queue
// the last. Meanwhile a transition that waits for the net's first dispatch takes the other token
// that all but the last need. The last fires when another token comes. A token that a typed place
// could not send is still its sender's; in the second variant it may be there.
void late_firings(unsigned int variant) {
    accounts const books(0);
    expect_failure("(\"unexpected exception\", 0)");
    using token = std::shared_ptr<int>;
    bool const typed = variant == 0;
    net tested(1, 1.0, net_stack);
    auto const shared = tested.insert_place<token>("shared", 2);
    auto const scarce = tested.insert_place<int>("scarce", 1);
    detail::atomic<int> taken{0};
    tested.insert_transition("first", from(scarce), [](int) {}, {.space = 1.0});
    for (int each = 0; each != 8; ++each)
        tested.insert_transition("both", from(shared, scarce),
                                 [&](token held, int) { taken += *held; });
    tested.insert_transition("last", from(shared), [&](token held) { taken += *held; });
    scarce.send(0);
    begin();
    tested.start();
    refuse_blocks(1 + pick(8), typed && pick(2) == 0 ? 1000 : 1 + pick(3));
    auto mine = std::make_shared<int>(1);
    bool const sent = attempt([&] {
        if (typed)
            assure(shared.try_send(std::move(mine)));
        else
            tested.base().send(shared.base(), mine);
    });
    assure(!typed || (sent == (mine == nullptr) && (sent || !shared.try_receive().has_value())));
    refuse_blocks(0, 0);
    shared.send(std::make_shared<int>(2));
    tested.join();
    inspector::expect_at_rest(tested.base(), [](petri_transition*) { return false; });
    assure(taken == 2 + sent || (!typed && taken == 3));
}

registration const table{
    {.name = "net_of_any_structure_conserves_tokens", .run = random_nets, .variants = 4},
    {.name = "net_fires_side_by_side_what_fits", .run = firings_that_meet, .variants = 4},
    {.name = "net_bears_refused_memory", .run = refusals, .variants = 4},
    {.name = "net_fires_later_what_it_could_not_queue", .run = late_firings, .variants = 2},
};

}  // namespace

}  // namespace ovel::simulation
