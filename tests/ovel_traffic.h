// SPDX-License-Identifier: Apache-2.0
// Threads that use all of the library at once, for tests of forks and of the process's end.
#ifndef OVEL_TRAFFIC_H
#define OVEL_TRAFFIC_H

#include "ovel_test.h"

namespace traffic {

// Blocks that threads pass to each other: a thread puts its own and frees the one it finds,
// whose contents must be intact.
inline void exchange_blocks(unsigned int round) {
    using block = std::vector<unsigned char, ovel::container_allocator<unsigned char>>;
    static std::array<std::atomic<block*>, 256> places;
    auto const made = [](std::size_t size) {
        return std::make_unique<block>(size, static_cast<unsigned char>(size));
    };
    std::unique_ptr<block> const found(
        places[round * 11 % places.size()].exchange(made(1 + round * 37 % 5000).release()));
    assure(found == nullptr || *found == *made(found->size()));
}

inline void exchange_many_blocks(unsigned int round) {
    for (unsigned int i = 0; i != 100; ++i)
        exchange_blocks(round * 100 + i);
}

// Calls of `work` on threads of the library.

template <class Thread, class Work>
void run_on(Work const& work) {
    ovel::work job(work);
    Thread driven(32768);
    driven.schedule(job);
    driven.release();
    driven.acquire();
}

template <class Work>
void run_in_work_group(Work const& work) {
    ovel::work_group group(2);
    group.submit(work).get();
    group.join();
}

template <class Work>
void run_in_net(Work const& work) {
    ovel::net net(2, 0.0, 32768);
    auto const in = net.insert_place<int>("in", 1);
    auto const out = net.insert_place<int>("out", 1);
    net.insert_transition("work", ovel::from(in), [&](int) { work(); });
    net.insert_transition("tell", ovel::to(out), [] { return 8; });
    net.start();
    in.send(4);
    assure(out.receive() == 8);
    net.join();
}

inline void run_group() {
    run_in_work_group([] { exchange_blocks(9); });
}

// What the system's services lock among threads.
inline void use_services() {
    unsigned int volatile flag = 0;
    ovel::call_once([] {}, flag);
    int value = 0;
    ovel::thread_specific_ptr<int> slot;
    slot.set(&value);
    assure(slot.get() == &value && flag != 0);
    ovel::thread_support::thread_affinity(ovel::thread_support::process_affinity());
}

// How the threads use the library, by the kind of the thread.
inline constexpr void (*uses[])(unsigned int round) = {
    exchange_many_blocks,
    exchange_many_blocks,
    [](unsigned int) { run_on<ovel::thread>([] { exchange_blocks(7); }); },
    [](unsigned int) { run_on<ovel::thread_base>([] { exchange_blocks(7); }); },
    [](unsigned int) { run_group(); },
    [](unsigned int) { run_in_net([] { exchange_blocks(7); }); },
    [](unsigned int) { use_services(); },
};
constexpr int kinds = static_cast<int>(std::size(uses));
inline std::array<std::atomic<unsigned int>, kinds> rounds;
inline std::atomic<bool> over = false;

// Uses one facility, by its number.
inline void use(int kind) {
    uses[kind](rounds[static_cast<std::size_t>(kind)]++);
}

inline void use_until_over(int kind) {
    while (!over)
        use(kind);
}

// Returns once each facility has been used some more.
inline void wait_for_rounds(unsigned int more) {
    for (auto& each : rounds) {
        unsigned int const enough = each + more;
        until([&] { return each >= enough; });
    }
}

// Leaves `count` idle threads in the pool.
inline void fill_pool(unsigned int count) {
    ovel::work nothing([] {});
    std::deque<ovel::thread> all;
    for (unsigned int i = 0; i != count; ++i) {
        ovel::thread& each = all.emplace_back(32768u);
        each.schedule(nothing);
        each.release();
    }
    for (ovel::thread& each : all)
        each.acquire();
}

// Uses each facility, on the calling thread.
inline void use_all() {
    fill_pool(3);
    for (int kind = 0; kind != kinds; ++kind)
        use(kind);
}

}  // namespace traffic

#endif
