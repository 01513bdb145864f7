// The simulated kernel itself: it finds faults planted in small programs, tells
// what it found, and does the same again when asked to.

#include "kernel.h"
#include "ovel_assure.h"
#include "ovel_atomic.h"
#include "simulation/simulation.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <stdexcept>
#include <string>

// What code compiled for the thread sanitizer calls before it writes.
extern "C" void __tsan_write4(void*);

namespace {

using namespace ovel;
using namespace ovel::simulation;
using testing::Test;

outcome under(void (*program)(unsigned int), schedule const& when = {}) {
    return run({.name = "toy", .run = program, .steps = 2000}, when);
}

// The outcome of the first of many schedules that fails, or of the last.
outcome first_failure(scenario const& program, strategy how, schedule& when) {
    outcome last;
    for (std::uint64_t seed = 0; seed != 20'000; ++seed) {
        when = {.how = how, .seed = seed};
        last = run(program, when);
        if (!last.passed)
            break;
    }
    return last;
}

outcome first_failure(walk& schedules) {
    outcome last;
    while (!schedules.done()) {
        last = schedules.next(60);
        if (!last.passed)
            break;
    }
    return last;
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

// A lock that is looked at and taken in two steps: two preemptions are needed to
// see two threads inside.
void a_broken_lock(unsigned int) {
    detail::atomic<int> taken = 0, inside = 0, most = 0;
    auto const body = [&] {
        if (taken.load() == 0) {
            taken.store(1);
            int const together = inside.fetch_add(1) + 1;
            if (together > most)
                most = together;
            inside.fetch_sub(1);
            taken.store(0);
        }
    };
    begin();
    {
        worker second(body), third(body);
        body();
    }
    assure(most < 2);
}

// A flag read before going to sleep: the wake-up posted in between is lost.
void lost_wake_up(unsigned int) {
    detail::atomic<int> sleepers = 0, ready = 0;
    HANDLE const wake = CreateSemaphoreA(nullptr, 0, 1, nullptr);
    begin();
    {
        worker sleeper([&] {
            if (ready == 0) {
                sleepers = 1;
                WaitForSingleObject(wake, INFINITE);
            }
        });
        ready = 1;
        if (sleepers == 1)
            ReleaseSemaphore(wake, 1, nullptr);
    }
    CloseHandle(wake);
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

struct planted {
    void (*program)(unsigned int);
    char const* failure;  // how it begins
};

class planted_fault : public testing::TestWithParam<planted> {};

TEST_P(planted_fault, is_found_by_every_strategy_and_is_the_same_when_run_again) {
    scenario const program = {.name = "toy", .run = GetParam().program, .steps = 2000};
    std::set<std::uint64_t> interleavings;
    auto const expect_replay = [&](outcome const& found, schedule const& when) {
        ASSERT_FALSE(found.passed) << name(when.how);
        EXPECT_EQ(found.failure.find(GetParam().failure), 0u) << found.failure;
        for (int again = 0; again != 3; ++again) {
            outcome const same = run(program, when);
            EXPECT_EQ(same.failure, found.failure);
            EXPECT_EQ(same.report, found.report);
            EXPECT_EQ(same.interleaving, found.interleaving);
            // Another run in between leaves no trace.
            under(lost_update);
        }
    };
    for (strategy const how : {strategy::random, strategy::sticky, strategy::priorities}) {
        schedule when;
        outcome const found = first_failure(program, how, when);
        expect_replay(found, when);
    }
    walk schedules(program, 0);
    outcome const found = first_failure(schedules);
    expect_replay(found, schedules.last());
}

INSTANTIATE_TEST_SUITE_P(simulation, planted_fault,
                         testing::Values(planted{lost_update, "assure_failed(count == 2, "},
                                         planted{a_broken_lock, "assure_failed(most < 2, "},
                                         planted{lost_wake_up, "deadlock"},
                                         planted{crossed_locks, "deadlock"}));

TEST(simulation, tells_of_a_deadlock_who_waits_for_what_and_how_they_came_there) {
    schedule when;
    outcome const found =
        first_failure({.name = "toy", .run = crossed_locks}, strategy::random, when);
    EXPECT_NE(found.report.find("thread 1  waits for semaphore #1 with 0 units"), std::string::npos)
        << found.report;
    EXPECT_NE(found.report.find("thread 2  waits for semaphore #0 with 0 units"), std::string::npos)
        << found.report;
    EXPECT_NE(found.report.find("Wait            #1"), std::string::npos) << found.report;
}

// One thread makes two steps and waits for the other, which makes two and ends.
// Without a preemption there is one order. The first can be left before any of its
// 3 steps, the other then before 2 (it makes one at least), and the first again
// before those of its steps that remain beyond one: 2, 1 or 0 of them.
TEST(simulation, walks_through_every_schedule_within_the_number_of_preemptions) {
    std::size_t counts[4];
    for (unsigned int preemptions = 0; preemptions != 4; ++preemptions) {
        scenario const program = {.name = "toy",
                                  .run =
                                      [](unsigned int) {
                                          detail::atomic<int> word = 0;
                                          auto const body = [&] {
                                              word = 1;
                                              word = 2;
                                          };
                                          begin();
                                          worker other(body);
                                          body();
                                      },
                                  .preemptions = preemptions};
        walk schedules(program, 0);
        std::set<std::uint64_t> seen;
        while (!schedules.done())
            EXPECT_TRUE(seen.insert(schedules.next().interleaving).second) << "run twice";
        counts[preemptions] = seen.size();
    }
    EXPECT_EQ(counts[0], 1u);
    EXPECT_EQ(counts[1], 4u);
    EXPECT_EQ(counts[2], 10u);
    EXPECT_EQ(counts[3], 16u);
}

TEST(simulation, time_passes_at_once_when_everybody_sleeps_and_exactly) {
    EXPECT_EQ(under(
                  [](unsigned int) {
                      HANDLE const nothing = CreateSemaphoreA(nullptr, 0, 1, nullptr);
                      begin();
                      std::uint64_t const start = nanoseconds();
                      {
                          worker short_sleeper([&] { Sleep(10'000); });
                          Sleep(5'000);
                          assure(WaitForSingleObject(nothing, 4'000) == WAIT_TIMEOUT);
                          assure(nanoseconds() - start < 9'000'010'000);
                          // Available, though late.
                          ReleaseSemaphore(nothing, 1, nullptr);
                          assure(WaitForSingleObject(nothing, 0) == WAIT_OBJECT_0);
                          assure(WaitForSingleObject(nothing, 0) == WAIT_TIMEOUT);
                      }
                      CloseHandle(nothing);
                      assure(nanoseconds() - start > 10'000'000'000 &&
                             nanoseconds() - start < 10'000'100'000);
                  },
                  {.how = strategy::choices})
                  .failure,
              "");
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

// Each thread throws while others are between throwing and catching; the language
// keeps a stack of caught exceptions for each.
TEST(simulation, threads_throw_and_catch_independently) {
    auto const program = [](unsigned int) {
        auto const body = [](char const* text) {
            for (int round = 0; round != 3; ++round) {
                try {
                    throw std::runtime_error(text);
                } catch (std::exception const&) {
                    YieldProcessor();
                    try {
                        throw;
                    } catch (std::exception const& again) {
                        YieldProcessor();
                        assure(std::strcmp(again.what(), text) == 0);
                        assure(std::uncaught_exceptions() == 0);
                    }
                }
            }
        };
        begin();
        worker second([&] { body("second"); }), third([&] { body("third"); });
        body("first");
    };
    for (std::uint64_t seed = 0; seed != 200; ++seed) {
        outcome const each = under(program, {.seed = seed});
        ASSERT_TRUE(each.passed) << each.failure << '\n' << each.report;
    }
    EXPECT_EQ(under([](unsigned int) { throw std::runtime_error("boo"); }).failure,
              "an exception left a thread: boo");
}

struct misuse {
    void (*program)(unsigned int);
    char const* failure;
};

class misused : public testing::TestWithParam<misuse> {};

TEST_P(misused, service_fails_the_run) {
    outcome const found = under(GetParam().program, {.how = strategy::choices});
    EXPECT_FALSE(found.passed);
    EXPECT_NE(found.failure.find(GetParam().failure), std::string::npos) << found.failure;
}

INSTANTIATE_TEST_SUITE_P(
    simulation, misused,
    testing::Values(misuse{[](unsigned int) {
                               begin();
                               CreateSemaphoreA(nullptr, 0, 1, nullptr);
                           },
                           "kernel objects leaked: 1 handles open, 0 at the start"},
                    misuse{[](unsigned int) {
                               begin();
                               ovel::kernel::malloc(10);
                           },
                           "heap memory leaked: 1 blocks in use, 0 at the start"},
                    misuse{[](unsigned int) {
                               void* const block = ovel::kernel::malloc(10);
                               ovel::kernel::free(block);
                               ovel::kernel::free(block);
                           },
                           "free of what is not a block in use"},
                    misuse{[](unsigned int) {
                               auto const block = static_cast<char*>(ovel::kernel::malloc(10));
                               ovel::kernel::free(block);
                               block[7] = 1;
                           },
                           "freed memory was written at"},
                    misuse{[](unsigned int) {
                               auto const block = static_cast<char*>(ovel::kernel::malloc(10));
                               block[10] = 1;
                               ovel::kernel::free(block);
                           },
                           "a block was written beyond its end"},
                    misuse{[](unsigned int) {
                               void* const block =
                                   ovel::kernel::malloc(sizeof(detail::atomic<int>));
                               auto const word = new (block) detail::atomic<int>(1);
                               ovel::kernel::free(block);
                               word->load();
                           },
                           "an atomic word in freed memory"},
                    misuse{[](unsigned int) {
                               HANDLE const closed = CreateSemaphoreA(nullptr, 0, 1, nullptr);
                               CloseHandle(closed);
                               ReleaseSemaphore(closed, 1, nullptr);
                           },
                           "used after it was closed"},
                    misuse{[](unsigned int) {
                               HANDLE const object = CreateSemaphoreA(nullptr, 0, 1, nullptr);
                               begin();
                               worker waiter([&] { WaitForSingleObject(object, INFINITE); });
                               settle();
                               CloseHandle(object);
                           },
                           "closed while a thread waits"},
                    misuse{[](unsigned int) {
                               int volatile* nowhere = nullptr;
                               *nowhere = 1;
                           },
                           "Segmentation fault"},
                    misuse{[](unsigned int) {
                               detail::atomic<int> never = 0;
                               while (never == 0)
                                   YieldProcessor();
                           },
                           "livelock"}));

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

TEST(simulation, slots_of_a_thread_are_its_own_and_read_null_when_handed_out_again) {
    outcome const found = under([](unsigned int) {
        static int slot_value;
        DWORD const slot = TlsAlloc();
        TlsSetValue(slot, &slot_value);
        worker([slot] { assure(TlsGetValue(slot) == nullptr); });
        assure(TlsGetValue(slot) == &slot_value && TlsFree(slot) != 0 && TlsFree(slot) == 0);
        assure(TlsGetValue(TlsAlloc()) == nullptr);
    });
    EXPECT_TRUE(found.passed) << found.failure;
}

TEST(simulation, a_named_mutex_is_recursive_and_dies_with_its_last_handle) {
    outcome const found = under([](unsigned int) {
        begin();
        detail::atomic<int> inside = 0;
        auto const body = [&] {
            HANDLE const mutex = CreateMutexA(nullptr, 0, "name");
            WaitForSingleObject(mutex, INFINITE);
            WaitForSingleObject(mutex, INFINITE);
            assure(inside.fetch_add(1) == 0);
            ReleaseMutex(mutex);
            assure(inside.fetch_sub(1) == 1);
            assure(ReleaseMutex(mutex) != 0);
            CloseHandle(mutex);
        };
        worker second(body), third(body);
        body();
        HANDLE const other = CreateMutexA(nullptr, 0, "other");
        assure(ReleaseMutex(other) == 0);
        CloseHandle(other);
    });
    EXPECT_TRUE(found.passed) << found.failure << found.report;
}

}  // namespace
