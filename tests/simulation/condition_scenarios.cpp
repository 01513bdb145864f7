// SPDX-License-Identifier: Apache-2.0
// Conditions and barriers, with releases and deadlines racing. Events and latches: all that wait
// are let go, and nobody else. Deadlines on the caller's own clock: no wait ends before that clock
// reaches the deadline, and a timeout takes one wait and two readings.

#include "accounts.h"

#include <bit>

namespace ovel::simulation {

namespace {

// Which threads may return from a wait, recorded under the mutex. A release of all names
// every waiting thread; a release of one allows one of the threads that wait then. Sets of
// threads are masks.
struct permits {
    void wait(unsigned int thread) {
        forget(thread);
        waits |= 1u << thread;
    }
    void release_all() {
        named |= std::exchange(waits, 0);
        ones = 0;
    }
    void release_one() {
        allowed |= waits;
        ++ones;
    }
    // `thread` returned from its wait because it was released.
    void leave(unsigned int thread) {
        bool const by_name = (named >> thread & 1) != 0;
        assure(by_name || ((allowed >> thread & 1) != 0 && ones != 0));
        ones -= !by_name;
        forget(thread);
    }
    // Or because of its deadline. A unit meant for it alone goes with it.
    void give_up(unsigned int thread) {
        forget(thread);
        ones = std::min(ones, static_cast<unsigned int>(std::popcount(waits)));
    }
    void forget(unsigned int thread) {
        for (unsigned int* each : {&waits, &named, &allowed})
            *each &= ~(1u << thread);
    }

    unsigned int waits = 0, named = 0, allowed = 0, ones = 0;
};

// Threads go to sleep, and each arrival is followed by one release, of one thread or of
// all, with the mutex held or after it. So every thread wakes, and each was asleep when it
// was released.
template <class Condition, class Mutex>
void wake_all_sleepers(unsigned int spin) {
    constexpr bool timed = std::is_same_v<Condition, timed_condition>;
    open_books(timed, spin);
    Mutex lock(spin);
    Condition changed(spin);
    permits permitted;
    unsigned int const sleepers = walks() ? 2 : 2 + pick(2);
    unsigned int const rounds = walks() ? 1 : 1 + pick(2);
    bool const releases_inside = pick(3) != 0;
    HANDLE const arrived = CreateSemaphoreA(nullptr, 0, 100, nullptr);
    time const deadline = timed ? time::then(0.5) : time();
    auto const sleep = [&](unsigned int me, bool hurried, unsigned int depth) {
        for (unsigned int each = 0; each != depth; ++each)
            lock.acquire();
        permitted.wait(me);
        ReleaseSemaphore(arrived, 1, nullptr);
        bool released = true;
        if constexpr (timed)
            released = !hurried || changed.timed_acquire(lock, deadline);
        if (!hurried)
            changed.acquire(lock);
        if (!released)
            permitted.give_up(me);
        else if (releases_inside)
            permitted.leave(me);
        for (unsigned int each = 0; each != depth; ++each)
            lock.release();
    };
    begin();
    {
        std::deque<worker> all;
        for (unsigned int me = 0; me != sleepers; ++me)
            all.emplace_back([&, me, hurried = timed && pick(3) != 0,
                              depth = is_reentrant<Mutex> ? 1 + pick(2) : 1] {
                for (unsigned int round = 0; round != rounds; ++round)
                    sleep(me, hurried, depth);
            });
        unsigned int const pattern = pick(16);
        // Often all are asleep before the first release.
        bool const all_first = pick(2) == 0;
        for (unsigned int each = 0; all_first && each != sleepers; ++each)
            WaitForSingleObject(arrived, INFINITE);
        for (unsigned int each = 0; each != sleepers * rounds; ++each) {
            if (!all_first || each >= sleepers)
                WaitForSingleObject(arrived, INFINITE);
            lock.acquire();
            auto const release = [&](auto& whom) {
                (pattern >> each % 4 & 1) != 0 ? whom.release_all() : whom.release_one();
            };
            release(permitted);
            if (!releases_inside)
                lock.release();
            release(changed);
            if (releases_inside)
                lock.release();
        }
    }
    CloseHandle(arrived);
    assure(inspector::is_at_rest(changed));
    assure(lock.try_acquire());
    lock.release();
}

template <class Condition>
void waits(unsigned int variant) {
    constexpr void (*with[])(unsigned int) = {wake_all_sleepers<Condition, mutex>,
                                              wake_all_sleepers<Condition, timed_mutex>,
                                              wake_all_sleepers<Condition, recursive_mutex>,
                                              wake_all_sleepers<Condition, timed_recursive_mutex>};
    with[variant / 2](variant % 2 * 2);
}

// More threads than the capacity, or fewer, with releases and deadlines in between:
// a completed phase lets exactly as many threads go as it holds, one of them the
// last, and in the end the barrier is open and empty. If enough threads come again and
// again, phases complete without any release.
template <class Barrier>
void come_and_go(unsigned int spin) {
    constexpr bool timed = std::is_same_v<Barrier, timed_barrier>;
    open_books(timed, spin);
    unsigned int const capacity = pick(4) == 0 ? 0 : 2 + pick(2);
    unsigned int const thread_count = 2 + pick(2);
    unsigned int const rounds = walks() ? 1 : 1 + pick(2);
    unsigned int const early = pick(3);
    bool const endless = !timed && early == 0 && capacity != 0 && capacity <= thread_count;
    Barrier gate(capacity, spin);
    time const deadline = timed ? time::then(0.5) : time();
    detail::atomic<unsigned int> completed = 0, lasts = 0, ended = 0;
    detail::atomic<bool> over = false;
    semaphore enough(0, spin);
    begin();
    {
        std::deque<worker> all;
        for (unsigned int each = 0; each != thread_count; ++each)
            all.emplace_back([&, hurried = timed && pick(3) != 0] {
                for (unsigned int round = 0; endless ? !over : round != rounds; ++round) {
                    bool last = false;
                    bool complete = false;
                    if constexpr (timed)
                        if (hurried)
                            complete = gate.timed_acquire(last, deadline);
                    if (!hurried)
                        complete = gate.acquire(last);
                    assure(complete || !last);
                    completed += complete;
                    if (last && ++lasts == rounds && endless) {
                        over = true;
                        enough.release();
                    }
                }
                ++ended;
            });
        for (unsigned int each = 0; each != early; ++each)
            gate.release_all();
        if (endless)
            enough.acquire();
        // The threads left at the end are too few to complete a phase.
        while (ended != thread_count) {
            Sleep(1000);
            gate.release_all();
        }
    }
    assure(completed == lasts * capacity);
    assure(inspector::is_open(gate));
}

void opens(unsigned int variant) {
    variant < 3 ? come_and_go<barrier>(variant) : come_and_go<timed_barrier>(0);
}

// Threads that wait are let go by a `set` that a `reset` follows at once, while another begins
// to wait, which only the next `set` lets go. Or they give up at deadlines meanwhile.
void set_and_reset(unsigned int variant) {
    bool const timed = variant == 1;
    open_books(timed, 0);
    event opened;
    detail::atomic<bool> again = false;
    begin();
    auto const wait = [&] {
        if (timed)
            static_cast<void>(opened.wait_until(time::then(0.003)));
        else
            opened.wait();
    };
    worker first(wait), second(wait), third(wait);
    if (!timed)
        settle();
    opened.set();
    opened.reset();
    worker late([&] {
        opened.wait();
        assure(again);
    });
    first.join();
    second.join();
    third.join();
    again = true;
    opened.set();
}

// So large that its memory goes back to the runtime heap, which sees each later access.
struct watched {
    event done;
    std::byte rest[8192];
};

// A thread that finds the event set destroys it while the thread that set it has yet to leave.
void destruction(unsigned int) {
    open_books(true, 0);
    auto memory = std::allocate_shared<watched>(container_allocator<watched>());
    begin();
    worker setter([&done = memory->done] { done.set(); });
    if (!memory->done.wait_until(time::then(0.003)))
        memory->done.wait();
    memory.reset();
}

// The last step lets all go that wait. Each of them finds all steps done, and may destroy
// the latch if it is the only one.
void steps(unsigned int variant) {
    bool const timed = variant % 2 != 0;
    unsigned int const waiters = 1 + variant / 2;
    open_books(timed, 0);
    auto loaded = std::make_unique<latch>(2);
    detail::atomic<int> done = 0;
    begin();
    std::deque<worker> others;
    for (int step = 0; step != 2; ++step)
        others.emplace_back([&] {
            ++done;
            loaded->count_down();
        });
    auto const wait = [&] {
        if (!timed || !loaded->wait_until(time::then(0.003)))
            loaded->wait();
        assure(done == 2 && loaded->try_wait());
    };
    if (waiters == 2)
        others.emplace_back(wait);
    wait();
    if (waiters == 2)
        others.clear();
    loaded.reset();
}

using namespace std::chrono_literals;

// The machine's clock, at `speed` eighths of its speed.
struct caller_clock {
    using duration = std::chrono::nanoseconds;
    using rep = duration::rep;
    using period = duration::period;
    using time_point = std::chrono::time_point<caller_clock>;
    [[maybe_unused]] static constexpr bool is_steady = true;

    static time_point now() {
        ++readings;
        return time_point(duration(static_cast<rep>(nanoseconds()) / 8 * speed));
    }

    static inline rep speed;
    static inline unsigned int readings;
};

// With variant 0 the caller's clock is the machine's. A thread may wake the waiters of the
// condition early.
void points_on_the_caller_s_clock(unsigned int variant) {
    constexpr caller_clock::rep speeds[] = {8, 7, 9};
    caller_clock::speed = speeds[variant];
    open_books(false, 0);
    lockable<timed_mutex> held, lock;
    timed_condition changed;
    bool over = false;
    bool const woken = pick(2) == 0;
    begin();
    held.lock();
    // The most kernel calls of an attempt that nothing disturbs.
    auto const keeps = [&](std::chrono::microseconds span, unsigned int most, auto const& attempt) {
        auto const point = caller_clock::now() + span;
        caller_clock::readings = 0;
        unsigned int const calls = kernel_calls();
        assure(!attempt(point));
        if (variant == 0 && !woken && span < 24h * 24)
            assure(caller_clock::readings <= 2 && kernel_calls() - calls <= most);
        assure(caller_clock::now() >= point);
    };
    {
        worker waker([&] {
            for (bool done = !woken; !done;) {
                Sleep(1 + pick(40'000'000));
                std::lock_guard const hold(lock);
                changed.release_all();
                done = over;
            }
        });
        // The last is longer than a wait can be.
        for (auto const span :
             {300us, 1490us, 25'000'000us, 3'600'000'000us, 5'184'000'000'000us}) {
            keeps(span, 1, [&](auto point) { return held.try_lock_until(point); });
            std::lock_guard const hold(lock);
            // The wait releases the mutex and takes it again.
            keeps(span, 3, [&](auto point) {
                return wait_until(changed, lock, point, [] { return false; });
            });
        }
        std::lock_guard const hold(lock);
        over = true;
    }
}

// The pinned schedule once found a thread that slept forever although its deadline had
// passed. Three threads were released. The first had timed out; it left the count and was
// preempted before it took the unit posted for it. The others left, which ended the batch.
// So a newcomer passed the gate and took that unit.
registration const table{
    {.name = "condition_wakes_whom_it_released",
     .run = waits<condition>,
     .variants = 8,
     .exhaustive = true},
    {.name = "condition_with_deadlines_wakes_whom_it_released",
     .run = waits<timed_condition>,
     .variants = 8,
     .exhaustive = true,
     .pinned = {{.how = strategy::sticky, .variant = 6, .seed = 1841}}},
    {.name = "barrier_can_be_opened_at_any_time", .run = opens, .variants = 7, .exhaustive = true},
    {.name = "deadline_of_the_caller_is_kept", .run = points_on_the_caller_s_clock, .variants = 3},
    {.name = "event_lets_all_go_that_waited", .run = set_and_reset, .variants = 2},
    {.name = "event_may_be_destroyed_once_set", .run = destruction},
    {.name = "latch_lets_all_go", .run = steps, .variants = 4},
};

}  // namespace

}  // namespace ovel::simulation
