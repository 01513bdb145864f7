// SPDX-License-Identifier: Apache-2.0
// Forks of a process with threads.
#include "ovel_posix.h"
#include "ovel_traffic.h"
#include "ovel_typed_nets.h"

#include <pthread.h>

namespace {

// Everything that a child may do, twice: the second round reuses what the first one's threads
// left behind. The child ends with `exit`, which waits for no thread of the parent.
void use_everything() {
    traffic::use_all();
    traffic::use_all();
    ovel::time const before = ovel::time::now();
    assure(ovel::time::now() >= before);
    ovel::allocator_recycler::global()->release(1.0);
    ovel::allocator_recycler::global()->recycle_capacity(1.0);
    std::exit(0);
}

// Registered before the library's own fork handlers, these run while the thread that forks holds
// the library's locks. They need new chunks, and hand over blocks of an allocator whose thread
// has ended.
constexpr std::size_t block_bytes = 700;
std::vector<void*> of_ended_thread, own_blocks;
bool handlers_use_memory = false;

void use_memory_in_handler() {
    if (!handlers_use_memory)
        return;
    for (int i = 0; i != 300; ++i)
        own_blocks.push_back(ovel_malloc(block_bytes));
    for (int i = 0; i != 1000; ++i) {
        ovel_free(of_ended_thread.back());
        of_ended_thread.pop_back();
    }
}

// A library's constructors run before those of the program, but after these.
void register_first(int, char**, char**) {
    pthread_atfork(use_memory_in_handler, use_memory_in_handler, use_memory_in_handler);
}
[[gnu::section(".preinit_array"), gnu::used]] void (*const first)(int, char**,
                                                                  char**) = register_first;

// Each kind of thread forks, beside threads that use all of the library. So does a child.
TEST(fork_test, the_child_of_any_thread_may_use_the_library) {
    auto const work = [] {
        EXPECT_TRUE(in_fork(use_everything));
    };
    traffic::over = false;
    auto const users = crew(traffic::kinds, traffic::use_until_over);
    traffic::fill_pool(30);
    for (int forked = 0; forked != 20; ++forked) {
        EXPECT_TRUE(in_fork([] {
            traffic::run_group();
            assure(in_fork(use_everything));
            use_everything();
        }));
        traffic::run_on<ovel::thread>(work);
        traffic::run_in_work_group(work);
        traffic::run_in_net(work);
    }
    traffic::over = true;
}

// On a thread that is lent an allocator by the first handler.
TEST(fork_test, handlers_that_run_while_the_locks_are_held_may_use_memory) {
    std::thread([] {
        for (int i = 0; i != 3000; ++i)
            of_ended_thread.push_back(ovel_malloc(block_bytes));
    }).join();
    handlers_use_memory = true;
    std::thread([] { EXPECT_TRUE(in_fork(use_everything)); }).join();
    handlers_use_memory = false;
    traffic::run_group();
    for (auto* const blocks : {&of_ended_thread, &own_blocks})
        while (!blocks->empty()) {
            ovel_free(blocks->back());
            blocks->pop_back();
        }
}

// The thread that forks has a scope open, whose group has no threads in the child.
TEST(fork_test, loops_without_a_group_run_in_the_child) {
    ovel::work_group group(2);
    ovel::task_scope here(group);
    EXPECT_TRUE(in_fork([] {
        assure(ovel::work_group::current() == nullptr);
        int sum = 0;
        ovel::parallel_for(0, 1000, [&](int begin, int end) { sum += end - begin; }, {.grain = 1});
        assure(sum == 1000);
    }));
}

TEST(fork_test, free_locks_are_free_in_the_child) {
    ovel::mutex plain;
    ovel::recursive_mutex recursive;
    ovel::timed_mutex timed;
    ovel::semaphore units(2, 0);
    EXPECT_TRUE(in_fork([&] {
        plain.acquire();
        recursive.acquire();
        units.acquire();
        units.acquire();
        assure(timed.timed_acquire(ovel::time::then(1.0)));
        assure(!timed.try_acquire() && !units.try_acquire());
        timed.release();
        recursive.release();
        plain.release();
    }));
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
    EXPECT_TRUE(in_fork([&] {
        run();
        assure(runs == 2);
    }));
}

// Forks and returns in the child. The parent ends as the child does.
void fork_and_return() {
    std::optional<int> const ended = end_of_fork();
    if (!ended)
        return;
    if (WIFSIGNALED(*ended))
        std::raise(WTERMSIG(*ended));
    std::_Exit(1);
}

// One of everything that has threads, running, and a pooled thread whose run has ended.
struct running {
    running() {
        for (ovel::thread* const each : {&lent, &done}) {
            each->schedule(each == &lent ? held : quick);
            each->release();
        }
        own.schedule(held);
        own.release();
        ended.acquire();
        group.release();
        place = net.insert_place(1);
        net.release();
        typed.start();
        until([&] { return ovel::detail::inspector::blocked(stopped) == 1; });
    }

    ovel::semaphore never{0, 0}, ended{0, 0};
    ovel::work<std::function<void()>> held{std::bind_front(&ovel::semaphore::acquire, &never)};
    ovel::work<std::function<void()>> quick{std::bind_front(&ovel::semaphore::release, &ended)};
    ovel::thread_base own;
    ovel::thread lent, done;
    ovel::thread_group group{2, 0.0, 32768};
    ovel::work_group crew{2};
    ovel::petri_net net{2, 0.0, 32768};
    ovel::petri_place* place;
    ovel::net typed{1};
    ovel::any token{1};
    // The calls of the parent's threads are still listed, although the net does not run.
    ovel::net stopped{1};
    ovel::place<int> empty = stopped.insert_place<int>("empty", 1);
    ovel::place<int> other = stopped.insert_place<int>("other", 1);
    std::jthread caller{[this] {
        empty.receive();
    }};
};

TEST(fork_death_test, using_what_runs_in_the_parent_fails_a_check) {
    char const* const base = "sources/ovel_thread_base.cpp";
    char const* const pooled = "sources/ovel_thread.cpp";
    char const* const group = "sources/ovel_thread_group.cpp";
    char const* const crew = "sources/ovel_task_crew.cpp";
    char const* const net = "sources/ovel_petri_net.cpp";
    char const* const gone = "!_element->inherited()";
    char const* const inherited = "!inherited()";
    struct {
        void (*use)(running&);
        char const* check;
        char const* file;
    } const misuses[] = {
        {[](running& of) { of.own.acquire(); },
         "WaitForSingleObject(_thread, INFINITE) == WAIT_OBJECT_0", base},
        {[](running& of) { std::ignore = of.own.try_acquire(); }, "r == WAIT_OBJECT_0", base},
        {[](running& of) { std::ignore = of.own.timed_acquire(ovel::time::then(9.0)); },
         "r == WAIT_OBJECT_0", base},
        {[](running& of) { of.lent.acquire(); }, gone, pooled},
        {[](running& of) { std::ignore = of.lent.try_acquire(); }, gone, pooled},
        {[](running& of) { of.done.acquire(); }, gone, pooled},
        {[](running& of) { of.group.acquire(); }, gone, pooled},
        {[](running& of) { of.group.schedule(of.quick, 1.0, 0.0); }, inherited, group},
        {[](running& of) { of.group.conclude(); }, inherited, group},
        {[](running& of) { of.group.clear(); }, inherited, group},
        {[](running& of) { of.group.release(); }, "_acquired == _threads", group},
        {[](running& of) { of.crew.submit([] {}); }, inherited, crew},
        {[](running& of) { of.crew.wait(); }, inherited, crew},
        {[](running& of) { of.crew.stop(); }, inherited, crew},
        {[](running& of) { ovel::task_scope const here(of.crew); }, inherited, crew},
        {[](running& of) { of.net.send(of.place, of.token); }, inherited, net},
        {[](running& of) { std::ignore = of.net.try_peek(of.place, of.token); }, inherited, net},
        {[](running& of) { of.net.acquire(); }, inherited, net},
        {[](running& of) { of.place->peek(of.token); }, inherited, net},
        {[](running& of) { of.place->receive(of.token); }, inherited, net},
        {[](running& of) { of.place->receive_skip(); }, inherited, net},
        {[](running& of) { of.place->send(of.token); }, inherited, net},
        {[](running& of) { of.place->send_skip(); }, inherited, net},
        {[](running& of) { of.typed.halt(); }, "!_net.inherited()", "includes/ovel_petri.h"},
        {[](running& of) { of.empty.send(1); }, inherited, net},
        {[](running& of) { std::ignore = of.other.receive_until(1ms); }, inherited, net},
        {[](running& of) { std::ignore = of.other.try_receive(); }, inherited, net},
        {[](running& of) { std::ignore = of.other.try_send(1); }, inherited, net},
        {[](running& of) { of.empty.close(); }, inherited, net},
    };
    for (auto const& each : misuses) {
        auto const misuse = [&] {
            auto* const parent = new running;
            fork_and_return();
            each.use(*parent);
            std::_Exit(0);
        };
        EXPECT_CHECK(misuse(), each.check, each.file);
    }
    auto const wait_for_children = [] {
        ovel::work_group parents(2);
        ovel::task_scope here(parents);
        fork_and_return();
        here.wait();
        std::_Exit(0);
    };
    EXPECT_CHECK(wait_for_children(), "!crew.inherited()", "includes/ovel_parallel.h");
}

TEST(fork_death_test, work_of_the_parent_that_returns_in_the_child_fails_a_check) {
    auto const in_group = [] {
        ovel::work job(fork_and_return);
        ovel::thread_group group(2, 0.0, 32768);
        group.schedule(job, 1.0, 0.0);
        group.release();
        group.conclude();
        group.acquire();
    };
    std::string const check = "process == this_process()";
    EXPECT_CHECK(traffic::run_on<ovel::thread>(fork_and_return), check,
                 "sources/ovel_thread_base.cpp");
    EXPECT_CHECK(in_group(), check, "sources/ovel_thread_group.cpp");
    EXPECT_CHECK(traffic::run_in_work_group(fork_and_return), check, "sources/ovel_task_crew.cpp");
    EXPECT_CHECK(traffic::run_in_net(fork_and_return), check, "sources/ovel_petri_net.cpp");
}

// A caller that is blocked in a net that was never started, or was joined, is not waited for.
// One that blocks in the child is let go there. Only then the net's memory is freed, which its
// token shows.
TEST(fork_test, a_net_that_blocks_threads_of_the_parent_may_be_destroyed_in_the_child) {
    for (bool const in_parent : {true, false})
        for (bool const has_run : {false, true}) {
            auto net = std::make_unique<ovel::net>(1);
            auto const place = net->insert_place<int>("place", 1);
            auto const token = std::make_shared<int>();
            net->insert_place<std::shared_ptr<int>>("full", 1).send(token);
            if (has_run) {
                net->start();
                net->halt();
                net->join();
            }
            auto const block_one = [&] {
                auto caller = crew(1, [&](int) { EXPECT_THROW(place.receive(), ovel::stopped); });
                until([&] { return ovel::detail::inspector::blocked(*net) == 1; });
                return caller;
            };
            std::vector<std::jthread> callers;
            if (in_parent)
                callers = block_one();
            EXPECT_TRUE(in_fork([&] {
                auto const own = in_parent ? crew(0, [](int) {}) : block_one();
                net.reset();
                assure(in_parent || token.use_count() == 1);
            }));
            net.reset();
        }
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
    ovel::allocator_recycler::global()->release(1.0);
    EXPECT_TRUE(in_fork([&] {
        group.reset();
        net.reset();
        lent.reset();
        traffic::run_group();
        std::exit(0);
    }));
    proceed.release();
    lent->acquire();
}

}  // namespace
