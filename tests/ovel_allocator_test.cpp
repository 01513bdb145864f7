// SPDX-License-Identifier: Apache-2.0
#include "ovel_allocator.h"

#include "ovel_test.h"

struct ovel::detail::inspector {
    static constexpr auto remotes = &allocator::_remote;
    static constexpr auto partial = &allocator::_partial;
    static constexpr auto empty = &allocator::_empty;
    static constexpr auto size = &allocator::_size;
    static constexpr auto capacity = &allocator::_capacity;
    static constexpr auto pending_size = &allocator::_pending_size;

    struct allocators;
    [[noreturn]] static void broken(char const* invariant) {
        throw std::logic_error(invariant);
    }
};

#include "ovel_allocator_invariants.h"

namespace {

using namespace ovel;
using namespace ovel::detail;

constexpr std::size_t batch = 262144;
constexpr std::size_t largest = classes - 1;
constexpr std::size_t largest_per_chunk = 15;
constexpr std::size_t largest_capacity = largest_per_chunk * 4096;

std::size_t request_of(std::size_t k) {
    return block_sizes[k] - sizeof(block);
}

// Reads memory that is poisoned for AddressSanitizer.
[[gnu::no_sanitize_address]] std::size_t chunks(chunk const& ring) {
    std::size_t count = 0;
    for (chunk const* each = ring._next; each != &ring; each = each->_next)
        ++count;
    return count;
}

// A new allocator without chunks. Each operation makes it the calling thread's, so one thread
// can play several threads in a fixed order. It is not given back, or the next actor would get
// its chunks.
class actor {
public:
    actor() {
        _group.acquire_allocator();
        _own = _group.specific_allocator();
    }
    ~actor() {
        _group.specific_allocator(nullptr);
    }
    actor(actor const&) = delete;
    actor& operator=(actor const&) = delete;

    // A field of the allocator.
    auto& operator[](auto field) const {
        return _own->*field;
    }
    allocator& own() const {
        return *_own;
    }
    allocator_group& use() const {
        _group.specific_allocator(_own);
        return _group;
    }
    void* allocate(std::size_t bytes) const {
        use();
        return allocator_support::allocate(bytes);
    }
    std::vector<void*> allocate(std::size_t bytes, std::size_t count) const {
        std::vector<void*> result;
        while (result.size() != count)
            result.push_back(allocate(bytes));
        return result;
    }
    void deallocate(void* memory) const {
        use();
        allocator_support::deallocate(memory);
    }
    // Frees the last `count` of `all`.
    void deallocate(std::vector<void*>& all, std::size_t count) const {
        for (; count != 0; --count) {
            deallocate(all.back());
            all.pop_back();
        }
    }

private:
    allocator_group& _group = *allocator_group::global();
    allocator* _own;
};

TEST(allocator_test, a_fresh_chunk_hands_out_its_blocks_downwards_without_gaps) {
    actor one;
    for (std::size_t k = sizeof(block) / granule - 1; k != classes; ++k) {
        std::vector<void*> const memory = one.allocate(request_of(k), largest_per_chunk);
        auto const highest = static_cast<char*>(memory[0]);
        for (std::size_t i = 0; i != memory.size(); ++i)
            EXPECT_EQ(memory[i], highest - i * block_sizes[k]) << "class " << k;
    }
}

TEST(allocator_test, the_chunk_freed_into_last_serves_and_a_second_unused_one_becomes_empty) {
    actor one;
    chunk const& partial = one[inspector::partial][largest];
    std::vector<void*> memory = one.allocate(request_of(largest), largest_per_chunk + 1);
    EXPECT_EQ(chunks(partial), 1u);
    void* const freed = memory[3];
    one.deallocate(freed);
    EXPECT_EQ(chunks(partial), 2u);
    EXPECT_EQ(one.allocate(request_of(largest)), freed);

    one.deallocate(memory, memory.size());
    EXPECT_EQ(chunks(one[inspector::empty]), 1u);
    one.allocate(request_of(12));
    EXPECT_EQ(chunks(one[inspector::empty]), 0u);
}

TEST(allocator_test, surplus_leaves_chunk_by_chunk_and_is_taken_before_new_memory) {
    chunk const& available = allocator_group::global()->global_allocator()->*inspector::empty;
    for (std::size_t const held : {17u, 18u}) {
        actor one;
        std::vector<void*> memory = one.allocate(request_of(largest), held * largest_per_chunk);
        std::size_t const before = chunks(available);
        one.deallocate(memory, memory.size());
        // 17 chunks are below the 1048579 bytes from which an idle allocator
        // gives, 18 are not.
        EXPECT_EQ(one[inspector::capacity], 17 * largest_capacity);
        EXPECT_EQ(chunks(available), before + (held - 17));
    }
    // The free that empties a chunk decides by the bytes then in use: an allocator of 23 chunks
    // gives up the first one when 63 blocks are left. It hands over other owners' blocks with it.
    actor one, other;
    std::vector<void*> memory = one.allocate(request_of(largest), 23 * largest_per_chunk);
    one.deallocate(other.allocate(40));
    one.deallocate(memory, memory.size() - 64);
    EXPECT_EQ(one[inspector::capacity], 23 * largest_capacity);
    EXPECT_EQ(other[inspector::pending_size], 0u);
    one.deallocate(memory, 1);
    EXPECT_EQ(one[inspector::capacity], 22 * largest_capacity);
    EXPECT_NE(other[inspector::pending_size], 0u);

    std::size_t const before = chunks(available);
    other.allocate(request_of(7));
    EXPECT_EQ(chunks(available), before - 1);
}

TEST(remote_free_test, blocks_reach_an_activated_owner_in_batches_and_wait_for_it) {
    actor owner, freer;
    std::vector<void*> memory = owner.allocate(request_of(largest), 65);
    freer.deallocate(memory, 64);
    auto const& entry = freer[inspector::remotes][0];
    EXPECT_EQ(entry.size, batch);
    EXPECT_EQ(owner[inspector::pending_size], 0u);
    freer.deallocate(memory, 1);
    EXPECT_EQ(entry.size, 4096u);
    EXPECT_EQ(owner[inspector::pending_size], batch);

    // A full batch is put back by the next allocation, less than that only when
    // there is no chunk to serve it.
    owner.allocate(request_of(largest));
    EXPECT_EQ(owner[inspector::pending_size], 0u);
    freer.use().flush_allocator(false);
    while (owner[inspector::empty].has_chunk())
        owner.allocate(request_of(10));
    EXPECT_EQ(owner[inspector::pending_size], 4096u);
    owner.allocate(request_of(12));
    EXPECT_EQ(owner[inspector::pending_size], 0u);
}

TEST(remote_free_test, waiting_blocks_except_the_only_one_serve_after_own_ones) {
    actor owner, user;
    std::vector<void*> memory = owner.allocate(request_of(largest), 3);
    auto const& entry = user[inspector::remotes][0];
    std::size_t const own = user[inspector::size];
    for (void* each : memory)
        user.deallocate(each);
    user.deallocate(user.allocate(request_of(largest - 1)));  // of another class: none waits
    EXPECT_EQ(entry.size, 3 * 4096u);
    EXPECT_EQ(user.allocate(request_of(largest)), memory[2]);
    EXPECT_EQ(user.allocate(request_of(largest)), memory[1]);
    EXPECT_EQ(user[inspector::size], own);
    void* const fresh = user.allocate(request_of(largest));
    EXPECT_NE(fresh, memory[0]);
    EXPECT_EQ(entry.size, 4096u);

    // Even if the waiting one was freed later.
    user.allocate(request_of(largest), 14);
    user.deallocate(fresh);
    user.deallocate(memory[1]);
    EXPECT_EQ(user.allocate(request_of(largest)), fresh);
    EXPECT_EQ(user.allocate(request_of(largest)), memory[1]);
}

TEST(remote_free_test, freeing_a_block_of_a_fifth_owner_hands_over_the_first_four_chains) {
    actor owners[5], freer;
    void* memory[5];
    for (int i = 0; i != 5; ++i)
        memory[i] = owners[i].allocate(40);
    for (int i = 0; i != 5; ++i) {
        EXPECT_EQ(owners[0][inspector::pending_size], 0u);
        freer.deallocate(memory[i]);
    }
    for (int i = 0; i != 4; ++i)
        EXPECT_NE(owners[i][inspector::pending_size], 0u);
    EXPECT_EQ(owners[4][inspector::pending_size], 0u);

    // A flush that keeps chains only collects.
    owners[4].deallocate(freer.allocate(40));
    owners[4].use().flush_allocator(false);
    freer.use().flush_allocator(true);
    EXPECT_EQ(freer[inspector::size], 0u);
    EXPECT_EQ(owners[4][inspector::pending_size], 0u);
    freer.use().flush_allocator(false);
    EXPECT_NE(owners[4][inspector::pending_size], 0u);
}

// Seven actors allocate blocks, free each other's, flush, deactivate and activate in random
// order. After every step the invariants of all allocators hold, and the blocks in use are the
// live ones and those not handed over yet.
TEST(allocator_test, a_random_walk_keeps_every_invariant) {
    constexpr std::size_t actors = 7;  // more than an allocator has entries for other owners
    constexpr std::size_t requests[] = {100, 500, 1000, 2000, 4080};
    for (unsigned int seed = 1; seed != 9; ++seed) {
        std::mt19937 random(seed);
        auto const draw = [&](std::size_t below) {
            return static_cast<std::size_t>(random() % below);
        };
        actor all[actors];
        bool sleeps[actors] = {};
        std::vector<void*> live;
        std::size_t live_bytes = 0;
        allocator& global = *allocator_group::global()->global_allocator();
        for (unsigned int step = 0; step != 600; ++step) {
            SCOPED_TRACE(testing::Message() << "seed " << seed << ", step " << step);
            std::size_t const who = draw(actors);
            allocator_group& group = all[who].use();
            std::size_t const what = draw(100);
            if (sleeps[who] || what == 0) {
                if (std::exchange(sleeps[who], !sleeps[who]))
                    group.activate_allocator();
                else
                    group.deactivate_allocator(draw(2) == 0);
            } else if (what < 4) {
                group.flush_allocator(what % 2 == 0);
            } else if (what < (step / 100 % 2 == 0 ? 75u : 25u)) {
                // Blocks of one class in a row, so that chunks fill up.
                std::size_t const request = requests[draw(std::size(requests))];
                for (std::size_t count = 1 + draw(30); count != 0; --count) {
                    live.push_back(all[who].allocate(request));
                    live_bytes += allocator_support::size(live.back()) + sizeof(block);
                }
            } else {
                for (std::size_t count = draw(40); count != 0 && !live.empty(); --count) {
                    std::swap(live[draw(live.size())], live.back());
                    live_bytes -= allocator_support::size(live.back()) + sizeof(block);
                    all[who].deallocate(live, 1);
                }
            }
            inspector::allocators sums;
            for (std::size_t each = 0; each != actors; ++each) {
                ASSERT_NO_THROW(sums.check(all[each].own()));
                // What is freed for an owner that sleeps is put back at once.
                ASSERT_TRUE(!sleeps[each] || all[each][inspector::pending_size] == 0);
            }
            ASSERT_EQ(sums.in_use, live_bytes + sums.on_way);
            ASSERT_NO_THROW(sums.check(global));
        }
        for (std::size_t who = 0; who != actors; ++who)
            if (sleeps[who])
                all[who].use().activate_allocator();
        all[0].deallocate(live, live.size());
    }
}

}  // namespace
