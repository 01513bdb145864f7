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

    // The time-stamp counter of the processor that the caller is on. One
    // instruction; readings of different processors need not be comparable.
    static std::int64_t time_now();

    // Seconds per tick: 1 over the processor's rated clock rate, or over 2 GHz
    // where that is not known. The first call in the process finds it out, and
    // may block while another thread does; later ones read it.
    static double time_unit();
};

namespace detail {

// The most milliseconds of one wait.
inline constexpr unsigned int longest_wait = 2147483647;

// Seconds in ticks, truncated toward zero. What is out of range is half of the range,
// so that a point that far from now is in range; a NaN is 0 ticks.
OVEL_EXPORT std::int64_t ticks_of(double seconds);

// What `time` and `time_base` have in common: a signed 64-bit count of ticks
// that wraps modulo 2^64. `Time` is the type itself, with its own `_now`.
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

    // The span, or the point since the counter's start, in seconds.
    double seconds() const {
        return time_support::time_unit() * static_cast<double>(_count);
    }

    // `seconds` as a number of ticks, truncated toward zero. What is out of range, as
    // infinity is, becomes half of the range, centuries; a NaN is 0.
    static Time seconds(double seconds) {
        return Time(ticks_of(seconds));
    }

    // The raw count.
    std::int64_t value() const {
        return _count;
    }

    // The point in time `seconds` from now. Infinity is never. The offset is computed
    // before the clock is read.
    static Time then(double seconds) {
        Time const offset = Time::seconds(seconds);
        return Time::now() + offset;
    }

protected:
    explicit ticks(std::int64_t count) : _count(count) {}

private:
    friend struct inspector;

    // Unsigned arithmetic wraps where signed arithmetic is undefined.
    static std::uint64_t _bits(std::int64_t count) {
        return static_cast<std::uint64_t>(count);
    }
    static std::int64_t _wrap(std::uint64_t bits) {
        return static_cast<std::int64_t>(bits);
    }

    std::int64_t _count = 0;
};

}  // namespace detail

// A point in time, or a span, on the one clock of the process: all readings come
// from the counter of one processor and never go backwards from one thread to
// another. Every deadline of the library is a `time`.
//
// A timed wait ends at the millisecond nearest to its deadline, to within 0.1 % of its
// span, or later, and after 2147483647 milliseconds at the latest: the rate of the counter
// is known in whole megahertz. Those of `ovel_std.h` never end before their deadline on the
// caller's clock.
//
//     time const deadline = time::then(0.5);  // half a second from now
class OVEL_EXPORT time : public detail::ticks<time> {
public:
    time() = default;

    // One reading of the process's clock, by way of the thread that keeps it.
    // Blocks for that hand-over only. Any thread may call it; the first call in
    // the process starts the clock's thread, and fails the check "("unexpected
    // exception", 0)" without the memory for it.
    static time now();

private:
    friend class detail::ticks<time>;
    friend struct detail::inspector;
    explicit time(std::int64_t count) : ticks(count) {}
};

// The same value, but read on whatever processor the caller runs on: one
// instruction and no hand-over. It does not convert to `time`, nor back.
class OVEL_EXPORT time_base : public detail::ticks<time_base> {
public:
    time_base() = default;

    // The counter of the processor that the caller is on.
    static time_base now();

private:
    friend class detail::ticks<time_base>;
    friend struct detail::inspector;
    explicit time_base(std::int64_t count) : ticks(count) {}
};

}  // namespace ovel

#endif
