// SPDX-License-Identifier: Apache-2.0
// The counter, the length of a tick, and conversions between seconds, ticks and
// milliseconds. `time::now` is in ovel_time_server.cpp, next to the thread that keeps the
// clock.

#include "ovel_time.h"

#include "kernel.h"
#include "ovel_once.h"
#include "ovel_thread_support.h"

#include <cmath>
#include <limits>

namespace ovel {

namespace {

// Seconds per tick. Written under the once-flag, constant afterwards.
double unit;

void find_unit() {
    double frequency = 2000000000.0;
    HKEY key;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, "HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0", 0,
                      KEY_READ, &key) == ERROR_SUCCESS) {
        int megahertz = 0;
        DWORD size = sizeof megahertz;
        if (RegQueryValueExA(key, "~MHz", nullptr, nullptr,
                             reinterpret_cast<unsigned char*>(&megahertz), &size) == ERROR_SUCCESS)
            frequency = megahertz * 1000000.0;
        RegCloseKey(key);
    }
    unit = 1.0 / frequency;
}

// Converts `value` to an integer. Saturates at `most` and -`most`, which a double can
// represent; NaN becomes 0.
template <class Integer>
Integer narrow(double value, Integer most) {
    if (value >= static_cast<double>(most))
        return most;
    if (value <= -static_cast<double>(most))
        return -most;
    return value == value ? static_cast<Integer>(value) : 0;
}

}  // namespace

std::int64_t time_support::time_now() {
    return static_cast<std::int64_t>(__rdtsc());
}

double time_support::time_unit() {
    static unsigned int volatile flag = 0;
    call_once(find_unit, flag);
    return unit;
}

time_base time_base::now() {
    return time_base(time_support::time_now());
}

std::int64_t detail::ticks_of(double seconds) {
    constexpr std::int64_t half = std::numeric_limits<std::int64_t>::max() / 2 + 1;
    return narrow(seconds / time_support::time_unit(), half);
}

unsigned int detail::milliseconds_between(time const& now, time const& deadline) {
    // Compare first: if the deadline is too far in the past, the difference would wrap to
    // a time in the future.
    if (deadline <= now)
        return 0;
    double const left = (deadline - now).seconds();
    return static_cast<unsigned int>(
        narrow(std::nearbyint(left * 1000.0), static_cast<int>(longest_wait)));
}

}  // namespace ovel
