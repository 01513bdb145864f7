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
#include <limits>
#include <mutex>

namespace ovel {

namespace detail {

// `seconds` in ticks, rounded up; saturates.
inline time ticks_above(long double seconds) {
    auto const unit = static_cast<long double>(time_support::time_unit());
    // Halfway between two counts, so that dividing by the unit again, in fewer
    // digits, cannot end below the count that is meant.
    long double const middle = std::ceil(seconds / unit) + 0.5L;
    return time::seconds(static_cast<double>(middle * unit));
}

// The end of the range that a sum with a positive `span` would leave otherwise.
inline time from_now(time const& span) {
    time const now = time::now();
    time const end = time::seconds(std::numeric_limits<double>::infinity());
    return span < end - now ? now + span : end;
}

template <class Rep, class Period>
long double seconds_of(std::chrono::duration<Rep, Period> const& span) {
    return std::chrono::duration<long double>(span).count();
}

// Repeats `attempt`, which is given `deadline`, until it succeeds, true, or the
// deadline has passed, false. A wait of the library ends at the nearest millisecond,
// which may be the one before, and after 2147483647 of them.
template <class Attempt>
bool attempt_until(time const& deadline, Attempt const& attempt) {
    do {
        if (attempt(deadline))
            return true;
    } while (time::now() < deadline);
    return false;
}

}  // namespace detail

// A deadline for every timed operation of the library: a duration counts from now,
// a point in time from its own clock's present, whose later adjustments do not
// count. Rounded up to whole ticks; what is out of range is the end of it. What has
// passed is a deadline that has passed. Any thread may call them; they block as
// `time::now` does.
//
//     if (!gate.timed_acquire(deadline(5ms)))
//         give_up();
template <class Rep, class Period>
time deadline(std::chrono::duration<Rep, Period> const& span) {
    return detail::from_now(detail::ticks_above(detail::seconds_of(span)));
}
template <class Clock, class Duration>
time deadline(std::chrono::time_point<Clock, Duration> const& point) {
    // In floating point, since the difference of two points need not fit theirs.
    // The rounding of both is less than what is added.
    long double const end = detail::seconds_of(point.time_since_epoch());
    long double const now = detail::seconds_of(Clock::now().time_since_epoch());
    long double const rounding =
        (std::fabs(end) + std::fabs(now)) * std::numeric_limits<long double>::epsilon();
    return detail::from_now(detail::ticks_above(end - now + rounding));
}
inline time deadline(time const& point) {
    return point;
}

namespace detail {

template <class Mutex>
concept has_deadline = requires(Mutex& lock, time const& end) {
    lock.timed_acquire(end);
};

// The standard's verbs for the mutex that `Self`, which derives from this, refers to.
template <class Self, class Mutex>
class lock_operations {
public:
    void lock() {
        _lock().acquire();
    }
    bool try_lock() {
        return _lock().try_acquire();
    }
    void unlock() {
        _lock().release();
    }

    // Give up, false, once `span` or `point`, whatever `deadline` accepts, has
    // passed, and never earlier; but take a free mutex even then. The timed mutexes
    // have them.
    template <class Span, has_deadline Timed = Mutex>
    bool try_lock_for(Span const& span) {
        return try_lock_until(deadline(span));
    }
    template <class Point, has_deadline Timed = Mutex>
    bool try_lock_until(Point const& point) {
        Timed& lock = _lock();
        return attempt_until(deadline(point),
                             [&lock](time const& end) { return lock.timed_acquire(end); });
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

// The same with a deadline; return whether `holds()`. Never give up before the
// deadline, whatever `deadline` accepts, has passed.
template <class Lock, class Point, class Predicate>
bool wait_until(timed_condition& changed, Lock& lock, Point const& point, Predicate holds) {
    time const end = deadline(point);
    while (!holds())
        if (!changed.timed_acquire(detail::mutex_of(lock), end) && time::now() >= end)
            return holds();
    return true;
}
template <class Lock, class Rep, class Period, class Predicate>
bool wait_for(timed_condition& changed, Lock& lock, std::chrono::duration<Rep, Period> const& span,
              Predicate holds) {
    return wait_until(changed, lock, deadline(span), holds);
}

}  // namespace ovel

#endif
