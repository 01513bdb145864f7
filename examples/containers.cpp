// SPDX-License-Identifier: Apache-2.0
// Containers on the library's memory. Each thread allocates from its own allocator
// without a lock; blocks that another thread frees return to it.

#include <ovel_allocator_support.h>
#include <ovel_memory.h>
#include <ovel_work.h>

#include <cstddef>
#include <cstdio>
#include <list>
#include <map>
#include <memory_resource>
#include <string>

int main() {
    using numbers = std::list<int, ovel::container_allocator<int>>;
    constexpr int size = 10'000;

    ovel::memory_resource memory;
    std::size_t const before = ovel::allocator_support::allocated_size();
    long long sum = 0;
    std::size_t words = 0;
    {
        // Built by two threads, read and freed by a third.
        ovel::work_group group(2);
        auto const build = [](int first) {
            return [first] {
                numbers built;
                for (int i = 0; i < size; ++i)
                    built.push_back(first + i);
                return built;
            };
        };
        auto low = group.submit(build(0));
        auto high = group.submit(build(size));
        numbers all = low.get();
        all.splice(all.end(), high.get());  // the allocators are equal: nothing is copied
        for (int const number : all)
            sum += number;

        // The polymorphic containers take a resource and pass it on to their elements.
        std::pmr::map<int, std::pmr::string> names(&memory);
        for (int i = 0; i < 100; ++i)
            names.emplace(i, "a name that is too long to lie within the string itself");
        words = names.size();
        std::printf("in use: %s\n",
                    ovel::allocator_support::allocated_size() > before ? "yes" : "no");
        group.join();
    }
    std::printf("the sum is %lld, of %d numbers; %zu names\n", sum, 2 * size, words);
    return sum == size * (2LL * size - 1) && words == 100 ? 0 : 1;
}
