// SPDX-License-Identifier: Apache-2.0
// Clients of a Petri net: they get their turn, their calls are carried out by whichever thread
// has the net's mutex, and none of them is lost.

#include "accounts.h"
#include "ovel_any.h"

namespace ovel::simulation {

namespace {

using detail::inspector;

// Moves a token from one place to another.
struct passing : petri_function {
    void operator()() override {
        any token;
        from->receive(token);
        into->send(token);
    }

    petri_place* from = nullptr;
    petri_place* into = nullptr;
};

// A firing has ended while another thread was on its way to call one for it.
void stops(unsigned int variant) {
    accounts const books(variant);
    passing function;
    petri_net net(2, 0.0, 16384);
    petri_place* const in = net.insert_place(2);
    petri_place* const out = net.insert_place(2);
    petri_transition* const moves = net.insert_transition(function, true, 1.0, 0.0, 0);
    net.insert_input_arc(in, moves->input(function.from));
    net.insert_output_arc(moves->output(function.into), out);
    net.send(in, 0);
    begin();
    net.release();
    client late([&] { net.send(in, 1); });
    net.acquire();
}

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

// Clients want a token that a firing takes again as soon as another one has put it back, or
// a slot that is filled at once. The calls of one client wait, those of the other do not.
void turns(unsigned int variant) {
    accounts const books(variant % 2);
    bool const sends = variant / 2 == 1;
    bool const is_crowded = variant / 2 == 2;
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
        client waits([&] {
            for (unsigned int each = 0; each != calls; ++each)
                take_turn();
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

// With memory refused while several clients pass tokens through a place, block and carry out
// each other's calls, a call that throws has put its token, or taken one, or has not.
void client_refusals(unsigned int) {
    accounts const books(0);
    expect_failure("(\"unexpected exception\", 0)");
    constexpr int tokens = 4;
    passing function;
    petri_net net(1 + pick(2), 0.0, 16384);
    petri_place* const places[] = {net.insert_place(1 + pick(2)), net.insert_place(1 + pick(2))};
    petri_transition* const passes = net.insert_transition(function, pick(2) == 0, 1.0, 0.0, 0);
    net.insert_input_arc(places[0], passes->input(function.from));
    net.insert_output_arc(passes->output(function.into), places[1]);
    net.release();
    begin();
    bool sent[tokens] = {};
    unsigned int received[tokens] = {};
    semaphore ready(0, 0), go(0, 0);
    detail::atomic<unsigned int> sending{2};
    {
        auto const send = [&](int first) {
            ready.release();
            go.acquire();
            for (int token = first; token != first + tokens / 2; ++token)
                sent[token] = attempt([&] { net.send(places[0], token); });
            --sending;
        };
        auto const receive = [&] {
            ready.release();
            go.acquire();
            while (sending != 0) {
                YieldProcessor();
                any token;
                attempt([&] { static_cast<void>(net.try_receive(places[1], token)); });
                if (!token.empty())
                    ++received[any_cast<int>(token)];
            }
        };
        client one([&] { send(0); }), two([&] { send(tokens / 2); }), three(receive);
        for (int each = 0; each != 3; ++each)
            ready.acquire();
        refuse_memory(1 + pick(8), 3);
        for (int each = 0; each != 3; ++each)
            go.release();
    }
    refuse_memory(0, 0);
    passes->activate();
    net.acquire();
    for (petri_place* each : places) {
        any token;
        while (net.try_receive(each, token))
            ++received[any_cast<int>(token)];
    }
    for (unsigned int token = 0; token != tokens; ++token)
        assure(received[token] <= 1 && (!sent[token] || received[token] == 1));
}

registration const table[] = {
    registration({.name = "net_stops_after_the_last_call", .run = stops, .variants = 2}),
    registration({.name = "net_gives_clients_their_turn", .run = turns, .variants = 6}),
    registration({.name = "net_serves_waiting_clients_first", .run = newcomers, .variants = 2}),
    registration({.name = "net_clients_bear_refused_memory", .run = client_refusals})};

}  // namespace

}  // namespace ovel::simulation
