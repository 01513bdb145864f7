// SPDX-License-Identifier: Apache-2.0
#include "linux/futex_word.h"

#include <cerrno>
#include <tuple>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace ovel::detail {

deadline::deadline(DWORD milliseconds) : _never(milliseconds == INFINITE), _when{} {
    if (_never)
        return;
    clock_gettime(CLOCK_MONOTONIC, &_when);
    _when.tv_sec += static_cast<time_t>(milliseconds / 1000);
    _when.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000;
    if (_when.tv_nsec >= 1000000000) {
        ++_when.tv_sec;
        _when.tv_nsec -= 1000000000;
    }
}

bool deadline::passed() const {
    if (_never)
        return false;
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::tie(now.tv_sec, now.tv_nsec) >= std::tie(_when.tv_sec, _when.tv_nsec);
}

bool futex_wait(void const* word, std::uint32_t value, deadline const& until) {
    // The system call takes two machine words, whatever the width of this program's
    // time_t. 32 bits are enough: they count the seconds since the machine started, and a
    // timeout adds at most 50 days.
    struct {
        long seconds;
        long nanoseconds;
    } const when = {static_cast<long>(until.when().tv_sec),
                    static_cast<long>(until.when().tv_nsec)};
    // The bitset form takes its timeout as a point in time, so a wait that is interrupted
    // and restarted does not get longer.
    long const result = syscall(SYS_futex, word, FUTEX_WAIT_BITSET_PRIVATE, value,
                                until.never() ? nullptr : &when, nullptr, FUTEX_BITSET_MATCH_ANY);
    return result == 0 || errno == EAGAIN || errno == EINTR;
}

void futex_wake(void const* word, int threads) {
    syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, threads, nullptr, nullptr, 0);
}

}  // namespace ovel::detail
