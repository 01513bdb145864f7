// The simulated kernel itself: it finds faults planted in small programs, tells
// what it found, and does the same again when asked to.

#include "kernel.h"
#include "ovel_assure.h"
#include "ovel_atomic.h"
#include "simulation/simulation.h"

#include <gtest/gtest.h>

#include <set>
#include <stdexcept>
#include <string>

// What code compiled for the thread sanitizer calls before it writes.
extern "C" void __tsan_write4(void*);

namespace {

using namespace ovel;
using namespace ovel::simulation;

outcome under(void (*program)(unsigned int), schedule const& when = {}) {
    return run({.name = "toy", .run = program, .steps = 2000}, when);
}

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

// Two locks in two orders.
void crossed_locks(unsigned int) {
    HANDLE const first = CreateSemaphoreA(nullptr, 1, 1, nullptr);
    HANDLE const second = CreateSemaphoreA(nullptr, 1, 1, nullptr);
    auto const body = [](HANDLE one, HANDLE two) {
        WaitForSingleObject(one, INFINITE);
        WaitForSingleObject(two, INFINITE);
        ReleaseSemaphore(two, 1, nullptr);
        ReleaseSemaphore(one, 1, nullptr);
    };
    begin();
    {
        worker other([&] { body(second, first); });
        body(first, second);
    }
    CloseHandle(first);
    CloseHandle(second);
}

TEST(simulation, finds_planted_faults_by_every_strategy_and_runs_them_again_the_same) {
    struct {
        void (*program)(unsigned int);
        char const* failure;  // how it begins
        char const* report;   // what it contains
    } const faults[] = {
        {lost_update, "assure_failed(count == 2, ", ""},
        {crossed_locks, "deadlock", "thread 1  waits for semaphore #1 with 0 units"},
    };
    for (auto const& fault : faults)
        for (strategy const how :
             {strategy::random, strategy::sticky, strategy::priorities, strategy::choices}) {
            SCOPED_TRACE(testing::Message() << fault.failure << ' ' << name(how));
            scenario const program = {.name = "toy", .run = fault.program, .steps = 2000};
            walk schedules(program, 0);
            outcome found;
            found.passed = true;
            schedule when;
            for (std::uint64_t seed = 0; found.passed && seed != 20'000; ++seed) {
                bool const walks = how == strategy::choices;
                when = {.how = how, .seed = seed};
                found = walks ? schedules.next(60) : run(program, when);
                if (walks)
                    when = schedules.last();
            }
            ASSERT_FALSE(found.passed);
            EXPECT_EQ(found.failure.find(fault.failure), 0u) << found.failure;
            EXPECT_NE(found.report.find(fault.report), std::string::npos) << found.report;
            // Another run in between leaves no trace.
            under(lost_update);
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

TEST(simulation, a_deadline_can_win_against_a_post_and_lose) {
    auto const program = [](unsigned int) {
        HANDLE const unit = CreateSemaphoreA(nullptr, 0, 1, nullptr);
        begin();
        DWORD result = 0;
        {
            worker waiter([&] { result = WaitForSingleObject(unit, 10'000); });
            ReleaseSemaphore(unit, 1, nullptr);
        }
        if (result == WAIT_TIMEOUT)
            fail("won");
        CloseHandle(unit);
        fail("lost");
    };
    for (strategy const how : {strategy::random, strategy::sticky, strategy::priorities}) {
        std::set<std::string> results;
        for (std::uint64_t seed = 0; seed != 500; ++seed)
            results.insert(under(program, {.how = how, .seed = seed}).failure);
        EXPECT_EQ(results, (std::set<std::string>{"won", "lost"})) << name(how);
    }
}

// A word changed under a lock or, with variant 1, by one thread without it.
void half_locked(unsigned int variant) {
    auto const word = static_cast<int*>(ovel::kernel::malloc(sizeof(int)));
    HANDLE const lock = CreateSemaphoreA(nullptr, 1, 1, nullptr);
    auto const body = [&](bool locks) {
        for (int round = 0; round != 3; ++round) {
            if (locks)
                WaitForSingleObject(lock, INFINITE);
            __tsan_write4(word);
            *word = round;
            if (locks)
                ReleaseSemaphore(lock, 1, nullptr);
        }
    };
    begin();
    {
        worker second([&] { body(true); }), third([&] { body(variant == 0); });
    }
    CloseHandle(lock);
    ovel::kernel::free(word);
}

TEST(simulation, finds_two_threads_about_to_write_the_same_word) {
    std::set<std::string> failures[2];
    for (std::uint64_t seed = 0; seed != 2000; ++seed)
        for (unsigned int variant : {0u, 1u}) {
            outcome const each = under(half_locked, {.variant = variant, .seed = seed});
            failures[variant].insert(each.failure.substr(0, each.failure.find(':')));
        }
    EXPECT_EQ(failures[0], (std::set<std::string>{""}));
    EXPECT_EQ(failures[1], (std::set<std::string>{"", "race"}));
}

void misuse(unsigned int which) {
    HANDLE const object = CreateSemaphoreA(nullptr, 0, 1, nullptr);
    auto const block = static_cast<char*>(ovel::kernel::malloc(10));
    begin();
    if (which > 1 && which < 7)
        CloseHandle(object);
    switch (which) {
        case 0:
            ovel::kernel::free(block);
            break;
        case 1:
            CloseHandle(object);
            break;
        case 2:
            ovel::kernel::free(block);
            ovel::kernel::free(block);
            break;
        case 3:
            ovel::kernel::free(block);
            block[7] = 1;
            break;
        case 4:
            block[10] = 1;
            ovel::kernel::free(block);
            break;
        case 5:
            ovel::kernel::free(block);
            reinterpret_cast<detail::atomic<int>*>(block)->load();
            break;
        case 6:
            ReleaseSemaphore(object, 1, nullptr);
            break;
        case 7: {
            worker waiter([&] { WaitForSingleObject(object, INFINITE); });
            settle();
            CloseHandle(object);
            break;
        }
        case 8:
            *static_cast<int volatile*>(nullptr) = 1;
            break;
        case 9:
            for (;;)
                YieldProcessor();
        default:
            throw std::runtime_error("boo");
    }
}

TEST(simulation, misuse_of_a_service_fails_the_run) {
    char const* const failures[] = {"kernel objects leaked: 1 handles open, 0 at the start",
                                    "heap memory leaked: 1 blocks in use, 0 at the start",
                                    "free of what is not a block in use",
                                    "freed memory was written at",
                                    "a block was written beyond its end",
                                    "an atomic word in freed memory",
                                    "used after it was closed",
                                    "closed while a thread waits",
                                    "Segmentation fault",
                                    "livelock",
                                    "an exception left a thread: boo"};
    for (unsigned int which = 0; char const* const failure : failures) {
        outcome const found = under(misuse, {.how = strategy::choices, .variant = which++});
        EXPECT_FALSE(found.passed);
        EXPECT_NE(found.failure.find(failure), std::string::npos) << failure << found.failure;
    }
}

TEST(simulation, refuses_the_named_requests_only) {
    auto const program = [](unsigned int) {
        refuse_memory(2, 2);
        refuse_objects(1);
        void* blocks[5];
        for (void*& block : blocks)
            block = ovel::kernel::malloc(1);
        assure(blocks[0] && !blocks[1] && !blocks[2] && blocks[3] && blocks[4]);
        assure(CreateSemaphoreA(nullptr, 0, 1, nullptr) == nullptr);
        assure(CreateSemaphoreA(nullptr, 0, 1, nullptr) != nullptr);
        assure(refused() == 3);
        expect_failure("false");
        assure(false);
    };
    outcome const found = under(program);
    EXPECT_TRUE(found.passed) << found.failure;
    EXPECT_TRUE(found.reported);
}

}  // namespace
