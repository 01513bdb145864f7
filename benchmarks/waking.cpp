// SPDX-License-Identifier: Apache-2.0
// The group waking: how soon a waiting thread continues after its wake-up.
#include "ovel_barrier.h"
#include "ovel_benchmark.h"
#include "ovel_benchmark_semaphores.h"
#include "ovel_condition.h"
#include "ovel_mutex.h"
#include "ovel_std.h"

#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <barrier>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#if defined(OVEL_PEER_ABSL)
#include <absl/synchronization/mutex.h>
#endif
#if defined(OVEL_PEER_NSYNC)
#include <nsync.h>
#endif

namespace {

using ovel_benchmark::placement;
using ovel_benchmark::plain_semaphore;
using ovel_benchmark::posix_semaphore;
using ovel_benchmark::standard_semaphore;
using ovel_benchmark::timed_semaphore;
using clock_type = std::chrono::steady_clock;

double seconds_between(clock_type::time_point from, clock_type::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

// Conditions with their mutexes. `wait_until(ready)` returns once `ready()` is true. Only
// `change(make)` may make it true: it calls `make()` under the mutex and then wakes one
// waiter, or all.

template <class Mutex, class Condition, unsigned int spin = 1024>
class ovel_condition {
public:
    template <class Ready>
    void wait_until(Ready const& ready) {
        _mutex.acquire();
        while (!ready())
            _changed.acquire(_mutex);
        _mutex.release();
    }
    template <class Make>
    void change(Make const& make, bool all) {
        _mutex.acquire();
        make();
        _mutex.release();
        all ? _changed.release_all() : _changed.release_one();
    }

private:
    Mutex _mutex{spin};
    Condition _changed{spin};
};

class standard_condition {
public:
    template <class Ready>
    void wait_until(Ready const& ready) {
        std::unique_lock hold(_mutex);
        _changed.wait(hold, ready);
    }
    template <class Make>
    void change(Make const& make, bool all) {
        {
            std::scoped_lock const hold(_mutex);
            make();
        }
        all ? _changed.notify_all() : _changed.notify_one();
    }

private:
    std::mutex _mutex;
    std::condition_variable _changed;
};

class posix_condition {
public:
    posix_condition() = default;
    ~posix_condition() {
        pthread_cond_destroy(&_changed);
        pthread_mutex_destroy(&_mutex);
    }
    posix_condition(posix_condition const&) = delete;
    posix_condition& operator=(posix_condition const&) = delete;

    template <class Ready>
    void wait_until(Ready const& ready) {
        pthread_mutex_lock(&_mutex);
        while (!ready())
            pthread_cond_wait(&_changed, &_mutex);
        pthread_mutex_unlock(&_mutex);
    }
    template <class Make>
    void change(Make const& make, bool all) {
        pthread_mutex_lock(&_mutex);
        make();
        pthread_mutex_unlock(&_mutex);
        all ? pthread_cond_broadcast(&_changed) : pthread_cond_signal(&_changed);
    }

private:
    pthread_mutex_t _mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t _changed = PTHREAD_COND_INITIALIZER;
};

#if defined(OVEL_PEER_ABSL)
class absl_condition {
public:
    template <class Ready>
    void wait_until(Ready const& ready) {
        absl::MutexLock const hold(&_mutex);
        while (!ready())
            _changed.Wait(&_mutex);
    }
    template <class Make>
    void change(Make const& make, bool all) {
        {
            absl::MutexLock const hold(&_mutex);
            make();
        }
        all ? _changed.SignalAll() : _changed.Signal();
    }

private:
    absl::Mutex _mutex;
    absl::CondVar _changed;
};
#endif

#if defined(OVEL_PEER_NSYNC)
class nsync_condition {
public:
    template <class Ready>
    void wait_until(Ready const& ready) {
        nsync::nsync_mu_lock(&_mutex);
        while (!ready())
            nsync::nsync_cv_wait(&_changed, &_mutex);
        nsync::nsync_mu_unlock(&_mutex);
    }
    template <class Make>
    void change(Make const& make, bool all) {
        nsync::nsync_mu_lock(&_mutex);
        make();
        nsync::nsync_mu_unlock(&_mutex);
        all ? nsync::nsync_cv_broadcast(&_changed) : nsync::nsync_cv_signal(&_changed);
    }

private:
    nsync::nsync_mu _mutex = NSYNC_MU_INIT;
    nsync::nsync_cv _changed = NSYNC_CV_INIT;
};
#endif

// A semaphore of the system that is an open file.
class event_descriptor {
public:
    event_descriptor() = default;
    ~event_descriptor() {
        close(_descriptor);
    }
    event_descriptor(event_descriptor const&) = delete;
    event_descriptor& operator=(event_descriptor const&) = delete;

    void acquire() {
        eventfd_t units;
        eventfd_read(_descriptor, &units);
    }
    void release() {
        eventfd_write(_descriptor, 1);
    }

private:
    int const _descriptor = eventfd(0, EFD_SEMAPHORE);
};

// A semaphore made from a condition, as programs do to wait for a message.
template <class Condition>
class semaphore_of {
public:
    void acquire() {
        _condition.wait_until([this] { return _units != 0 && _units--; });
    }
    void release() {
        _condition.change([this] { ++_units; }, false);
    }

private:
    Condition _condition;
    int _units = 0;
};

// Calls `use.template operator()<Condition>(name)` for every condition.
template <class Use>
void with_each_condition(Use const& use) {
    use.template operator()<ovel_condition<ovel::mutex, ovel::condition>>("ovel condition");
    use.template operator()<ovel_condition<ovel::mutex, ovel::condition, 0>>(
        "ovel condition spin 0");
    use.template operator()<ovel_condition<ovel::timed_mutex, ovel::timed_condition>>(
        "ovel timed condition");
    use.template operator()<standard_condition>("std::condition_variable");
    use.template operator()<posix_condition>("pthread_cond");
#if defined(OVEL_PEER_ABSL)
    use.template operator()<absl_condition>("absl::CondVar");
#endif
#if defined(OVEL_PEER_NSYNC)
    use.template operator()<nsync_condition>("nsync_cv");
#endif
}

// The same for every semaphore, and every condition as one.
template <class Use>
void with_each_semaphore(Use const& use) {
    use.template operator()<plain_semaphore<0>>("ovel");
    use.template operator()<plain_semaphore<0, 0>>("ovel spin 0");
    use.template operator()<timed_semaphore<0>>("ovel timed");
    with_each_condition([&]<class Condition>(char const* name) {
        use.template operator()<semaphore_of<Condition>>(name);
    });
    use.template operator()<standard_semaphore<0>>("std::counting_semaphore");
    use.template operator()<posix_semaphore<0>>("sem_t");
    use.template operator()<event_descriptor>("eventfd");
}

// A round trip: a question to another thread, and its answer.
template <class Semaphore>
struct dialogue {
    struct alignas(128) direction {
        Semaphore semaphore;
    };
    direction question, answer;
    std::atomic<bool> over = false;

    void ask() {
        question.semaphore.release();
        answer.semaphore.acquire();
    }
    void answer_all() {
        for (;;) {
            question.semaphore.acquire();
            if (over.load(std::memory_order_relaxed))
                return;
            answer.semaphore.release();
        }
    }
    void end() {
        over.store(true, std::memory_order_relaxed);
        question.semaphore.release();
    }
};

// The two threads take turns on processors 0 and `answers_on`.
template <class Semaphore>
void round_trip(std::string const& row, std::string const& name, int answers_on) {
    ovel_benchmark::contestant(row, name, [answers_on](benchmark::State& state) {
        dialogue<Semaphore> talk;
        std::jthread const other([&] {
            ovel_benchmark::pin const bound(answers_on);
            talk.answer_all();
        });
        ovel_benchmark::pin const bound(0);
        for (auto _ : state)
            talk.ask();
        talk.end();
    });
}

// The answering thread has had nothing to do for 200 us.
template <class Semaphore>
void round_trip_after_a_pause(std::string const& row, std::string const& name) {
    ovel_benchmark::timed_contestant(row, name, [](benchmark::State& state) {
        dialogue<Semaphore> talk;
        std::jthread const other([&] {
            ovel_benchmark::pin const bound(1);
            talk.answer_all();
        });
        ovel_benchmark::pin const bound(0);
        for (auto _ : state) {
            auto start = clock_type::now();
            auto const pause_end = start + std::chrono::microseconds(200);
            while ((start = clock_type::now()) < pause_end) {}
            talk.ask();
            state.SetIterationTime(seconds_between(start, clock_type::now()));
        }
        talk.end();
    });
}

// Many pairs at once, wherever the system puts their threads. The figure is the round trips
// of all in a second.
template <class Semaphore>
void round_trips_at_once(std::string const& row, std::string const& name, int dialogues) {
    ovel_benchmark::timed_contestant(row, name, [dialogues](benchmark::State& state) {
        constexpr int questions = 200;
        for (auto _ : state) {
            std::vector<dialogue<Semaphore>> talks(static_cast<std::size_t>(dialogues));
            auto const work = [&](int member) {
                auto& talk = talks[static_cast<std::size_t>(member / 2)];
                if (member % 2 != 0) {
                    talk.answer_all();
                } else {
                    for (int i = 0; i < questions; ++i)
                        talk.ask();
                    talk.end();
                }
            };
            state.SetIterationTime(
                ovel_benchmark::run_together(2 * dialogues, placement::anywhere, work));
        }
        state.SetItemsProcessed(state.iterations() * dialogues * questions);
    });
}

// The time from before the change that `sleepers` threads wait for, all asleep, until the
// last of them has continued. With `again`, threads that have continued wait for the next
// change at once, and so compete with the others for the mutex.
template <class Condition>
void wake(std::string const& row, std::string const& name, int sleepers, bool again) {
    ovel_benchmark::timed_contestant(row, name, [=](benchmark::State& state) {
        Condition condition;
        int generation = 0;  // under the condition's mutex
        int waiting = 0;     // so is this
        bool over = false;   // and this
        std::atomic<int> awake = 0;
        clock_type::time_point end;
        posix_semaphore<0> all_awake;
        posix_semaphore<0> may_wait;
        std::vector<std::jthread> threads;
        for (int sleeper = 0; sleeper < sleepers; ++sleeper) {
            threads.emplace_back([&] {
                for (int seen = 0;; ++seen) {
                    bool counted = false;
                    condition.wait_until([&] {
                        waiting += !std::exchange(counted, true);
                        return generation != seen;
                    });
                    if (over)
                        return;
                    if (awake.fetch_add(1) + 1 == sleepers) {
                        end = clock_type::now();
                        all_awake.release();
                    }
                    if (!again)
                        may_wait.acquire();
                }
            });
        }
        auto const change = [&](bool ends) {
            bool ready = false;
            while (!ready) {
                // Time for the threads to be counted, to spin, and to fall asleep.
                std::this_thread::sleep_for(std::chrono::microseconds(100 + 100 * sleepers));
                condition.wait_until([&] {
                    ready = waiting == sleepers;
                    return true;
                });
            }
            awake.store(0);
            auto const start = clock_type::now();
            condition.change(
                [&] {
                    waiting = 0;
                    over = ends;
                    ++generation;
                },
                true);
            return start;
        };
        for (auto _ : state) {
            auto const start = change(false);
            all_awake.acquire();
            state.SetIterationTime(seconds_between(start, end));
            for (int sleeper = 0; !again && sleeper < sleepers; ++sleeper)
                may_wait.release();
        }
        change(true);
    })->Iterations(100);  // the time between two of them does not count
}

// The bound of waking threads that wait again with a condition whose gate lets none of them
// pass before all have left: all are woken at once, then one after the other, each by the
// one before: the first at the gate, the others at the mutex.
void wake_all_then_each(std::string const& row, std::string const& name, int sleepers) {
    ovel_benchmark::timed_contestant(row, name, [=](benchmark::State& state) {
        std::atomic<int> generation = 0;
        std::atomic<int> waiting = 0;
        std::atomic<int> awake = 0;
        std::atomic<bool> over = false;
        clock_type::time_point end;
        posix_semaphore<0> all_awake;
        std::vector<posix_semaphore<0>> turn(static_cast<std::size_t>(sleepers) + 1);
        std::vector<std::jthread> threads;
        for (int sleeper = 0; sleeper < sleepers; ++sleeper) {
            threads.emplace_back([&] {
                for (int seen = 0;; ++seen) {
                    waiting.fetch_add(1);
                    generation.wait(seen);
                    if (over)
                        return;
                    auto const place = static_cast<std::size_t>(awake.fetch_add(1));
                    if (place + 1 == static_cast<std::size_t>(sleepers))
                        turn[0].release();
                    turn[place].acquire();
                    if (place + 1 == static_cast<std::size_t>(sleepers)) {
                        end = clock_type::now();
                        all_awake.release();
                    } else {
                        turn[place + 1].release();
                    }
                }
            });
        }
        auto const change = [&](bool ends) {
            do
                std::this_thread::sleep_for(std::chrono::microseconds(100 + 100 * sleepers));
            while (waiting != sleepers);
            awake = 0;
            waiting = 0;
            over = ends;
            auto const start = clock_type::now();
            ++generation;
            generation.notify_all();
            return start;
        };
        for (auto _ : state) {
            auto const start = change(false);
            all_awake.acquire();
            state.SetIterationTime(seconds_between(start, end));
        }
        change(true);
    })->Iterations(100);
}

// Gates, which hold the threads that `pass(generation)` until `open(generation)`. All threads
// that wait have passed before the next generation is opened.

// Of each pair the one is closed again while threads wait for the other.
class event_gate {
public:
    explicit event_gate(int) {}
    void pass(int generation) {
        _opened[generation % 2].wait();
    }
    void open(int generation) {
        _opened[(generation + 1) % 2].reset();
        _opened[generation % 2].set();
    }

private:
    ovel::event _opened[2];
};

class atomic_gate {
public:
    explicit atomic_gate(int) {}
    void pass(int generation) {
        _generation.wait(generation);
    }
    void open(int generation) {
        _generation = generation + 1;
        _generation.notify_all();
    }

private:
    std::atomic<int> _generation = 0;
};

template <class Condition>
class condition_gate {
public:
    explicit condition_gate(int) {}
    void pass(int generation) {
        _condition.wait_until([&] { return _generation != generation; });
    }
    void open(int generation) {
        _condition.change([&] { _generation = generation + 1; }, true);
    }

private:
    Condition _condition;
    int _generation = 0;
};

// The time from before the gate opens to when the last of the threads that sleep for it has
// passed. Each then waits for the next one at once.
template <class Gate>
void broadcast(std::string const& row, std::string const& name, int sleepers) {
    ovel_benchmark::timed_contestant(row, name, [=](benchmark::State& state) {
        Gate gate(sleepers);
        std::atomic<int> waiting = 0;
        std::atomic<int> awake = 0;
        std::atomic<bool> over = false;
        clock_type::time_point end;
        posix_semaphore<0> all_awake;
        std::vector<std::jthread> threads;
        for (int sleeper = 0; sleeper < sleepers; ++sleeper) {
            threads.emplace_back([&] {
                for (int generation = 0;; ++generation) {
                    waiting.fetch_add(1);
                    gate.pass(generation);
                    if (over)
                        return;
                    if (awake.fetch_add(1) + 1 == sleepers) {
                        end = clock_type::now();
                        all_awake.release();
                    }
                }
            });
        }
        int generation = 0;
        auto const open = [&](bool ends) {
            do
                std::this_thread::sleep_for(std::chrono::microseconds(100 + 100 * sleepers));
            while (waiting != sleepers);
            awake = 0;
            waiting = 0;
            over = ends;
            auto const start = clock_type::now();
            gate.open(generation++);
            return start;
        };
        for (auto _ : state) {
            auto const start = open(false);
            all_awake.acquire();
            state.SetIterationTime(seconds_between(start, end));
        }
        open(true);
    })->Iterations(100);
}

// Barriers, with `arrive` for a thread to meet the others.

template <unsigned int spin>
class ovel_barrier {
public:
    explicit ovel_barrier(int threads) : _barrier(static_cast<unsigned int>(threads), spin) {}
    void arrive() {
        _barrier.acquire();
    }

private:
    ovel::barrier _barrier;
};

class ovel_timed_barrier {
public:
    explicit ovel_timed_barrier(int threads) : _barrier(static_cast<unsigned int>(threads), 0) {}
    void arrive() {
        _barrier.acquire();
    }

private:
    ovel::timed_barrier _barrier;
};

class standard_barrier {
public:
    explicit standard_barrier(int threads) : _barrier(threads) {}
    void arrive() {
        _barrier.arrive_and_wait();
    }

private:
    std::barrier<> _barrier;
};

class posix_barrier {
public:
    explicit posix_barrier(int threads) {
        pthread_barrier_init(&_barrier, nullptr, static_cast<unsigned int>(threads));
    }
    ~posix_barrier() {
        pthread_barrier_destroy(&_barrier);
    }
    posix_barrier(posix_barrier const&) = delete;
    posix_barrier& operator=(posix_barrier const&) = delete;

    void arrive() {
        pthread_barrier_wait(&_barrier);
    }

private:
    pthread_barrier_t _barrier;
};

// The usual barrier made from a condition, for peers without a reusable one.
template <class Condition>
class barrier_of {
public:
    explicit barrier_of(int threads) : _capacity(threads) {}

    void arrive() {
        bool arrived = false;
        bool last = false;
        int mine = 0;
        _condition.wait_until([&] {
            if (!std::exchange(arrived, true)) {
                mine = _phase;
                last = ++_count == _capacity;
            }
            return last || _phase != mine;
        });
        if (last)
            _condition.change([this] { _count = 0, ++_phase; }, true);
    }

private:
    int const _capacity;
    Condition _condition;
    int _count = 0;
    int _phase = 0;
};

template <class Barrier>
void phases(std::string const& row, std::string const& name, int threads, placement where) {
    ovel_benchmark::timed_contestant(row, name, [=](benchmark::State& state) {
        constexpr int phases = 500;
        double seconds = 0;
        for (auto _ : state) {
            Barrier barrier(threads);
            double const taken = ovel_benchmark::run_together(threads, where, [&](int) {
                for (int phase = 0; phase < phases; ++phase)
                    barrier.arrive();
            });
            state.SetIterationTime(taken);
            seconds += taken;
        }
        state.counters["seconds"] = seconds / (phases * static_cast<double>(state.iterations()));
    });
}

// The bound of a barrier's phase when each thread wakes the next: how long a token goes round
// the threads, which sleep for it, but for the way from the last one to the first.
void wake_in_turn(benchmark::State& state, int threads) {
    constexpr int rounds = 500;
    double seconds = 0;
    for (auto _ : state) {
        std::vector<posix_semaphore<0>> token(static_cast<std::size_t>(threads));
        token[0].release();
        double const taken =
            ovel_benchmark::run_together(threads, placement::anywhere, [&](int member) {
                for (int round = 0; round < rounds; ++round) {
                    token[static_cast<std::size_t>(member)].acquire();
                    token[static_cast<std::size_t>((member + 1) % threads)].release();
                }
            });
        state.SetIterationTime(taken);
        seconds += taken;
    }
    state.counters["seconds"] =
        seconds * (threads - 1) / threads / (rounds * static_cast<double>(state.iterations()));
}

template <class Use>
void with_each_barrier(Use const& use) {
    use.template operator()<standard_barrier>("std::barrier");
    use.template operator()<posix_barrier>("pthread_barrier");
#if defined(OVEL_PEER_ABSL)
    use.template operator()<barrier_of<absl_condition>>("absl::CondVar");
#endif
#if defined(OVEL_PEER_NSYNC)
    use.template operator()<barrier_of<nsync_condition>>("nsync_cv");
#endif
}

}  // namespace

void ovel_benchmark::register_rows() {
    with_each_semaphore(
        []<class Semaphore>(char const* name) { round_trip<Semaphore>("round_trip", name, 1); });
    contestant("round_trip", "ovel's bound: a line each way", two_lines_round_trip);
    contestant("round_trip", "floor", line_round_trip);
    with_each_semaphore([]<class Semaphore>(char const* name) {
        round_trip_after_a_pause<Semaphore>("round_trip_after_200_us", name);
    });
    with_each_semaphore([]<class Semaphore>(char const* name) {
        round_trip<Semaphore>("round_trip_on_one_processor", name, 0);
    });
    for (int const pairs : {4, 8}) {
        std::string const row = "round_trips_of_" + std::to_string(pairs) + "_pairs";
        with_each_semaphore([&]<class Semaphore>(char const* name) {
            round_trips_at_once<Semaphore>(row, name, pairs);
        });
    }

    for (bool const again : {false, true}) {
        for (int const sleepers : {1, 2, 4, 8, 16}) {
            std::string const row =
                "wake_" + std::to_string(sleepers) + (again ? "_that_wait_again" : "");
            with_each_condition([&]<class Condition>(char const* name) {
                wake<Condition>(row, name, sleepers, again);
            });
            if (again)
                wake_all_then_each(row, "ovel's bound: all, then each in turn", sleepers);
        }
    }

    for (int const sleepers : {2, 4, 8, 16}) {
        std::string const row = "broadcast_to_" + std::to_string(sleepers);
        broadcast<event_gate>(row, "ovel event", sleepers);
        broadcast<atomic_gate>(row, "std::atomic::wait", sleepers);
        broadcast<condition_gate<standard_condition>>(row, "std::condition_variable", sleepers);
    }

    phases<ovel_barrier<1024>>("barrier_of_2", "ovel", 2, placement::pinned);
    phases<ovel_timed_barrier>("barrier_of_2", "ovel timed", 2, placement::pinned);
    with_each_barrier([]<class Barrier>(char const* name) {
        phases<Barrier>("barrier_of_2", name, 2, placement::pinned);
    });
    phases<ovel_barrier<0>>("barrier_of_4", "ovel spin 0", 4, placement::anywhere);
    phases<ovel_barrier<32>>("barrier_of_4", "ovel spin 32", 4, placement::anywhere);
    phases<ovel_barrier<256>>("barrier_of_4", "ovel spin 256", 4, placement::anywhere);
    phases<ovel_barrier<1024>>("barrier_of_4", "ovel spin 1024", 4, placement::anywhere);
    phases<ovel_timed_barrier>("barrier_of_4", "ovel timed", 4, placement::anywhere);
    with_each_barrier([]<class Barrier>(char const* name) {
        phases<Barrier>("barrier_of_4", name, 4, placement::anywhere);
    });
    timed_contestant("barrier_of_4", "ovel's bound: three wake-ups in turn",
                     [](auto& state) { wake_in_turn(state, 4); });
    for (int const threads : {8, 16}) {
        std::string const row = "barrier_of_" + std::to_string(threads);
        phases<ovel_barrier<1024>>(row, "ovel", threads, placement::anywhere);
        with_each_barrier([&]<class Barrier>(char const* name) {
            phases<Barrier>(row, name, threads, placement::anywhere);
        });
        timed_contestant(row, "ovel's bound: wake-ups in turn",
                         [threads](auto& state) { wake_in_turn(state, threads); });
    }
}
