// SPDX-License-Identifier: Apache-2.0
// The simulated kernel itself: it finds faults planted in small programs, reports them, and
// reproduces a run.

#include "kernel.h"
#include "ovel_assure.h"
#include "ovel_atomic.h"
#include "simulation/simulation.h"

#include <gtest/gtest.h>

#include <optional>
#include <set>
#include <stdexcept>
#include <string>

// Code compiled for ThreadSanitizer calls it before it writes.
extern "C" void __tsan_write4(void*);

namespace {

using namespace ovel;
using namespace ovel::simulation;

// Two threads count, each in two steps.
void lost_update(unsigned int) {
    detail::atomic<int> count = 0;
    auto const body = [&] {
        count.store(count.load() + 1);
    };
    begin();
    {
        worker other(body);
        body();
    }
    assure(count == 2);
}

// Two threads change a word without a lock, and yield in between: from the second thread's
// access on, accesses to the word are scheduling points.
void unlocked(unsigned int) {
    void* const word = ovel::kernel::malloc(sizeof(int));
    auto const body = [&] {
        for (int round = 0; round != 3; ++round) {
            YieldProcessor();
            __tsan_write4(word);
        }
    };
    begin();
    { worker second(body), third(body); }
    ovel::kernel::free(word);
}

TEST(simulation, finds_planted_faults_by_every_strategy_and_runs_them_again_the_same) {
    struct {
        void (*program)(unsigned int);
        char const* failure;  // how it begins
        char const* report;   // what it contains
    } const faults[] = {
        {lost_update, "assure_failed(count == 2, ", ""},
        {unlocked, "race: threads ", "is ready for write heap+"},
    };
    for (auto const& fault : faults)
        for (strategy const how :
             {strategy::random, strategy::sticky, strategy::priorities, strategy::choices}) {
            if (how == strategy::choices && fault.program == unlocked)
                continue;  // walks are not made of plain accesses
            SCOPED_TRACE(testing::Message() << fault.failure << ' ' << name(how));
            scenario const program = {.name = "toy", .run = fault.program, .steps = 2000};
            walk schedules(program, 0);
            schedule when;
            outcome found;
            found.passed = true;
            for (std::uint64_t seed = 0; found.passed && seed != 20'000; ++seed) {
                when = {.how = how, .seed = seed};
                found = how == strategy::choices ? schedules.next(60) : run(program, when);
            }
            if (how == strategy::choices)
                when = schedules.last();
            ASSERT_FALSE(found.passed);
            EXPECT_EQ(found.failure.find(fault.failure), 0u) << found.failure;
            EXPECT_NE(found.report.find(fault.report), std::string::npos) << found.report;
            // Another run in between has no influence.
            run({.name = "toy", .run = lost_update}, {});
            outcome const same = run(program, when);
            EXPECT_EQ(same.failure, found.failure);
            EXPECT_EQ(same.report, found.report);
            EXPECT_EQ(same.interleaving, found.interleaving);
        }
}

// One thread makes two steps and waits for the other, which makes two and ends.
// Without a preemption there is one order. The first can be left before any of its
// 3 steps, the other then before 2 (it makes one at least), and the first again
// before those of its steps that remain beyond one: 2, 1 or 0 of them.
TEST(simulation, walks_through_every_schedule_within_the_number_of_preemptions) {
    auto const two_writers = [](unsigned int) {
        detail::atomic<int> word = 0;
        auto const body = [&] {
            word = 1;
            word = 2;
        };
        begin();
        worker other(body);
        body();
    };
    constexpr std::size_t expected[] = {1, 4, 10, 16};
    for (unsigned int preemptions = 0; preemptions != 4; ++preemptions) {
        scenario const program = {.name = "toy", .run = two_writers, .preemptions = preemptions};
        walk schedules(program, 0);
        std::set<std::uint64_t> seen;
        while (!schedules.done())
            EXPECT_TRUE(seen.insert(schedules.next().interleaving).second) << "run twice";
        EXPECT_EQ(seen.size(), expected[preemptions]);
    }
}

struct {
    char const* steps;  // by their letters in `misuse`
    char const* failure;
} const misuses[] = {
    {"f", "kernel objects leaked: 1 handles open, 0 at the start"},
    {"c", "heap memory leaked: 1 blocks in use, 0 at the start"},
    {"ff", "free of what is not a block in use"},
    {"cfi", "freed memory was written at"},
    {"cbf", "a block was written beyond its end"},
    {"fa", "an atomic word in freed memory"},
    {"cr", "used after it was closed"},
    {"wc", "closed while a thread waits"},
    {"w", "deadlock"},
    {"w", "waits for semaphore #0 with 0 units"},
    {"0", "Segmentation fault"},
    {"l", "livelock"},
    {"t", "an exception left a thread: boo"},
};

void misuse(unsigned int which) {
    HANDLE const object = CreateSemaphoreA(nullptr, 0, 1, nullptr);
    auto const block = static_cast<char*>(ovel::kernel::malloc(10));
    std::optional<worker> waiter;
    begin();
    for (char const step : std::string(misuses[which].steps)) {
        if (step == 'f')
            ovel::kernel::free(block);
        else if (step == 'i' || step == 'b')
            block[step == 'i' ? 7 : 10] = 1;
        else if (step == 'a')
            reinterpret_cast<detail::atomic<int>*>(block)->load();
        else if (step == 'c')
            CloseHandle(object);
        else if (step == 'r')
            ReleaseSemaphore(object, 1, nullptr);
        else if (step == 'w')
            waiter.emplace([&] { WaitForSingleObject(object, INFINITE); });
        else if (step == '0')
            *static_cast<int volatile*>(nullptr) = 1;
        else if (step == 't')
            throw std::runtime_error("boo");
        else if (step == 'l')
            for (;;)
                YieldProcessor();
        settle();
    }
}

TEST(simulation, misuse_of_a_service_fails_the_run) {
    scenario const program = {.name = "toy", .run = misuse, .steps = 2000};
    for (unsigned int which = 0; auto const& each : misuses) {
        outcome const found = run(program, {.how = strategy::choices, .variant = which++});
        EXPECT_FALSE(found.passed);
        std::string const all = found.failure + found.report;
        EXPECT_NE(all.find(each.failure), std::string::npos) << all;
    }
}

}  // namespace
