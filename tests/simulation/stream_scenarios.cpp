// SPDX-License-Identifier: Apache-2.0
// Typed nets and the threads outside: the end of a place comes behind all its tokens, a wait
// ends at its limit or when the net lets its callers go, what was not sent is kept, and batches
// that move without the net's mutex lose no token, overtake none and do not put too many.

#include "accounts.h"

namespace ovel::simulation {

namespace {

// A sender that closes the first of three places in a row, of which the others close by
// themselves; bodies, some of which take the end of their place; a thread that switches the
// transitions off for a while; and two receivers of the last place. In the second variant another
// thread closes the first two, at any time. In the third a body may throw, the net may be halted,
// and it is started again until all is received.
void ends(unsigned int variant) {
    bool const cut = variant == 1, again = variant == 2;
    accounts const books(0);
    constexpr int tokens = 3;
    net tested(1 + pick(2), 0.0, net_stack);
    detail::atomic<int> sent{0}, lost{0}, received{0}, flushed{0}, failures{0};
    detail::atomic<unsigned int> fuse{again ? pick(5) : 0};
    auto const carry = [&](int token) {
        if (fuse != 0 && --fuse == 0) {
            ++lost;
            throw token;
        }
        return token;
    };
    auto const flush = [&, told = false](std::optional<int> token) mutable {
        assure(!told);
        told = !token;
        flushed += told;
        return token ? std::optional(carry(*token)) : std::nullopt;
    };
    std::vector<place<int>> chain{tested.insert_place<int>("first", 1 + pick(2))};
    int flushes = 0;
    while (chain.size() != 3) {
        auto const in = from(chain.back());
        chain.push_back(tested.insert_place<int>("next", 1 + pick(2), closes));
        for (unsigned int each = 1 + pick(2); each != 0; --each) {
            transition_options const options{.reentrant = pick(2) == 0};
            bool const flushing = pick(2) == 0;
            flushes += flushing;
            if (flushing)
                tested.insert_transition("flush", in, to(chain.back()), flush, options);
            else
                tested.insert_transition("pass", in, to(chain.back()), carry, options);
        }
    }
    begin();
    client sender([&] {
        for (int token = 0; token != tokens;) {
            bool done = false;
            attempt([&] { done = chain[0].send(token); });
            sent += done;
            token += done || !again;
            if (!done)
                Sleep(1);
        }
        chain[0].close();
    });
    client switching([&] {
        petri_net& plain = tested.base();
        auto each = plain.begin_transitions();
        for (; !again && each != plain.end_transitions(); ++each) {
            (*each)->deactivate();
            (*each)->activate();
        }
    });
    client cutter([&] {
        if (cut) {
            chain[1].close();
            chain[0].close();
        }
    });
    for (bool over = false; !over;) {
        tested.start();
        {
            auto const receive = [&] {
                attempt([&] {
                    for (; chain[2].next().has_value(); ++received)
                        inspector::check_net(tested.base());
                });
            };
            client first(receive), second(receive);
            if (again && pick(2) == 0)
                tested.halt();
        }
        over = chain[2].ended();
        if (!attempt([&] { tested.join(); })) {
            ++failures;
            over = false;
        }
    }
    auto const left = static_cast<int>(chain[0].size());
    assure(received + lost + left == sent && failures == lost);
    assure(cut ? flushed <= flushes : flushed == flushes && sent == tokens && left == 0);
    assure(chain[1].ended() && !chain[1].try_send(1));
}

// A place is closed while a firing that puts into it is held: its token arrives, then the end.
// Receivers wait without a limit, or with a late one.
void ends_behind_a_firing(unsigned int variant) {
    accounts const books(0, true);
    net tested(1, 0.0, net_stack);
    auto const in = tested.insert_place<int>("in", 1);
    auto const out = tested.insert_place<int>("out", 1);
    semaphore begun(0, 0), go(0, 0);
    tested.insert_transition("held", from(in), to(out), [&](int token) {
        begun.release();
        go.acquire();
        return token;
    });
    tested.start();
    in.send(1);
    begun.acquire();
    begin();
    detail::atomic<int> received = 0;
    {
        auto const receive = [&] {
            while (!out.ended())
                received +=
                    (variant == 0 ? out.next() : out.receive_until(time::then(3600.0))).value_or(0);
        };
        client first(receive), second(receive);
        client closing([&] {
            out.close();
            assure(!out.ended());
            go.release();
        });
    }
    assure(received == 1);
    tested.join();
}

// Two threads close the inputs of transitions that have weights and several inputs. Each
// transition ends, switched off or without room for its result, the last one of the place behind
// them closes it, and a firing looks at no other closed place. In the second variant the net is
// stopped meanwhile. Before a start it gets transitions whose places have ended.
void starves(unsigned int variant) {
    accounts const books(0);
    net tested(1 + pick(2), 0.0, net_stack);
    auto const left = tested.insert_place<int>("left", 3);
    auto const right = tested.insert_place<int>("right", 3);
    auto const off = tested.insert_place<int>("off", 1);
    auto const shut = tested.insert_place<int>("shut", 1);
    auto const out = tested.insert_place<int>("out", 8, closes);
    auto const pass = [](int token) {
        return token;
    };
    tested.insert_transition("pair", from(left.times(2)), to(out),
                             [](std::array<int, 2> pair) { return pair[0] + pair[1]; });
    tested.insert_transition("both", from(left, right), to(out),
                             [](int one, int other) { return one + other; });
    tested.insert_transition("last", from(right), to(out),
                             [](std::optional<int> token) { return token; });
    tested.insert_transition("off", from(off), to(out), pass).deactivate();
    tested.insert_transition("shut", from(left), to(shut), pass);
    begin();
    shut.close();
    bool const running = variant == 1 || pick(2) == 0;
    if (running)
        tested.start();
    detail::atomic<int> sent = 0, told = 0;
    {
        auto const feed = [&](place<int> const& into) {
            for (unsigned int each = pick(4); each != 0; --each)
                sent += into.try_send(1);
            into.close();
            inspector::check_net(tested.base());
        };
        client one([&] { feed(left); }), other([&] {
            feed(right);
            off.close();
        });
        if (variant == 1)
            tested.join();
    }
    if (variant == 1 || !running) {
        tested.insert_transition("more", from(left), to(out), pass);
        tested.insert_transition("told", from(off), [&](std::optional<int> end) { told += !end; });
        tested.start();
    }
    int received = 0;
    while (auto const token = out.next()) {
        received += *token;
        inspector::check_net(tested.base());
    }
    assure(out.ended() && right.ended());
    tested.join();
    for (auto const& each : tested.explain().transitions)
        assure(each.ended);
    assure(told == (variant == 1 || !running));
    assure(received + static_cast<int>(left.size()) == sent && left.size() <= 1);
}

// Threads wait with deadlines while others send or receive. Threads without a limit are let go when
// the net is halted or destroyed. One is asked to stop meanwhile, in the way of a std::stop_token.
// None gives up early, none stays, and what was not sent is still there. In the last variant no
// thread is preempted, so that the clock tells whether a late limit was waited for.
void limits(unsigned int variant) {
    bool const destroys = variant == 2, exact = variant == 3, halts = variant == 1 || exact;
    accounts const books(0, true);
    if (pick(3) == 0)
        end_waits_late(5);
    using token = std::unique_ptr<int>;
    auto tested = std::make_unique<net>(1, 0.0, net_stack);
    auto const only = tested->insert_place<token>("only", 1);
    auto const full = tested->insert_place<int>("full", 1);
    auto const idle = tested->insert_place<int>("idle", 1);
    tested->insert_transition("idle", from(idle), [](int) {});
    full.send(0);
    // A call behind its limit earns its thread a chance, as one that does not wait.
    std::stop_source asked_before;
    asked_before.request_stop();
    assure(!idle.receive_until(asked_before.get_token()).has_value());
    assure((idle.base()->*inspector::receivers).misses == 1);
    detail::atomic<unsigned int> sent{0}, received{0};
    if (!exact)
        begin();
    bool const running = pick(2) == 0;
    if (running)
        tested->start();
    {
        auto const span = [] {
            return 0.001 * pick(4);
        };
        auto const send = [&] {
            for (unsigned int each = 0; each != 2; ++each) {
                auto mine = std::make_unique<int>(1);
                time const point = time::then(span());
                bool const done = only.send_until(std::move(mine), point);
                assure(done == (mine == nullptr));
                assure(done || halts || point <= time::now());
                sent += done;
            }
        };
        client one(send), two(send);
        client receiver([&] {
            time const point = time::then(span());
            bool const done = only.receive_until(point).has_value();
            assure(done || halts || point <= time::now());
            received += done;
        });
        client without_limit([&] { received += variant != 0 && only.next().has_value(); });
        client sender([&] { assure(variant == 0 || !full.send(1)); });
        client patient([&] {
            assure(!exact || !idle.receive_until(time::then(3600.0)).has_value());
            assure(nanoseconds() < 3'000'000'000'000);
        });
        detail::atomic<bool> interrupted{false};
        detail::net_core& core = inspector::core(*tested);
        client asked([&] { received += !inspector::await_stop(core, only, interrupted); });
        client asking([&] {
            interrupted = true;
            inspector::wake(core, only);
        });
        asked.join();
        asking.join();
        // The net's end may come only once no thread will begin to use it, and nobody is kept
        // out by the halt of a net that does not run.
        if (exact)
            Sleep(1000);
        else if (destroys || (halts && !running))
            settle();
        if (halts)
            tested->halt();
        if (destroys) {
            received += only.try_receive().has_value();
            tested.reset();
        }
    }
    if (running && !destroys)
        tested->join();
    assure(sent == received + (!destroys && only.try_receive().has_value()));
}

// Memory is refused while a place ends whose transition takes its end.
void ends_without_memory(unsigned int) {
    accounts const books(0);
    expect_failure("(\"unexpected exception\", 0)");
    net tested(1, 0.0, net_stack);
    auto const in = tested.insert_place<int>("in", 2);
    auto const out = tested.insert_place<int>("out", 12, closes);
    for (int each = 0; each != 10; ++each)
        tested.insert_transition("tell", from(in), to(out), [](std::optional<int> token) {
            return token ? std::optional<int>() : std::optional(1);
        });
    begin();
    bool const running = pick(2) == 0;
    if (running)
        tested.start();
    refuse_memory(1 + pick(6), 1 + pick(4));
    for (int token = 0; token != 2; ++token)
        attempt([&] { static_cast<void>(in.try_send(token)); });
    in.close();
    refuse_memory(0, 0);
    if (!running)
        tested.start();
    // Both throw if a body had none for its token: the net has failed.
    attempt([&] {
        int told = 0;
        while (out.next().has_value())
            ++told;
        assure(told == 10 && out.ended());
    });
    attempt([&] { tested.join(); });
}

// Memory is scarce when a token leaves that kept more transitions from firing than the array
// holds. If it could not leave, it is still there.
void refused_slots(unsigned int variant) {
    accounts const books(0);
    net tested(1, 0.0, net_stack);
    using token = std::unique_ptr<int>;
    auto const full = tested.insert_place<token>("full", 1);
    for (int each = 0; each != 10; ++each)
        tested.insert_transition("fill", to(full), [] { return token(); });
    full.send(std::make_unique<int>(1));
    begin();
    refuse_blocks(1 + pick(3), 1000);
    token taken;
    bool const received =
        attempt([&] { taken = *(variant == 0 ? full.try_receive() : full.next()); });
    assure(full.size() == (received ? 0 : 1));
    refuse_blocks(0, 0);
    if (taken == nullptr)
        taken = full.receive();
    assure(*taken == 1);
}

// With a block refused while a net is built, or while it is started or run, a call throws, the
// net fails with the exception, or the running process ends with a message. Nothing leaks.
void refused_blocks(unsigned int variant) {
    bool const builds = variant == 2;
    accounts const books(builds ? 0 : variant, true);
    triple<unsigned int, double, unsigned int> const groups[] = {{1 + pick(2), 0.0, net_stack},
                                                                 {1, 0.0, net_stack}};
    net tested(groups, groups + 1 + pick(2));
    begin();
    if (builds)
        refuse_blocks(1 + pick(80));
    attempt([&] {
        auto const in = tested.insert_place<std::unique_ptr<int>>("in", 2);
        auto const out = tested.insert_place<int>("out", 1);
        auto const off = tested.insert_place<int>("off", 2);
        tested.insert_transition("pass", from(in), to(out),
                                 [](std::unique_ptr<int> token) { return *token + 1; });
        tested.insert_transition("late", from(off, unless(out)), [](int) {},
                                 {.after = std::chrono::seconds(1)});
        tested.insert_transition("last", from(off), to(out),
                                 [](std::optional<int> token, std::stop_token) { return token; });
        if (builds)
            return;
        expect_failure("(\"unexpected exception\", 0)");
        refuse_blocks(1 + pick(40), 1 + pick(2));
        retried([&] { return tested.start(); });
        int sum = 0;
        for (int const token : {1, 2, 3}) {
            in.send(std::make_unique<int>(token));
            sum += out.receive();
        }
        tested.join();
        assure(sum == 9);
    });
    refuse_blocks(0, 0);
}

// One thread feeds a chain and another drains it; a third looks at the counts. The feeding thread
// closes the chain, whose arcs may need several tokens. Or the first transition is deactivated in
// the end, and the tokens stay where they were put.
void ports(unsigned int variant) {
    accounts const books(variant == 2 ? 64 : 0);
    bool const stays = variant == 1;
    constexpr unsigned int room = 8, tokens = 3 * room;
    net tested(1 + pick(2), 0.0, net_stack);
    auto const in = tested.insert_place<unsigned int>("in", room);
    auto const middle = tested.insert_place<unsigned int>("middle", room / 2, closes);
    auto const out = tested.insert_place<unsigned int>("out", room, closes);
    using batch = std::array<unsigned int, 3>;
    auto const insert = [&](char const* name, auto const& source, auto const& target) {
        if (variant == 3)
            return tested.insert_transition(name, from(source.times(3)), to(target.times(3)),
                                            [](batch tokens) { return tokens; });
        return tested.insert_transition(name, from(source), to(target),
                                        [](unsigned int token) { return token; });
    };
    auto first = insert("first", in, middle);
    insert("second", middle, out);
    tested.start();
    begin();
    unsigned int sent = 0;
    unsigned int received = 0;
    {
        client feeds([&] {
            for (; sent != tokens; ++sent) {
                if (pick(4) == 0)
                    while (!in.try_send(sent))
                        YieldProcessor();
                else
                    assure(in.send(sent));
            }
            if (!stays) {
                in.close();
                assure(!in.try_send(tokens));
            }
        });
        client drains([&] {
            for (unsigned int least = 0; received != tokens; ++received) {
                if (pick(4) == 0)
                    assure(out.try_peek().value_or(least) == least);
                std::optional<unsigned int> token;
                if (pick(4) == 0)
                    token = out.try_receive();
                if (!token)
                    token = out.next();
                if (!token)
                    return;
                assure(*token == least++);
            }
        });
        client watches([&] {
            do {
                inspector::check_net(tested.base());
                assure(in.size() <= room && out.size() <= room);
                for (auto const& each : tested.explain().places)
                    assure(each.tokens <= each.capacity);
                YieldProcessor();
            } while (pick(8) != 0);
        });
    }
    if (stays) {
        first.deactivate();
        unsigned int here = in.size();
        assure(here == 0);
        for (; here != room / 2; ++here) {
            in.send(here);
            assure(in.size() == here + 1);
        }
        assure(in.try_peek() == 0u);
        sent += here;
    }
    tested.join();
    assure(sent == received + in.size() + middle.size() + out.size());
    assure(received == tokens);
}

registration const table{
    {.name = "net_ends_behind_its_tokens", .run = ends, .variants = 3},
    {.name = "net_place_ends_behind_a_firing", .run = ends_behind_a_firing, .variants = 2},
    {.name = "net_ends_what_closed_places_starve", .run = starves, .variants = 2},
    {.name = "net_moves_batches_through_ports", .run = ports, .variants = 4},
    {.name = "net_waits_end_at_their_limits", .run = limits, .variants = 4},
    {.name = "net_ends_although_memory_is_refused", .run = ends_without_memory},
    {.name = "net_token_not_received_is_kept", .run = refused_slots, .variants = 2},
    {.name = "typed_net_bears_refused_blocks", .run = refused_blocks, .variants = 3},
};

}  // namespace

}  // namespace ovel::simulation
