// SPDX-License-Identifier: Apache-2.0
// Work bounded by memory. A group has a budget of `space`, in a unit of your choice, and
// each work item states how much of it the item occupies while it runs. Here the unit is
// a megabyte. Small jobs run in parallel, large ones wait until enough is free, and no
// mix of them ever exceeds the budget, however many threads there are.

#include <ovel_work.h>

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <future>
#include <vector>

int main() {
    constexpr int budget = 64;

    std::atomic<int> used = 0;
    std::atomic<int> most = 0;
    auto const job = [&](int megabytes) {
        return [&, megabytes] {
            int const now = used += megabytes;
            int seen = most;
            while (seen < now && !most.compare_exchange_weak(seen, now)) {}
            // Uses a kilobyte for each megabyte, to be fast.
            std::vector<char> const buffer(static_cast<std::size_t>(megabytes) << 10, 'x');
            used -= megabytes;
            return static_cast<int>(buffer.size() >> 10);
        };
    };

    ovel::work_group group(8, budget);
    std::vector<std::future<int>> results;
    int expected = 0;
    for (int round = 0; round < 50; ++round)
        for (int const megabytes : {1, 4, 16, 40, 64}) {
            results.push_back(group.submit(job(megabytes), {.space = double(megabytes)}));
            expected += megabytes;
        }
    int sum = 0;
    for (std::future<int>& result : results)
        sum += result.get();
    group.join();

    std::printf("%zu jobs, %d MB in all, at most %d MB at a time\n", results.size(), sum,
                most.load());
    return sum == expected && most <= budget ? 0 : 1;
}
