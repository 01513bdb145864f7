// SPDX-License-Identifier: Apache-2.0
// Nets with typed places: a failure reaches every blocked thread and loses only the tokens that
// the failing body took, and a token that could not be sent still belongs to its sender.

#include "accounts.h"

#include <memory>
#include <optional>
#include <stop_token>

namespace ovel::simulation {

namespace {

// A sender, a receiver, and a sender to a place that stays full, of a net that fails at
// some token, and of its next run. Each token is received, or in a place, or was taken by
// the body that failed.
void failures(unsigned int variant) {
    accounts const books(variant);
    constexpr int tokens = 4;
    constexpr int never = 99;
    net tested(1 + pick(2), 0.0, net_stack);
    auto const in = tested.insert_place<int>("in", 1 + pick(2));
    auto const out = tested.insert_place<int>("out", 1 + pick(2));
    auto const full = tested.insert_place<int>("full", 1);
    int const bad = static_cast<int>(pick(tokens));
    bool armed = true;
    semaphore failing(0, 0);
    tested.insert_transition("pass", from(in), to(out), [&](int token) {
        if (token == bad && std::exchange(armed, false)) {
            failing.release();
            throw token;
        }
        return token;
    });
    full.send(never);
    detail::atomic<unsigned int> sent{0}, received{0};
    begin();
    tested.start();
    {
        client sender([&] {
            for (int token = 0; token != tokens; ++token)
                sent += succeeds([&] { in.send(token); });
        });
        client receiver([&] {
            while (succeeds([&] { out.receive(); }))
                ++received;
        });
        client blocked([&] { assure(!succeeds([&] { full.send(never); })); });
        failing.acquire();
        assure(!succeeds([&] { tested.join(); }));
    }
    assure(full.try_receive() == never && !full.try_receive().has_value());
    tested.start();
    tested.join();
    unsigned int left = 0;
    for (auto const& place : {in, out})
        while (place.try_receive().has_value())
            ++left;
    assure(sent == received + left + 1);
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
    net tested(1 + pick(2), 0.0, net_stack);
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

registration const table{
    {.name = "net_failure_reaches_the_blocked", .run = failures, .variants = 2},
    {.name = "typed_net_bears_refused_blocks", .run = refused_blocks, .variants = 3},
    {.name = "net_token_not_received_is_kept", .run = refused_slots, .variants = 2},
};

}  // namespace

}  // namespace ovel::simulation
