// Sleeping on a word and waking those who do, on the monotonic clock.
#ifndef OVEL_PLATFORM_LINUX_FUTEX_WORD_H
#define OVEL_PLATFORM_LINUX_FUTEX_WORD_H

#include "kernel.h"

#include <cstdint>

#include <time.h>

namespace ovel::detail {

// The point in time at which a wait gives up, `milliseconds` from construction;
// for `INFINITE` there is none.
class deadline {
public:
    explicit deadline(DWORD milliseconds);

    bool never() const {
        return _never;
    }
    timespec const& when() const {
        return _when;
    }

private:
    bool const _never;
    timespec _when;  // on CLOCK_MONOTONIC
};

// Sleeps while the 32 bits at `word` are `value`. Returns when it was woken, when
// the word differs, or for no reason: the caller looks again. False, and only
// then, when `until` has passed.
bool futex_wait(void const* word, std::uint32_t value, deadline const& until);

// Wakes `threads` sleepers at most. Nothing is read from `word`, which may be gone.
void futex_wake(void const* word, int threads);

}  // namespace ovel::detail

#endif
