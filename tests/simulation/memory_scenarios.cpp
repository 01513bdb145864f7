// The allocator: every block comes home, chunks are neither lost nor made twice.

#include "accounts.h"
#include "inspector.h"
#include "ovel_allocator_group.h"
#include "ovel_allocator_recycler.h"
#include "ovel_allocator_support.h"
#include "ovel_assure.h"
#include "ovel_atomic.h"
#include "ovel_malloc.h"
#include "ovel_thread_support.h"
#include "ovel_time.h"
#include "simulation/simulation.h"

#include <cmath>
#include <cstring>
#include <deque>
#include <new>
#include <vector>

namespace ovel::simulation {

namespace {

using detail::inspector;

// Memory that knows its address and size, so that a block handed out twice or
// written by somebody else is found out when it is given back.
struct marked {
    marked* self;
    std::size_t size;
};

marked* take_marked(std::size_t size) {
    auto const memory = static_cast<marked*>(allocator_support::allocate_nothrow(size));
    if (memory == nullptr)
        return nullptr;
    std::memset(static_cast<void*>(memory), static_cast<int>(size & 0x7f), size);
    memory->self = memory;
    memory->size = size;
    return memory;
}

void give_back(marked* memory) {
    assure(memory->self == memory);
    auto const bytes = reinterpret_cast<unsigned char*>(memory);
    std::size_t const last = memory->size - 1;
    assure(last < sizeof(marked) || bytes[last] == (memory->size & 0x7f));
    memory->self = nullptr;
    allocator_support::deallocate(memory);
}

// Threads hand blocks to each other through a few places and free whatever they
// find there, with their allocators switched off and on in between.
registration const exchanges({
    .name = "allocator_blocks_come_home",
    .run =
        [](unsigned int variant) {
            accounts books(variant);
            constexpr std::size_t sizes[] = {16, 24, 100, 1000, 4080, 5000};
            detail::atomic<marked*> places[3] = {nullptr, nullptr, nullptr};
            unsigned int const thread_count = 2 + pick(2);
            auto const body = [&](unsigned int plan) {
                owned_allocator const own;
                allocator_group* const group = allocator_group::global();
                for (unsigned int round = 0; round != 6; ++round) {
                    plan = plan * 1103515245u + 12345u;
                    unsigned int const what = plan >> 16;
                    marked* mine = take_marked(sizes[what % 6]);
                    if (marked* const found = places[what / 6 % 3].exchange(mine))
                        give_back(found);
                    switch (what / 18 % 6) {
                        case 0:
                            group->flush_allocator(what % 2 == 0);
                            break;
                        case 1:
                            group->deactivate_allocator(what % 2 == 0);
                            YieldProcessor();
                            group->activate_allocator();
                            break;
                        default:
                            break;
                    }
                }
            };
            begin();
            {
                std::deque<worker> all;
                for (unsigned int each = 0; each != thread_count; ++each)
                    all.emplace_back([&, plan = pick(1000)] {
                        body(plan);
                        if (plan % 2 == 0)
                            body(plan + 1);  // as another thread might, later
                    });
            }
            // The first thread frees what is left, and its allocator is the
            // default one.
            for (detail::atomic<marked*>& place : places)
                if (marked* const left = place)
                    give_back(left);
            assure(inspector::check_allocators().allocators <= 2 + thread_count);
            books.settle();
        },
    .variants = 2,
});

// Threads replace the same blocks over and over, so that those of others which wait
// to go home are at hand when their own have run out; some hand them over in between.
registration const replacements({
    .name = "allocator_blocks_serve_again_on_their_way_home",
    .run =
        [](unsigned int variant) {
            accounts books(variant);
            detail::atomic<marked*> places[40] = {};
            auto const body = [&](unsigned int plan) {
                owned_allocator const own;
                for (unsigned int round = 0; round != 3; ++round) {
                    for (detail::atomic<marked*>& place : places) {
                        if (marked* const found = place.exchange(nullptr))
                            give_back(found);
                        if (marked* const found = place.exchange(take_marked(4080)))
                            give_back(found);
                        plan = plan * 1103515245u + 12345u;
                        if (plan >> 16 & 16)
                            continue;
                        allocator_group::global()->flush_allocator(plan >> 16 & 1);
                    }
                }
            };
            begin();
            {
                worker first([&, plan = pick(1000)] { body(plan); });
                worker second([&, plan = pick(1000)] { body(plan); });
            }
            for (detail::atomic<marked*>& place : places)
                give_back(place);
            books.settle();
        },
    .variants = 2,
});

// Two owners sleep and keep blocks of each other's; others free theirs, so that
// both give chunks away, and with them what they kept, at the same time.
registration const sleepers({
    .name = "allocator_owners_sleep_on_each_others_blocks",
    .run =
        [](unsigned int variant) {
            accounts books(variant);
            constexpr unsigned int count = 15 * 18;
            std::vector<marked*> blocks[2];
            HANDLE const steps = CreateSemaphoreA(nullptr, 0, 2, nullptr);
            HANDLE const go[2] = {CreateSemaphoreA(nullptr, 0, 9, nullptr),
                                  CreateSemaphoreA(nullptr, 0, 9, nullptr)};
            auto const owner = [&](unsigned int me) {
                owned_allocator const own;
                for (unsigned int each = 0; each != count; ++each)
                    blocks[me].push_back(take_marked(4080));
                ReleaseSemaphore(steps, 1, nullptr);
                WaitForSingleObject(go[me], INFINITE);
                for (unsigned int each = 0; each != 3; ++each) {
                    give_back(blocks[1 - me].back());
                    blocks[1 - me].pop_back();
                }
                allocator_group::global()->deactivate_allocator(true);
                ReleaseSemaphore(steps, 1, nullptr);
                WaitForSingleObject(go[me], INFINITE);
                allocator_group::global()->activate_allocator();
            };
            auto const stranger = [&](unsigned int whose) {
                owned_allocator const own;
                for (marked* one : blocks[whose])
                    give_back(one);
            };
            {
                worker first([&] { owner(0); }), second([&] { owner(1); });
                for (unsigned int step = 0; step != 2; ++step) {
                    WaitForSingleObject(steps, INFINITE);
                    WaitForSingleObject(steps, INFINITE);
                    if (step == 0)
                        for (HANDLE const each : go)
                            ReleaseSemaphore(each, 1, nullptr);
                }
                begin();
                {
                    worker one([&] { stranger(0); });
                    stranger(1);
                }
                for (HANDLE const each : go)
                    ReleaseSemaphore(each, 1, nullptr);
            }
            CloseHandle(steps);
            CloseHandle(go[0]);
            CloseHandle(go[1]);
            books.settle();
        },
    .variants = 2,
});

// Fills the global allocator with what an allocator of 60 chunks gives up.
void fill_reserve() {
    owned_allocator const own;
    std::vector<marked*> blocks;
    for (unsigned int each = 0; each != 15 * 60; ++each)
        blocks.push_back(take_marked(4080));
    for (marked* one : blocks)
        give_back(one);
}

std::size_t reserve() {
    return inspector::check_allocators().reserve;
}

// The recycler's thread returns idle memory while others take and give chunks,
// keeps about a mebibyte, and ends when it is told to, whenever that is.
registration const recycler({
    .name = "recycler_keeps_its_limits",
    .run =
        [](unsigned int variant) {
            accounts books(variant % 2, true);
            if (variant / 2 == 1)
                end_waits_late(3000);
            fill_reserve();
            std::size_t const first = reserve();
            begin();
            allocator_recycler::global()->release(pick(2) == 0 ? 0.5 : 2.0);
            {
                worker other([] {
                    owned_allocator const own;
                    for (unsigned int round = 0; round != 2; ++round) {
                        Sleep(700);
                        marked* some[31];
                        for (marked*& one : some)
                            one = take_marked(4080);
                        for (marked* one : some)
                            give_back(one);
                    }
                });
                Sleep(1000 * pick(10));
            }
            inspector::stop_recycler();
            // The other thread may have kept some.
            assure(reserve() <= first + 2 * 61440 && reserve() >= (1 << 20) - 5 * 61440);
            books.settle();
        },
    .variants = 4,
});

// Left to itself, it returns once a period three tenths of what was idle all
// through that, by whole chunks, down to the limit; the first time it only begins
// to measure. A period is a second at least, and bounded. A second start changes
// nothing.
registration const recycler_periods({
    .name = "recycler_trims_once_a_period",
    .run =
        [](unsigned int variant) {
            accounts books(0, true);
            fill_reserve();
            std::size_t expected = reserve();
            constexpr std::size_t chunk = 61440;
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
            books.settle();
        },
    .variants = 4,
});

// With memory refused at one point, or from one point on, what is asked for is
// not there or comes, and nothing else changes.
registration const refusals({
    .name = "allocator_bears_refused_memory",
    .run =
        [](unsigned int variant) {
            accounts books(0);
            detail::atomic<marked*> place = nullptr;
            auto const body = [&](unsigned int size) {
                try {
                    allocator_group::global()->acquire_allocator();
                } catch (std::bad_alloc const&) {
                    assure(refused() != 0);
                    return;
                }
                for (unsigned int round = 0; round != 3; ++round) {
                    std::size_t const bytes = size * (round + 1) * 17;
                    auto memory = static_cast<marked*>(ovel_calloc(1, bytes));
                    if (memory == nullptr) {
                        assure(refused() != 0);
                        continue;
                    }
                    memory->self = memory;
                    memory->size = 1;
                    if (auto const moved =
                            static_cast<marked*>(ovel_realloc(memory, bytes + 1000))) {
                        assure(moved->self == memory);
                        memory = moved;
                        memory->self = memory;
                    }
                    if (marked* const found = place.exchange(memory)) {
                        assure(found->self == found);
                        ovel_free(found);
                    }
                }
                allocator_group::global()->release_allocator();
            };
            begin();
            refuse_memory(1 + pick(14), variant == 0 ? 1 : 1000);
            {
                worker second([&, size = 2 + pick(200)] { body(size); });
                worker third([&, size = 2 + pick(200)] { body(size); });
            }
            ovel_free(place);
            books.settle();
        },
    .variants = 2,
});

registration const refused_group({
    .name = "allocator_group_without_memory_is_reported",
    .run =
        [](unsigned int) {
            refuse_memory(1 + pick(3));
            expect_failure("(\"unexpected exception\", 0)");
            begin();
            worker second([] { allocator_group::global(); });
            allocator_group::global();
            fail("it was built without memory");
        },
});

}  // namespace

}  // namespace ovel::simulation
