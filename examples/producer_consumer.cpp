// SPDX-License-Identifier: Apache-2.0
// Producer and consumer with back-pressure, which is simply the capacity of a place. If
// the producer is faster than the consumer, it blocks in `send` once the place is full.
// So the queue between them stays bounded.

#include <ovel_petri.h>
#include <ovel_work.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <thread>

int main() {
    constexpr int orders = 10'000;
    constexpr int room = 4;

    std::atomic<int> produced = 0;
    std::atomic<int> consumed = 0;
    int ahead = 0;  // the most that the producer was ahead
    long long sum = 0;

    ovel::net net;
    auto const shelf = net.insert_place<int>("shelf", room);
    net.insert_transition("consume", from(shelf), [&](int order) {
        sum += order;  // one firing at a time: the transition is not reentrant
        ++consumed;
    });
    net.start();
    {
        std::jthread const producer([&] {
            for (int order = 1; order <= orders; ++order) {
                shelf.send(order);  // blocks while the shelf is full
                ahead = std::max(ahead, ++produced - consumed);
            }
        });
    }
    net.join();

    // The consumer holds tokens that are no longer on the shelf and not yet counted.
    bool const bounded = ahead <= room + 1;
    std::printf("%d orders, sum %lld, the producer was %s ahead\n", consumed.load(), sum,
                bounded ? "never far" : "too far");
    return bounded && consumed == orders && sum == orders * (orders + 1LL) / 2 ? 0 : 1;
}
