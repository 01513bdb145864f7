// SPDX-License-Identifier: Apache-2.0
// Philosophers who cannot deadlock. Each needs the two forks beside the plate. If each
// took one and waited for the other, they would deadlock. A transition takes all of its
// tokens at once or none, so no philosopher ever holds a single fork, and no order of the
// forks is needed.

#include <ovel_petri.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <string>
#include <tuple>
#include <vector>

struct fork_token {};
struct appetite {};

int main() {
    constexpr int philosophers = 5;
    constexpr int meals = 200;

    std::array<std::atomic<int>, philosophers> in_use{};  // the hands on each fork
    std::atomic<int> eaten = 0;
    std::atomic<bool> shared = false;

    ovel::net table(philosophers);
    std::vector<ovel::place<fork_token>> forks;
    for (int i = 0; i < philosophers; ++i) {
        // A transition takes a fork and puts it back. It reserves the slot for putting it
        // back before it takes the fork, so the place needs room for two.
        forks.push_back(table.insert_place<fork_token>("fork " + std::to_string(i), 2));
        forks.back().send(fork_token());
    }
    for (int i = 0; i < philosophers; ++i) {
        int const next = (i + 1) % philosophers;
        auto const hunger = table.insert_place<appetite>("hunger " + std::to_string(i), meals);
        for (int meal = 0; meal < meals; ++meal)
            hunger.send(appetite());
        table.insert_transition("philosopher " + std::to_string(i),
                                from(hunger, forks[i], forks[next]), to(forks[i], forks[next]),
                                [&, i, next](appetite, fork_token left, fork_token right) {
                                    if (++in_use[i] != 1 || ++in_use[next] != 1)
                                        shared = true;
                                    ++eaten;
                                    --in_use[i];
                                    --in_use[next];
                                    return std::tuple(left, right);
                                });
    }
    table.start();
    table.join();  // at rest: no philosopher is hungry any more

    std::printf("%d meals, %s\n", eaten.load(), shared ? "a fork in two hands" : "no fork shared");
    return eaten == philosophers * meals && !shared ? 0 : 1;
}
