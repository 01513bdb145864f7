// SPDX-License-Identifier: Apache-2.0
// Threads, the pool and thread groups: work runs once, space is never exceeded, and work that
// fits does not wait while a thread is idle.
// Scopes and the threads of a work group: every child runs once, a waiter runs only descendants,
// and no thread sleeps while there is work for it.

#include "accounts.h"

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
            inspector::check_group(group);
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
void refused_objects(unsigned int) {
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
        group.release();
        thread_allocator const own;
        group.conclude();
        group.acquire();
    }
    assure(refused() == 0 && first != 1);
    balance();
}

// A scope in the tree of all that are open.
struct node {
    bool descends_from(node const* other) const {
        node const* each = this;
        while (each != nullptr && each != other)
            each = each->parent;
        return each == other;
    }
    node* parent;
};

// Grows trees of scopes. A thread knows the innermost scope that it opened, or of which it
// runs a child: what it runs meanwhile has to descend from that.
struct forest {
    work_group& group;
    unsigned int const threads_before = threads();
    detail::atomic<unsigned int> runs = 0;
    detail::atomic<unsigned int> forks = 0;
    thread_specific_ptr<node> context{};

    void run_child(node& scope, std::function<void()> const& body) {
        node* const before = context.get();
        assure(before == nullptr || scope.descends_from(before));
        assure(threads() <= threads_before);
        context.set(&scope);
        body();
        assure(context.get() == &scope);
        context.set(before);
        ++runs;
        inspector::check_crew(detail::task_crew::current_seat()->crew());
    }

    void grow(unsigned int depth) {
        node* const before = context.get();
        node scope{before};
        task_scope here(group);
        context.set(&scope);
        for (unsigned int children = 1 + pick(3); children != 0; --children) {
            ++forks;
            here.run([this, depth, &here, &scope] {
                run_child(scope, [&] {
                    if (pick(2) == 0) {
                        ++forks;
                        here.run([this, &scope] { run_child(scope, [] {}); });
                    }
                    if (depth != 0)
                        grow(depth - 1);
                });
            });
        }
        if (pick(2) == 0)
            here.wait();
        ++forks;
        here.run([this, &scope] { run_child(scope, [] {}); });
        here.wait();
        context.set(before);
    }
};

// Children and items that wait until the scenario releases them. When all threads are at rest,
// as many items have begun as there are threads for them: a lost wake-up would leave both an
// idle thread and work for it.
struct held_work {
    detail::atomic<unsigned int> inside = 0;
    detail::atomic<unsigned int> left = 0;  // that have not ended
    semaphore go = {0, 0};

    void operator()() {
        ++inside;
        go.acquire();
        --inside;
        --left;
    }
    // Ends them all, a few at a time, with room for so many at a time.
    void finish(unsigned int room) {
        while (left != 0) {
            settle();
            assure(inside == std::min<unsigned int>(room, left));
            for (unsigned int some = 1 + pick(inside); some != 0; --some)
                go.release();
        }
    }
};

// Work of the group and of threads that do not belong to it opens scopes; at times the
// group's threads sleep when that begins.
void each_child_runs_once(unsigned int variant) {
    accounts const books(variant % 2 * 2);
    begin();
    work_group group(1 + variant / 2);
    if (pick(2) == 0)
        settle();
    forest all{group};
    semaphore grown(0, 0);
    unsigned int const items = 1 + pick(2);
    // As a thread that waits in a scope does not take up the next item, however long it
    // may be, none begins inside another one.
    for (unsigned int i = 0; i != items; ++i)
        group.run([&] {
            assure(all.context.get() == nullptr);
            all.grow(1);
            grown.release();
        });
    // Queued behind the others, these end only after all scopes have.
    held_work longest;
    longest.left = pick(3);
    for (unsigned int i = longest.left; i != 0; --i)
        group.run(std::ref(longest), {.time = 0.5});
    all.grow(1);
    for (unsigned int i = 0; i != items; ++i)
        grown.acquire();
    longest.finish(group.threads());
    group.wait();
    assure(all.runs == all.forks);
    group.join();
}

// Children are forked one by one, by a thread that runs none itself meanwhile. So no later child
// wakes a thread that missed one because it was about to sleep or found other work. The thread that
// ends the last child must not access the scope afterwards: the next scope has the same address.
void each_child_finds_a_thread(unsigned int variant) {
    accounts const books(variant % 2 * 2);
    unsigned int const thread_count = 1 + variant / 2;
    begin();
    work_group group(thread_count);
    held_work held;
    for (unsigned int round = 0; round != 3; ++round) {
        task_scope here(group);
        unsigned int const children = 1 + pick(thread_count + 1);
        for (unsigned int forked = 1; forked <= children; ++forked) {
            ++held.left;
            here.run(std::ref(held));
            if (forked == children || pick(2) == 0) {
                settle();
                assure(held.inside == std::min(thread_count, forked));
            }
        }
        for (unsigned int each = 0; each != children; ++each)
            held.go.release();
        here.wait();
        assure(held.left == 0);
    }
}

// Items of the queue, each of which takes half of the space, or all of an infinite one, which is
// never used up. The end of one that takes all lets several begin.
void no_thread_sleeps_beside_items(unsigned int variant) {
    accounts const books(variant % 2 * 2);
    unsigned int const thread_count = 2 + variant / 2 % 2;
    bool const bounded = variant / 4 == 1;
    double const space = bounded ? 1.0 : INFINITY;
    begin();
    work_group group(thread_count, 2 * space);
    held_work held;
    if (pick(2) == 0)
        settle();
    held_work whole;
    whole.left = bounded ? pick(2) : 0;
    if (whole.left != 0)
        group.run([&] { whole(); }, {.space = 2 * space});
    unsigned int const items = 1 + pick(6);
    held.left = items;
    for (unsigned int i = 0; i != items; ++i)
        group.run([&] { held(); }, {.time = 1.0 + pick(2), .space = space});
    whole.finish(1);
    held.finish(bounded ? 2 : thread_count);
    group.wait();
}

registration const table{
    {.name = "pool_reuses_threads_that_fit", .run = pool, .variants = 8},
    {.name = "group_keeps_its_space_and_runs_everything", .run = group_runs, .variants = 6},
    {.name = "groups_bear_refused_blocks", .run = refused_blocks, .variants = 2},
    {.name = "kernel_objects_refused_are_reported", .run = refused_objects},
    {.name = "scopes_run_each_child_once", .run = each_child_runs_once, .variants = 6},
    {.name = "each_child_finds_a_thread", .run = each_child_finds_a_thread, .variants = 6},
    {.name = "no_thread_sleeps_beside_items", .run = no_thread_sleeps_beside_items, .variants = 8},
};

}  // namespace

}  // namespace ovel::simulation
