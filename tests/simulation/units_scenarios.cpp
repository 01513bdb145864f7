// SPDX-License-Identifier: Apache-2.0
// The word that semaphores and mutexes of platform/linux consist of, on a simulated futex: no
// unit is lost, no wake-up is lost, and a post without sleepers, or with a wake-up under way,
// makes no system call.

#include "linux/units.h"

#include "accounts.h"
#include "linux/futex_word.h"
#include "linux/processors.h"
#include "simulation/heap.h"
#include "simulation/scheduler.h"

namespace ovel {

namespace {

// Threads that sleep on a word and that no wake-up has chosen yet.
struct futex_sleeper {
    void const* word;
    simulation::threads_mask thread;
};
std::vector<futex_sleeper> futex_sleepers;
bool polls;
unsigned int waits, wakes;  // system calls

}  // namespace

namespace detail {

bool one_processor() {
    return !polls;
}

deadline::deadline(DWORD milliseconds) : _never(milliseconds == INFINITE), _when{} {
    if (!_never)
        _when.tv_nsec = static_cast<long>(simulation::deadline_after(milliseconds));
}

// Like the system's: compares and falls asleep in one step, and may return without cause.
bool futex_wait(void const* word, std::uint32_t value, deadline const& until) {
    using namespace simulation;
    point(operation::wait, word, __builtin_return_address(0));
    count_kernel_call();
    ++waits;
    if (simulation::heap::is_stray(word))
        fail("a thread waits on freed memory");
    if (*static_cast<std::uint32_t const*>(word) != value || pick(6) == 0)
        return true;
    threads_mask const self = calling_thread();
    futex_sleepers.push_back({word, self});
    simulation::block(until.never() ? simulation::never
                                    : static_cast<std::uint64_t>(until.when().tv_nsec));
    return std::erase_if(futex_sleepers, [=](auto const& each) { return each.thread == self; }) ==
           0;
}

void futex_wake(void const* word, int threads) {
    using namespace simulation;
    point(operation::post, word, __builtin_return_address(0));
    count_kernel_call();
    ++wakes;
    for (; threads != 0; --threads) {
        auto const first = std::partition(futex_sleepers.begin(), futex_sleepers.end(),
                                          [=](auto const& each) { return each.word != word; });
        if (first == futex_sleepers.end())
            return;
        auto const chosen = first + pick(static_cast<unsigned int>(futex_sleepers.end() - first));
        make_ready(chosen->thread);
        futex_sleepers.erase(chosen);
    }
}

}  // namespace detail

}  // namespace ovel

namespace ovel::simulation {

namespace {

using detail::units;

constexpr LONG most = 2147483647;

// On the simulated runtime heap, where an access after the end fails the run.
struct destroy {
    void operator()(units* each) const {
        std::destroy_at(each);
        heap::deallocate(each);
    }
};
using owned_units = std::unique_ptr<units, destroy>;

owned_units make_units(LONG count) {
    futex_sleepers.clear();
    waits = wakes = 0;
    polls = pick(2) == 0;
    return owned_units(new (heap::allocate(sizeof(units))) units(count));
}

// Takers with and without deadlines take exactly what posters post, in bunches: a lost
// wake-up leaves a taker asleep. Afterwards nobody counts as asleep.
void takers_and_posters(unsigned int variant) {
    owned_units const shared = make_units(0);
    unsigned int const takers = 1 + pick(3), each_takes = 1 + pick(2);
    begin();
    {
        std::deque<worker> all;
        for (unsigned int taker = 0; taker != takers; ++taker)
            all.emplace_back([&, taker] {
                // A few deadlines only: a schedule may prefer this thread to the posters.
                unsigned int timeouts = variant == 1 ? taker + 1 : 0;
                for (unsigned int taken = 0; taken != each_takes;) {
                    DWORD const patience = timeouts != 0 ? pick(3) : INFINITE;
                    std::uint64_t const start = nanoseconds();
                    if (shared->take(patience)) {
                        ++taken;
                    } else {
                        assure(nanoseconds() - start >= patience * std::uint64_t{1'000'000});
                        --timeouts;
                    }
                }
            });
        unsigned int const half = takers * each_takes / 2;
        worker other([&] {
            for (unsigned int left = half; left != 0; --left)
                assure(shared->post(1, most));
        });
        for (unsigned int left = takers * each_takes - half; left != 0;) {
            unsigned int const bunch = 1 + pick(left);
            assure(shared->post(static_cast<LONG>(bunch), most));
            left -= bunch;
        }
    }
    assure(!shared->take(0) && futex_sleepers.empty());
    unsigned int const calls = kernel_calls();
    assure(shared->post(2, 3) && !shared->post(2, 3) && shared->post(1, 3));
    for (unsigned int left = 3; left != 0; --left)
        assure(shared->take(INFINITE));
    assure(!shared->take(0) && kernel_calls() == calls);
}

// Threads take and post one unit over and over, with and without deadlines. One that sleeps is
// woken once, however often the unit passes before it runs.
void wakes_once(unsigned int variant) {
    owned_units const shared = make_units(1);
    detail::atomic<unsigned int> inside = 0;
    auto const body = [&] {
        for (unsigned int round = 0; round != 3; ++round) {
            if (!shared->take(variant == 1 && round == 1 ? 1 : INFINITE))
                continue;
            assure(inside.fetch_add(1) == 0 && inside.fetch_sub(1) == 1);
            assure(shared->post(1, 1));
        }
    };
    begin();
    {
        std::deque<worker> others;
        for (unsigned int other = 1 + pick(2); other != 0; --other)
            others.emplace_back(body);
        body();
    }
    assure(shared->take(0) && futex_sleepers.empty());
    assure(wakes <= waits);
}

// The thread that takes the last unit destroys the word, while the post that made the unit
// has not returned.
void last_taker(unsigned int variant) {
    owned_units shared = make_units(0);
    begin();
    worker poster([&subject = *shared] { assure(subject.post(1, most)); });
    if (variant == 0 || !shared->take(pick(2)))
        assure(shared->take(INFINITE));
    shared.reset();
}

registration const table{
    {.name = "futex_word_loses_no_unit_and_no_wake_up", .run = takers_and_posters, .variants = 2},
    {.name = "futex_word_wakes_a_sleeper_once", .run = wakes_once, .variants = 2},
    {.name = "futex_word_may_be_destroyed_by_the_last_taker", .run = last_taker, .variants = 2},
};

}  // namespace

}  // namespace ovel::simulation
