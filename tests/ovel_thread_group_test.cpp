// Thread groups: which work runs when, and the start and the end of the workers.

#include "ovel_thread_group.h"

#include "ovel_allocator_group.h"
#include "ovel_test.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

using namespace ovel;

struct ovel::detail::inspector {
    static double free_space(thread_group& group) {
        group._mutex.acquire();
        double const space = group._space;
        group._mutex.release();
        return space;
    }
};

namespace {

using ovel::time;

// Work from any callable.
struct task : thread_function {
    explicit task(std::function<void()> body) : body(std::move(body)) {}
    void operator()() override {
        body();
    }
    std::function<void()> body;
};

// Starts a group, lets it drain, and joins it.
void run(thread_group& group) {
    group.release();
    group.conclude();
    group.acquire();
}

TEST(thread_group_test, one_worker_takes_the_largest_space_then_the_longest_time_then_the_first) {
    struct {
        char name;
        double time;
        double space;
    } const work[] = {{'d', 1, 0}, {'b', 3, 2}, {'c', 5, 0}, {'a', 7, 2}, {'e', 1, 0}};
    std::string order;
    std::deque<task> tasks;
    thread_group group(1, 2.0, 65536);
    for (auto const& each : work) {
        tasks.emplace_back([&order, &each] { order += each.name; });
        group.schedule(tasks.back(), each.time, each.space);
    }
    run(group);
    EXPECT_EQ(order, "abcde");
}

TEST(thread_group_test, what_does_not_fit_waits_until_space_is_given_back_and_smaller_work_passes) {
    thread_group group(3, 10.0, 65536);
    semaphore first_runs(0, 0), proceed(0, 0), small_done(0, 0);
    std::atomic<bool> first_ended = false;
    task first([&] {
        first_runs.release();
        proceed.acquire();
        first_ended = true;
    });
    task second([&] { EXPECT_TRUE(first_ended); });
    task small([&] { small_done.release(); });
    group.schedule(first, 2.0, 8.0);
    group.schedule(second, 1.0, 8.0);
    group.schedule(small, 1.0, 2.0);
    group.release();
    first_runs.acquire();
    small_done.acquire();  // beside the first, though the second waits longer
    // Work that fits the group, though not what is free of it, is accepted.
    task third([&] { EXPECT_TRUE(first_ended); });
    group.schedule(third, 1.0, 10.0);
    proceed.release();
    group.conclude();
    group.acquire();
}

TEST(thread_group_test, work_within_a_budget_never_exceeds_it_and_all_of_it_runs) {
    constexpr unsigned int seed = 20'261;
    std::mt19937 random(seed);
    thread_group group(4, 10.0, 65536);
    std::atomic<int> running = 0, ran = 0;
    std::atomic<bool> exceeded = false;
    std::deque<task> tasks;
    int scheduled = 0;
    for (int round = 0; round != 20; ++round) {
        if (round % 2 == 0)
            group.release();
        for (int i = 0; i != 50; ++i) {
            int const space = static_cast<int>(random() % 11);
            tasks.emplace_back([&, space] {
                if ((running += space) > 10)
                    exceeded = true;
                running -= space;
                ++ran;
            });
            group.schedule(tasks.back(), 1.0 + i % 3, space);
        }
        if (round % 2 != 0)
            group.release();
        group.conclude();
        group.acquire();
        scheduled += 50;
        ASSERT_EQ(ran, scheduled) << "round " << round;
    }
    EXPECT_FALSE(exceeded) << "seed " << seed;
}

TEST(thread_group_test, spaces_that_do_not_add_up_again_do_not_shrink_the_group) {
    // 1 - 0.3 - 0.1 + 0.3 + 0.1 is less than 1: without care, work that asks for
    // all of the space would wait for ever after that.
    thread_group group(3, 1.0, 65536);
    semaphore running(0, 0), first(0, 0), second(0, 0), third(0, 0);
    auto const held = [&running](semaphore& until) {
        return [&running, &until] {
            running.release();
            until.acquire();
        };
    };
    task large(held(first)), small(held(second)), whole([&] { third.release(); });
    task spaceless(held(third));  // as it takes none, it does not keep any back
    group.schedule(large, 1.0, 0.3);
    group.schedule(small, 1.0, 0.1);
    group.schedule(spaceless, 1.0, 0.0);
    group.release();
    for (int i = 0; i != 3; ++i)
        running.acquire();
    first.release();
    while (detail::inspector::free_space(group) < 0.8)  // the large one's is back
        thread_support::yield();
    second.release();
    group.schedule(whole, 1.0, 1.0);
    group.conclude();
    group.acquire();
}

TEST(thread_group_test, any_thread_schedules_also_from_inside_the_work) {
    constexpr int threads = 4, each = 500;
    thread_group group(2, 0.0, 65536);
    std::atomic<int> ran = 0;
    task leaf([&ran] { ++ran; });
    task branch([&] {
        group.schedule(leaf, 1.0, 0.0);
        ++ran;
    });
    group.release();
    {
        std::vector<std::jthread> clients;
        for (int i = 0; i != threads; ++i)
            clients.emplace_back([&] {
                allocator_group::global()->acquire_allocator();
                for (int n = 0; n != each; ++n)
                    group.schedule(branch, 1.0, 0.0);
                allocator_group::global()->release_allocator();
            });
    }
    task last([&] {
        while (ran != 2 * threads * each)
            thread_support::yield();
        group.conclude();
    });
    group.schedule(last, 1.0, 0.0);
    group.acquire();
    EXPECT_EQ(ran, 2 * threads * each);
}

TEST(thread_group_test, the_end_is_joined_piece_by_piece_and_opens_the_group_again) {
    thread_group group(2, 0.0, 65536);
    semaphore running(0, 0), proceed(0, 0);
    int ran = 0;
    task held([&] {
        running.release();
        proceed.acquire();
        ++ran;
    });
    for (int round = 1; round <= 2; ++round) {
        group.schedule(held, 1.0, 0.0);
        group.release();
        running.acquire();
        EXPECT_FALSE(group.try_acquire());
        group.conclude();
        EXPECT_FALSE(group.timed_acquire(time::now()));
        proceed.release();
        EXPECT_TRUE(group.timed_acquire(time::then(3600.0)));
        EXPECT_EQ(ran, round);
    }
}

TEST(thread_group_test, clear_discards_what_waits_and_leaves_what_runs) {
    thread_group group(1, 0.0, 65536);
    semaphore running(0, 0), proceed(0, 0);
    bool completed = false, discarded = true;
    task held([&] {
        running.release();
        proceed.acquire();
        completed = true;
    });
    task waiting([&] { discarded = false; });
    group.schedule(held, 1.0, 0.0);
    group.release();
    running.acquire();
    group.schedule(waiting, 1.0, 0.0);
    group.clear();
    proceed.release();
    group.conclude();
    group.acquire();
    EXPECT_TRUE(completed);
    EXPECT_TRUE(discarded);
    group.schedule(waiting, 1.0, 0.0);  // goes with the group
}

TEST(thread_group_test, a_thousand_starts_leave_neither_threads_nor_memory_behind) {
    thread_group group(3, 1.0, 65536);
    std::atomic<int> ran = 0;
    task counted([&ran] { ++ran; });
    group.schedule(counted, 1.0, 1.0);
    run(group);
    auto const idle = detail::thread_element_group::global()->size();
    // Blocks that workers freed for this thread come home when it flushes.
    allocator_group::global()->flush_allocator(false);
    for (int round = 0; round != 1000; ++round) {
        group.schedule(counted, 1.0, 1.0);
        run(group);
    }
    EXPECT_EQ(ran, 1001);
    EXPECT_EQ(detail::thread_element_group::global()->size(), idle);
}

TEST(thread_group_test, misuse_is_named) {
    auto const fails = [](char const* text) {
        return failed_check(text, "sources/ovel_thread_group.cpp");
    };
    task none([] {});
    EXPECT_DEATH(thread_group(0, 1.0, 65536), fails("_threads != 0 && space >= 0"));
    EXPECT_DEATH(thread_group(1, -1.0, 65536), fails("_threads != 0 && space >= 0"));
    char const* const bounds = "time_ > 0 && space_ >= 0 && space_ <= _space";
    EXPECT_DEATH(thread_group().schedule(none, 1.0, 1.0), fails(bounds));
    EXPECT_DEATH(thread_group(1, 1.0, 65536).schedule(none, 0.0, 0.5), fails(bounds));
    EXPECT_DEATH(thread_group(1, 1.0, 65536).schedule(none, 1.0, -0.5), fails(bounds));
    char const* const started = "_function != 0 && _acquired != _threads";
    EXPECT_DEATH(thread_group().acquire(), fails(started));
    EXPECT_DEATH(
        {
            thread_group group;
            run(group);
            group.try_acquire();
        },
        fails(started));
    auto const concluded = [&](auto misuse) {
        thread_group group;
        group.conclude();
        misuse(group);
    };
    EXPECT_DEATH(concluded([&](thread_group& group) { group.schedule(none, 1.0, 0.0); }),
                 fails("!_concluded"));
    EXPECT_DEATH(concluded([](thread_group& group) { group.clear(); }), fails("!_concluded"));
    EXPECT_DEATH(concluded([](thread_group& group) { group.conclude(); }), fails("!_concluded"));
    EXPECT_DEATH(
        {
            thread_group group;
            group.release();
            group.release();
        },
        fails("_acquired == _threads"));
    EXPECT_DEATH(
        {
            thread_group group;
            group.release();
        },
        fails("_acquired == _threads"));
    EXPECT_DEATH(
        {
            thread_group group;
            task thrower([] { throw 1; });
            group.schedule(thrower, 1.0, 0.0);
            run(group);
        },
        fails("(\"unexpected exception\", 0)"));
}

}  // namespace
