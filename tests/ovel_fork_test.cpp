// SPDX-License-Identifier: Apache-2.0
// Forks of a process with threads.

#include "ovel_mutex.h"
#include "ovel_petri.h"
#include "ovel_semaphore.h"
#include "ovel_test.h"
#include "ovel_thread.h"
#include "ovel_thread_base.h"
#include "ovel_thread_group.h"
#include "ovel_traffic.h"
#include "ovel_work.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

// Forks, and returns the status of the child once it has run `work`; -1 if that takes
// more than a minute.
template <class Work>
int status_of_fork(Work const& work) {
    pid_t const child = fork();
    if (child == 0) {
        work();
        _exit(0);
    }
    int status = -1;
    if (child < 0)
        return status;
    auto const last = std::chrono::steady_clock::now() + 60s;
    while (waitpid(child, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > last) {
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
            return -1;
        }
        std::this_thread::sleep_for(1ms);
    }
    return status;
}

// Everything that a child may do, twice: the second round reuses what the first one's threads
// left behind. The child ends with `exit`, which waits for no thread of the parent.
void use_everything() {
    for (int round = 0; round != 2; ++round) {
        traffic::fill_pool(3);
        for (int kind = 0; kind != traffic::kinds; ++kind)
            traffic::use(kind);
    }
    ovel::time const before = ovel::time::now();
    assure(ovel::time::now() >= before);
    ovel::allocator_recycler::global()->release(1.0);
    ovel::allocator_recycler::global()->recycle_capacity(1.0);
    std::exit(0);
}

// `run` runs work that forks, beside threads that use all of the library.
void fork_beside_traffic(int forks, std::function<void(std::function<void()>)> const& run) {
    traffic::over = false;
    auto const users = crew(traffic::kinds, traffic::use_until_over);
    traffic::fill_pool(30);
    for (int forked = 0; forked != forks; ++forked)
        run([] { EXPECT_EQ(status_of_fork(use_everything), 0); });
    traffic::over = true;
}

TEST(fork_test, the_child_of_a_foreign_thread_may_use_the_library) {
    fork_beside_traffic(40, [](auto const& work) { work(); });
}

TEST(fork_test, the_child_of_a_child_may_use_the_library) {
    EXPECT_EQ(status_of_fork([] {
                  traffic::run_group();
                  assure(status_of_fork(use_everything) == 0);
                  traffic::run_group();
              }),
              0);
}

TEST(fork_test, the_child_of_a_pooled_thread_may_use_the_library) {
    fork_beside_traffic(20, [](auto const& work) {
        ovel::work job(work);
        ovel::thread pooled;
        pooled.schedule(job);
        pooled.release();
        pooled.acquire();
    });
}

TEST(fork_test, the_child_of_a_worker_may_use_the_library) {
    fork_beside_traffic(20, [](auto const& work) {
        ovel::work_group group(2);
        group.submit(work).get();
        group.join();
    });
}

TEST(fork_test, the_child_of_a_firing_may_use_the_library) {
    fork_beside_traffic(20, [](auto const& work) {
        ovel::net net(2);
        auto const place = net.insert_place<int>("place", 1);
        net.insert_transition("fork", ovel::from(place), [&](int) { work(); });
        net.start();
        place.send(1);
        net.join();
    });
}

TEST(fork_test, free_locks_are_free_in_the_child) {
    ovel::mutex plain;
    ovel::recursive_mutex recursive;
    ovel::timed_mutex timed;
    ovel::semaphore units(2, 0);
    EXPECT_EQ(status_of_fork([&] {
                  plain.acquire();
                  recursive.acquire();
                  units.acquire();
                  units.acquire();
                  assure(timed.timed_acquire(ovel::time::then(1.0)));
                  assure(!timed.try_acquire() && !units.try_acquire());
                  timed.release();
                  recursive.release();
                  plain.release();
              }),
              0);
}

TEST(fork_test, stopped_groups_and_nets_may_be_started_in_the_child) {
    ovel::thread_group group(2, 0.0, 32768);
    ovel::petri_net net(2, 0.0, 32768);
    int runs = 0;
    ovel::work counted([&] { ++runs; });
    auto const run = [&] {
        group.release();
        group.schedule(counted, 1.0, 0.0);
        group.conclude();
        group.acquire();
        net.release();
        net.acquire();
    };
    run();
    EXPECT_EQ(status_of_fork([&] {
                  run();
                  assure(runs == 2);
              }),
              0);
}

// Ends like a child that runs `work`.
template <class Work>
void end_as_in_fork(Work const& work) {
    int const status = status_of_fork(work);
    if (WIFSIGNALED(status))
        std::raise(WTERMSIG(status));
    std::_Exit(1);
}

TEST(fork_death_test, joining_a_thread_of_the_parent_fails_a_check) {
    ovel::semaphore never(0, 0);
    ovel::work held([&] { never.acquire(); });
    auto const in_fork = [&](auto&& driven, auto const& use) {
        driven.schedule(held);
        driven.release();
        end_as_in_fork([&] { use(driven); });
    };
    std::string const base = "sources/ovel_thread_base.cpp";
    EXPECT_CHECK(in_fork(ovel::thread_base(), [](auto& own) { own.acquire(); }),
                 "WaitForSingleObject(_thread, INFINITE) == WAIT_OBJECT_0", base);
    EXPECT_CHECK(
        in_fork(ovel::thread_base(), [](auto& own) { static_cast<void>(own.try_acquire()); }),
        "r == WAIT_OBJECT_0", base);
    EXPECT_CHECK(
        in_fork(ovel::thread_base(),
                [](auto& own) { static_cast<void>(own.timed_acquire(ovel::time::then(9.0))); }),
        "r == WAIT_OBJECT_0", base);
    std::string const pooled = "sources/ovel_thread.cpp";
    EXPECT_CHECK(in_fork(ovel::thread(), [](auto& lent) { lent.acquire(); }),
                 "!_element->inherited()", pooled);
    EXPECT_CHECK(in_fork(ovel::thread(), [](auto& lent) { static_cast<void>(lent.try_acquire()); }),
                 "!_element->inherited()", pooled);
}

// The pooled thread itself does not exist in the child.
TEST(fork_death_test, joining_a_run_that_ended_in_the_parent_fails_a_check) {
    auto const in_fork = [] {
        ovel::semaphore done(0, 0);
        ovel::work work([&] { done.release(); });
        ovel::thread lent;
        lent.schedule(work);
        lent.release();
        done.acquire();
        end_as_in_fork([&] { lent.acquire(); });
    };
    EXPECT_CHECK(in_fork(), "!_element->inherited()", "sources/ovel_thread.cpp");
}

TEST(fork_death_test, using_a_group_that_runs_in_the_parent_fails_a_check) {
    auto const in_fork = [](auto const& use) {
        ovel::thread_group group(2, 0.0, 32768);
        group.release();
        end_as_in_fork([&] { use(group); });
    };
    ovel::thread_function nothing;
    std::string const file = "sources/ovel_thread_group.cpp";
    EXPECT_CHECK(in_fork([&](auto& group) { group.schedule(nothing, 1.0, 0.0); }), "!inherited()",
                 file);
    EXPECT_CHECK(in_fork([](auto& group) { group.conclude(); }), "!inherited()", file);
    EXPECT_CHECK(in_fork([](auto& group) { group.clear(); }), "!inherited()", file);
    EXPECT_CHECK(in_fork([](auto& group) { group.release(); }), "_acquired == _threads", file);
    EXPECT_CHECK(in_fork([](auto& group) { group.acquire(); }), "!_element->inherited()",
                 "sources/ovel_thread.cpp");
    auto const submit_in_fork = [] {
        ovel::work_group group(2);
        end_as_in_fork([&] { group.submit([] {}); });
    };
    EXPECT_CHECK(submit_in_fork(), "!inherited()", "sources/ovel_task_crew.cpp");
}

TEST(fork_death_test, using_a_net_that_runs_in_the_parent_fails_a_check) {
    auto const in_fork = [](auto const& use) {
        ovel::petri_net net(2, 0.0, 32768);
        ovel::petri_place* const place = net.insert_place(1);
        net.release();
        end_as_in_fork([&] { use(net, place); });
    };
    std::string const file = "sources/ovel_petri_net.cpp";
    ovel::any token(1);
    EXPECT_CHECK(in_fork([&](auto& net, auto* place) { net.send(place, token); }), "!inherited()",
                 file);
    EXPECT_CHECK(
        in_fork([&](auto& net, auto* place) { static_cast<void>(net.try_peek(place, token)); }),
        "!inherited()", file);
    EXPECT_CHECK(in_fork([](auto& net, auto*) { net.acquire(); }), "!inherited()", file);
    EXPECT_CHECK(in_fork([&](auto&, auto* place) { place->send(token); }), "!inherited()", file);
    auto const halt_in_fork = [] {
        ovel::net net(1);
        net.start();
        end_as_in_fork([&] { net.halt(); });
    };
    EXPECT_CHECK(halt_in_fork(), "!_net.inherited()", "includes/ovel_petri.h");
}

TEST(fork_death_test, work_of_the_parent_that_returns_in_the_child_fails_a_check) {
    // Returns in the child. The parent ends like it.
    auto const fork_and_return = [] {
        if (pid_t const child = fork(); child != 0) {
            int status = -1;
            waitpid(child, &status, 0);
            if (WIFSIGNALED(status))
                std::raise(WTERMSIG(status));
            std::_Exit(1);
        }
    };
    auto const in_thread = [&] {
        ovel::work job(fork_and_return);
        ovel::thread lent;
        lent.schedule(job);
        lent.release();
        lent.acquire();
    };
    auto const in_group = [&] {
        ovel::work job(fork_and_return);
        ovel::thread_group group(2, 0.0, 32768);
        group.schedule(job, 1.0, 0.0);
        group.release();
        group.conclude();
        group.acquire();
    };
    auto const in_work_group = [&] {
        ovel::work_group group(1);
        group.submit(fork_and_return).get();
        group.join();
    };
    auto const in_net = [&] {
        ovel::net net(1);
        auto const place = net.insert_place<int>("place", 1);
        net.insert_transition("fork", ovel::from(place), [&](int) { fork_and_return(); });
        net.start();
        place.send(1);
        net.join();
    };
    std::string const check = "process == this_process()";
    EXPECT_CHECK(in_thread(), check, "sources/ovel_thread_base.cpp");
    EXPECT_CHECK(in_group(), check, "sources/ovel_thread_group.cpp");
    EXPECT_CHECK(in_work_group(), check, "sources/ovel_task_crew.cpp");
    EXPECT_CHECK(in_net(), check, "sources/ovel_petri_net.cpp");
}

// As at the end of a child that exits.
TEST(fork_test, objects_that_run_in_the_parent_may_be_destroyed_in_the_child) {
    auto group = std::make_unique<ovel::work_group>(2);
    auto net = std::make_unique<ovel::net>(2);
    net->start();
    ovel::semaphore proceed(0, 0);
    ovel::work held([&] { proceed.acquire(); });
    auto lent = std::make_unique<ovel::thread>();
    lent->schedule(held);
    lent->release();
    EXPECT_EQ(status_of_fork([&] {
                  group.reset();
                  net.reset();
                  lent.reset();
                  traffic::run_group();
              }),
              0);
    proceed.release();
    lent->acquire();
}

}  // namespace
