// SPDX-License-Identifier: Apache-2.0
// The library's atomic words. Every field that two threads may access without a common
// lock is one of these, so that the simulated kernel, which explores interleavings, sees
// every such access.
#ifndef OVEL_ATOMIC_H
#define OVEL_ATOMIC_H

#if defined(OVEL_SIMULATION)

#include "simulation/atomic.h"

#else

#include <atomic>

namespace ovel::detail {

template <class T>
using atomic = std::atomic<T>;

// Atomic access to a word whose declared type is not atomic, because clients see it as
// `unsigned int volatile`.
template <class T>
class atomic_ref {
public:
    explicit atomic_ref(T volatile& word) : _word(word) {}

    T load(std::memory_order order) const {
        return __atomic_load_n(&_word, static_cast<int>(order));
    }
    void store(T value, std::memory_order order) const {
        __atomic_store_n(&_word, value, static_cast<int>(order));
    }

private:
    T volatile& _word;
};

}  // namespace ovel::detail

#endif

#endif
