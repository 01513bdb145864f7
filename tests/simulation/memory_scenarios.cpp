// SPDX-License-Identifier: Apache-2.0
// The allocator: every block comes home, and no chunk is lost or duplicated.

#include "accounts.h"

namespace ovel::simulation {

namespace {

// A block that stores its address and size, so that freeing it detects a block that was handed
// out twice or written by another owner.
struct marked {
    marked* self;
    std::size_t size;
};

marked* take_marked(std::size_t size) {
    auto const memory = static_cast<marked*>(allocator_support::allocate(size));
    std::memset(static_cast<void*>(memory), static_cast<int>(size & 0x7f), size);
    *memory = {memory, size};
    return memory;
}

void give_back(marked* memory) {
    if (memory == nullptr)
        return;
    assure(memory->self == memory);
    auto const bytes = reinterpret_cast<unsigned char*>(memory);
    std::size_t const last = memory->size - 1;
    assure(last < sizeof(marked) || bytes[last] == (memory->size & 0x7f));
    memory->self = nullptr;
    allocator_support::deallocate(memory);
}

std::vector<marked*> take_marked(std::size_t size, unsigned int count) {
    std::vector<marked*> taken(count);
    for (marked*& one : taken)
        one = take_marked(size);
    return taken;
}

void give_back(std::vector<marked*> const& blocks) {
    for (marked* one : blocks)
        give_back(one);
}

// Threads pass blocks to each other through a few places and free those that they find there.
// In between they deactivate and activate their allocators. Or they replace the same blocks, of
// two classes, repeatedly, so that a thread holds other owners' blocks when it has none left.
void exchanges(unsigned int variant) {
    accounts const books(variant % 2);
    bool const replaces = variant / 2 == 1;
    constexpr std::size_t sizes[] = {16, 24, 100, 1000, 4080, 5000};
    detail::atomic<marked*> places[40] = {};
    auto const body = [&] {
        thread_allocator const own;
        allocator_group* const group = allocator_group::global();
        for (unsigned int round = 0; round != (replaces ? 120 : 6); ++round) {
            detail::atomic<marked*>& place = places[replaces ? round % 40 : pick(3)];
            if (replaces)
                give_back(place.exchange(nullptr));
            std::size_t const size = replaces ? (pick(8) == 0 ? 1000 : 4080) : sizes[pick(6)];
            give_back(place.exchange(take_marked(size)));
            unsigned int const what = pick(12);
            if (what < 2 || (replaces && what < 6)) {
                group->flush_allocator(what % 2 == 0);
            } else if (what < 4) {
                group->deactivate_allocator(what % 2 == 0);
                YieldProcessor();
                group->activate_allocator();
            }
            inspector::check_current_allocator();
        }
    };
    unsigned int const thread_count = 2 + pick(2);
    begin();
    {
        std::deque<worker> all;
        for (unsigned int each = 0; each != thread_count; ++each)
            all.emplace_back([&] {
                body();
                if (pick(2) == 0)
                    body();  // as another thread might, later
            });
    }
    // The first thread frees the rest; it has the default allocator.
    for (detail::atomic<marked*>& place : places)
        give_back(place);
    assure(inspector::check_allocators().count <= 2 + thread_count);
}

// Null when memory is refused.
marked* try_to_take(std::size_t size) {
    marked* taken = nullptr;
    attempt([&] { taken = take_marked(size); });
    return taken;
}

// Slots whose callbacks use memory at a thread's end, before and after the callback that gives
// its allocator back.
DWORD at_end[2];

template <unsigned int which>
void use_at_end(void* place) {
    FlsSetValue(at_end[which], nullptr);
    give_back(static_cast<detail::atomic<marked*>*>(place)->exchange(try_to_take(100)));
}

// Threads without any preparation exchange blocks and end, in any order. Some acquire an
// allocator for a while. In half of the variants memory runs out meanwhile.
void foreigners(unsigned int variant) {
    at_end[0] = FlsAlloc(use_at_end<0>);
    accounts const books(variant % 2);
    at_end[1] = FlsAlloc(use_at_end<1>);
    constexpr std::size_t sizes[] = {24, 100, 4080};
    detail::atomic<marked*> places[3] = {};
    auto const exchange_one = [&] {
        give_back(places[pick(3)].exchange(try_to_take(sizes[pick(3)])));
    };
    auto const body = [&] {
        for (unsigned int round = 1 + pick(3); round != 0; --round) {
            exchange_one();
            if (pick(3) == 0)
                attempt([&] {
                    thread_allocator const own;
                    exchange_one();
                });
        }
        for (DWORD const slot : at_end)
            if (pick(2) == 0)
                FlsSetValue(slot, &places[pick(3)]);
    };
    unsigned int const thread_count = 2 + pick(2);
    begin();
    if (variant / 2 == 1)
        refuse_memory(1 + pick(10), pick(2) == 0 ? 1 : 1000);
    {
        std::deque<worker> all;
        for (unsigned int each = 0; each != thread_count; ++each)
            all.emplace_back(body);
        if (pick(2) == 0)
            exchange_one();
    }
    refuse_memory(0, 0);
    worker(body).join();  // takes over what was given back
    for (detail::atomic<marked*>& place : places)
        give_back(place);
    // Each is lent to a thread, borrowed by one, or acquired by one that was lent the default.
    assure(inspector::check_allocators().count <= 2 + thread_count + 1);
    allocator_group::global()->specific_allocator(nullptr);
    inspector::check_given_back();
}

// Two owners sleep while they hold blocks of each other. Others free the owners' blocks, so both
// give up chunks, and hand over what they hold, at the same time.
void sleepers(unsigned int variant) {
    accounts const books(variant);
    std::vector<marked*> blocks[2];
    semaphore steps(0, 0);
    semaphore go[2] = {{0, 0}, {0, 0}};
    auto const owner = [&](unsigned int me) {
        blocks[me] = take_marked(4080, 15 * 18);
        steps.release();
        go[me].acquire();
        for (unsigned int each = 0; each != 3; ++each) {
            give_back(blocks[1 - me].back());
            blocks[1 - me].pop_back();
        }
        allocator_group::global()->deactivate_allocator(true);
        steps.release();
        go[me].acquire();
        allocator_group::global()->activate_allocator();
    };
    client first([&] { owner(0); }), second([&] { owner(1); });
    for (unsigned int step = 0; step != 2; ++step) {
        steps.acquire();
        steps.acquire();
        if (step == 1) {
            begin();
            client one([&] { give_back(blocks[0]); }), two([&] { give_back(blocks[1]); });
        }
        for (semaphore& each : go)
            each.release();
    }
}

constexpr std::size_t chunk = 61440;

// Fills the global allocator with what an allocator of 60 chunks gives up.
void fill_reserve() {
    thread_allocator const own;
    give_back(take_marked(4080, 15 * 60));
}

std::size_t reserve() {
    return inspector::check_allocators().reserve;
}

// The recycler's thread returns idle memory while others take and give chunks, keeps about a
// mebibyte, and ends whenever it is asked to.
void recycler(unsigned int variant) {
    accounts const books(variant % 2, true);
    if (variant / 2 == 1)
        end_waits_late(3000);
    fill_reserve();
    std::size_t const first = reserve();
    begin();
    {
        client starter([] { allocator_recycler::global()->release(pick(2) == 0 ? 0.5 : 2.0); });
        client other([] {
            for (unsigned int round = 0; round != 2; ++round) {
                Sleep(700);
                give_back(take_marked(4080, 31));
            }
        });
        Sleep(1000 * pick(10));
        inspector::stop_recycler();
    }
    Sleep(1000);
    // The threads of the clock and of the recycler have switched theirs off.
    assure(inspector::active_allocators() == 0);
    inspector::stop_recycler();
    assure(threads() == 2);
    // The other thread may have kept some.
    assure(reserve() <= first + 2 * chunk && reserve() >= (1 << 20) - 5 * chunk);
}

// Once a period, the recycler returns three tenths of the memory that was idle throughout,
// in whole chunks, down to the limit. In the first period it only begins to measure. A
// period is at least a second, and bounded. A second start changes nothing.
void recycler_periods(unsigned int variant) {
    accounts const books(0, true);
    fill_reserve();
    std::size_t expected = reserve();
    constexpr double periods[] = {2.0, 0.5, NAN, INFINITY};
    DWORD const second = variant == 0 ? 2000 : 1000;
    allocator_recycler::global()->release(periods[variant]);
    allocator_recycler::global()->release(7.0);
    Sleep(second / 2);
    for (unsigned int period = 0; period != 6; ++period) {
        assure(reserve() == expected);
        Sleep(second);
        if (period == 0 || variant == 3)
            continue;
        auto budget = static_cast<std::size_t>(static_cast<double>(expected) * 0.3 + 0.5);
        while (budget >= chunk && 748980 < expected / 7 * 5) {
            budget -= chunk;
            expected -= chunk;
        }
    }
    assure(variant == 3 || expected < (1 << 20) + chunk);
    std::uint64_t const start = nanoseconds();
    inspector::stop_recycler();
    assure(nanoseconds() - start <= 101'000'000);
}

// On request it returns as many whole chunks as the rounded share has room for: of what is
// there, or of the least since the last request for that, which set it to what is there.
void recycler_requests(unsigned int) {
    accounts const books(0);
    fill_reserve();
    allocator_recycler& recycler = *allocator_recycler::global();
    std::size_t expected = reserve();
    expected -= static_cast<std::size_t>(std::nearbyint(0.3 * double(expected))) / chunk * chunk;
    recycler.recycle_capacity(0.3);
    assure(reserve() == expected);
    for (double const none : {0.0, -1.0, double(NAN)})
        recycler.recycle_capacity(none);
    recycler.recycle_minimum_capacity(1.0);  // it was empty at first
    assure(reserve() == expected);
    recycler.recycle_minimum_capacity(double(chunk) / double(expected));
    assure(reserve() == expected - chunk);
    recycler.recycle_capacity(7.0);
    assure(reserve() < 1048579 && reserve() + chunk >= 1048579);
}

// With memory refused once, or from some request on, each allocation fails or succeeds,
// and nothing else changes.
void refusals(unsigned int variant) {
    accounts const books(0);
    detail::atomic<marked*> place = nullptr;
    auto const body = [&](std::size_t size) {
        attempt([&] {
            thread_allocator const own;
            for (std::size_t bytes = size; bytes <= 3 * size; bytes += size) {
                auto memory = static_cast<marked*>(ovel_calloc(1, bytes));
                if (memory == nullptr) {
                    assure(refused() != 0);
                    continue;
                }
                *memory = {memory, 1};
                if (void* const moved = ovel_realloc(memory, bytes + 1000)) {
                    assure(static_cast<marked*>(moved)->self == memory);
                    memory = new (moved) marked{static_cast<marked*>(moved), 1};
                }
                give_back(place.exchange(memory));
            }
        });
    };
    begin();
    unsigned int const first = 1 + pick(14);
    refuse_memory(first, variant == 0 ? 1 : 1000);
    {
        worker second([&, size = 17 * (2 + pick(200))] { body(size); });
        worker third([&, size = 17 * (2 + pick(200))] { body(size); });
    }
    give_back(place);
    assure(refused() != 0 || first > 2);
}

void refused_group(unsigned int) {
    refuse_memory(1 + pick(3));
    expect_failure("(\"unexpected exception\", 0)");
    begin();
    worker second([] { allocator_group::global(); });
    allocator_group::global();
    fail("it was built without memory");
}

registration const table{
    {.name = "allocator_blocks_come_home", .run = exchanges, .variants = 4},
    {.name = "allocator_serves_threads_unprepared", .run = foreigners, .variants = 4},
    {.name = "allocator_owners_sleep_on_each_others_blocks", .run = sleepers, .variants = 2},
    {.name = "recycler_keeps_its_limits", .run = recycler, .variants = 4},
    {.name = "recycler_trims_once_a_period", .run = recycler_periods, .variants = 4},
    {.name = "recycler_returns_what_is_requested", .run = recycler_requests},
    {.name = "allocator_bears_refused_memory", .run = refusals, .variants = 2},
    {.name = "allocator_group_without_memory_is_reported", .run = refused_group},
};

}  // namespace

}  // namespace ovel::simulation
