// SPDX-License-Identifier: Apache-2.0
// The group locks: the cost of acquiring and releasing a lock, without and with
// contention.
//
// All contestants put a thread to sleep that waits for long. A lock that only spins is
// useless if there may be more threads than processors.
#include "ovel_benchmark.h"
#include "ovel_benchmark_semaphores.h"
#include "ovel_mutex.h"

#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#if defined(OVEL_PEER_ABSL)
#include <absl/synchronization/mutex.h>
#endif
#if defined(OVEL_PEER_NSYNC)
#include <nsync.h>
#endif
#if defined(OVEL_PEER_TBB)
#include <oneapi/tbb/mutex.h>
#endif

namespace {

using ovel_benchmark::placement;
using ovel_benchmark::plain_semaphore;
using ovel_benchmark::posix_semaphore;
using ovel_benchmark::standard_semaphore;
using ovel_benchmark::timed_semaphore;

// Locks with `acquire` and `release`, whatever their own names are.

template <class Mutex>
struct standard {
    Mutex mutex;
    void acquire() {
        mutex.lock();
    }
    void release() {
        mutex.unlock();
    }
};

class posix_mutex {
public:
    explicit posix_mutex(int kind = PTHREAD_MUTEX_DEFAULT) {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, kind);
        pthread_mutex_init(&_mutex, &attributes);
        pthread_mutexattr_destroy(&attributes);
    }
    ~posix_mutex() {
        pthread_mutex_destroy(&_mutex);
    }
    posix_mutex(posix_mutex const&) = delete;
    posix_mutex& operator=(posix_mutex const&) = delete;

    void acquire() {
        pthread_mutex_lock(&_mutex);
    }
    void release() {
        pthread_mutex_unlock(&_mutex);
    }

private:
    pthread_mutex_t _mutex;
};

struct posix_recursive_mutex : posix_mutex {
    posix_recursive_mutex() : posix_mutex(PTHREAD_MUTEX_RECURSIVE) {}
};

#if defined(OVEL_PEER_ABSL)
struct absl_mutex {
    absl::Mutex mutex;
    void acquire() {
        mutex.Lock();
    }
    void release() {
        mutex.Unlock();
    }
};
#endif

#if defined(OVEL_PEER_NSYNC)
struct nsync_mutex {
    nsync::nsync_mu mutex = NSYNC_MU_INIT;
    void acquire() {
        nsync::nsync_mu_lock(&mutex);
    }
    void release() {
        nsync::nsync_mu_unlock(&mutex);
    }
};
#endif

// The bound of a mutex for which threads sleep: the count of a semaphore, and behind it the
// word that stands for the kernel's, with its own number of sleepers. A thread that finds the
// count used up must take a unit from that word. One thread is woken at a time. It never polls.
class counted_mutex {
public:
    void acquire() {
        if (_count.fetch_sub(1) <= 0)
            _take();
    }
    void release() {
        if (_count.fetch_add(1) < 0)
            _post();
    }

private:
    static constexpr std::uint64_t unit = 1, woken = 2, sleeper = std::uint64_t{1} << 32;

    [[gnu::noinline]] void _take() {
        std::uint64_t now = _word.load(std::memory_order_relaxed);
        for (bool slept = false;;) {
            std::uint64_t next = now & ~unit;
            if (slept)
                next = (next & ~woken) - (now & unit) * sleeper;
            else if ((now & unit) == 0)
                next += sleeper;
            if (!_word.compare_exchange_weak(now, next))
                continue;
            if ((now & unit) != 0)
                return;
            slept = true;
            syscall(SYS_futex, &_word, FUTEX_WAIT_PRIVATE, 0, nullptr, nullptr, 0);
            now = _word.load(std::memory_order_relaxed);
        }
    }
    [[gnu::noinline]] void _post() {
        std::uint64_t now = _word.load(std::memory_order_relaxed);
        while (!_word.compare_exchange_weak(now, now | unit | (now >= sleeper ? woken : 0))) {}
        if (now >= sleeper && (now & woken) == 0)
            syscall(SYS_futex, &_word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
    }

    std::atomic<int> _count = 1;
    alignas(128) std::atomic<std::uint64_t> _word = 0;  // the low half is the futex
};

// A lock on its own cache lines, and on the heap, so that the compiler knows nothing
// about its address.
template <class Lock>
struct alignas(128) lonely {
    Lock lock;
};

// Inside and outside the critical section, other code may have changed any memory. So no
// part of the lock stays in registers.
template <class Lock>
void take_over_and_over(Lock& lock, benchmark::State& state) {
    benchmark::DoNotOptimize(&lock);
    for (auto _ : state) {
        lock.acquire();
        benchmark::ClobberMemory();
        lock.release();
        benchmark::ClobberMemory();
    }
}

template <class Lock>
void pair(std::string const& row, std::string const& name) {
    ovel_benchmark::contestant(row, name, [](benchmark::State& state) {
        ovel_benchmark::pin const bound(1);
        auto const held = std::make_unique<lonely<Lock>>();
        take_over_and_over(held->lock, state);
    });
}

// With a second, sleeping thread: in a process with only one thread, glibc's mutexes use
// no locked instruction.
template <class Lock>
void pair_beside_a_thread(std::string const& row, std::string const& name) {
    ovel_benchmark::contestant(row, name, [](benchmark::State& state) {
        ovel_benchmark::pin const bound(1);
        auto const held = std::make_unique<lonely<Lock>>();
        posix_semaphore<0> end;
        std::jthread const other([&] { end.acquire(); });
        take_over_and_over(held->lock, state);
        end.release();
    });
}

// The pair nested in another one.
template <class Lock>
void reenter(std::string const& row, std::string const& name) {
    ovel_benchmark::contestant(row, name, [](benchmark::State& state) {
        ovel_benchmark::pin const bound(1);
        auto const held = std::make_unique<lonely<Lock>>();
        held->lock.acquire();
        take_over_and_over(held->lock, state);
        held->lock.release();
    });
}

struct contest {
    int threads;
    int work;  // steps of some nanoseconds each, between one section and the next
    char const* row;
};

constexpr contest contests[] = {
    {2, 0, "contended_by_2"}, {2, 32, "contended_by_2_with_work_outside"},
    {4, 0, "contended_by_4"}, {4, 32, "contended_by_4_with_work_outside"},
    {8, 0, "contended_by_8"}, {16, 0, "contended_by_16"},
};

struct outcome {
    double seconds;
    std::int64_t sections;
    double least;  // the sections of the thread with the fewest, as a share of an equal part
};

// Threads that repeatedly add to one number under the lock for some time.
template <class Lock>
outcome contend(contest const& how) {
    struct alignas(128) member {
        std::int64_t sections = 0;
    };
    struct alignas(128) number {
        std::int64_t value = 0;
    };
    auto const held = std::make_unique<lonely<Lock>>();
    number sum;
    std::vector<member> members(static_cast<std::size_t>(how.threads));
    std::atomic<bool> over = false;
    auto const work = [&](int which) {
        if (which == how.threads) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10 * how.threads));
            over.store(true, std::memory_order_relaxed);
            return;
        }
        std::int64_t sections = 0;
        std::uint64_t outside = 1;
        while (!over.load(std::memory_order_relaxed)) {
            held->lock.acquire();
            ++sum.value;
            held->lock.release();
            ++sections;
            for (int step = 0; step < how.work; ++step)
                outside = outside * 6364136223846793005u + 1442695040888963407u;
            benchmark::DoNotOptimize(outside);
        }
        members[static_cast<std::size_t>(which)].sections = sections;
    };
    double const seconds = ovel_benchmark::run_together(how.threads + 1, placement::anywhere, work);
    std::int64_t fewest = sum.value;
    for (member const& each : members)
        fewest = std::min(fewest, each.sections);
    return {seconds, sum.value,
            static_cast<double>(fewest) * how.threads / static_cast<double>(sum.value)};
}

template <class Lock>
void contended(contest const& how, std::string const& name) {
    ovel_benchmark::timed_contestant(how.row, name, [how](benchmark::State& state) {
        std::int64_t sections = 0;
        for (auto _ : state) {
            outcome const result = contend<Lock>(how);
            state.SetIterationTime(result.seconds);
            sections += result.sections;
        }
        state.SetItemsProcessed(sections);
    });
}

template <class Lock>
void shared_fairly(contest const& how, std::string const& name) {
    ovel_benchmark::timed_contestant(
        std::string(how.row) + "_least_share", name, [how](benchmark::State& state) {
            double sum = 0;
            for (auto _ : state) {
                outcome const result = contend<Lock>(how);
                state.SetIterationTime(result.seconds);
                sum += result.least;
            }
            state.counters["share"] = sum / static_cast<double>(state.iterations());
        });
}

// Calls `use.template operator()<Lock>(name)` for every lock.
template <class Use>
void with_each_lock(Use const& use) {
    use.template operator()<ovel::mutex>("ovel");
    use.template operator()<ovel::timed_mutex>("ovel timed");
    use.template operator()<standard<std::mutex>>("std::mutex");
    use.template operator()<posix_mutex>("pthread_mutex");
#if defined(OVEL_PEER_TBB)
    use.template operator()<standard<tbb::mutex>>("tbb::mutex");
#endif
#if defined(OVEL_PEER_ABSL)
    use.template operator()<absl_mutex>("absl::Mutex");
#endif
#if defined(OVEL_PEER_NSYNC)
    use.template operator()<nsync_mutex>("nsync_mu");
#endif
}

}  // namespace

void ovel_benchmark::register_rows() {
    with_each_lock([]<class Lock>(char const* name) { pair<Lock>("uncontended_pair", name); });
    pair<ovel::recursive_mutex>("uncontended_pair", "ovel recursive");
    pair_beside_a_thread<standard<std::mutex>>("uncontended_pair", "std::mutex beside a thread");
    contestant("uncontended_pair", "floor", two_locked_additions);

    reenter<ovel::recursive_mutex>("reentry", "ovel");
    reenter<ovel::timed_recursive_mutex>("reentry", "ovel timed");
    reenter<standard<std::recursive_mutex>>("reentry", "std::recursive_mutex");
    reenter<posix_recursive_mutex>("reentry", "pthread_mutex");

    pair<plain_semaphore<1>>("semaphore_pair", "ovel");
    pair<timed_semaphore<1>>("semaphore_pair", "ovel timed");
    pair<standard_semaphore<1>>("semaphore_pair", "std::counting_semaphore");
    pair<posix_semaphore<1>>("semaphore_pair", "sem_t");
    contestant("semaphore_pair", "floor", two_locked_additions);

    for (contest const& how : contests) {
        with_each_lock([&]<class Lock>(char const* name) { contended<Lock>(how, name); });
        if (how.threads > 4)
            contended<counted_mutex>(how, "ovel's bound: two counts");
        with_each_lock([&]<class Lock>(char const* name) { shared_fairly<Lock>(how, name); });
    }
}
