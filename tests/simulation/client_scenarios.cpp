// SPDX-License-Identifier: Apache-2.0
// Clients of a Petri net: they get their turn, their calls are carried out by whichever thread
// has the net's mutex, and none of them is lost. Nor does one take what a firing reads.

#include "accounts.h"

namespace ovel::simulation {

namespace {

// Takes the token of a place and puts it back, or only takes or only puts one, as long as it
// is let. Skips it except in one firing of `every`.
struct busy : petri_function {
    void operator()() override {
        if (++firings % every == 0)
            move();
        else if (from != nullptr)
            from->receive_skip();
        else
            into->send_skip();
        if (is_over || firings == most * every)
            transition()->deactivate();
    }

    // Inserts a transition for it between those of the two places that are not null.
    void insert(petri_net& net, petri_place* takes, petri_place* puts) {
        petri_transition* const inserted = net.insert_transition(*this, false, 1.0, 0.0, 0);
        if (takes != nullptr)
            net.insert_input_arc(takes, inserted->input(from));
        if (puts != nullptr)
            net.insert_output_arc(inserted->output(into), puts);
    }

    void move() {
        any token = 0;
        if (from != nullptr)
            from->receive(token);
        if (into != nullptr)
            into->send(token);
        petri_place* const at = from != nullptr ? from : into;
        bool const waits =
            (at->*inspector::receivers).waiting() != 0 || (at->*inspector::senders).waiting() != 0;
        waited = waits ? waited + 1 : 0;
        assure(waited <= 8 || is_crowded);
        if (std::exchange(is_tried, false))
            assure(++tried <= (is_crowded ? 200 : 100));
    }

    petri_place* from = nullptr;
    petri_place* into = nullptr;
    unsigned int every = 1;
    unsigned int most = 300;  // tokens to move
    unsigned int waited = 0;  // tokens in a row while a call waited at the place
    unsigned int tried = 0;   // tokens between which a caller found nothing
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
// a slot that is filled at once. The calls of one client wait, those of the other do not. Or
// they want what a filter puts that skips most slots, or the slots of one that skips most tokens.
void turns(unsigned int variant) {
    accounts const books(variant % 2);
    bool const is_filter = variant / 2 >= 4;
    bool const sends = variant / 2 == 1 || variant / 2 == 4;
    bool const is_loop = variant / 2 != 5 && !sends;
    bool const is_crowded = variant / 2 == 2;
    bool const has_neighbour = variant / 2 == 3;
    constexpr unsigned int calls = 3;
    busy functions[2];
    petri_net net(1 + pick(2), 0.0, 16384);
    // A loop needs a free slot besides its token.
    petri_place* const place = net.insert_place((is_loop ? 2 : 1) + pick(2));
    if (is_filter)
        functions[sends].every = 2 + pick(3);
    // Slots or tokens are left when the other one is over.
    functions[1].most = sends ? 400 : 200;
    functions[0].insert(net, is_loop ? place : nullptr, place);
    if (is_loop)
        net.send(place, 0);
    else
        functions[1].insert(net, place, nullptr);
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
        if (sends || is_loop)
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
            if (is_loop)
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
    function.insert(net, nullptr, place);
    begin();
    net.release();
    settle();
    refuse_objects(1, 1000);  // so that calls have no semaphore to sleep on
    for (unsigned int each = 0; each != 3; ++each) {
        any token;
        net.receive(place, token);
        assure(!token.empty());
    }
    refuse_objects(0, 0);
    {
        detail::atomic<bool> is_served{false};
        auto const try_on = [&] {
            for (any token; !is_served.load(); YieldProcessor())
                static_cast<void>(net.try_receive(place, token));
        };
        client one(try_on), two(try_on);
        client waits([&] {
            any token;
            net.peek(place, token);
            net.receive(place, token);
            is_served = true;
        });
    }
    function.is_over = true;
    net.acquire();
}

// Calls that do not wait find nothing before the net starts. It gives them their chance once for
// each token or slot from the fourth on that a transition wants, too: not for the last slot.
void chances(unsigned int variant) {
    accounts const books(0);
    bool const puts = variant != 0;
    bool const takes = variant != 1;
    constexpr unsigned int tokens = 8;
    constexpr unsigned int tries = 16;
    constexpr unsigned int chances = tokens - 3;
    bool const compete = puts && takes;
    busy fill, empty;
    fill.most = compete ? tokens - 1 : tokens;
    petri_net net(1, 0.0, 16384);
    petri_place* const place = net.insert_place(compete ? 1 : tokens);
    if (puts)
        fill.insert(net, nullptr, place);
    if (takes)
        empty.insert(net, place, nullptr);
    any token = 0;
    for (unsigned int each = 0; puts && each != tries; ++each)
        assure(!net.try_receive(place, token));
    while (takes && net.try_send(place, token)) {}
    for (unsigned int each = 1; takes && each != tries; ++each)
        assure(!net.try_send(place, token));
    begin();
    net.release();
    net.acquire();
    if (puts)
        assure((place->*inspector::receivers).misses == tries - (compete ? chances : 0));
    if (takes)
        assure((place->*inspector::senders).misses == tries - (compete ? chances - 1 : 0));
}

// Two transitions read a token, which another one and a client take and put back, with a higher
// version. In the second variant there is a token besides, so that one may be taken meanwhile.
void readers(unsigned int variant) {
    accounts const books(variant * 64);
    constexpr int orders = 4;
    net tested(2 + pick(2), 0.0, net_stack);
    detail::atomic<unsigned int> reading{0}, taking{0}, read{0};
    auto const shared = tested.insert_place<unsigned int>("shared", 3);
    auto const changes = tested.insert_place<int>("changes", orders);
    auto const read_one = [&](int, unsigned int) {
        ++reading;
        assure(taking <= variant);
        YieldProcessor();
        assure(taking <= variant);
        --reading;
        ++read;
    };
    auto const take = [&] {
        assure(++taking == 1 || variant == 1);
        assure(reading == 0 || variant == 1);
        YieldProcessor();
        --taking;
    };
    place<int> const ordered[] = {tested.insert_place<int>("one", orders),
                                  tested.insert_place<int>("other", orders)};
    for (auto const& each : ordered)
        tested.insert_transition("read", from(each, reads(shared)), read_one,
                                 {.reentrant = pick(2) == 0});
    tested.insert_transition("change", from(changes, shared), to(shared),
                             [&](int, unsigned int version) { return take(), version + 1; });
    for (unsigned int each = 0; each <= variant; ++each)
        shared.send(0);
    begin();
    tested.start();
    {
        client changer([&] {
            for (int each = 0; each != orders; ++each) {
                changes.send(each);
                unsigned int const version = shared.receive();
                take();
                shared.send(version + 1);
                inspector::check_net(tested.base());
            }
        });
        client reader([&] {
            for (int each = 0; each != orders; ++each) {
                ordered[0].send(each);
                ordered[1].send(each);
                assure(shared.size() <= variant + 1);
            }
        });
    }
    tested.join();
    unsigned int versions = 0;
    for (unsigned int each = 0; each <= variant; ++each)
        versions += *shared.try_receive();
    assure(versions == 2 * orders && read == 2 * orders);
}

registration const table{
    {.name = "net_shares_tokens_that_firings_read", .run = readers, .variants = 2},
    {.name = "net_gives_clients_their_turn", .run = turns, .variants = 12},
    {.name = "net_counts_the_chances_of_its_clients", .run = chances, .variants = 3},
    {.name = "net_serves_waiting_clients_first", .run = newcomers, .variants = 2},
};

}  // namespace

}  // namespace ovel::simulation
