// SPDX-License-Identifier: Apache-2.0
// The group waking: how soon a waiting thread continues after its wake-up.
#include "ovel_barrier.h"
#include "ovel_benchmark.h"
#include "ovel_benchmark_conditions.h"
#include "ovel_benchmark_semaphores.h"
#include "ovel_std.h"

#include <linux/futex.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <barrier>
#include <chrono>
#include <cstdint>
#include <thread>
#include <utility>
#include <vector>

namespace {

using ovel_benchmark::placement;
using ovel_benchmark::plain_semaphore;
using ovel_benchmark::posix_semaphore;
using ovel_benchmark::standard_condition;
using ovel_benchmark::standard_semaphore;
using ovel_benchmark::timed_semaphore;
using ovel_benchmark::with_each_condition;
using clock_type = std::chrono::steady_clock;

double seconds_between(clock_type::time_point from, clock_type::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

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

// The bound of a semaphore whose waiting thread sleeps and is woken by a system call: one
// word for at most one unit and one thread, a sleep for each unit that is not there and a
// wake-up only for a thread that sleeps. It neither polls nor calls the scheduler.
class least_semaphore {
public:
    void acquire() {
        if (_units.fetch_sub(1) > 0)
            return;
        while (_units.load() < 0)
            syscall(SYS_futex, &_units, FUTEX_WAIT_PRIVATE, -1, nullptr);
    }
    void release() {
        if (_units.fetch_add(1) < 0)
            syscall(SYS_futex, &_units, FUTEX_WAKE_PRIVATE, 1);
    }

private:
    std::atomic<int> _units = 0;  // -1: a thread sleeps
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

// Calls `use.template operator()<Semaphore>(name)` for every semaphore, and every condition
// as one.
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

// The bound of a condition whose gate lets no thread wait again before all have left: all
// are woken at once, then one after the other, each by the one before: the first at the
// gate, the others at the mutex.
class chained_gate {
public:
    explicit chained_gate(int sleepers) : _turn(static_cast<std::size_t>(sleepers)) {}
    void pass(int generation) {
        _generation.wait(generation);
        std::size_t const place = _awake.fetch_add(1);
        if (place + 1 == _turn.size())
            _turn[0].release();
        _turn[place].acquire();
        if (place + 1 < _turn.size())
            _turn[place + 1].release();
    }
    void open(int generation) {
        _awake = 0;
        _generation = generation + 1;
        _generation.notify_all();
    }

private:
    std::atomic<int> _generation = 0;
    std::atomic<std::size_t> _awake = 0;
    std::vector<posix_semaphore<0>> _turn;
};

// The bound of waking a thread that waits with a mutex: one mutex for both threads, and one
// sleep. It has no gate, so a second thread would have to wait for its own word.
class least_condition {
public:
    template <class Ready>
    void wait_until(Ready const& ready) {
        _mutex.acquire();
        while (!ready()) {
            _waits = true;
            _mutex.release();
            _woken.acquire();
            _mutex.acquire();
        }
        _mutex.release();
    }
    template <class Make>
    void change(Make const& make, bool) {
        _mutex.acquire();
        make();
        bool const waits = std::exchange(_waits, false);
        _mutex.release();
        if (waits)
            _woken.release();
    }

private:
    ovel::mutex _mutex;
    bool _waits = false;  // under _mutex
    least_semaphore _woken;
};

// The time from before the gate opens until the last of the threads that sleep for it has
// passed. With `again`, threads that have passed wait for the next generation at once, and so
// compete with the others for the gate.
template <class Gate>
void wake(std::string const& row, std::string const& name, int sleepers, bool again) {
    ovel_benchmark::timed_contestant(row, name, [=](benchmark::State& state) {
        Gate gate(sleepers);
        std::atomic<int> waiting = 0;
        std::atomic<int> awake = 0;
        std::atomic<bool> over = false;
        clock_type::time_point end;
        posix_semaphore<0> all_awake;
        posix_semaphore<0> may_wait;
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
                    if (!again)
                        may_wait.acquire();
                }
            });
        }
        int generation = 0;
        auto const open = [&](bool ends) {
            // Time for the threads to be counted, to spin, and to fall asleep.
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
            for (int sleeper = 0; !again && sleeper < sleepers; ++sleeper)
                may_wait.release();
        }
        open(true);
    })->Iterations(100);  // the time between two of them does not count
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

// The bound of two threads that sleep for each other: the second wakes the first. It neither
// polls nor calls the scheduler.
class least_barrier {
public:
    explicit least_barrier(int) {}
    void arrive() {
        unsigned int const arrival = _arrivals.fetch_add(1);
        least_semaphore& complete = _complete[arrival / 2 % 2];
        if (arrival % 2 == 0)
            complete.acquire();
        else
            complete.release();
    }

private:
    std::atomic<unsigned int> _arrivals = 0;
    least_semaphore _complete[2];  // of even and odd phases: one thread may be a phase ahead
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
    use.template operator()<barrier_of<ovel_benchmark::absl_condition>>("absl::CondVar");
#endif
#if defined(OVEL_PEER_NSYNC)
    use.template operator()<barrier_of<ovel_benchmark::nsync_condition>>("nsync_cv");
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
        round_trips_at_once<least_semaphore>(row, "ovel's bound: a word and a futex", pairs);
    }

    for (bool const again : {false, true}) {
        for (int const sleepers : {1, 2, 4, 8, 16}) {
            std::string const row =
                "wake_" + std::to_string(sleepers) + (again ? "_that_wait_again" : "");
            with_each_condition([&]<class Condition>(char const* name) {
                wake<condition_gate<Condition>>(row, name, sleepers, again);
            });
            if (sleepers == 1)
                wake<condition_gate<least_condition>>(row, "ovel's bound: a mutex and a futex",
                                                      sleepers, again);
            else if (again)
                wake<chained_gate>(row, "ovel's bound: all, then each in turn", sleepers, again);
        }
    }

    for (int const sleepers : {2, 4, 8, 16}) {
        std::string const row = "broadcast_to_" + std::to_string(sleepers);
        wake<event_gate>(row, "ovel event", sleepers, true);
        wake<atomic_gate>(row, "std::atomic::wait", sleepers, true);
        wake<condition_gate<standard_condition>>(row, "std::condition_variable", sleepers, true);
    }

    phases<ovel_barrier<1024>>("barrier_of_2", "ovel", 2, placement::pinned);
    phases<ovel_timed_barrier>("barrier_of_2", "ovel timed", 2, placement::pinned);
    with_each_barrier([]<class Barrier>(char const* name) {
        phases<Barrier>("barrier_of_2", name, 2, placement::pinned);
    });
    phases<least_barrier>("barrier_of_2", "ovel's bound: sleeping and a wake-up", 2,
                          placement::pinned);
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
