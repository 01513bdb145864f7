// SPDX-License-Identifier: Apache-2.0
// Sleeping on a word, with deadlines on the monotonic clock, and waking the sleepers.
#ifndef OVEL_PLATFORM_LINUX_FUTEX_WORD_H
#define OVEL_PLATFORM_LINUX_FUTEX_WORD_H

#include "kernel.h"

#include <cstdint>

#include <time.h>

namespace ovel::detail {

// The point in time at which a wait gives up: `milliseconds` after construction, or never
// for `INFINITE`.
class deadline {
public:
    explicit deadline(DWORD milliseconds);

    bool never() const {
        return _never;
    }
    bool passed() const;
    timespec const& when() const {
        return _when;
    }

private:
    bool const _never;
    timespec _when;  // on CLOCK_MONOTONIC
};

// Sleeps while the 32 bits at `word` are `value`. Returns when woken, when the word
// differs, or spuriously, so the caller must look again. Returns false if `until` has passed,
// or if the system refuses the call, so that nobody calls it again for ever.
bool futex_wait(void const* word, std::uint32_t value, deadline const& until);

// Wakes at most `threads` sleepers. Does not read `word`, which may already be freed.
void futex_wake(void const* word, int threads);

}  // namespace ovel::detail

#endif
