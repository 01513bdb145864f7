// SPDX-License-Identifier: Apache-2.0
// The group allocation: small blocks, in one thread and between two, and the memory that
// a million of them takes. The program calls either our functions or the process's
// `malloc`, which ./benchmark replaces with each peer's in turn.
#include "ovel_allocator_group.h"
#include "ovel_allocator_recycler.h"
#include "ovel_benchmark.h"
#include "ovel_malloc.h"
#include "ovel_smallest_allocator.h"
#include "ovel_thread_support.h"

#include <dlfcn.h>
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using ovel_benchmark::placement;

constexpr std::size_t small = 64;  // bytes of a block if all have one size

// The allocators to measure: the library's, where each thread has its own, ...
struct ours {
    class owner {
    public:
        owner() {
            ovel::allocator_group::global()->acquire_allocator();
        }
        ~owner() {
            ovel::allocator_group::global()->release_allocator();
        }
        owner(owner const&) = delete;
        owner& operator=(owner const&) = delete;
    };
    static void* allocate(std::size_t bytes) {
        return ovel_malloc(bytes);
    }
    static void deallocate(void* memory) {
        ovel_free(memory);
    }
    static void recycle() {
        ovel::allocator_recycler::global()->recycle_capacity(1.0);
    }
};

// ... and the process's `malloc`.
struct systems {
    struct owner {};
    static void* allocate(std::size_t bytes) {
        return std::malloc(bytes);
    }
    static void deallocate(void* memory) {
        std::free(memory);
    }
    // Returns memory to the system in the way of each allocator.
    static void recycle() {
        if (auto const collect = function<void(bool)>("mi_collect")) {
            collect(true);
        } else if (auto const control =
                       function<int(char const*, void*, std::size_t*, void*, std::size_t)>(
                           "mallctl")) {
            control("thread.tcache.flush", nullptr, nullptr, nullptr, 0);
            control("arena.4096.purge", nullptr, nullptr, nullptr, 0);  // 4096: all arenas
        } else if (auto const release = function<void()>("MallocExtension_ReleaseFreeMemory")) {
            release();
        } else if (auto const command = function<int(int, void*)>("scalable_allocation_command")) {
            command(0, nullptr);  // 0: all threads
        } else {
            malloc_trim(0);
        }
    }

private:
    template <class Function>
    static Function* function(char const* name) {
        return reinterpret_cast<Function*>(dlsym(RTLD_DEFAULT, name));
    }
};

// As in a program, the thread that allocates a block writes it, and the thread that frees
// it reads it.
template <class Allocator>
void* make(std::size_t bytes) {
    void* const memory = Allocator::allocate(bytes);
    std::memcpy(memory, &bytes, sizeof bytes);
    return memory;
}

template <class Allocator>
void use_up(void* memory) {
    std::size_t read;
    std::memcpy(&read, memory, sizeof read);
    benchmark::DoNotOptimize(read);
    Allocator::deallocate(memory);
}

std::vector<std::size_t> random_sizes(std::size_t count, std::mt19937& random) {
    std::uniform_int_distribution<std::size_t> size(16, 512);
    std::vector<std::size_t> all(count);
    for (std::size_t& each : all)
        each = size(random);
    return all;
}

template <class Allocator>
void pair(benchmark::State& state) {
    ovel_benchmark::pin const bound(0);
    for (auto _ : state) {
        void* memory = make<Allocator>(small);
        benchmark::DoNotOptimize(memory);
        use_up<Allocator>(memory);
    }
}

// A thousand blocks are in use at a time. There are so many orders that no processor
// learns them. The figure is the time of one allocate/free pair.
template <class Allocator>
void random_order(benchmark::State& state) {
    constexpr std::size_t count = 1000;
    constexpr std::size_t plans = 64;
    std::mt19937 random(1);
    std::vector<std::size_t> const sizes = random_sizes(count * plans, random);
    std::vector<unsigned short> orders(count * plans);
    for (auto order = orders.begin(); order != orders.end(); order += count) {
        for (std::size_t place = 0; place != count; ++place)
            order[static_cast<std::ptrdiff_t>(place)] = static_cast<unsigned short>(place);
        std::shuffle(order, order + count, random);
    }
    std::vector<void*> blocks(count);
    ovel_benchmark::pin const bound(0);
    std::size_t plan = 0;
    for (auto _ : state) {
        for (std::size_t place = 0; place != count; ++place)
            blocks[place] = make<Allocator>(sizes[plan * count + place]);
        for (std::size_t turn = 0; turn != count; ++turn)
            use_up<Allocator>(blocks[orders[plan * count + turn]]);
        plan = (plan + 1) % plans;
    }
    using benchmark::Counter;
    state.counters["seconds"] =
        Counter(count, Counter::kIsIterationInvariantRate | Counter::kInvert);
}

// In a loop that waits for the other thread: that one may need this one's processor.
void let_the_other_run() {
    static bool const alone = ovel::thread_support::available_processors() == 1;
    if (alone)
        std::this_thread::yield();
}

// Where two threads exchange their blocks.
class exchange_boxes {
public:
    // Gives the other thread `mine` and returns what it has given.
    void** exchange(int me, void** mine) {
        while (_boxes[1 - me].offered.load(std::memory_order_acquire) != nullptr)
            let_the_other_run();
        _boxes[1 - me].offered.store(mine, std::memory_order_release);
        while ((mine = _boxes[me].offered.exchange(nullptr)) == nullptr)
            let_the_other_run();
        return mine;
    }

private:
    struct alignas(128) mailbox {
        std::atomic<void**> offered = nullptr;
    };
    mailbox _boxes[2];
};

// Two threads have a thousand blocks each and replace them one by one. After `passes`
// passes they exchange all of them. So one in `passes` blocks is freed by the thread that
// did not allocate it. The figure is the blocks that both replace per second.
template <class Allocator>
void steady_exchange(benchmark::State& state, int passes) {
    constexpr std::size_t count = 1000;
    int const rounds = 2000 / passes;
    for (auto _ : state) {
        exchange_boxes boxes;
        std::vector<void*> const places[2] = {std::vector<void*>(count), std::vector<void*>(count)};
        auto const work = [&](int me) {
            [[maybe_unused]] typename Allocator::owner const own;
            auto mine = const_cast<void**>(places[me].data());
            for (std::size_t place = 0; place != count; ++place)
                mine[place] = make<Allocator>(small);
            for (int round = 0; round != rounds; ++round) {
                for (int pass = 0; pass != passes; ++pass) {
                    for (std::size_t place = 0; place != count; ++place) {
                        use_up<Allocator>(mine[place]);
                        mine[place] = make<Allocator>(small);
                    }
                }
                mine = boxes.exchange(me, mine);
            }
            for (std::size_t place = 0; place != count; ++place)
                use_up<Allocator>(mine[place]);
        };
        state.SetIterationTime(ovel_benchmark::run_together(2, placement::pinned, work));
    }
    state.SetItemsProcessed(state.iterations() * 2 * rounds * passes *
                            static_cast<std::int64_t>(count));
}

// Two threads have a thousand blocks each, of 8 to 1024 bytes. Each replaces a thousand at
// random places, by blocks of random sizes; then they exchange all of them. The figure is
// the blocks that both replace in a second.
template <class Allocator>
void random_exchange(benchmark::State& state) {
    constexpr std::size_t count = 1000;
    constexpr std::size_t plans = 64;
    constexpr int rounds = 2000;
    struct step {
        unsigned short place;
        unsigned short size;
    };
    std::mt19937 random(1);
    std::uniform_int_distribution<int> place(0, count - 1);
    std::uniform_int_distribution<int> size(8, 1024);
    std::vector<step> steps(count * plans);
    for (step& each : steps)
        each = {static_cast<unsigned short>(place(random)),
                static_cast<unsigned short>(size(random))};
    for (auto _ : state) {
        exchange_boxes boxes;
        std::vector<void*> const places[2] = {std::vector<void*>(count), std::vector<void*>(count)};
        auto const work = [&](int me) {
            [[maybe_unused]] typename Allocator::owner const own;
            auto mine = const_cast<void**>(places[me].data());
            for (std::size_t i = 0; i != count; ++i)
                mine[i] = make<Allocator>(steps[i].size);
            for (int round = 0; round != rounds; ++round) {
                // The two take different plans.
                std::size_t const plan = static_cast<std::size_t>(round * 2 + me) % plans;
                step const* const first = &steps[plan * count];
                for (step const* each = first; each != first + count; ++each) {
                    use_up<Allocator>(mine[each->place]);
                    mine[each->place] = make<Allocator>(each->size);
                }
                mine = boxes.exchange(me, mine);
            }
            for (std::size_t i = 0; i != count; ++i)
                use_up<Allocator>(mine[i]);
        };
        state.SetIterationTime(ovel_benchmark::run_together(2, placement::pinned, work));
    }
    state.SetItemsProcessed(state.iterations() * 2 * rounds * static_cast<std::int64_t>(count));
}

// Passes a million objects from one thread to another through a ring. Returns the
// seconds.
template <class Owner, class Make, class UseUp>
double hand_over(std::size_t total, Make const& make_one, UseUp const& use_one_up) {
    constexpr std::size_t places = 1024;
    struct alignas(128) position {
        std::atomic<std::size_t> value = 0;
    };
    position written, read;
    std::vector<void*> ring(places);
    return ovel_benchmark::run_together(2, placement::pinned, [&](int me) {
        [[maybe_unused]] Owner const own;
        std::size_t limit = 0;  // the other's position, as far as this thread knows it
        for (std::size_t next = 0; next != total; ++next) {
            if (me == 0) {
                while (next - limit == places) {
                    limit = read.value.load(std::memory_order_acquire);
                    let_the_other_run();
                }
                ring[next % places] = make_one();
                written.value.store(next + 1, std::memory_order_release);
            } else {
                while (next == limit) {
                    limit = written.value.load(std::memory_order_acquire);
                    let_the_other_run();
                }
                use_one_up(ring[next % places]);
                read.value.store(next + 1, std::memory_order_release);
            }
        }
    });
}

constexpr std::size_t handed = 1'000'000;

template <class Allocator>
void cross_thread(benchmark::State& state) {
    for (auto _ : state)
        state.SetIterationTime(hand_over<typename Allocator::owner>(
            handed, [] { return make<Allocator>(small); }, use_up<Allocator>));
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(handed));
}

// The rate of the ring alone.
void empty_handed(benchmark::State& state) {
    struct nothing {};
    for (auto _ : state)
        state.SetIterationTime(hand_over<nothing>(
            handed, [&] { return &state; }, [](void* item) { benchmark::DoNotOptimize(item); }));
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(handed));
}

// The process's resident memory in bytes.
double resident() {
    std::ifstream file("/proc/self/smaps_rollup");
    std::string word;
    while (file >> word && word != "Rss:") {}
    double kilobytes = 0;
    file >> kilobytes;
    return kilobytes * 1024;
}

struct footprint {
    double peak;  // bytes with a million blocks in use
    double left;  // with all of them freed, and recycled
};

// Runs in a separate process, so that no row reuses memory of another row.
template <class Allocator>
footprint measure_million_blocks() {
    constexpr std::size_t count = 1'000'000;
    int ends[2];
    footprint result = {};
    if (pipe(ends) != 0)
        return result;
    pid_t const child = fork();
    if (child != 0) {
        if (read(ends[0], &result, sizeof result) != sizeof result)
            result = {};
        waitpid(child, nullptr, 0);
        close(ends[0]);
        close(ends[1]);
        return result;
    }
    ovel_benchmark::run_together(1, placement::pinned, [&](int) {
        [[maybe_unused]] typename Allocator::owner const own;
        std::mt19937 random(1);
        std::vector<std::size_t> const sizes = random_sizes(count, random);
        std::vector<void*> blocks(count);
        double const before = resident();
        for (std::size_t place = 0; place != count; ++place) {
            blocks[place] = Allocator::allocate(sizes[place]);
            std::memset(blocks[place], 1, sizes[place]);
        }
        result.peak = resident() - before;
        std::shuffle(blocks.begin(), blocks.end(), random);
        for (void* const each : blocks)
            Allocator::deallocate(each);
        Allocator::recycle();
        result.left = resident() - before;
    });
    bool const told = write(ends[1], &result, sizeof result) == sizeof result;
    _exit(told ? 0 : 1);
}

template <class Allocator>
void memory(benchmark::State& state, double footprint::*which) {
    for (auto _ : state)
        state.SetIterationTime(1);
    static footprint const measured = measure_million_blocks<Allocator>();
    state.counters["bytes"] = measured.*which;
}

template <class Allocator>
void register_contestant(std::string const& name) {
    using ovel_benchmark::contestant;
    using ovel_benchmark::timed_contestant;
    timed_contestant("peak_memory", name, [](benchmark::State& state) {
        memory<Allocator>(state, &footprint::peak);
    })->Iterations(1);
    timed_contestant("memory_left", name, [](benchmark::State& state) {
        memory<Allocator>(state, &footprint::left);
    })->Iterations(1);
    contestant("pair_of_64_B", name, pair<Allocator>);
    contestant("random_order", name, random_order<Allocator>);
    timed_contestant("steady_all_exchanged", name,
                     [](benchmark::State& state) { steady_exchange<Allocator>(state, 1); });
    timed_contestant("steady_tenth_exchanged", name,
                     [](benchmark::State& state) { steady_exchange<Allocator>(state, 10); });
    timed_contestant("random_exchanged", name, random_exchange<Allocator>);
    timed_contestant("cross_thread", name, cross_thread<Allocator>);
}

}  // namespace

void ovel_benchmark::register_rows() {
    std::string const name = process_contestant();
    if (name != "ovel") {
        register_contestant<systems>(name);
        return;
    }
    // Permanently: the thread that ends the process keeps its own.
    ovel::allocator_group::global()->acquire_allocator();
    register_contestant<ours>(name);
    timed_contestant("cross_thread", "floor", empty_handed);
    using smallest = ovel_benchmark::smallest_allocator;
    contestant("pair_of_64_B", "ovel's bound: a header and counts", [](benchmark::State& state) {
        smallest::owner const own;
        pair<smallest>(state);
    });
    contestant("random_order", "ovel's bound: a header and counts", [](benchmark::State& state) {
        smallest::owner const own;
        random_order<smallest>(state);
    });
    timed_contestant("random_exchanged", "ovel's bound: headers, counts and batches",
                     random_exchange<smallest>);
}
