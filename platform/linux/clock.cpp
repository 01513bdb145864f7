// SPDX-License-Identifier: Apache-2.0
// Sleeping, and the rate of the time-stamp counter.

#include "kernel.h"
#include "linux/futex_word.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <iterator>

#include <cpuid.h>
#include <sched.h>
#include <time.h>
#include <unistd.h>

namespace ovel {

namespace {

constexpr LONG file_not_found = 2;
constexpr LONG more_data = 234;

// The only key of the registry. The open handle is its address.
char const key_name[] = "HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0";

// The counter's rate in hertz as the processor reports it, from its crystal and their
// ratio, or as the hypervisor reports it; 0 if neither does.
double rate_from_processor() {
    // CPUID leaf 0x15: the crystal's rate is c, the counter's ratio to it b / a. Hypervisors
    // report kilohertz in a leaf of their own range.
    unsigned int a, b, c, d;
    if (__get_cpuid_count(0x15, 0, &a, &b, &c, &d) && a != 0 && b != 0 && c != 0)
        return static_cast<double>(c) * b / a;
    constexpr unsigned int hypervisor_present = 1u << 31;
    if (!__get_cpuid(1, &a, &b, &c, &d) || (c & hypervisor_present) == 0)
        return 0;
    constexpr unsigned int first_leaf = 0x40000000;
    constexpr unsigned int timing_leaf = 0x40000010;
    __cpuid(first_leaf, a, b, c, d);
    if (a < timing_leaf || a > first_leaf + 0xffff)
        return 0;
    __cpuid(timing_leaf, a, b, c, d);
    return a * 1000.0;
}

// The rate as the kernel reports it; 0 if it does not.
double rate_from_kernel() {
    double kilohertz = 0;
    if (std::FILE* const file = std::fopen("/sys/devices/system/cpu/cpu0/tsc_freq_khz", "re")) {
        if (std::fscanf(file, "%lf", &kilohertz) != 1)
            kilohertz = 0;
        std::fclose(file);
    }
    return kilohertz * 1000.0;
}

// The same moment on both clocks.
struct moment {
    std::uint64_t ticks;
    double nanoseconds;
};

moment read_clocks() {
    // Takes the try with the smallest difference between its two readings of the counter:
    // an interrupt between them would separate the clocks.
    moment best = {};
    std::uint64_t least = UINT64_MAX;
    for (int tries = 0; tries < 10; ++tries) {
        timespec now;
        std::uint64_t const before = __rdtsc();
        clock_gettime(CLOCK_MONOTONIC, &now);
        std::uint64_t const between = __rdtsc() - before;
        if (between < least) {
            least = between;
            best = {before + between / 2,
                    static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec)};
        }
    }
    return best;
}

// The rate, measured over `milliseconds`.
double measure_rate(DWORD milliseconds) {
    moment const start = read_clocks();
    Sleep(milliseconds);
    moment const end = read_clocks();
    return static_cast<double>(end.ticks - start.ticks) / (end.nanoseconds - start.nanoseconds) *
           1e9;
}

// A reported rate is exact but may be wrong: it counts if a measurement agrees within 0.1
// %. A measurement is right but may be disturbed. The median of five is not, unless most
// of them are.
double counter_rate() {
    double told = rate_from_processor();
    if (told == 0)
        told = rate_from_kernel();
    if (told != 0 && std::abs(measure_rate(2) / told - 1) < 0.001)
        return told;
    double rates[5];
    for (double& rate : rates)
        rate = measure_rate(4);
    std::sort(std::begin(rates), std::end(rates));
    return rates[2];
}

}  // namespace

void kernel::Sleep(DWORD milliseconds) {
    if (milliseconds == 0) {
        sched_yield();
        return;
    }
    detail::deadline const until(milliseconds);
    while (until.never())
        pause();
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until.when(), nullptr) != 0)
        continue;
}

LONG kernel::RegOpenKeyExA(HKEY root, char const* key, DWORD, DWORD, HKEY* result) {
    if (root != HKEY_LOCAL_MACHINE || std::strcmp(key, key_name) != 0)
        return file_not_found;
    *result = const_cast<char*>(key_name);
    return ERROR_SUCCESS;
}

LONG kernel::RegQueryValueExA(HKEY key, char const* value, DWORD*, DWORD*, unsigned char* data,
                              DWORD* size) {
    if (key != key_name || std::strcmp(value, "~MHz") != 0)
        return file_not_found;
    auto const megahertz = static_cast<DWORD>(std::lround(counter_rate() / 1000000.0));
    if (*size < sizeof megahertz)
        return more_data;
    std::memcpy(data, &megahertz, sizeof megahertz);
    *size = sizeof megahertz;
    return ERROR_SUCCESS;
}

LONG kernel::RegCloseKey(HKEY key) {
    return key == key_name ? ERROR_SUCCESS : file_not_found;
}

}  // namespace ovel
