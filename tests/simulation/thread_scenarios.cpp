// Threads, the pool and thread groups: work runs once, space is never exceeded,
// and nothing is left waiting that could run.

#include "accounts.h"
#include "inspector.h"
#include "ovel_allocator_support.h"
#include "ovel_assure.h"
#include "ovel_atomic.h"
#include "ovel_thread.h"
#include "ovel_thread_group.h"
#include "ovel_time.h"
#include "simulation/simulation.h"

#include <deque>
#include <functional>
#include <utility>

namespace ovel::simulation {

namespace {

using detail::inspector;

class work : public thread_function {
public:
    explicit work(std::function<void()> body) : _body(std::move(body)) {}
    void operator()() override {
        _body();
    }

private:
    std::function<void()> _body;
};

// Joins a run in one of the ways there are, again and again until it is.
template <class Thread>
void join(Thread& run, unsigned int way) {
    if (way == 1)
        while (!run.try_acquire())
            Sleep(1);
    else if (way == 2)
        while (!run.timed_acquire(time::then(0.003))) {}
    else
        run.acquire();
}

// Clients borrow threads; a run has the stack it asked for and less than four times
// as much, and idle threads are used again.
registration const pool({
    .name = "pool_reuses_threads_that_fit",
    .run =
        [](unsigned int variant) {
            accounts books(variant % 2, true);
            bool const alike = variant / 2 == 0;
            constexpr unsigned int sizes[] = {16384, 65536, 100000, 524288, 0};
            unsigned int const clients = 2 + pick(2);
            detail::atomic<unsigned int> runs = 0;
            begin();
            {
                std::deque<worker> all;
                for (unsigned int each = 0; each != clients; ++each)
                    all.emplace_back([&, plan = pick(1000)] {
                        owned_allocator const own;
                        for (unsigned int run = 0; run != 3; ++run) {
                            unsigned int const size = alike ? 65536 : sizes[(plan >> run) % 5];
                            work job([&] {
                                unsigned int const given = stack_size();
                                assure(size == 0 ? given == 0 : given >= size && given / 4 < size);
                                ++runs;
                            });
                            thread borrowed(size);
                            borrowed.schedule(job);
                            borrowed.release();
                            join(borrowed, plan % 3);
                        }
                    });
            }
            assure(runs == clients * 3);
            // The time server, this thread, and the idle ones.
            unsigned int const idle = detail::thread_element_group::global()->size();
            assure(threads() == idle + 2);
            assure(idle >= 1 && (!alike || idle <= clients));
            books.settle_without_pool();
        },
    .variants = 4,
});

// Work that takes `space` of a group's budget of 10.
struct item : thread_function {
    struct tally {
        detail::atomic<int> space = 0;
        detail::atomic<unsigned int> runs = 0;
        HANDLE const added = CreateSemaphoreA(nullptr, 0, 100, nullptr);
        HANDLE const go = CreateSemaphoreA(nullptr, 0, 100, nullptr);

        tally() = default;
        tally(tally const&) = delete;
        tally& operator=(tally const&) = delete;
        ~tally() {
            CloseHandle(added);
            CloseHandle(go);
        }
    };
    static constexpr int budget = 10;

    // Schedules itself.
    void add() {
        group->schedule(*this, length, space);
        ReleaseSemaphore(all->added, 1, nullptr);
    }
    void operator()() override {
        assure(all->space.fetch_add(space) + space <= budget);
        allocator_support::deallocate(allocator_support::allocate(24));
        if (next != nullptr)
            next->add();
        if (waits)
            WaitForSingleObject(all->go, INFINITE);
        all->space.fetch_sub(space);
        ++all->runs;
    }

    thread_group* group = nullptr;
    tally* all = nullptr;
    int space = 0;
    unsigned int length = 1;
    item* next = nullptr;  // is scheduled by this one's run
    bool waits = false;    // until the scenario lets it go
};

constexpr unsigned int item_count = 6;
using items = item[item_count];

void make_items(items& made, thread_group& group, item::tally& all) {
    for (unsigned int each = 0; each != item_count; ++each) {
        made[each].group = &group;
        made[each].all = &all;
        // Many that are alike, many that need everything.
        constexpr int spaces[] = {0, 1, 3, 5, 6, 10};
        made[each].space = spaces[pick(6)];
        made[each].length = 1 + pick(2);
    }
}

// Work is scheduled before the start, by another thread and by work; all of it
// runs, and the group can be started again.
registration const group_runs_everything({
    .name = "group_keeps_its_space_and_runs_everything",
    .run =
        [](unsigned int variant) {
            bool const timed = variant / 2 == 1;
            accounts books(variant % 2, timed);
            {
                item::tally all;
                thread_group group(1 + pick(3), item::budget, 16384);
                items made;
                begin();
                for (unsigned int round = 1; round != 3; ++round) {
                    make_items(made, group, all);
                    made[5].add();
                    WaitForSingleObject(all.added, INFINITE);
                    group.clear();  // so it does not run
                    made[0].next = &made[3];
                    made[1].next = &made[4];
                    made[0].add();
                    group.release();
                    worker other([&] {
                        owned_allocator const own;
                        made[1].add();
                        made[2].add();
                    });
                    made[5].add();
                    for (unsigned int each = 0; each != item_count; ++each)
                        WaitForSingleObject(all.added, INFINITE);
                    group.conclude();
                    join(group, timed ? pick(3) : 0);
                    assure(all.runs == round * item_count && all.space == 0);
                    other.join();
                }
            }
            books.settle_without_pool();
        },
    .variants = 4,
});

// When nothing moves any more, either every thread works or what waits does not
// fit: a wake-up lost between them would leave both a thread and work for it.
registration const group_is_busy({
    .name = "group_leaves_nothing_waiting_that_fits",
    .run =
        [](unsigned int variant) {
            accounts books(variant);
            {
                item::tally all;
                thread_group group(2 + pick(2), item::budget, 16384);
                items made;
                make_items(made, group, all);
                for (item& each : made)
                    each.waits = true;
                // Threads that are still to come, or that wait for work.
                bool const starts_first = pick(2) == 0;
                if (starts_first) {
                    group.release();
                    settle();
                }
                // Few, so that threads are idle, or many, so that they are not.
                unsigned int const halves[] = {pick(4), pick(4)};
                begin();
                {
                    worker other([&] {
                        owned_allocator const own;
                        for (unsigned int each = 0; each != halves[1]; ++each)
                            made[3 + each].add();
                    });
                    if (!starts_first)
                        group.release();
                    for (unsigned int each = 0; each != halves[0]; ++each)
                        made[each].add();
                }
                while (all.runs != halves[0] + halves[1]) {
                    settle();
                    inspector::expect_busy(group);
                    ReleaseSemaphore(all.go, 1 + static_cast<LONG>(pick(2)), nullptr);
                    settle();
                }
                group.conclude();
                group.acquire();
            }
            books.settle_without_pool();
        },
    .variants = 2,
});

// A kernel that has no object left to give: wherever that strikes, the check that
// tells so ends the process, and nothing else fails before.
registration const refused_objects({
    .name = "kernel_objects_refused_are_reported",
    .run =
        [](unsigned int variant) {
            set_default_spin(2);
            expect_failure("_semaphore != 0");
            expect_failure("_thread != 0");
            expect_failure("mutex != 0");
            begin();
            refuse_objects(1 + pick(30));
            time::now();
            {
                thread_group group(2, item::budget, 16384);
                work nothing([] {});
                group.schedule(nothing, 1.0, 1.0);
                if (variant == 1)
                    group.conclude();
                group.release();
                allocator_group::global()->acquire_allocator();
                if (variant == 0)
                    group.conclude();
                group.acquire();
                allocator_group::global()->release_allocator();
            }
            assure(refused() == 0);
            balance();
        },
    .variants = 2,
});

}  // namespace

}  // namespace ovel::simulation
