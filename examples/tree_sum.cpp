// SPDX-License-Identifier: Apache-2.0
// Divide and conquer. All threads of a group visit the nodes of a tree: each node opens a
// scope, runs its children in it, and waits for them, working meanwhile. A loop over a
// table does the same with parts of a fixed length.

#include <ovel_parallel.h>

#include <atomic>
#include <cstdio>
#include <vector>

namespace {

// The number of nodes of a complete binary tree.
long count(ovel::work_group& group, int height) {
    if (height == 0)
        return 1;
    long left = 0;
    long right = 0;
    ovel::task_scope children(group);
    children.run([&] { left = count(group, height - 1); });
    children.run([&] { right = count(group, height - 1); });
    children.wait();
    return left + right + 1;
}

}  // namespace

int main() {
    ovel::work_group group(4);
    long const nodes = count(group, 10);

    std::vector<int> table(100000, 1);
    std::atomic<long> sum = 0;
    ovel::loop_options const parts{.grain = 1000};
    ovel::parallel_for(
        group, table.begin(), table.end(),
        [&sum](auto begin, auto end) {
            long part = 0;
            for (; begin != end; ++begin)
                part += *begin;
            sum += part;
        },
        parts);

    std::printf("%ld nodes; the table's sum is %ld\n", nodes, sum.load());
    return nodes == 2047 && sum == 100000 ? 0 : 1;
}
