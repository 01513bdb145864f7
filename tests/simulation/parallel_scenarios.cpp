// SPDX-License-Identifier: Apache-2.0
// Scopes and the threads of a work group: every child runs once, a waiter runs only descendants,
// and no thread sleeps while there is work for it.

#include "accounts.h"
#include "ovel_parallel.h"
#include "ovel_thread_specific_ptr.h"

#include <functional>

namespace ovel::simulation {

namespace {

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
        unsigned int const children = 1 + pick(3);
        for (unsigned int i = 0; i != children; ++i) {
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
// wakes a thread that missed one because it was about to sleep or found other work.
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

// Items of the queue, each of which takes a unit of space where that is bounded.
void no_thread_sleeps_beside_items(unsigned int variant) {
    accounts const books(variant % 2 * 2);
    unsigned int const thread_count = 2 + variant / 2 % 2;
    bool const bounded = variant / 4 == 1;
    begin();
    work_group group(thread_count, 2.0);
    held_work held;
    if (pick(2) == 0)
        settle();
    unsigned int const items = 1 + pick(6);
    held.left = items;
    for (unsigned int i = 0; i != items; ++i)
        group.run([&] { held(); }, {.time = 1.0 + pick(2), .space = bounded ? 1.0 : 0.0});
    held.finish(bounded ? 2 : thread_count);
    group.wait();
}

// The thread that ends the last child must not access the scope afterwards: the next scope has
// the same address.
void short_scopes_end(unsigned int variant) {
    accounts const books(variant * 2);
    begin();
    work_group group(1);
    unsigned int sum = 0;
    for (unsigned int round = 0; round != 4; ++round) {
        unsigned int left = 0, right = 0;
        parallel_invoke(
            group, [&] { left = 1; },
            [&] {
                if (pick(2) == 0)
                    settle();
                right = 1;
            });
        sum += left + right;
    }
    assure(sum == 8);
    assure(parallel_reduce(
               group, 0u, 9u, 0u,
               [](unsigned int begin, unsigned int end, unsigned int start) {
                   return start + end - begin;
               },
               std::plus<>(), 1) == 9);
}

registration const table{
    {.name = "scopes_run_each_child_once", .run = each_child_runs_once, .variants = 6},
    {.name = "each_child_finds_a_thread", .run = each_child_finds_a_thread, .variants = 6},
    {.name = "no_thread_sleeps_beside_items", .run = no_thread_sleeps_beside_items, .variants = 8},
    {.name = "short_scopes_end", .run = short_scopes_end, .variants = 2},
};

}  // namespace

}  // namespace ovel::simulation
