// SPDX-License-Identifier: Apache-2.0
// Threads that the program starts by itself, through the plain interface: one allocator
// for each, for as long as the thread uses the library's memory, and what the threads
// have left idle goes back to the system in the end.

#include <ovel.h>

#include <cstdio>
#include <thread>
#include <vector>

namespace {

// Sums up numbers from blocks that another thread has allocated, and frees them.
class summing : public ovel::thread_function {
public:
    explicit summing(std::vector<int*> const& blocks) : _blocks(blocks) {}

    void operator()() override {
        for (int* const block : _blocks) {
            _sum += *block;
            ovel::allocator_support::deallocate(block);
        }
        // The blocks are another thread's: hand them over now, not some day.
        ovel::allocator_group::global()->flush_allocator(false);
    }

    long long sum() const {
        return _sum;
    }

private:
    std::vector<int*> const& _blocks;
    long long _sum = 0;
};

}  // namespace

int main() {
    constexpr int blocks = 500000;
    ovel::allocator_group& allocators = *ovel::allocator_group::global();

    // A thread of the program's own says when it begins and ends to use the library's memory.
    std::vector<int*> allocated;
    std::thread allocating([&] {
        allocators.acquire_allocator();
        for (int i = 1; i <= blocks; ++i) {
            auto const block = static_cast<int*>(ovel::allocator_support::allocate(sizeof(int)));
            *block = i;
            allocated.push_back(block);
        }
        allocators.release_allocator();
    });
    allocating.join();

    // The library's threads have an allocator each, and run a thread_function.
    summing work(allocated);
    ovel::thread_base helper;
    helper.schedule(work);
    helper.release();
    helper.acquire();

    std::size_t const before = ovel::allocator_support::allocated_capacity();
    ovel::allocator_recycler::global()->recycle_capacity(1.0);
    std::size_t const after = ovel::allocator_support::allocated_capacity();

    std::printf("%u processors; the sum is %lld; %zu of %zu bytes went back to the system\n",
                ovel::thread_support::available_processors(), work.sum(), before - after, before);
    return work.sum() == static_cast<long long>(blocks) * (blocks + 1) / 2 && after < before ? 0
                                                                                             : 1;
}
