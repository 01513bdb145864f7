// The allocator: every block comes home, chunks are neither lost nor made twice.

#include "accounts.h"
#include "inspector.h"
#include "ovel_allocator_group.h"
#include "ovel_allocator_recycler.h"
#include "ovel_allocator_support.h"
#include "ovel_assure.h"
#include "ovel_atomic.h"
#include "ovel_malloc.h"
#include "ovel_semaphore.h"
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
// find there, with their allocators switched off and on in between. Or they replace
// the same blocks over and over, so that those of others which wait to go home are
// at hand when their own have run out.
registration const exchanges({
    .name = "allocator_blocks_come_home",
    .run =
        [](unsigned int variant) {
            accounts const books(variant % 2);
            bool const replaces = variant / 2 == 1;
            constexpr std::size_t sizes[] = {16, 24, 100, 1000, 4080, 5000};
            detail::atomic<marked*> places[40] = {};
            auto const body = [&] {
                owned_allocator const own;
                allocator_group* const group = allocator_group::global();
                for (unsigned int round = 0; round != (replaces ? 120 : 6); ++round) {
                    detail::atomic<marked*>& place = places[replaces ? round % 40 : pick(3)];
                    if (replaces)
                        if (marked* const found = place.exchange(nullptr))
                            give_back(found);
                    marked* const mine = take_marked(replaces ? 4080 : sizes[pick(6)]);
                    if (marked* const found = place.exchange(mine))
                        give_back(found);
                    unsigned int const what = pick(12);
                    if (what < 2 || (replaces && what < 6)) {
                        group->flush_allocator(what % 2 == 0);
                    } else if (what < 4) {
                        group->deactivate_allocator(what % 2 == 0);
                        YieldProcessor();
                        group->activate_allocator();
                    }
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
            // The first thread frees what is left, and its allocator is the
            // default one.
            for (detail::atomic<marked*>& place : places)
                if (marked* const left = place)
                    give_back(left);
            assure(inspector::check_allocators().allocators <= 2 + thread_count);
        },
    .variants = 4,
});

// Two owners sleep and keep blocks of each other's; others free theirs, so that
// both give chunks away, and with them what they kept, at the same time.
registration const sleepers({
    .name = "allocator_owners_sleep_on_each_others_blocks",
    .run =
        [](unsigned int variant) {
            accounts const books(variant);
            std::vector<marked*> blocks[2];
            semaphore steps(0, 0);
            semaphore go[2] = {{0, 0}, {0, 0}};
            auto const owner = [&](unsigned int me) {
                for (unsigned int each = 0; each != 15 * 18; ++each)
                    blocks[me].push_back(take_marked(4080));
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
            auto const stranger = [&](unsigned int whose) {
                for (marked* one : blocks[whose])
                    give_back(one);
            };
            client first([&] { owner(0); }), second([&] { owner(1); });
            for (unsigned int step = 0; step != 2; ++step) {
                steps.acquire();
                steps.acquire();
                if (step == 1) {
                    begin();
                    client one([&] { stranger(0); }), two([&] { stranger(1); });
                }
                for (semaphore& each : go)
                    each.release();
            }
        },
    .variants = 2,
});

void take_and_give_back(unsigned int count) {
    std::vector<marked*> blocks;
    for (unsigned int each = 0; each != count; ++each)
        blocks.push_back(take_marked(4080));
    for (marked* one : blocks)
        give_back(one);
}

// Fills the global allocator with what an allocator of 60 chunks gives up.
void fill_reserve() {
    owned_allocator const own;
    take_and_give_back(15 * 60);
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
            accounts const books(variant % 2, true);
            if (variant / 2 == 1)
                end_waits_late(3000);
            fill_reserve();
            std::size_t const first = reserve();
            begin();
            allocator_recycler::global()->release(pick(2) == 0 ? 0.5 : 2.0);
            {
                client other([] {
                    for (unsigned int round = 0; round != 2; ++round) {
                        Sleep(700);
                        take_and_give_back(31);
                    }
                });
                Sleep(1000 * pick(10));
            }
            inspector::stop_recycler();
            // The other thread may have kept some.
            assure(reserve() <= first + 2 * 61440 && reserve() >= (1 << 20) - 5 * 61440);
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
            accounts const books(0, true);
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
        },
    .variants = 4,
});

// With memory refused at one point, or from one point on, what is asked for is
// not there or comes, and nothing else changes.
registration const refusals({
    .name = "allocator_bears_refused_memory",
    .run =
        [](unsigned int variant) {
            accounts const books(0);
            detail::atomic<marked*> place = nullptr;
            auto const body = [&](unsigned int size) {
                try {
                    allocator_group::global()->acquire_allocator();
                } catch (std::bad_alloc const&) {
                    assure(refused() != 0);
                    return;
                }
                for (std::size_t bytes = size; bytes <= 3 * size; bytes += size) {
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
            unsigned int const first = 1 + pick(14);
            refuse_memory(first, variant == 0 ? 1 : 1000);
            {
                worker second([&, size = 17 * (2 + pick(200))] { body(size); });
                worker third([&, size = 17 * (2 + pick(200))] { body(size); });
            }
            ovel_free(place);
            assure(refused() != 0 || first > 2);
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
