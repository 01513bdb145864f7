// SPDX-License-Identifier: Apache-2.0
// Threads outside a Petri net that move tokens in batches, without the net's mutex: none is lost,
// overtaken, or too many, and what a call has done is visible when it returns.

#include "accounts.h"

#include <array>
#include <optional>

namespace ovel::simulation {

namespace {

using detail::inspector;

constexpr unsigned int stack_size = 65536;
constexpr unsigned int capacity = 8;

// One thread feeds a chain and another drains it; a third looks at the counts. The feeding thread
// closes the chain, whose arcs may need several tokens. Or the first transition is deactivated in
// the end, and the tokens stay where they were put.
void ports(unsigned int variant) {
    accounts const books(variant == 2 ? 64 : 0);
    bool const stays = variant == 1;
    constexpr unsigned int tokens = 3 * capacity;
    net tested(1 + pick(2), 0.0, stack_size);
    auto const in = tested.insert_place<unsigned int>("in", capacity);
    auto const middle = tested.insert_place<unsigned int>("middle", capacity / 2, closes);
    auto const out = tested.insert_place<unsigned int>("out", capacity, closes);
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
                assure(in.size() <= capacity && out.size() <= capacity);
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
        for (; here != capacity / 2; ++here) {
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
    {.name = "net_moves_batches_through_ports", .run = ports, .variants = 4},
};

}  // namespace

}  // namespace ovel::simulation
