// SPDX-License-Identifier: Apache-2.0
// Threads that the program starts itself, through the plain interface. Each has an
// allocator while it uses the library's memory, and at the end the idle memory goes back
// to the system.

#include <ovel.h>

#include <cstdio>
#include <thread>
#include <vector>

namespace {

// Sums up numbers from blocks that another thread allocated, and frees the blocks.
class summing : public ovel::thread_function {
public:
    explicit summing(std::vector<int*> const& blocks) : _blocks(blocks) {}

    void operator()() override {
        for (int* const block : _blocks) {
            _sum += *block;
            ovel::allocator_support::deallocate(block);
        }
        // The blocks belong to another thread: hand them over now instead of some time
        // later.
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

    // The program's own threads say when they start and stop using the library's memory.
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

    // Each of the library's threads has an allocator and runs a thread_function.
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
