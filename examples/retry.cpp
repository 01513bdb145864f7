// SPDX-License-Identifier: Apache-2.0
// A workflow with a retry after a delay: orders that fail go to a place of their own, and a
// transition with `after` takes them back to work. After three attempts an order is given up.
// The delay is part of the net: no thread sleeps, and a net in which a delay runs is not at
// rest.

#include <ovel_petri.h>

#include <chrono>
#include <cstdio>
#include <variant>

using namespace std::chrono_literals;

namespace {

using clock_type = std::chrono::steady_clock;

struct order {
    int number;
    int attempts = 0;
    clock_type::time_point tried{};
};
struct done : order {};
struct failed : order {};
struct given_up : order {};

constexpr auto retry_delay = 20ms;

}  // namespace

int main() {
    ovel::net net;
    auto const orders = net.insert_place<order>("orders", 8);
    auto const ready = net.insert_place<order>("done", 8);
    auto const again = net.insert_place<order>("to retry", 8);
    auto const refused = net.insert_place<order>("given up", 8);

    // Even orders never succeed, odd ones do so with the second attempt. The alternative of
    // the variant says where an order goes.
    net.insert_transition("process", from(orders), to(ready, again, refused),
                          [](order now) -> std::variant<done, failed, given_up> {
                              ++now.attempts;
                              now.tried = clock_type::now();
                              if (now.number % 2 != 0 && now.attempts == 2)
                                  return done{now};
                              if (now.attempts == 3)
                                  return given_up{now};
                              return failed{now};
                          },
                          {.reentrant = true});
    bool early = false;
    net.insert_transition("retry", from(again), to(orders),
                          [&](order now) {
                              early = early || clock_type::now() - now.tried < retry_delay;
                              std::printf("order %d is tried again\n", now.number);
                              return now;
                          },
                          {.after = retry_delay});

    for (int number = 1; number <= 3; ++number)
        orders.send({number});
    net.start();
    net.join();  // at rest: nothing waits for a retry

    std::printf("%u done, %u given up\n", ready.size(), refused.size());
    bool const right = ready.size() == 2 && refused.size() == 1 && again.size() == 0;
    return right && !early ? 0 : 1;
}
