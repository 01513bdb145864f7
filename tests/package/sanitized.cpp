// SPDX-License-Identifier: Apache-2.0
// A correct program that uses every facility from several threads: neither
// ThreadSanitizer nor AddressSanitizer has anything to report. To show that they see it
// at all, it makes the mistake that its argument names: `race`, `freed` or `header`.
#include <ovel.h>
#include <ovel_memory.h>
#include <ovel_petri.h>
#include <ovel_std.h>
#include <ovel_trace.h>
#include <ovel_work.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

constexpr unsigned int threads = 4;
constexpr int rounds = 200;

void check(bool holds, char const* what) {
    if (!holds) {
        std::puts(what);
        std::exit(1);
    }
}

// Runs `body(i)` on threads that the library did not start.
void crew(std::function<void(unsigned int)> const& body) {
    std::vector<std::jthread> running;
    for (unsigned int i = 0; i != threads; ++i)
        running.emplace_back([&body, i] {
            ovel::thread_allocator const own;
            body(i);
        });
}

template <class Mutex>
void guard() {
    ovel::lockable<Mutex> lock;
    int count = 0;  // under lock
    crew([&](unsigned int) {
        for (int i = 0; i != rounds; ++i) {
            if (i % 4 == 0 && lock.try_acquire()) {
                ++count;
                lock.release();
            }
            std::lock_guard const hold(lock);
            ++count;
        }
    });
    check(count >= int(threads) * rounds, "mutex");
}

// Units carry what was written before their release, also where nobody polls.
template <class Semaphore>
void count(unsigned int spin) {
    Semaphore filled(0, spin);
    Semaphore free(1, spin);
    int slot = 0;
    int sum = 0;
    std::jthread const consumer([&] {
        ovel::thread_allocator const own;
        for (int i = 0; i != rounds; ++i) {
            filled.acquire();
            sum += slot;
            free.release();
        }
    });
    for (int i = 0; i != rounds; ++i) {
        while (!free.try_acquire())
            std::this_thread::yield();
        slot = i;
        filled.release();
    }
    free.acquire();
    check(sum == rounds * (rounds - 1) / 2, "semaphore");
}

template <class Condition, class Mutex>
void take_turns() {
    ovel::lockable<Mutex> lock;
    Condition changed;
    unsigned int turn = 0;  // under lock
    crew([&](unsigned int me) {
        for (int i = 0; i != rounds / 4; ++i) {
            std::lock_guard const hold(lock);
            ovel::wait(changed, lock, [&] { return turn % threads == me; });
            ++turn;
            changed.release_all();
        }
    });
    check(turn == threads * (rounds / 4), "condition");
}

template <class Barrier>
void step() {
    Barrier phase(threads, ovel::default_spin);
    int values[threads] = {};
    crew([&](unsigned int me) {
        for (int i = 1; i != rounds / 4; ++i) {
            values[me] = i;
            phase.acquire();
            for (int const value : values)
                check(value == i, "barrier");
            phase.acquire();
        }
    });
}

void deadlines() {
    ovel::timed_semaphore never(0, 0);
    ovel::lockable<ovel::timed_mutex> lock;
    ovel::timed_condition changed;
    ovel::timed_barrier gate(2, 0);
    crew([&](unsigned int) {
        check(!never.timed_acquire(ovel::deadline(1ms)), "timed semaphore");
        std::unique_lock hold(lock);
        check(!ovel::wait_for(changed, hold, 1ms, [] { return false; }), "timed condition");
        hold.unlock();
        bool last;
        gate.timed_acquire(last, ovel::deadline(1ms));
    });
}

unsigned int volatile built = 0;
int table[16];

void build_table() {
    for (int i = 0; i != 16; ++i)
        table[i] = i;
}

void once() {
    ovel::thread_specific_ptr<int> own;
    crew([&](unsigned int me) {
        ovel::call_once(build_table, built);
        int mine = table[me];
        own.set(&mine);
        check(*own.get() == int(me), "thread_specific_ptr");
    });
}

// Memory of every kind, freed by another thread than allocated it, and used again.
void exchange_memory() {
    ovel::lockable<ovel::mutex> lock;
    std::vector<std::pair<char*, std::size_t>> exchanged;  // under lock
    crew([&](unsigned int me) {
        for (int i = 0; i != rounds * 8; ++i) {
            std::size_t const size = std::size_t(16) << (i % 11);
            char* const made = static_cast<char*>(ovel::allocator_support::allocate(size));
            std::memset(made, int(me), size);
            std::pair<char*, std::size_t> taken{nullptr, 0};
            {
                std::lock_guard const hold(lock);
                exchanged.emplace_back(made, size);
                if (exchanged.size() > 64) {
                    taken = exchanged[std::size_t(i) % 64];
                    exchanged[std::size_t(i) % 64] = exchanged.back();
                    exchanged.pop_back();
                }
            }
            if (taken.first != nullptr)
                check(taken.first[0] == taken.first[taken.second - 1], "memory");
            ovel::allocator_support::deallocate(taken.first);
        }
        std::vector<int, ovel::container_allocator<int>> numbers(100, 1);
        std::pmr::vector<int> others(100, 1, ovel::memory_resource::global());
        check(numbers[0] == others[99], "containers");
        ovel::allocator_group::global()->flush_allocator(false);
        ovel::allocator_group::global()->deactivate_allocator(false);
        ovel::allocator_group::global()->activate_allocator();
    });
    for (auto const& [memory, size] : exchanged)
        ovel_free(memory);
    ovel_free(ovel_realloc(ovel_calloc(3, 5), 100));
    ovel::allocator_recycler::global()->release(1.0);
    ovel::allocator_recycler::global()->recycle_capacity(1.0);
}

void run_threads() {
    int value = 0;
    ovel::work increment([&value] { ++value; });
    for (int i = 0; i != rounds / 4; ++i) {
        ovel::thread pooled;
        pooled.schedule(increment);
        pooled.release();
        pooled.acquire();
    }
    ovel::thread_base own;
    own.schedule(increment);
    own.release();
    own.acquire();
    check(value == rounds / 4 + 1, "threads");

    ovel::thread_group group(threads, 1.0, 65536);
    ovel::semaphore sum(0, 0);
    std::vector<std::unique_ptr<ovel::thread_function>> pieces;
    auto const piece = [&sum] {
        sum.release();
    };
    for (int i = 0; i != rounds; ++i) {
        pieces.push_back(std::make_unique<ovel::work<decltype(piece)>>(piece));
        group.schedule(*pieces.back(), 1.0 + i % 7, i % 2 * 0.5);
        if (i == rounds / 2)
            group.release();
    }
    group.conclude();
    group.acquire();
    for (int i = 0; i != rounds; ++i)
        check(sum.try_acquire(), "thread_group");

    ovel::work_group submitted(threads);
    std::vector<std::future<std::string>> answers;
    for (int i = 0; i != rounds; ++i)
        answers.push_back(submitted.submit([i] { return std::to_string(i); }));
    for (int i = 0; i != rounds; ++i)
        check(answers[std::size_t(i)].get() == std::to_string(i), "work_group");
    submitted.join();
}

void fire() {
    ovel::trace::recorder recorded;
    ovel::net pipeline;
    auto const words = pipeline.insert_place<std::string>("words", 8);
    auto const lengths = pipeline.insert_place<std::size_t>("lengths", 8);
    auto const boxes = pipeline.insert_place<std::unique_ptr<int>>("boxes", 2);
    pipeline.insert_transition(
        "measure", from(words), to(lengths, boxes),
        [](std::string const& word) { return std::tuple(word.size(), std::make_unique<int>(1)); },
        {.reentrant = true});
    std::size_t opened = 0;  // a place is first in, first out, and its transition alone
    pipeline.insert_transition("open", from(boxes),
                               [&opened](std::unique_ptr<int> box) { opened += *box == 1; });
    pipeline.start();
    std::jthread const sender([&] {
        ovel::thread_allocator const own;
        for (int i = 0; i != rounds; ++i)
            words.send("a word that is too long to lie in its string");
    });
    std::size_t sum = 0;
    for (int i = 0; i != rounds; ++i)
        sum += lengths.receive();
    pipeline.join();
    check(sum == 44 * std::size_t(rounds) && opened == std::size_t(rounds), "net");
    recorded.stop();
    std::size_t events = 0;
    recorded.each([&](unsigned int, ovel::trace::event const&) { ++events; });
    check(events >= 2 * std::size_t(rounds), "trace");
}

// Both threads take the mutex, but too late.
void race() {
    int value = 0;
    ovel::lockable<ovel::mutex> lock;
    auto const add = [&] {
        ++value;
        std::lock_guard const hold(lock);
    };
    std::jthread const one(add);
    std::jthread const other(add);
}

// A small block, used when it has been freed.
[[gnu::noinline]] void freed() {
    auto const memory = static_cast<char*>(ovel::allocator_support::allocate(100));
    ovel::allocator_support::deallocate(memory);
    std::printf("%d\n", static_cast<char volatile*>(memory)[50]);
}

// What lies before a block is the library's.
[[gnu::noinline]] void header() {
    auto const memory = static_cast<char*>(ovel::allocator_support::allocate(100));
    static_cast<char volatile*>(memory)[-1] = 1;
}

}  // namespace

int main(int count_of_arguments, char** arguments) {
    std::string_view const mistake = count_of_arguments > 1 ? arguments[1] : "";
    if (mistake == "race")
        return race(), 0;
    if (mistake == "freed")
        return freed(), 0;
    if (mistake == "header")
        return header(), 0;

    guard<ovel::mutex>();
    guard<ovel::timed_mutex>();
    guard<ovel::recursive_mutex>();
    guard<ovel::timed_recursive_mutex>();
    count<ovel::semaphore>(ovel::default_spin);
    count<ovel::semaphore>(0);
    count<ovel::timed_semaphore>(0);
    take_turns<ovel::condition, ovel::mutex>();
    take_turns<ovel::timed_condition, ovel::timed_recursive_mutex>();
    step<ovel::barrier>();
    step<ovel::timed_barrier>();
    deadlines();
    once();
    exchange_memory();
    run_threads();
    fire();
}
