// SPDX-License-Identifier: Apache-2.0
// Delays of transitions: none fires before it has been enabled for that long, without a pause,
// and none later than the clock of a wait can tell.

#include "accounts.h"

namespace ovel::simulation {

namespace {

using namespace std::chrono_literals;

constexpr std::uint64_t millisecond = 1'000'000;

// A thread puts a token of each of two transitions at some time, and may take one back and put
// it again before its delay is over. Another token is taken by a transition without a delay.
void spans(unsigned int variant) {
    accounts const books(0, true);
    // Where nothing is preempted, a delay ends with the next whole millisecond.
    bool const exact = variant == 0;
    if (variant == 2)
        end_waits_late(20);
    net tested(1 + pick(2), 0.0, net_stack);
    constexpr unsigned int count = 2;
    std::uint64_t const span = 1 + pick(5);
    std::uint64_t enabled[count] = {}, fired[count] = {};
    std::vector<place<int>> places;
    for (unsigned int each = 0; each != count; ++each) {
        places.push_back(tested.insert_place<int>("place", 1));
        tested.insert_transition("delayed", from(places[each]),
                                 [&fired, each](int) { fired[each] = nanoseconds(); },
                                 {.after = std::chrono::milliseconds((each + 1) * span)});
    }
    auto const direct = tested.insert_place<int>("direct", 1);
    std::uint64_t at_once = 0;
    tested.insert_transition("direct", from(direct), [&](int) { at_once = nanoseconds(); });
    if (!exact)
        begin();
    bool const before = pick(2) == 0;
    if (!before)
        tested.start();
    std::uint64_t began = 0;
    {
        client feeding([&] {
            for (unsigned int each = 0; each != count; ++each) {
                auto const put = [&] {
                    Sleep(pick(3));
                    enabled[each] = nanoseconds();
                    places[each].send(1);
                };
                put();
                if (pick(2) == 0) {
                    Sleep(pick(8));
                    if (places[each].try_receive().has_value())
                        put();
                }
            }
            began = nanoseconds();
            direct.send(1);
        });
        if (before) {
            Sleep(pick(6));
            tested.start();
        }
        inspector::check_net(tested.base());
    }
    std::uint64_t const started = nanoseconds();
    tested.join();
    for (unsigned int each = 0; each != count; ++each) {
        std::uint64_t const due = enabled[each] + (each + 1) * span * millisecond;
        assure(fired[each] >= due);
        assure(!exact || before || fired[each] <= due + millisecond + millisecond / 10);
    }
    assure(at_once >= began);
    assure(!exact || before || at_once <= started + millisecond / 10);
}

// A net in which a delay runs rests only behind it; a halt, and switching the transition off,
// end it. In the last three variants threads are preempted, so the delay may end before that.
void rests(unsigned int variant) {
    bool const exact = variant < 3;
    variant %= 3;
    accounts const books(0, true);
    net tested(1, 0.0, net_stack);
    auto const in = tested.insert_place<int>("in", 1);
    detail::atomic<unsigned int> fired{0};
    auto const delayed =
        tested.insert_transition("delayed", from(in), [&](int) { ++fired; }, {.after = 1h});
    if (!exact)
        begin();
    tested.start();
    in.send(1);
    if (tested.join_until(time::then(0.002))) {
        assure(!exact && fired == 1);
        return;
    }
    std::uint64_t const began = nanoseconds();
    {
        client ending([&] {
            if (variant == 1)
                tested.halt();
            else if (variant == 2)
                delayed.deactivate();
        });
        tested.join();
    }
    assure((fired != 0) != in.try_receive().has_value());
    assure(variant != 0 || fired == 1);
    if (exact)
        assure((fired != 0) == (variant == 0) &&
               (nanoseconds() - began > 1000 * millisecond) == (variant == 0));
}

// Ten transitions are due at one time, and there is no memory to queue them in a list.
void due_without_memory(unsigned int) {
    accounts const books(0, true);
    expect_failure("(\"unexpected exception\", 0)");
    net tested(1, 0.0, net_stack);
    auto const in = tested.insert_place<std::unique_ptr<int>>("in", 12);
    detail::atomic<int> fired{0};
    constexpr int count = 10;
    for (int each = 0; each != count; ++each) {
        in.send(std::make_unique<int>(1));
        tested.insert_transition(
            "due", from(in), [&](std::unique_ptr<int> token) { fired += *token; }, {.after = 1ms});
    }
    begin();
    tested.start();
    refuse_memory(1 + pick(3), 1000);
    while (fired != count)
        Sleep(1);
    refuse_memory(0, 0);
    tested.join();
    assure(in.size() == 0);
}

registration const table{
    {.name = "net_delays_are_exact", .run = spans, .variants = 3},
    {.name = "net_rests_behind_its_delays", .run = rests, .variants = 6},
    {.name = "net_delays_need_no_memory", .run = due_without_memory},
};

}  // namespace

}  // namespace ovel::simulation
