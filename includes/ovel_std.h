// SPDX-License-Identifier: Apache-2.0
// The library's locks, conditions and deadlines in the terms of the standard library.
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
// It stands beside the library and `ovel.h` does not include it, since it draws
// <chrono> and <mutex> in.
#ifndef OVEL_STD_H
#define OVEL_STD_H

#include "ovel_condition.h"
#include "ovel_mutex.h"
#include "ovel_time.h"

#include <chrono>
#include <cmath>
#include <mutex>
#include <ratio>

namespace ovel {

namespace detail {

template <class Rep, class Period>
long double seconds_of(std::chrono::duration<Rep, Period> const& span) {
    return std::chrono::duration<long double>(span).count();
}

// Milliseconds, rounded up, for one wait; 0 for what has passed and for a NaN.
inline unsigned int whole_milliseconds(long double seconds) {
    if (!(seconds > 0))
        return 0;
    if (seconds >= longest_wait / 1000)
        return longest_wait;
    return static_cast<unsigned int>(std::ceil(seconds * 1000));
}

// How long it is from now to a point on a clock, for one wait: 0 once that has passed.
template <class Clock, class Duration>
unsigned int milliseconds_until(std::chrono::time_point<Clock, Duration> const& point) {
    auto const now = Clock::now();
    // In floating point, since the difference of two points need not fit theirs. Only
    // where they are close, and do fit, is its rounding not good enough.
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

// The point in time that `end`, whatever `deadline` accepts, means: the end of a span on
// the steady clock, and a point itself.
template <class Rep, class Period>
std::chrono::steady_clock::time_point point_of(std::chrono::duration<Rep, Period> const& end) {
    using clock = std::chrono::steady_clock;
    clock::time_point const now = clock::now();
    long double const span = seconds_of(end);
    if (!(span > 0))
        return now;
    // A second less than that, since the comparison rounds.
    if (span >= seconds_of(clock::time_point::max() - now) - 1)
        return clock::time_point::max();
    return now + std::chrono::ceil<clock::duration>(end);
}
template <class Point>
Point const& point_of(Point const& end) {
    return end;
}

// Repeats `attempt`, which is given the milliseconds to wait, until it succeeds, true, or
// `end` has passed, false. One attempt lasts until then, but where that is longer than a
// wait can be, or the clock of `end` runs slower than the kernel's. What has passed is
// tried once.
template <class End, class Attempt>
bool attempt_until(End const& end, Attempt const& attempt) {
    auto const& point = point_of(end);
    unsigned int left = milliseconds_until(point);
    do {
        if (attempt(left))
            return true;
        if (left == 0)
            return false;
        left = milliseconds_until(point);
    } while (left != 0);
    return false;
}

// A point that many seconds from now for the timed operations of the library, and in their
// range. They end at the nearest millisecond: half of one more lets none of them end early.
inline time from_now(long double seconds) {
    if (seconds > 0)
        seconds += 0.0005L;
    return time::then(static_cast<double>(seconds));
}

}  // namespace detail

// A deadline for every timed operation of the library: a duration counts from now,
// a point in time from its own clock's present, whose later adjustments do not
// count. It is half a millisecond after that: a timed operation that is given it at once
// never ends before. The longest spans are for ever; what has passed is a deadline that
// has passed. Any thread may call them; they block as `time::now` does.
//
//     if (!gate.timed_acquire(deadline(5ms)))
//         give_up();
template <class Rep, class Period>
time deadline(std::chrono::duration<Rep, Period> const& span) {
    return detail::from_now(detail::seconds_of(span));
}
template <class Clock, class Duration>
time deadline(std::chrono::time_point<Clock, Duration> const& point) {
    // In floating point, since the difference of two points need not fit theirs.
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

// The standard's verbs for the mutex that `Self`, which derives from this, refers to.
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

    // Give up, false, once `span` has passed on std::chrono::steady_clock, or `point` on
    // its own clock, and never earlier; but take a free mutex even then. Both accept
    // whatever `deadline` does. The timed mutexes have them.
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

// A mutex of the library that the standard library can lock: `lockable<mutex>`,
// `lockable<timed_mutex>`, `lockable<recursive_mutex>` and
// `lockable<timed_recursive_mutex>` are those mutexes, with their constructors and
// their own operations, and meet what std::lock_guard, std::unique_lock and
// std::scoped_lock ask for. The timed ones have deadlines as well. What blocks,
// which threads may call it and what misuse does is as for the mutex.
template <class Mutex>
class lockable : public Mutex, public detail::lock_operations<lockable<Mutex>, Mutex> {
public:
    using Mutex::Mutex;

    // The mutex that it is.
    Mutex& underlying() {
        return *this;
    }
};

// The same over a mutex that exists already and outlives it: any number of these may
// refer to one mutex.
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

// The mutex of the library that a caller of a wait names: itself, or that of a
// `lockable`, or of a std::unique_lock of one.
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

// Waits on `changed` until `holds()`, which is called with the mutex held and whose
// exceptions leave the wait so. `lock` is a mutex of the library, a `lockable`, or a
// std::unique_lock of one, and the caller holds it.
template <class Condition, class Lock, class Predicate>
void wait(Condition& changed, Lock& lock, Predicate holds) {
    while (!holds())
        changed.acquire(detail::mutex_of(lock));
}

// The same with a deadline, whatever `deadline` accepts; return whether `holds()`. Never
// give up before a span has passed on std::chrono::steady_clock, or a point on its own
// clock.
template <class Lock, class Point, class Predicate>
[[nodiscard]] bool wait_until(timed_condition& changed, Lock& lock, Point const& point,
                              Predicate holds) {
    auto const& end = detail::point_of(point);
    while (!holds()) {
        bool const waited = detail::attempt_until(end, [&](unsigned int milliseconds) {
            return changed.timed_acquire(detail::mutex_of(lock), milliseconds);
        });
        if (!waited)
            return holds();
    }
    return true;
}
template <class Lock, class Rep, class Period, class Predicate>
[[nodiscard]] bool wait_for(timed_condition& changed, Lock& lock,
                            std::chrono::duration<Rep, Period> const& span, Predicate holds) {
    return wait_until(changed, lock, span, holds);
}

}  // namespace ovel

#endif
