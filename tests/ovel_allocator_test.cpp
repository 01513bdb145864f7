#include "ovel_allocator.h"

#include "ovel_allocator_group.h"
#include "ovel_allocator_recycler.h"
#include "ovel_allocator_support.h"

#include <atomic>
#include <barrier>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <limits>
#include <memory>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

struct ovel::detail::inspector {
    static std::size_t size(allocator const& a) {
        return a._size;
    }
    static std::size_t capacity(allocator const& a) {
        return a._capacity;
    }
    static std::size_t minimum_capacity(allocator const& a) {
        return a._minimum_capacity;
    }
    static bool activated(allocator const& a) {
        return a._activated;
    }
    static block const* pending(allocator const& a) {
        return a._pending;
    }
    static std::size_t pending_size(allocator const& a) {
        return a._pending_size;
    }
    static auto const& remotes(allocator const& a) {
        return a._remote;
    }
    static chunk const& full(allocator const& a, std::size_t k) {
        return a._full[k];
    }
    static chunk const& partial(allocator const& a, std::size_t k) {
        return a._partial[k];
    }
    static chunk const& empty(allocator const& a) {
        return a._empty;
    }
};

namespace {

using ovel::allocator;
using ovel::allocator_group;
using ovel::allocator_recycler;
using ovel::allocator_support;
using ovel::detail::alignment_of;
using ovel::detail::block;
using ovel::detail::block_sizes;
using ovel::detail::chunk;
using ovel::detail::classes;
using inspector = ovel::detail::inspector;

constexpr std::size_t batch = 262144;
constexpr std::size_t largest = classes - 1;
constexpr std::size_t largest_per_chunk = 15;
constexpr std::size_t largest_capacity = largest_per_chunk * 4096;

std::size_t request_of(std::size_t k) {
    return block_sizes[k] - sizeof(block);
}

block* header_of(void* memory) {
    return static_cast<block*>(memory) - 1;
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

// An allocator without chunks, in the hands of this test: each operation makes it
// the calling thread's, so that one thread plays several, in an order of its own.
class actor {
public:
    actor() {
        allocator_group& group = *allocator_group::global();
        std::vector<allocator*> used;
        for (;;) {
            group.acquire_allocator();
            _own = group.specific_allocator();
            if (inspector::capacity(*_own) == 0)
                break;
            used.push_back(_own);
        }
        for (allocator* each : used) {
            group.specific_allocator(each);
            group.release_allocator();
        }
        group.specific_allocator(nullptr);
    }
    ~actor() {
        if (!inspector::activated(*_own))
            use().activate_allocator();
        use().release_allocator();
        allocator_group::global()->specific_allocator(nullptr);
    }
    actor(actor const&) = delete;
    actor& operator=(actor const&) = delete;

    allocator& own() const {
        return *_own;
    }
    allocator_group& use() const {
        allocator_group& group = *allocator_group::global();
        group.specific_allocator(_own);
        return group;
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
    allocator* _own;
};

// Fills memory with a pattern made from its address, and tells whether it is there.
unsigned char pattern(void const* memory) {
    return static_cast<unsigned char>((reinterpret_cast<std::uintptr_t>(memory) >> 3) * 37 + 11);
}

void fill(void* memory, std::size_t bytes) {
    std::memset(memory, pattern(memory), bytes);
}

bool is_intact(void const* memory, std::size_t bytes) {
    auto const first = static_cast<unsigned char const*>(memory);
    for (std::size_t i = 0; i != bytes; ++i) {
        if (first[i] != pattern(memory))
            return false;
    }
    return true;
}

// The checks of what always holds. They count what they see.
struct census {
    std::size_t size = 0;
    std::size_t capacity = 0;
    std::size_t unused = 0;  // chunks with no block in use

    void see(chunk const& each, allocator const& owner) {
        EXPECT_EQ(each._allocator, &owner);
        EXPECT_EQ(each._length, 65536u);
        EXPECT_EQ(each._next->_previous, &each);
        auto const region = reinterpret_cast<std::uintptr_t>(&each);
        std::size_t free = 0;
        for (block const* b = each._free; b != nullptr; b = b->_next) {
            auto const address = reinterpret_cast<std::uintptr_t>(b);
            bool const good = b->_chunk == &each && address >= region + sizeof(chunk) &&
                              address + each._block_size <= region + 65536 - 128 &&
                              (address + sizeof(block)) % each._block_alignment == 0;
            ASSERT_TRUE(good) << "block " << b << " of chunk " << &each;
            ASSERT_LE(free += each._block_size, each._capacity);
        }
        EXPECT_EQ(each._size + free, each._capacity);
        size += each._size;
        capacity += each._capacity;
        unused += each._size == 0;
    }

    void see_ring(chunk const& ring, allocator const& owner, std::size_t block_size) {
        EXPECT_EQ(ring._length + ring._size + ring._capacity, 0u);
        EXPECT_EQ(ring._block_size, block_size);
        EXPECT_EQ(ring._next->_previous, &ring);
        for (chunk const* each = ring._next; each != &ring; each = each->_next) {
            if (block_size != 0) {
                EXPECT_EQ(each->_block_size, block_size);
                EXPECT_EQ(each->_block_alignment, alignment_of(block_size));
            }
            see(*each, owner);
        }
    }
};

std::size_t chain_size(block const* head, block const* tail, allocator const& owner) {
    std::size_t size = 0;
    for (block const* b = head; b != nullptr; b = b->_next) {
        EXPECT_EQ(b->_chunk->_allocator, &owner);
        size += b->_chunk->_block_size;
        if (b->_next == nullptr && tail != nullptr) {
            EXPECT_EQ(b, tail);
        }
    }
    return size;
}

// Returns the bytes that are on their way, here or from here.
std::size_t expect_consistent(allocator const& a) {
    census sum;
    for (std::size_t k = 0; k != classes; ++k) {
        sum.see_ring(inspector::full(a, k), a, block_sizes[k]);
        EXPECT_EQ(sum.size, sum.capacity);  // nothing free so far
        sum.size = sum.capacity = 0;
    }
    EXPECT_EQ(sum.unused, 0u);
    sum = census();
    for (std::size_t k = 0; k != classes; ++k) {
        sum.unused = 0;
        sum.see_ring(inspector::partial(a, k), a, block_sizes[k]);
        EXPECT_LE(sum.unused, 1u) << "class " << k;
        for (chunk const* each = inspector::partial(a, k)._next; each->_length != 0;
             each = each->_next)
            EXPECT_LT(each->_size, each->_capacity);
    }
    std::size_t const in_partial = sum.size;
    sum.see_ring(inspector::empty(a), a, 0);
    EXPECT_EQ(sum.size, in_partial);
    for (std::size_t k = 0; k != classes; ++k)
        sum.see_ring(inspector::full(a, k), a, block_sizes[k]);
    EXPECT_EQ(inspector::size(a), sum.size);
    EXPECT_EQ(inspector::capacity(a), sum.capacity);
    EXPECT_LE(inspector::minimum_capacity(a), sum.capacity);

    EXPECT_EQ(chain_size(inspector::pending(a), nullptr, a), inspector::pending_size(a));
    std::size_t on_the_way = inspector::pending_size(a);
    std::set<allocator const*> owners{&a};
    for (auto const& entry : inspector::remotes(a)) {
        if (entry.owner == nullptr) {
            EXPECT_TRUE(entry.head == nullptr && entry.tail == nullptr && entry.size == 0);
            continue;
        }
        EXPECT_TRUE(owners.insert(entry.owner).second);
        EXPECT_EQ(chain_size(entry.head, entry.tail, *entry.owner), entry.size);
        on_the_way += entry.size;
    }
    return on_the_way;
}

// First, while the process has no group yet.
TEST(allocator_group_test, threads_that_race_to_the_first_use_get_one_group) {
    constexpr int threads = 4;
    struct view {
        allocator_group* group;
        allocator* global;
        allocator* fallback;
        auto operator<=>(view const&) const = default;
    };
    view views[threads];
    std::barrier start(threads);
    std::vector<std::jthread> racers;
    for (view& mine : views) {
        racers.emplace_back([&mine, &start] {
            start.arrive_and_wait();
            allocator_group* const group = allocator_group::global();
            mine = {group, group->global_allocator(), group->default_allocator()};
            EXPECT_EQ(group->specific_allocator(), mine.fallback);
        });
    }
    racers.clear();
    EXPECT_EQ(std::set<view>(std::begin(views), std::end(views)).size(), 1u);
    EXPECT_NE(views[0].global, views[0].fallback);
}

TEST(allocator_group_test, a_thread_sees_its_own_allocator_only_and_the_released_one_is_reused) {
    allocator_group& group = *allocator_group::global();
    allocator* first = nullptr;
    std::thread([&] {
        group.acquire_allocator();
        first = group.specific_allocator();
        EXPECT_NE(first, group.default_allocator());
        std::thread([&] {
            EXPECT_EQ(group.specific_allocator(), group.default_allocator());
        }).join();
        allocator_support::deallocate(allocator_support::allocate(100));
        group.release_allocator();
        EXPECT_FALSE(inspector::activated(*first));
    }).join();
    std::thread([&] {
        group.acquire_allocator();
        EXPECT_EQ(group.specific_allocator(), first);
        EXPECT_TRUE(inspector::activated(*first));
        group.release_allocator();
    }).join();
}

TEST(allocator_group_test, activation_out_of_turn_is_fatal) {
    actor one;
    EXPECT_DEATH(one.use().activate_allocator(), "\\(!_activated, .*ovel_allocator\\.cpp");
    EXPECT_DEATH(
        {
            one.use().release_allocator();
            one.use().release_allocator();
        },
        "\\(_activated, .*ovel_allocator\\.cpp");
    one.use().deactivate_allocator(false);
    EXPECT_DEATH(one.use().deactivate_allocator(true), "\\(_activated, ");
}

TEST(allocator_test, a_fresh_chunk_hands_out_its_blocks_downwards_without_gaps) {
    for (std::size_t k = sizeof(block) / ovel::detail::granule - 1; k != classes; ++k) {
        actor one;
        std::vector<void*> const memory = one.allocate(request_of(k), largest_per_chunk);
        chunk const& home = *header_of(memory[0])->_chunk;
        EXPECT_EQ(home._block_size, block_sizes[k]);
        std::uintptr_t expected = reinterpret_cast<std::uintptr_t>(memory[0]);
        for (void* each : memory) {
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(each), expected) << "class " << k;
            expected -= block_sizes[k];
        }
        expect_consistent(one.own());
        // It leaves less than a block unused, but for the last cacheline.
        EXPECT_GT(home._capacity + block_sizes[k] + sizeof(chunk) + 2 * 128, 65536u);
        for (void* each : memory)
            one.deallocate(each);
    }
}

TEST(allocator_test, a_chunk_changes_rings_when_it_fills_and_when_it_gets_room) {
    actor one;
    chunk const& full = inspector::full(one.own(), largest);
    chunk const& partial = inspector::partial(one.own(), largest);
    std::vector<void*> memory = one.allocate(request_of(largest), largest_per_chunk - 1);
    EXPECT_EQ(chunks(partial), 1u);
    memory.push_back(one.allocate(request_of(largest)));
    EXPECT_EQ(chunks(partial), 0u);
    EXPECT_EQ(chunks(full), 1u);

    // Of several chunks it is the one freed into last that serves.
    memory.push_back(one.allocate(request_of(largest)));
    void* const freed = memory[3];
    one.deallocate(freed);
    EXPECT_EQ(chunks(partial), 2u);
    EXPECT_EQ(partial._next, header_of(freed)->_chunk);
    EXPECT_EQ(one.allocate(request_of(largest)), freed);
    expect_consistent(one.own());

    // The class keeps one chunk with nothing in use; a second is free for all.
    one.deallocate(memory, memory.size());
    EXPECT_EQ(chunks(partial), 1u);
    EXPECT_EQ(chunks(inspector::empty(one.own())), 1u);
    void* const other = one.allocate(request_of(12));
    EXPECT_EQ(chunks(inspector::empty(one.own())), 0u);
    expect_consistent(one.own());
    one.deallocate(other);

    // The last small block in use keeps its chunk from being one of those.
    memory = one.allocate(request_of(3), 2 * 65536 / block_sizes[3]);
    one.deallocate(memory, memory.size() - 1);
    expect_consistent(one.own());
    one.deallocate(memory, 1);
}

TEST(allocator_test, surplus_leaves_chunk_by_chunk_and_is_taken_before_new_memory) {
    for (std::size_t const held : {17u, 18u}) {
        actor one;
        std::vector<void*> memory = one.allocate(request_of(largest), held * largest_per_chunk);
        EXPECT_EQ(inspector::capacity(one.own()), held * largest_capacity);
        std::size_t const before = chunks(inspector::empty(global_allocator()));
        one.deallocate(memory, memory.size());
        // 17 chunks are below the 1048579 bytes from which an idle allocator
        // gives, 18 are not.
        EXPECT_EQ(inspector::capacity(one.own()), 17 * largest_capacity);
        EXPECT_EQ(chunks(inspector::empty(global_allocator())), before + (held - 17));
        expect_consistent(global_allocator());
        expect_consistent(one.own());
    }
    // The free that empties a chunk decides by what is then in use: 23 chunks
    // give the first one when 63 blocks are left.
    actor one;
    std::vector<void*> memory = one.allocate(request_of(largest), 23 * largest_per_chunk);
    one.deallocate(memory, memory.size() - 64);
    EXPECT_EQ(inspector::capacity(one.own()), 23 * largest_capacity);
    one.deallocate(memory, 1);
    EXPECT_EQ(inspector::capacity(one.own()), 22 * largest_capacity);

    std::size_t const available = chunks(inspector::empty(global_allocator()));
    ASSERT_NE(available, 0u);
    actor other;
    void* const small = other.allocate(request_of(7));
    EXPECT_EQ(chunks(inspector::empty(global_allocator())), available - 1);
    expect_consistent(other.own());
    expect_consistent(global_allocator());
    other.deallocate(small);
    one.deallocate(memory, memory.size());
}

TEST(allocator_test, recycling_frees_its_share_of_idle_chunks_and_keeps_a_mebibyte) {
    chunk const& idle = inspector::empty(global_allocator());
    allocator_recycler& recycler = *allocator_recycler::global();

    // Empties the global allocator, which thereby has a minimum of 0, and puts 40
    // chunks of the largest class there.
    actor giver;
    std::vector<void*> memory;
    while (chunks(idle) != 0 || inspector::capacity(giver.own()) < 57 * largest_capacity)
        memory.push_back(giver.allocate(request_of(largest)));
    giver.deallocate(memory, memory.size());
    actor taker;
    while (chunks(idle) > 40)
        memory.push_back(taker.allocate(request_of(largest)));
    ASSERT_EQ(chunks(idle), 40u);

    recycler.recycle_minimum_capacity(1.0);
    EXPECT_EQ(chunks(idle), 40u);
    EXPECT_EQ(inspector::minimum_capacity(global_allocator()), 40 * largest_capacity);
    recycler.recycle_capacity(-1.0);
    recycler.recycle_capacity(std::nan(""));
    EXPECT_EQ(chunks(idle), 40u);
    recycler.recycle_capacity(0.3);
    EXPECT_EQ(chunks(idle), 28u);

    // Five chunks are taken and come back: of the 23 that lay idle all the time
    // a fifth is worth four. The mark starts afresh from what is left.
    std::vector<void*> passing = giver.allocate(request_of(largest), 22 * largest_per_chunk);
    EXPECT_EQ(chunks(idle), 23u);
    giver.deallocate(passing, passing.size());
    EXPECT_EQ(chunks(idle), 28u);
    recycler.recycle_minimum_capacity(0.2);
    EXPECT_EQ(chunks(idle), 24u);
    EXPECT_EQ(inspector::minimum_capacity(global_allocator()), 24 * largest_capacity);
    recycler.recycle_capacity(1e300);
    EXPECT_EQ(chunks(idle), 17u);
    expect_consistent(global_allocator());
    taker.deallocate(memory, memory.size());
}

TEST(remote_free_test, blocks_reach_an_activated_owner_in_batches_and_wait_for_it) {
    actor owner, freer;
    std::vector<void*> memory = owner.allocate(request_of(largest), 65);
    std::size_t const size = inspector::size(owner.own());

    freer.deallocate(memory, 64);
    auto const& entry = inspector::remotes(freer.own())[0];
    EXPECT_EQ(entry.owner, &owner.own());
    EXPECT_EQ(entry.size, batch);
    EXPECT_EQ(inspector::pending_size(owner.own()), 0u);
    freer.deallocate(memory, 1);
    EXPECT_EQ(entry.size, 4096u);
    EXPECT_EQ(inspector::pending_size(owner.own()), batch);
    EXPECT_EQ(inspector::size(owner.own()), size);

    // A full batch is put back by the next allocation, less than that only when
    // there is no chunk to serve it.
    owner.deallocate(owner.allocate(request_of(largest)));
    EXPECT_EQ(inspector::pending_size(owner.own()), 0u);
    EXPECT_EQ(inspector::size(owner.own()), 4096u);
    freer.use().flush_allocator(false);
    EXPECT_EQ(entry.owner, nullptr);
    owner.deallocate(owner.allocate(request_of(largest)));
    EXPECT_EQ(inspector::pending_size(owner.own()), 4096u);
    std::vector<void*> others;
    while (inspector::empty(owner.own()).has_chunk())
        others.push_back(owner.allocate(request_of(10)));
    EXPECT_EQ(inspector::pending_size(owner.own()), 4096u);
    others.push_back(owner.allocate(request_of(12)));
    EXPECT_EQ(inspector::pending_size(owner.own()), 0u);
    EXPECT_EQ(expect_consistent(owner.own()), 0u);
    owner.deallocate(others, others.size());
}

TEST(remote_free_test, a_fifth_owner_sends_the_first_four_home) {
    actor owners[5], freer;
    void* memory[5];
    for (int i = 0; i != 5; ++i)
        memory[i] = owners[i].allocate(40);
    auto const& entries = inspector::remotes(freer.own());
    for (int i = 0; i != 5; ++i) {
        EXPECT_EQ(inspector::pending_size(owners[0].own()), 0u);
        freer.deallocate(memory[i]);
    }
    for (int i = 0; i != 4; ++i)
        EXPECT_NE(inspector::pending_size(owners[i].own()), 0u);
    EXPECT_EQ(inspector::pending_size(owners[4].own()), 0u);
    EXPECT_EQ(entries[0].owner, &owners[4].own());
    EXPECT_EQ(entries[0].size, header_of(memory[4])->_chunk->_block_size);
    EXPECT_EQ(entries[1].owner, nullptr);
    expect_consistent(freer.own());

    // Only the collection is left of a flush that keeps.
    owners[4].use();
    void* const mine = freer.allocate(40);
    owners[4].deallocate(mine);
    owners[4].use().flush_allocator(false);
    freer.use().flush_allocator(true);
    EXPECT_EQ(inspector::pending_size(freer.own()), 0u);
    EXPECT_EQ(inspector::size(freer.own()), 0u);
    EXPECT_EQ(entries[0].owner, &owners[4].own());
    freer.use().flush_allocator(false);
    for (actor& each : owners) {
        each.use().flush_allocator(false);
        EXPECT_EQ(inspector::size(each.own()), 0u);
    }
}

TEST(remote_free_test, a_deactivated_owner_gets_its_blocks_put_back_at_once) {
    actor owner, freer;
    std::vector<void*> memory = owner.allocate(request_of(largest), 18 * largest_per_chunk);
    // What arrived before the owner left is collected; after that, every batch.
    freer.deallocate(memory, 10);
    freer.use().flush_allocator(false);
    owner.use().deactivate_allocator(false);
    EXPECT_EQ(inspector::size(owner.own()), memory.size() * 4096);
    std::size_t const available = chunks(inspector::empty(global_allocator()));
    freer.deallocate(memory, memory.size());
    freer.use().flush_allocator(false);
    EXPECT_EQ(inspector::pending(owner.own()), nullptr);
    EXPECT_EQ(inspector::pending_size(owner.own()), 0u);
    EXPECT_EQ(inspector::size(owner.own()), 0u);
    EXPECT_EQ(chunks(inspector::empty(global_allocator())), available + 1);
    EXPECT_EQ(expect_consistent(owner.own()), 0u);
}

TEST(remote_free_test, a_give_back_hands_over_what_a_thread_has_freed_of_others) {
    actor owner, giver;
    std::vector<void*> memory = giver.allocate(request_of(largest), 18 * largest_per_chunk);
    giver.deallocate(owner.allocate(40));
    EXPECT_EQ(inspector::pending_size(owner.own()), 0u);
    giver.deallocate(memory, memory.size());
    EXPECT_NE(inspector::pending_size(owner.own()), 0u);
    EXPECT_EQ(expect_consistent(giver.own()), 0u);
}

// Two allocators that left with blocks of each other. Freeing the rest of the one
// makes it give a chunk, so that it must let go of the other's blocks, whose
// return makes the other one give, and let go of the first one's. Handing these
// over under the locks of both would wait for ever for the first one's.
TEST(remote_free_test, deactivated_owners_that_keep_blocks_of_each_other_both_get_them) {
    actor first, second, freer;
    std::vector<void*> of_first = first.allocate(request_of(largest), 23 * largest_per_chunk);
    std::vector<void*> of_second = second.allocate(request_of(largest), 20 * largest_per_chunk);
    first.deallocate(of_second, 60);
    second.deallocate(of_first, 60);
    first.use().deactivate_allocator(true);
    second.use().deactivate_allocator(true);
    EXPECT_EQ(inspector::remotes(first.own())[0].size, 60 * 4096u);

    freer.deallocate(of_second, of_second.size());
    freer.use().flush_allocator(false);
    EXPECT_EQ(inspector::size(second.own()), 60 * 4096u);
    EXPECT_EQ(inspector::capacity(second.own()), 20 * largest_capacity);
    freer.deallocate(of_first, of_first.size());
    freer.use().flush_allocator(false);
    for (actor* each : {&first, &second}) {
        EXPECT_EQ(inspector::size(each->own()), 0u);
        EXPECT_LT(inspector::capacity(each->own()), 20 * largest_capacity);
        EXPECT_EQ(expect_consistent(each->own()), 0u);
    }
    expect_consistent(global_allocator());
}

TEST(remote_free_test, a_random_walk_of_several_allocators_loses_nothing) {
    constexpr unsigned int seed = 20240607;
    std::mt19937 random(seed);
    auto const below = [&](std::size_t bound) {
        return random() % bound;
    };
    struct piece {
        void* memory;
        std::size_t bytes;
    };
    actor actors[5];
    std::vector<piece> live;

    // A hundred steps grow, a hundred shrink, each time with another size, so that
    // chunks change hands and classes.
    constexpr std::size_t favourites[] = {1000, 4000, 2000};
    for (int step = 0; step != 600 && !testing::Test::HasFailure(); ++step) {
        actor const& one = actors[below(std::size(actors))];
        if (!inspector::activated(one.own()))
            one.use().activate_allocator();
        std::size_t const allocating = step / 100 % 2 == 0 ? 70 : 25;
        for (std::size_t burst = below(60); burst != 0; --burst) {
            if (below(100) < allocating) {
                std::size_t const bytes =
                    below(4) == 0 ? below(4200) : favourites[step / 200] - below(100);
                live.push_back({one.allocate(bytes), bytes});
                fill(live.back().memory, bytes);
            } else if (!live.empty()) {
                std::swap(live[below(live.size())], live.back());
                ASSERT_TRUE(is_intact(live.back().memory, live.back().bytes));
                one.deallocate(live.back().memory);
                live.pop_back();
            }
        }
        switch (below(8)) {
            case 0:
                one.use().flush_allocator(below(2) == 0);
                break;
            case 1:
            case 2:
                one.use().deactivate_allocator(below(2) == 0);
                break;
            case 3:
                one.use().release_allocator();
                one.use().acquire_allocator();
                EXPECT_EQ(allocator_group::global()->specific_allocator(), &one.own());
                break;
        }

        std::size_t in_use = 0;
        for (piece const& each : live) {
            if (chunk const* home = header_of(each.memory)->_chunk)
                in_use += home->_block_size;
        }
        std::size_t charged = 0;
        for (actor const& each : actors) {
            in_use += expect_consistent(each.own());
            charged += inspector::size(each.own());
        }
        EXPECT_EQ(charged, in_use) << "seed " << seed << ", step " << step;
        expect_consistent(global_allocator());
        EXPECT_EQ(inspector::size(global_allocator()), 0u);
    }
    for (piece const& each : live)
        actors[0].deallocate(each.memory);
    actors[0].use().flush_allocator(false);
}

// Threads put blocks into slots and free what they find there, whoever's it is,
// and leave and return as the workers of a group do.
TEST(remote_free_test, blocks_exchanged_by_threads_stay_intact_and_all_come_home) {
    constexpr int threads = 3;
    constexpr int rounds = 20'000;
    struct piece {
        std::size_t bytes;
    };
    std::atomic<piece*> slots[64] = {};
    auto const discard = [](piece* found) {
        if (found == nullptr)
            return;
        EXPECT_TRUE(is_intact(found + 1, found->bytes));
        allocator_support::deallocate(found);
    };
    {
        actor actors[threads];
        std::barrier start(threads);
        std::vector<std::jthread> running;
        for (int me = 0; me != threads; ++me) {
            running.emplace_back([&, me] {
                std::mt19937 random(static_cast<unsigned int>(me));
                allocator_group& group = actors[me].use();
                start.arrive_and_wait();
                for (int round = 0; round != rounds; ++round) {
                    std::size_t const bytes = random() % 8 == 0 ? random() % 5000 : random() % 300;
                    auto const made =
                        static_cast<piece*>(allocator_support::allocate(sizeof(piece) + bytes));
                    made->bytes = bytes;
                    fill(made + 1, bytes);
                    discard(slots[random() % std::size(slots)].exchange(made));
                    if (random() % 100 == 0) {
                        group.deactivate_allocator(random() % 2 == 0);
                        std::this_thread::yield();
                        group.activate_allocator();
                    }
                }
            });
        }
        running.clear();

        actors[0].use();
        for (auto& slot : slots)
            discard(slot.exchange(nullptr));
        for (actor const& each : actors)
            each.use().flush_allocator(false);
        for (actor const& each : actors)
            each.use().flush_allocator(false);
        for (actor const& each : actors) {
            EXPECT_EQ(inspector::size(each.own()), 0u);
            EXPECT_EQ(expect_consistent(each.own()), 0u);
        }
    }
}

}  // namespace
