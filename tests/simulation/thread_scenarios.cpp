// SPDX-License-Identifier: Apache-2.0
// Threads, the pool and thread groups: work runs once, space is never exceeded, and work that
// fits does not wait while a thread is idle.

#include "accounts.h"
#include "ovel_allocator_support.h"
#include "ovel_parallel.h"

namespace ovel::simulation {

namespace {

// Clients borrow threads. A run has the stack it asked for and less than four times as much, and
// idle threads are used again. The pool ends a thread that it has no memory to keep. In the last
// variants the process ends meanwhile, which ends idle threads; the clients go on as before.
void pool(unsigned int variant) {
    accounts const books(variant % 2, true);
    bool const alike = variant / 2 != 1, refuses = variant / 2 == 2, ends = variant / 2 == 3;
    constexpr unsigned int sizes[] = {16384, 65536, 100000, 524288, 0};
    unsigned int const clients = 2 + pick(2);
    detail::atomic<unsigned int> runs = 0;
    auto const borrow = [&] {
        unsigned int const size = alike ? 65536 : sizes[pick(5)];
        work job([&] {
            unsigned int const given = stack_size();
            assure(size == 0 ? given == 0 : given >= size && given / 4 < size);
            ++runs;
        });
        thread borrowed(size);
        borrowed.schedule(job);
        borrowed.release();
        join(borrowed, pick(3));
    };
    if (ends) {
        client one(borrow), two(borrow), three(borrow);
    }
    begin();
    if (refuses) {
        expect_failure("(\"unexpected exception\", 0)");
        refuse_blocks(1 + pick(8 * clients));
    }
    {
        std::deque<client> all;
        for (unsigned int each = 0; each != clients; ++each)
            all.emplace_back([&] {
                for (unsigned int run = 0; run != 3; ++run)
                    borrow();
            });
        if (ends)
            all.emplace_back([] { inspector::empty_pool(); });
    }
    assure(runs == clients * 3 + (ends ? 3 : 0));
    // The time server, this thread, and the idle ones.
    unsigned int const idle = detail::thread_element_group::global()->size();
    assure(threads() == idle + 2);
    assure((idle >= 1 || ends || refused() != 0) && (!alike || idle <= (ends ? 3 : clients)));
}

// The process ends while another thread starts the recycler, whose thread ends then,
// whichever comes first.
void recycler_end(unsigned int variant) {
    accounts const books(variant % 2, true);
    begin();
    {
        client starter([] { allocator_recycler::global()->release(1.0); });
        client ender([] { inspector::stop_recycler(); });
    }
    inspector::stop_recycler();
    assure(threads() == 2);
}

// Work that takes `space` tenths of a group's budget. In binary tenths do not add up to it.
struct item : thread_function {
    static constexpr int budget = 10;

    // What all have in common.
    struct tally {
        bool waits;  // each until the scenario lets it go
        thread_group group = {1 + pick(3), 1.0, 16384};
        detail::atomic<int> space = 0;
        detail::atomic<unsigned int> runs = 0;
        semaphore added = {0, 0};
        semaphore go = {0, 0};
    };

    // Schedules itself.
    void add() {
        all->group.schedule(*this, length, space / 10.0);
        inspector::check_group(all->group);
        all->added.release();
    }
    void operator()() override {
        inspector::check_group(all->group);
        assure(all->space.fetch_add(space) + space <= budget);
        allocator_support::deallocate(allocator_support::allocate(24));
        if (next != nullptr)
            next->add();
        if (all->waits)
            all->go.acquire();
        all->space.fetch_sub(space);
        ++all->runs;
    }

    tally* all = nullptr;
    int space = 0;
    unsigned int length = 1;
    item* next = nullptr;  // is scheduled by this one's run
};

// Work is scheduled before the start or after it, by another thread and by work; all of it runs,
// and the group can be started again. When all threads are at rest, either every thread works or
// the waiting items do not fit: a lost wake-up would leave an idle thread and work for it.
void group_runs(unsigned int variant) {
    bool const timed = variant / 2 % 2 == 1;
    accounts const books(variant % 2, timed);
    item::tally all = {.waits = variant / 4 == 1};
    thread_group& group = all.group;
    item made[8];
    begin();
    for (unsigned int expected = 0, round = 0; round != 2; ++round) {
        for (item& each : made) {
            // Many that are alike, many that need everything.
            constexpr int spaces[] = {0, 1, 2, 3, 4, 7, 10};
            each.all = &all;
            each.space = spaces[pick(7)];
            each.length = 1 + pick(2);
        }
        made[0].next = &made[6];
        made[3].next = &made[7];
        made[5].add();
        all.added.acquire();
        group.clear();  // so it does not run
        // Few, so that threads are idle, or many, so that they are not.
        unsigned int const mine = pick(4), others = pick(4);
        unsigned int const added = mine + others + (mine != 0) + (others != 0);
        expected += added;
        // Threads that are still to come, or that wait for work.
        bool const starts_first = pick(2) == 0;
        if (starts_first) {
            group.release();
            settle();
        }
        client other([&] {
            for (unsigned int each = 0; each != others; ++each)
                made[3 + each].add();
        });
        if (!starts_first)
            group.release();
        for (unsigned int each = 0; each != mine; ++each)
            made[each].add();
        while (all.waits && all.runs != expected) {
            settle();
            inspector::expect_busy(group);
            all.go.release();
            settle();
        }
        for (unsigned int each = 0; each != added; ++each)
            all.added.acquire();
        group.conclude();
        join(group, timed ? pick(3) : 0);
        assure(all.runs == expected && all.space == 0);
        inspector::check_group(group);
    }
}

// With a block refused while groups are built, started and given work, each call throws
// having changed nothing, or the process ends with a message. What was scheduled runs.
void refused_blocks(unsigned int variant) {
    accounts const books(variant);
    expect_failure("(\"unexpected exception\", 0)");
    begin();
    refuse_blocks(1 + pick(24), 1 + pick(2));
    detail::atomic<unsigned int> runs = 0;
    work job([&] { ++runs; });
    auto const group = retried([] { return std::make_unique<thread_group>(2u, 1.0, 16384u); });
    for (unsigned int expected = 2, round = 0; round != 2; ++round, expected += 2) {
        retried([&] { return group->schedule(job, 1.0, 1.0); });
        retried([&] { return group->release(); });
        retried([&] { return group->schedule(job, 2.0, 0.5); });
        group->conclude();
        group->acquire();
        assure(runs == expected);
    }
    refuse_blocks(1 + pick(24), 1 + pick(2));
    auto const other = retried([] { return std::make_unique<work_group>(1 + pick(2)); });
    retried([&] { return other->run([&] { ++runs; }); });
    auto result = retried([&] { return other->submit([&] { return ++runs; }); });
    // This thread's first scope needs a seat.
    retried([&] {
        task_scope here(*other);
        here.run([&] { ++runs; });
        here.wait();
    });
    other->wait();
    assure(runs == 7 && result.get() >= 5);
    other->join();
}

// The kernel refuses an object: the check that reports it ends the process, and nothing else
// fails before.
void refused_objects(unsigned int variant) {
    set_default_spin(2);
    expect_failure("_semaphore != 0");
    expect_failure("_thread != 0");
    expect_failure("mutex != 0");
    begin();
    unsigned int const first = 1 + pick(30);
    refuse_objects(first);
    time::now();
    {
        thread_group group(2, 1.0, 16384);
        work nothing([] {});
        group.schedule(nothing, 1.0, 1.0);
        if (variant == 1)
            group.conclude();
        group.release();
        thread_allocator const own;
        if (variant == 0)
            group.conclude();
        group.acquire();
    }
    assure(refused() == 0 && first != 1);
    balance();
}

registration const table{
    {.name = "pool_reuses_threads_that_fit", .run = pool, .variants = 8},
    {.name = "recycler_ends_with_the_process_that_starts_it", .run = recycler_end, .variants = 2},
    {.name = "group_keeps_its_space_and_runs_everything", .run = group_runs, .variants = 6},
    {.name = "groups_bear_refused_blocks", .run = refused_blocks, .variants = 2},
    {.name = "kernel_objects_refused_are_reported", .run = refused_objects, .variants = 2},
};

}  // namespace

}  // namespace ovel::simulation
