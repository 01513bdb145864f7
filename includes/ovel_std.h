// SPDX-License-Identifier: Apache-2.0
// The library's locks, conditions and deadlines with the standard library's interfaces,
// and `event` and `latch`, which wake all waiting threads at once.
//
//     lockable<timed_mutex> lock;
//     timed_condition changed;
//     bool ready = false;
//
//     {
//         std::lock_guard const hold(lock);
//         ready = true;
//     }
//     changed.release_all();
//
//     std::unique_lock hold(lock, 100ms);  // owns it, unless 100 ms passed before
//     wait_for(changed, hold, 2s, [&] { return ready; });
//
// `ovel.h` does not include this header, because it includes <chrono> and <mutex>.
#ifndef OVEL_STD_H
#define OVEL_STD_H

#include "ovel_assure.h"
#include "ovel_atomic.h"
#include "ovel_condition.h"
#include "ovel_mutex.h"
#include "ovel_semaphore.h"
#include "ovel_time.h"

#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <mutex>
#include <ratio>
#include <utility>

namespace ovel {

namespace detail {

template <class Rep, class Period>
long double seconds_of(std::chrono::duration<Rep, Period> const& span) {
    return std::chrono::duration<long double>(span).count();
}

// Milliseconds, rounded up, for one wait; 0 for a time in the past and for NaN.
inline unsigned int whole_milliseconds(long double seconds) {
    if (!(seconds > 0))
        return 0;
    if (seconds >= longest_wait / 1000)
        return longest_wait;
    return static_cast<unsigned int>(std::ceil(seconds * 1000));
}

// The time from now to a point on a clock, for one wait; 0 once it has passed.
template <class Clock, class Duration>
unsigned int milliseconds_until(std::chrono::time_point<Clock, Duration> const& point) {
    auto const now = Clock::now();
    // In floating point, because the difference of two points may not fit their type. If
    // they are close and it fits, floating point is not precise enough.
    long double const left =
        seconds_of(point.time_since_epoch()) - seconds_of(now.time_since_epoch());
    if (left > 1 || !(left > -1))
        return whole_milliseconds(left);
    if (point <= now)
        return 0;
    return static_cast<unsigned int>(
        std::chrono::ceil<std::chrono::duration<unsigned int, std::milli>>(point - now).count());
}
inline unsigned int milliseconds_until(time const& point) {
    time const now = time::now();
    return point <= now ? 0 : whole_milliseconds((point - now).seconds());
}

// The point in time of `end`, which is whatever `deadline` accepts: the end of a span on
// the steady clock, or the point itself.
template <class Rep, class Period>
std::chrono::steady_clock::time_point point_of(std::chrono::duration<Rep, Period> const& end) {
    using clock = std::chrono::steady_clock;
    clock::time_point const now = clock::now();
    long double const span = seconds_of(end);
    if (!(span > 0))
        return now;
    // One second less, because the comparison rounds.
    if (span >= seconds_of(clock::time_point::max() - now) - 1)
        return clock::time_point::max();
    return now + std::chrono::ceil<clock::duration>(end);
}
template <class Point>
Point const& point_of(Point const& end) {
    return end;
}

// How long the first wait for `end` lasts. A span needs no reading of the clock, since
// `point_of` has just read it.
template <class Rep, class Period>
unsigned int first_wait(std::chrono::duration<Rep, Period> const& end) {
    long double const seconds = seconds_of(end);
    if (seconds > 1 || !(seconds > 0))
        return whole_milliseconds(seconds);
    return static_cast<unsigned int>(
        std::chrono::ceil<std::chrono::duration<unsigned int, std::milli>>(end).count());
}
template <class Point>
unsigned int first_wait(Point const& end) {
    return milliseconds_until(end);
}

// Repeats `attempt`, which gets the milliseconds to wait, until it succeeds (true) or
// `end` has passed (false). `left` is the time for the first attempt. One attempt lasts until
// `end`, unless that is longer than a wait can be, or the clock of `end` runs slower than the
// kernel's. If `end` has already passed, it tries once.
template <class Point, class Attempt>
bool attempt_until(Point const& point, unsigned int left, Attempt const& attempt) {
    do {
        if (attempt(left))
            return true;
        if (left == 0)
            return false;
        left = milliseconds_until(point);
    } while (left != 0);
    return false;
}
template <class End, class Attempt>
bool attempt_until(End const& end, Attempt const& attempt) {
    auto const& point = point_of(end);
    return attempt_until(point, first_wait(end), attempt);
}

// A point that many seconds from now for the library's timed operations, clamped to their
// range. They end at the nearest millisecond; the added half millisecond keeps them from
// ending early.
inline time from_now(long double seconds) {
    if (seconds > 0)
        seconds += 0.0005L;
    return time::then(static_cast<double>(seconds));
}

}  // namespace detail

// A deadline for every timed operation of the library. A duration counts from now. A
// point in time counts from the present time of its own clock, and later adjustments of
// that clock do not count. The result is half a millisecond later, so a timed operation
// that uses it at once never ends early. The longest spans last for ever; a point in the
// past is a deadline that has passed. Any thread may call these functions; they block as
// `time::now` does.
//
//     if (!gate.timed_acquire(deadline(5ms)))
//         give_up();
template <class Rep, class Period>
time deadline(std::chrono::duration<Rep, Period> const& span) {
    return detail::from_now(detail::seconds_of(span));
}
template <class Clock, class Duration>
time deadline(std::chrono::time_point<Clock, Duration> const& point) {
    // In floating point, because the difference of two points may not fit their type.
    long double const end = detail::seconds_of(point.time_since_epoch());
    return detail::from_now(end - detail::seconds_of(Clock::now().time_since_epoch()));
}
inline time deadline(time const& point) {
    return point;
}

namespace detail {

template <class Mutex>
concept has_deadline = requires(Mutex& lock) {
    lock.timed_acquire(0u);
};

// The standard's verbs for the mutex of `Self`, which derives from this class.
template <class Self, class Mutex>
class lock_operations {
public:
    void lock() {
        _lock().acquire();
    }
    [[nodiscard]] bool try_lock() {
        return _lock().try_acquire();
    }
    void unlock() {
        _lock().release();
    }

    // Give up and return false once `span` has passed on std::chrono::steady_clock, or
    // `point` on its own clock, and never earlier. They take a free mutex even then. Both
    // accept whatever `deadline` does. Only the timed mutexes have them.
    template <class Span, has_deadline Timed = Mutex>
    [[nodiscard]] bool try_lock_for(Span const& span) {
        return try_lock_until(span);
    }
    template <class Point, has_deadline Timed = Mutex>
    [[nodiscard]] bool try_lock_until(Point const& point) {
        Timed& lock = _lock();
        return attempt_until(
            point, [&lock](unsigned int milliseconds) { return lock.timed_acquire(milliseconds); });
    }

private:
    Mutex& _lock() {
        return static_cast<Self*>(this)->underlying();
    }
};

}  // namespace detail

// A mutex of the library that the standard library can lock. `lockable<mutex>`,
// `lockable<timed_mutex>`, `lockable<recursive_mutex>` and
// `lockable<timed_recursive_mutex>` are those mutexes, with their constructors and their
// own operations, and satisfy the requirements of std::lock_guard, std::unique_lock and
// std::scoped_lock. The timed ones also have deadlines. Blocking, threads and misuse are
// as documented for the mutex.
template <class Mutex>
class lockable : public Mutex, public detail::lock_operations<lockable<Mutex>, Mutex> {
public:
    using Mutex::Mutex;

    // The mutex that it is.
    Mutex& underlying() {
        return *this;
    }
};

// The same for an existing mutex, which must outlive it. Any number of these may refer to
// one mutex.
//
//     lockable view(lock);  // `lock` is a mutex
//     std::lock_guard const hold(view);
template <class Mutex>
class lockable<Mutex&> : public detail::lock_operations<lockable<Mutex&>, Mutex> {
public:
    // Refers to `lock`, which must outlive it.
    explicit lockable(Mutex& lock) : _referred(lock) {}

    // The mutex that it refers to.
    Mutex& underlying() {
        return _referred;
    }

private:
    Mutex& _referred;
};

// `lockable view(lock)` refers to `lock`.
template <class Mutex>
lockable(Mutex&) -> lockable<Mutex&>;

namespace detail {

// The mutex that a caller of a wait passes: a mutex of the library, or that of a
// `lockable` or of a std::unique_lock of one.
template <class Mutex>
Mutex& mutex_of(Mutex& lock) {
    return lock;
}
template <class Mutex>
auto& mutex_of(lockable<Mutex>& lock) {
    return lock.underlying();
}
template <class Lock>
auto& mutex_of(std::unique_lock<Lock>& hold) {
    return mutex_of(*hold.mutex());
}

}  // namespace detail

// Waits on `changed` until `holds()` is true. Calls `holds()` with the mutex held; its
// exceptions leave the wait with the mutex held. `lock` is a mutex of the library, a
// `lockable`, or a std::unique_lock of one, and the caller holds it.
template <class Condition, class Lock, class Predicate>
void wait(Condition& changed, Lock& lock, Predicate holds) {
    while (!holds())
        changed.acquire(detail::mutex_of(lock));
}

// The same with a deadline, which is whatever `deadline` accepts. Returns `holds()`.
// Never gives up before a span has passed on std::chrono::steady_clock, or a point on its
// own clock.
template <class Lock, class Point, class Predicate>
[[nodiscard]] bool wait_until(timed_condition& changed, Lock& lock, Point const& point,
                              Predicate holds) {
    if (holds())
        return true;
    auto const& end = detail::point_of(point);
    unsigned int left = detail::first_wait(point);
    auto const attempt = [&](unsigned int milliseconds) {
        return changed.timed_acquire(detail::mutex_of(lock), milliseconds);
    };
    while (detail::attempt_until(end, left, attempt)) {
        if (holds())
            return true;
        left = detail::milliseconds_until(end);
    }
    return holds();
}
template <class Lock, class Rep, class Period, class Predicate>
[[nodiscard]] bool wait_for(timed_condition& changed, Lock& lock,
                            std::chrono::duration<Rep, Period> const& span, Predicate holds) {
    return wait_until(changed, lock, span, holds);
}

namespace detail {

// The standard's verbs for a wait. `Self`, which derives from this, has `_wait_within`:
// it waits for at most that many milliseconds (`forever`: without end), and returns
// whether what it waits for has come.
template <class Self>
class wait_operations {
public:
    void wait() const {
        _self()._wait_within(forever);
    }

    // Give up and return false once `span` has passed on std::chrono::steady_clock,
    // or `point` on its own clock, and never earlier. Both accept whatever `deadline`
    // does.
    template <class Span>
    [[nodiscard]] bool wait_for(Span const& span) const {
        return wait_until(span);
    }
    template <class Point>
    [[nodiscard]] bool wait_until(Point const& point) const {
        return attempt_until(point, [this](unsigned int milliseconds) {
            return _self()._wait_within(milliseconds);
        });
    }

protected:
    static constexpr unsigned int forever = std::numeric_limits<unsigned int>::max();

    static bool _take(timed_semaphore& units, unsigned int milliseconds) {
        if (milliseconds != forever)
            return units.timed_acquire(milliseconds);
        units.acquire();
        return true;
    }

private:
    Self const& _self() const {
        return static_cast<Self const&>(*this);
    }
};

}  // namespace detail

// A flag that threads wait for. `set` releases all waiting threads, with at most one
// system call, and later ones until `reset`. A thread that waits when `set` is called is
// released even if `reset` follows at once. What a thread wrote before `set` is visible
// to the threads that this releases. Any thread may call any operation. `wait`,
// `wait_for` and `wait_until` block; the others block only for each other. The waits
// throw std::bad_alloc, or fail the check "_semaphore != 0", if memory runs out for the first
// threads that wait, or for threads that wait while earlier ones have yet to leave. A thread that a
// wait has released may destroy the event. Not detected: destroying an event that others wait for
// or are about to set.
//
//     event stopped;
//     stopped.set();                        // one thread
//     if (stopped.wait_for(20ms)) return;   // others
class event : public detail::wait_operations<event> {
public:
    // Is set from the start if `is_set`.
    explicit event(bool is_set = false) : _state(is_set ? set_before : unset) {}
    ~event() {
        delete _gathering;
        delete _spare;
    }
    event(event const&) = delete;
    event& operator=(event const&) = delete;

    // Releases all threads that wait, and those that come until `reset`. Never blocks but
    // for other operations.
    void set() {
        // Nobody waits for an event that is set. The exchange publishes what this thread
        // wrote, and is its last access.
        for (state now = _state.load(std::memory_order_relaxed); now != unset;)
            if (_state.compare_exchange_weak(now, now, std::memory_order_release,
                                             std::memory_order_relaxed))
                return;
        round* released;
        unsigned int count;
        {
            std::lock_guard const hold(_lock);
            _state.store(just_set, std::memory_order_release);
            if (_gathering == nullptr)
                return;
            count = _gathering->threads.load(std::memory_order_relaxed);
            if (count == 0)
                return;
            released = std::exchange(_gathering, nullptr);
        }
        // It lasts until each of its threads has taken its unit.
        released->units._release(static_cast<int>(count));
    }

    // From now on threads wait again. Releases none that waits. Never blocks. A thread that looks
    // for work after it sees what others published before their `set`, or the event is set again.
    void reset() {
        // Acquire: a `set` that was before this had nothing to do. A plain store could be delayed
        // until after what the thread reads next, and then overwrite a later `set` unseen.
        _state.exchange(unset, std::memory_order_acq_rel);
    }

    // Whether the event is set. Does not tell that the thread that set it is done with it.
    [[nodiscard]] bool try_wait() const noexcept {
        return _state.load(std::memory_order_acquire) != unset;
    }

private:
    friend class detail::wait_operations<event>;

    // The thread that set an event may still hold the lock when it is just set. The first
    // wait that finds it so takes the lock once, so it may destroy the event.
    enum state : unsigned char { unset, just_set, set_before };

    // Threads that one `set` releases. They have their own semaphore, so threads that
    // wait after that `set` cannot take their units.
    struct round {
        timed_semaphore units{0, 0};
        // Threads that have not left. Grows under _lock, while the round gathers.
        detail::atomic<unsigned int> threads{0};
    };

    bool _wait_within(unsigned int milliseconds) const {
        state now = _state.load(std::memory_order_acquire);
        if (now == set_before)
            return true;
        if (now == unset && milliseconds == 0)
            return false;
        round* joined;
        {
            std::lock_guard const hold(_lock);
            // Acquire: a thread that has found it set before this one has published more.
            now = just_set;
            if (_state.compare_exchange_strong(now, set_before, std::memory_order_acquire,
                                               std::memory_order_acquire) ||
                now == set_before)
                return true;
            if (milliseconds == 0)
                return false;
            if (_gathering == nullptr)
                _gathering = _spare != nullptr ? std::exchange(_spare, nullptr) : new round;
            joined = _gathering;
            joined->threads.fetch_add(1, std::memory_order_relaxed);
        }
        if (!_take(joined->units, milliseconds)) {
            {
                std::lock_guard const hold(_lock);
                if (joined == _gathering) {
                    joined->threads.fetch_sub(1, std::memory_order_relaxed);
                    return false;
                }
            }
            joined->units.acquire();  // posted for this thread, or about to be
        }
        // The last thread is done with the round after all others.
        if (joined->threads.fetch_sub(1, std::memory_order_acq_rel) == 1)
            _put_away(joined);
        return true;
    }

    // Keeps an empty round for later threads.
    void _put_away(round* empty) const {
        {
            std::lock_guard const hold(_lock);
            if (_spare == nullptr)
                std::swap(_spare, empty);
        }
        delete empty;
    }

    // Mutable, because a wait does not change what the event says.
    mutable lockable<mutex> _lock;        // guards the two below, and `_state` but for `reset`
    mutable round* _gathering = nullptr;  // threads wait in it, or have given up
    mutable round* _spare = nullptr;
    mutable detail::atomic<state> _state;
};

// Makes threads wait until a number of steps is done. The last step releases all of them,
// with at most one system call, and the latch stays open. What a thread wrote before a
// step is visible to them. Any thread may call any operation. `wait`, `wait_for`,
// `wait_until` and `arrive_and_wait` block. A released thread may destroy the latch. Not
// detected: destroying a latch that others wait for. A negative number of steps, or more
// than are left, fails a check.
//
//     latch loaded(3);
//     loaded.count_down();  // each of three threads
//     loaded.wait();        // those that need all three
class latch : public detail::wait_operations<latch> {
public:
    // Starts with `expected` steps, from 0 to `max()` (check "expected >= 0 &&
    // expected <= max()").
    explicit latch(std::ptrdiff_t expected) : _state(static_cast<std::uint64_t>(expected)) {
        assure(expected >= 0 && expected <= max());
    }
    latch(latch const&) = delete;
    latch& operator=(latch const&) = delete;

    // The most steps of a latch.
    static constexpr std::ptrdiff_t max() noexcept {
        return std::numeric_limits<std::int32_t>::max();
    }

    // Does `steps` of them (check "steps >= 0 && steps <= left"). Never blocks.
    void count_down(std::ptrdiff_t steps = 1) {
        std::uint64_t const before =
            _state.fetch_sub(static_cast<std::uint64_t>(steps), std::memory_order_acq_rel);
        auto const left = static_cast<std::ptrdiff_t>(before % sleeper);
        assure(steps >= 0 && steps <= left);
        // From the last step on, only threads that have yet to take a unit keep
        // the latch alive.
        if (steps == left && steps != 0 && before / sleeper != 0)
            _units._release(static_cast<int>(before / sleeper));
    }

    // Whether all steps are done.
    [[nodiscard]] bool try_wait() const noexcept {
        return _state.load(std::memory_order_acquire) % sleeper == 0;
    }

    // Does `steps` of them, checked as in `count_down`, and blocks until all are done.
    void arrive_and_wait(std::ptrdiff_t steps = 1) {
        count_down(steps);
        wait();
    }

private:
    friend class detail::wait_operations<latch>;

    static constexpr std::uint64_t sleeper = std::uint64_t{1} << 32;

    // Adds to the number of threads that wait, unless all steps are done.
    bool _count_thread(std::uint64_t change) const {
        std::uint64_t state = _state.load(std::memory_order_acquire);
        do {
            if (state % sleeper == 0)
                return false;
        } while (!_state.compare_exchange_weak(state, state + change, std::memory_order_acquire,
                                               std::memory_order_acquire));
        return true;
    }

    bool _wait_within(unsigned int milliseconds) const {
        if (try_wait())
            return true;
        if (milliseconds == 0)
            return false;
        if (!_count_thread(sleeper) || _take(_units, milliseconds))
            return true;
        if (_count_thread(-sleeper))
            return false;
        _units.acquire();  // posted for this thread, or about to be
        return true;
    }

    // The steps left, plus `sleeper` times the number of threads that wait for a
    // unit. In one word, so that the last step sees all waiting threads.
    mutable detail::atomic<std::uint64_t> _state;
    mutable timed_semaphore _units{0, 0};
};

}  // namespace ovel

#endif
