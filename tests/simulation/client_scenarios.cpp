// SPDX-License-Identifier: Apache-2.0
// Clients of a Petri net: they get their turn, their calls are carried out by whichever thread
// has the net's mutex, and none of them is lost.

#include "accounts.h"
#include "ovel_any.h"

namespace ovel::simulation {

namespace {

// Takes the token of a place and puts it back, or only takes or only puts one, as long as it
// is let.
struct busy : petri_function {
    void operator()() override {
        any token = 0;
        if (from != nullptr)
            from->receive(token);
        if (into != nullptr)
            into->send(token);
        waited = inspector::has_waiting(*(from != nullptr ? from : into)) ? waited + 1 : 0;
        assure(waited <= 8 || is_crowded);
        if (std::exchange(is_tried, false))
            assure(++tried <= (is_crowded ? 200 : 100));
        // One that only takes comes to rest by itself.
        if (is_over || (into != nullptr && ++firings == 300))
            transition()->deactivate();
    }

    petri_place* from = nullptr;
    petri_place* into = nullptr;
    unsigned int waited = 0;  // firings in a row while a call waited at the place
    unsigned int tried = 0;   // firings between which a caller found nothing
    unsigned int firings = 0;
    bool is_tried = false;
    bool is_crowded = false;  // another call waits as soon as one is carried out
    bool is_over = false;
};

// Is copied under the net's mutex: until a firing has ended meanwhile, or for a while.
struct slow {
    explicit slow(petri_net* in) : net(in) {}
    slow(slow const& other) : net(other.net) {
        for (unsigned int left = 40; left != 0 && !inspector::has_published(*net); --left)
            YieldProcessor();
    }

    petri_net* net;
};

// Clients want a token that a firing takes again as soon as another one has put it back, or
// a slot that is filled at once. The calls of one client wait, those of the other do not.
void turns(unsigned int variant) {
    accounts const books(variant % 2);
    bool const sends = variant / 2 == 1;
    bool const is_crowded = variant / 2 == 2;
    bool const has_neighbour = variant / 2 == 3;
    constexpr unsigned int calls = 3;
    busy functions[2];
    petri_net net(1 + pick(2), 0.0, 16384);
    petri_place* const place = net.insert_place(1 + pick(2));
    if (sends) {
        petri_transition* const fills = net.insert_transition(functions[0], false, 1.0, 0.0, 0);
        petri_transition* const empties = net.insert_transition(functions[1], false, 1.0, 0.0, 0);
        net.insert_output_arc(fills->output(functions[0].into), place);
        net.insert_input_arc(place, empties->input(functions[1].from));
    } else {
        petri_transition* const turns = net.insert_transition(functions[0], false, 1.0, 0.0, 0);
        net.insert_input_arc(place, turns->input(functions[0].from));
        net.insert_output_arc(turns->output(functions[0].into), place);
        net.send(place, 0);
    }
    petri_place* beside = nullptr;
    if (has_neighbour) {
        beside = net.insert_place(1);
        net.send(beside, slow{&net});
    }
    begin();
    net.release();
    auto const take_turn = [&] {
        any token = 0;
        if (!sends)
            net.receive(place, token);
        net.send(place, token);
        for (busy& filled : functions)
            filled.waited = 0;
    };
    {
        detail::atomic<bool> is_served{false};
        client looks([&] {
            for (any token; beside != nullptr && !is_served.load();)
                net.peek(beside, token);
        });
        client waits([&] {
            for (unsigned int each = 0; each != calls; ++each)
                take_turn();
            is_served = true;
        });
    }
    {
        // Others that wait all the time do not keep it from its turn.
        for (busy& each : functions)
            each.is_crowded = is_crowded;
        detail::atomic<bool> is_served{false};
        auto const wait_on = [&] {
            for (; is_crowded && !is_served.load(); YieldProcessor())
                take_turn();
        };
        client one(wait_on), two(wait_on);
        client tries([&] {
            any token = 0;
            while (!(sends ? net.try_send(place, token) : net.try_receive(place, token))) {
                functions[0].is_tried = true;
                YieldProcessor();
            }
            is_served = true;
            if (!sends)
                net.send(place, token);
        });
    }
    for (busy& each : functions)
        each.is_over = true;
    net.acquire();
}

// A call that waits is carried out before those that come while it waits.
void newcomers(unsigned int variant) {
    accounts const books(variant % 2);
    busy function;
    petri_net net(1, 0.0, 16384);
    petri_place* const place = net.insert_place(1);
    petri_transition* const fills = net.insert_transition(function, false, 1.0, 0.0, 0);
    net.insert_output_arc(fills->output(function.into), place);
    begin();
    net.release();
    {
        detail::atomic<bool> is_served{false};
        auto const try_on = [&] {
            for (any token; !is_served.load(); YieldProcessor())
                static_cast<void>(net.try_receive(place, token));
        };
        client one(try_on), two(try_on);
        client waits([&] {
            any token;
            net.receive(place, token);
            is_served = true;
        });
    }
    function.is_over = true;
    net.acquire();
}

registration const table{
    {.name = "net_gives_clients_their_turn", .run = turns, .variants = 8},
    {.name = "net_serves_waiting_clients_first", .run = newcomers, .variants = 2},
};

}  // namespace

}  // namespace ovel::simulation
