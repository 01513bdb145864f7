// SPDX-License-Identifier: Apache-2.0
// Counters that one thread at a time writes, and others read without a lock.
#ifndef OVEL_COUNTER_H
#define OVEL_COUNTER_H

#include "ovel_atomic.h"

namespace ovel::detail {

// Adds to `counter`, modulo its range, and returns the sum. A load and a store,
// not a locked addition: whatever keeps other writers out orders them, and a
// reader without it gets one value or the other.
template <class T>
T add(atomic<T>& counter, T difference) {
    T const sum = counter.load(std::memory_order_relaxed) + difference;
    counter.store(sum, std::memory_order_relaxed);
    return sum;
}

}  // namespace ovel::detail

#endif
