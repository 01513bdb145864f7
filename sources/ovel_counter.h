// SPDX-License-Identifier: Apache-2.0
// Counters that one thread at a time writes and others read without a lock.
#ifndef OVEL_COUNTER_H
#define OVEL_COUNTER_H

#include "ovel_atomic.h"

namespace ovel::detail {

// Adds to `counter`, modulo its range, and returns the sum. Uses a load and a store
// instead of a locked addition. Relaxed: the caller excludes other writers, which orders
// the writes; a reader without the lock gets the old or the new value.
template <class T>
T add(atomic<T>& counter, T difference) {
    T const sum = counter.load(std::memory_order_relaxed) + difference;
    counter.store(sum, std::memory_order_relaxed);
    return sum;
}

}  // namespace ovel::detail

#endif
