// SPDX-License-Identifier: Apache-2.0
// The clock: counts of time-stamp-counter ticks, and points in time made of them.
#ifndef OVEL_TIME_H
#define OVEL_TIME_H

#include "ovel_frame.h"

#include <compare>
#include <cstdint>

namespace ovel {

// Raw access to the counter and to the length of its ticks.
class OVEL_EXPORT time_support {
public:
    time_support() = delete;

    // Reads the time-stamp counter of the processor that the caller runs on, in one
    // instruction. Readings of different processors need not be comparable.
    static std::int64_t time_now();

    // Seconds per tick: 1 over the processor's rated clock rate, or over 2 GHz if the
    // rate is unknown. The first call in the process determines it, and may block while
    // another thread does; later calls read it.
    static double time_unit();
};

namespace detail {

// The longest time that one system call waits, in milliseconds.
inline constexpr unsigned int longest_wait = 2147483647;

// Seconds in ticks, truncated toward zero. What is out of range becomes half of the range,
// so that now plus infinity is still in range; NaN counts as 0.
OVEL_EXPORT std::int64_t ticks_of(double seconds);

// What `time` and `time_base` share: a signed 64-bit count of ticks that wraps modulo
// 2^64. `Time` is the derived type, which has its own `now`.
template <class Time>
class ticks {
public:
    ticks() = default;

    friend bool operator==(Time const& left, Time const& right) {
        return left._count == right._count;
    }
    friend std::strong_ordering operator<=>(Time const& left, Time const& right) {
        return left._count <=> right._count;
    }

    Time operator+(Time const& other) const {
        return Time(_wrap(_bits(_count) + _bits(other._count)));
    }
    Time operator-(Time const& other) const {
        return Time(_wrap(_bits(_count) - _bits(other._count)));
    }
    Time operator-() const {
        return Time(_wrap(-_bits(_count)));
    }
    Time& operator+=(Time const& other) {
        return static_cast<Time&>(*this) = *this + other;
    }
    Time& operator-=(Time const& other) {
        return static_cast<Time&>(*this) = *this - other;
    }

    // The span in seconds; for a point, the seconds since the counter started.
    double seconds() const {
        return time_support::time_unit() * static_cast<double>(_count);
    }

    // `seconds` as a number of ticks, truncated toward zero. Values out of range,
    // infinity included, become half of the range, which is centuries; NaN counts as 0.
    static Time seconds(double seconds) {
        return Time(ticks_of(seconds));
    }

    // The raw count.
    std::int64_t value() const {
        return _count;
    }

    // The point in time `seconds` from now; with infinity it never comes. Computes the
    // offset before it reads the clock.
    static Time then(double seconds) {
        Time const offset = Time::seconds(seconds);
        return Time::now() + offset;
    }

protected:
    explicit ticks(std::int64_t count) : _count(count) {}

private:
    friend struct inspector;

    // Unsigned arithmetic wraps; signed overflow would be undefined.
    static std::uint64_t _bits(std::int64_t count) {
        return static_cast<std::uint64_t>(count);
    }
    static std::int64_t _wrap(std::uint64_t bits) {
        return static_cast<std::int64_t>(bits);
    }

    std::int64_t _count = 0;
};

}  // namespace detail

// A point in time, or a span, on the single clock of the process: every reading comes
// from the counter of the same processor, so the clock never goes backwards from one
// thread to another. Every deadline of the library is a `time`.
//
// A timed wait ends at the millisecond nearest to its deadline, to within 0.1 % of its
// span, or later, and waits 2147483647 milliseconds at most. The 0.1 % remains because
// the rate of the counter is known in whole megahertz. The timed waits of `ovel_std.h`
// never end before their deadline on the caller's clock.
//
//     time const deadline = time::then(0.5);  // half a second from now
class OVEL_EXPORT time : public detail::ticks<time> {
public:
    time() = default;

    // Reads the process's clock through the thread that keeps it, and blocks for that
    // hand-over only. Any thread may call it. The first call in the process starts the
    // clock's thread; if memory runs out, that fails the check "("unexpected exception",
    // 0)".
    static time now();

private:
    friend class detail::ticks<time>;
    friend struct detail::inspector;
    explicit time(std::int64_t count) : ticks(count) {}
};

// The same value, but read from the counter of the processor that the caller runs on: one
// instruction and no hand-over. It converts neither to `time` nor from it.
class OVEL_EXPORT time_base : public detail::ticks<time_base> {
public:
    time_base() = default;

    // Reads the counter of the processor that the caller runs on.
    static time_base now();

private:
    friend class detail::ticks<time_base>;
    friend struct detail::inspector;
    explicit time_base(std::int64_t count) : ticks(count) {}
};

}  // namespace ovel

#endif
