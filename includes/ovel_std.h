// SPDX-License-Identifier: Apache-2.0
// The library's locks, conditions and deadlines with the standard library's interfaces.
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

// Repeats `attempt`, which gets the milliseconds to wait, until it succeeds (true) or
// `end` has passed (false). One attempt lasts until `end`, unless that is longer than a
// wait can be, or the clock of `end` runs slower than the kernel's. If `end` has already
// passed, it tries once.
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
