#include "ovel_allocator.h"

#include "ovel_allocator_group.h"
#include "ovel_allocator_support.h"
#include "ovel_test.h"

#include <cstdint>
#include <cstring>
#include <iterator>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

struct ovel::detail::inspector {
    static constexpr auto activated = &allocator::_activated;
    static constexpr auto pending = &allocator::_pending;
    static constexpr auto remotes = &allocator::_remote;
    static constexpr auto full = &allocator::_full;
    static constexpr auto partial = &allocator::_partial;
    static constexpr auto empty = &allocator::_empty;

    static std::size_t size(allocator const& a) {
        return a._size;
    }
    static std::size_t capacity(allocator const& a) {
        return a._capacity;
    }
    static std::size_t pending_size(allocator const& a) {
        return a._pending_size;
    }
};

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

std::size_t chunks(chunk const& ring) {
    std::size_t count = 0;
    for (chunk const* each = ring._next; each != &ring; each = each->_next)
        ++count;
    return count;
}

allocator& global_allocator() {
    return *allocator_group::global()->global_allocator();
}

// An allocator of its own, without chunks: each operation makes it the calling
// thread's, so that one thread plays several, in an order of its own. It is not
// given back, for the next actor would find its chunks.
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

// What a ring has, and the checks of what always holds of its chunks.
struct census {
    std::size_t size = 0;
    std::size_t capacity = 0;
    std::size_t unused = 0;    // chunks with no block in use
    std::size_t complete = 0;  // chunks with no block free

    census(chunk const& ring, allocator const& owner, std::size_t block_size) {
        EXPECT_EQ(ring._block_size, block_size);
        EXPECT_EQ(ring._next->_previous, &ring);
        for (chunk const* each = ring._next; each != &ring; each = each->_next) {
            EXPECT_EQ(each->_allocator, &owner);
            EXPECT_EQ(each->_length, 65536u);
            EXPECT_EQ(each->_next->_previous, each);
            EXPECT_TRUE(block_size == 0 || each->_block_size == block_size);
            EXPECT_EQ(each->_block_alignment, alignment_of(each->_block_size));
            // Less than a block is laid out for nobody, but for the last cacheline.
            EXPECT_GT(each->_capacity + each->_block_size + sizeof(chunk) + 2 * 128, 65536u);
            auto const region = reinterpret_cast<std::uintptr_t>(each);
            std::size_t free = 0;
            for (block const* b = each->_free; b != nullptr && free <= each->_capacity;
                 b = b->_next, free += each->_block_size) {
                auto const address = reinterpret_cast<std::uintptr_t>(b);
                EXPECT_EQ(b->_chunk, each);
                EXPECT_GE(address, region + sizeof(chunk));
                EXPECT_LE(address + each->_block_size, region + 65536 - 128);
                EXPECT_EQ((address + sizeof(block)) % each->_block_alignment, 0u);
            }
            EXPECT_EQ(each->_size + free, each->_capacity);
            size += each->_size;
            capacity += each->_capacity;
            unused += each->_size == 0;
            complete += each->_size == each->_capacity;
        }
    }
};

std::size_t chain_size(block const* head, allocator const& owner) {
    std::size_t size = 0;
    for (block const* b = head; b != nullptr; b = b->_next) {
        EXPECT_EQ(b->_chunk->_allocator, &owner);
        size += b->_chunk->_block_size;
    }
    return size;
}

// Checks what always holds while nobody is at work. Returns the bytes that are on
// their way, here or from here.
std::size_t expect_consistent(allocator const& a) {
    census sum(a.*inspector::empty, a, 0);
    EXPECT_EQ(sum.size, 0u);
    for (std::size_t k = 0; k != classes; ++k) {
        SCOPED_TRACE(testing::Message() << "class " << k);
        census const full((a.*inspector::full)[k], a, block_sizes[k]);
        census const partial((a.*inspector::partial)[k], a, block_sizes[k]);
        EXPECT_EQ(full.size, full.capacity);
        EXPECT_EQ(partial.complete, 0u);
        EXPECT_LE(partial.unused, 1u);
        sum.size += full.size + partial.size;
        sum.capacity += full.capacity + partial.capacity;
    }
    EXPECT_EQ(inspector::size(a), sum.size);
    EXPECT_EQ(inspector::capacity(a), sum.capacity);

    std::size_t on_the_way = inspector::pending_size(a);
    EXPECT_EQ(chain_size(a.*inspector::pending, a), on_the_way);
    std::set<allocator const*> owners{&a};
    for (auto const& entry : a.*inspector::remotes) {
        if (entry.owner == nullptr) {
            EXPECT_TRUE(entry.head == nullptr && entry.tail == nullptr && entry.size == 0);
            continue;
        }
        EXPECT_TRUE(owners.insert(entry.owner).second);
        EXPECT_EQ(chain_size(entry.head, *entry.owner), entry.size);
        EXPECT_EQ(entry.tail->_next, nullptr);
        on_the_way += entry.size;
    }
    return on_the_way;
}

TEST(allocator_group_test, a_thread_sees_its_own_allocator_only_and_the_released_one_is_reused) {
    allocator_group& group = *allocator_group::global();
    EXPECT_NE(group.global_allocator(), group.default_allocator());
    allocator* first = nullptr;
    std::thread([&] {
        group.acquire_allocator();
        first = group.specific_allocator();
        EXPECT_TRUE(
            elsewhere([&] { return group.specific_allocator() == group.default_allocator(); }));
        group.release_allocator();
        EXPECT_FALSE(first->*inspector::activated);
    }).join();
    actor const second;
    EXPECT_EQ(&second.own(), first);
    EXPECT_TRUE(first->*inspector::activated);
}

TEST(allocator_group_test, activation_out_of_turn_is_fatal) {
    actor one;
    EXPECT_CHECK(one.use().activate_allocator(), "!_activated", "sources/ovel_allocator.cpp");
    one.use().deactivate_allocator(false);
    EXPECT_CHECK(one.use().deactivate_allocator(true), "_activated", "sources/ovel_allocator.cpp");
}

TEST(allocator_test, a_fresh_chunk_hands_out_its_blocks_downwards_without_gaps) {
    actor one;
    for (std::size_t k = sizeof(block) / granule - 1; k != classes; ++k) {
        std::vector<void*> const memory = one.allocate(request_of(k), largest_per_chunk);
        auto expected = static_cast<char*>(memory[0]);
        for (void* each : memory) {
            EXPECT_EQ(each, expected) << "class " << k;
            expected -= block_sizes[k];
        }
    }
    expect_consistent(one.own());
}

TEST(allocator_test, the_chunk_freed_into_last_serves_and_a_second_unused_one_is_for_all) {
    actor one;
    chunk const& partial = (one.own().*inspector::partial)[largest];
    std::vector<void*> memory = one.allocate(request_of(largest), largest_per_chunk + 1);
    EXPECT_EQ(chunks(partial), 1u);
    void* const freed = memory[3];
    one.deallocate(freed);
    EXPECT_EQ(chunks(partial), 2u);
    EXPECT_EQ(one.allocate(request_of(largest)), freed);

    one.deallocate(memory, memory.size());
    EXPECT_EQ(chunks(one.own().*inspector::empty), 1u);
    one.allocate(request_of(12));
    EXPECT_EQ(chunks(one.own().*inspector::empty), 0u);
    expect_consistent(one.own());
}

TEST(allocator_test, surplus_leaves_chunk_by_chunk_and_is_taken_before_new_memory) {
    chunk const& available = global_allocator().*inspector::empty;
    for (std::size_t const held : {17u, 18u}) {
        actor one;
        std::vector<void*> memory = one.allocate(request_of(largest), held * largest_per_chunk);
        std::size_t const before = chunks(available);
        one.deallocate(memory, memory.size());
        // 17 chunks are below the 1048579 bytes from which an idle allocator
        // gives, 18 are not.
        EXPECT_EQ(inspector::capacity(one.own()), 17 * largest_capacity);
        EXPECT_EQ(chunks(available), before + (held - 17));
    }
    // The free that empties a chunk decides by what is then in use: 23 chunks
    // give the first one when 63 blocks are left. What the giver has freed of
    // others goes home with it.
    actor one, other;
    std::vector<void*> memory = one.allocate(request_of(largest), 23 * largest_per_chunk);
    one.deallocate(other.allocate(40));
    one.deallocate(memory, memory.size() - 64);
    EXPECT_EQ(inspector::capacity(one.own()), 23 * largest_capacity);
    EXPECT_EQ(inspector::pending_size(other.own()), 0u);
    one.deallocate(memory, 1);
    EXPECT_EQ(inspector::capacity(one.own()), 22 * largest_capacity);
    EXPECT_NE(inspector::pending_size(other.own()), 0u);

    std::size_t const before = chunks(available);
    other.allocate(request_of(7));
    EXPECT_EQ(chunks(available), before - 1);
    for (allocator const* each : {&one.own(), &other.own(), &global_allocator()})
        expect_consistent(*each);
}

TEST(remote_free_test, blocks_reach_an_activated_owner_in_batches_and_wait_for_it) {
    actor owner, freer;
    std::vector<void*> memory = owner.allocate(request_of(largest), 65);
    freer.deallocate(memory, 64);
    auto const& entry = (freer.own().*inspector::remotes)[0];
    EXPECT_EQ(entry.size, batch);
    EXPECT_EQ(inspector::pending_size(owner.own()), 0u);
    freer.deallocate(memory, 1);
    EXPECT_EQ(entry.size, 4096u);
    EXPECT_EQ(inspector::pending_size(owner.own()), batch);

    // A full batch is put back by the next allocation, less than that only when
    // there is no chunk to serve it.
    owner.allocate(request_of(largest));
    EXPECT_EQ(inspector::pending_size(owner.own()), 0u);
    freer.use().flush_allocator(false);
    while ((owner.own().*inspector::empty).has_chunk())
        owner.allocate(request_of(10));
    EXPECT_EQ(inspector::pending_size(owner.own()), 4096u);
    owner.allocate(request_of(12));
    EXPECT_EQ(expect_consistent(owner.own()), 0u);
}

TEST(remote_free_test, a_fifth_owner_sends_the_first_four_home) {
    actor owners[5], freer;
    void* memory[5];
    for (int i = 0; i != 5; ++i)
        memory[i] = owners[i].allocate(40);
    for (int i = 0; i != 5; ++i) {
        EXPECT_EQ(inspector::pending_size(owners[0].own()), 0u);
        freer.deallocate(memory[i]);
    }
    for (int i = 0; i != 4; ++i)
        EXPECT_NE(inspector::pending_size(owners[i].own()), 0u);
    EXPECT_EQ(inspector::pending_size(owners[4].own()), 0u);

    // Only the collection is left of a flush that keeps.
    owners[4].deallocate(freer.allocate(40));
    owners[4].use().flush_allocator(false);
    freer.use().flush_allocator(true);
    EXPECT_EQ(inspector::size(freer.own()), 0u);
    EXPECT_EQ(inspector::pending_size(owners[4].own()), 0u);
    freer.use().flush_allocator(false);
    EXPECT_NE(inspector::pending_size(owners[4].own()), 0u);
}

TEST(remote_free_test, a_deactivated_owner_gets_its_blocks_put_back_at_once) {
    actor owner, freer;
    std::vector<void*> memory = owner.allocate(request_of(largest), 20);
    freer.deallocate(memory, 10);
    freer.use().flush_allocator(false);
    owner.use().deactivate_allocator(false);  // which collects what is there
    EXPECT_EQ(inspector::size(owner.own()), 10 * 4096u);
    freer.deallocate(memory, 10);
    freer.use().flush_allocator(false);
    EXPECT_EQ(inspector::size(owner.own()), 0u);
    EXPECT_EQ(expect_consistent(owner.own()), 0u);
}

TEST(remote_free_test, a_random_walk_of_several_allocators_loses_nothing) {
    constexpr unsigned int seed = 20240607;
    std::mt19937 random(seed);
    auto const below = [&](std::size_t bound) {
        return random() % bound;
    };
    actor actors[5];
    std::vector<void*> live;

    // A hundred steps grow, a hundred shrink, each time with another size, so that
    // chunks change hands and classes.
    constexpr std::size_t favourites[] = {1000, 4000, 2000};
    for (int step = 0; step != 600 && !testing::Test::HasFailure(); ++step) {
        actor const& one = actors[below(std::size(actors))];
        if (!(one.own().*inspector::activated))
            one.use().activate_allocator();
        std::size_t const allocating = step / 100 % 2 == 0 ? 70 : 25;
        for (std::size_t burst = below(60); burst != 0; --burst) {
            if (below(100) < allocating) {
                std::size_t const bytes =
                    below(4) == 0 ? below(4080) : favourites[step / 200] - below(100);
                live.push_back(one.allocate(bytes));
                std::memset(live.back(), 0x5a, bytes);
            } else if (!live.empty()) {
                std::swap(live[below(live.size())], live.back());
                one.deallocate(live, 1);
            }
        }
        std::size_t const then = below(8);
        if (then == 0)
            one.use().flush_allocator(below(2) == 0);
        if (then == 1 || then == 2)
            one.use().deactivate_allocator(below(2) == 0);
        if (then == 3) {
            one.use().release_allocator();
            one.use().acquire_allocator();
            EXPECT_EQ(allocator_group::global()->specific_allocator(), &one.own());
        }

        std::size_t in_use = 0;
        for (void* each : live)
            in_use += allocator_support::size(each) + sizeof(block);
        std::size_t charged = 0;
        for (actor const& each : actors) {
            in_use += expect_consistent(each.own());
            charged += inspector::size(each.own());
        }
        EXPECT_EQ(charged, in_use) << "seed " << seed << ", step " << step;
        expect_consistent(global_allocator());
    }
    actors[0].deallocate(live, live.size());
}

}  // namespace
