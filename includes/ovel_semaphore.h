// SPDX-License-Identifier: Apache-2.0
// Counting semaphores, the primitive that every lock of the library is built on.
#ifndef OVEL_SEMAPHORE_H
#define OVEL_SEMAPHORE_H

#include "ovel_assure.h"
#include "ovel_atomic.h"
#include "ovel_frame.h"
#include "ovel_kernel.h"
#include "ovel_spin_memory.h"
#include "ovel_thread_support.h"
#include "ovel_time.h"

namespace ovel {

class event;
class latch;

namespace detail {

template <class Semaphore>
class basic_condition;
template <class Semaphore>
class plain_mutex;
template <class Semaphore>
class reentrant_mutex;

}  // namespace detail

// A counting semaphore that spins before it sleeps.
//
// `acquire` takes one unit and blocks until it has one; `release` returns one and never
// blocks. A unit has no owner: any thread may release what another acquired. Any thread
// may call any operation. What a thread wrote before `release` is visible to the thread
// that takes the unit. There is no first-come order. Not detected: destroying a semaphore
// that a thread waits on, and more units than an int can count. A failed system call ends
// the process through `assure`.
//
//     semaphore ready(0, default_spin);
//     ready.release();    // producer, after it has filled the slot
//     ready.acquire();    // consumer, before it reads the slot
class OVEL_EXPORT semaphore {
public:
    // Starts with `value` units (check "_value >= 0"). `spin` is the most polls that a
    // thread makes before it sleeps; with 0 it sleeps at once. After waits that polled in
    // vain, a wait also sleeps at once.
    semaphore(int value, unsigned int spin);
    ~semaphore();
    semaphore(semaphore const&) = delete;
    semaphore& operator=(semaphore const&) = delete;

    // Takes a unit; blocks until one is available.
    void acquire();

    // Takes a unit if one is available; never blocks.
    [[nodiscard]] bool try_acquire();

    // Returns one unit and wakes a thread that waits for it. Never blocks.
    void release();

private:
    friend struct detail::inspector;
    template <class Semaphore>
    friend class detail::basic_condition;
    template <class Semaphore>
    friend class detail::plain_mutex;
    template <class Semaphore>
    friend class detail::reentrant_mutex;

    friend class allocator;

    // Creates the kernel's half of a semaphore (null if memory runs out), and the whole
    // semaphore.
    static HANDLE _create();
    semaphore(int value, unsigned int spin, HANDLE created);

    // `acquire` for a semaphore that never has more than one unit. It tries to take the
    // unit without reading `_value` first: the read would have to wait for the preceding
    // locked instruction, and the next locked instruction for the read.
    void _acquire_single();

    void _take();
    void _poll();
    void _acquire_contended();

    // Returns `count` units, at least 1, with at most one system call.
    void _release(int count);

    [[maybe_unused]] cacheline _before;
    // Units available. If negative, minus the number of threads committed to sleep and
    // not yet woken.
    detail::atomic<int> _value;
    [[maybe_unused]] cacheline _between;
    unsigned int const _spin;
    HANDLE const _semaphore;  // its count: wake-ups posted and not yet taken
    union {
        [[maybe_unused]] cacheline _after;
        detail::spin_memory _memory{};  // of threads that wait; the rest only separates cache lines
    };
};

// A counting semaphore that can wait until a deadline. Every operation goes to the
// kernel. It never spins, whatever its spin count. It holds at most 2147483647 units:
// releasing one more fails the check "ReleaseSemaphore(_semaphore, 1, 0) != 0". Otherwise
// it is like `semaphore`.
class OVEL_EXPORT timed_semaphore {
public:
    // Starts with `value` units (check "value >= 0").
    timed_semaphore(int value, unsigned int spin);
    ~timed_semaphore();
    timed_semaphore(timed_semaphore const&) = delete;
    timed_semaphore& operator=(timed_semaphore const&) = delete;

    // Takes a unit; blocks until one is available.
    void acquire();

    // Takes a unit if one is available; never blocks.
    [[nodiscard]] bool try_acquire();

    // Takes a unit. Returns false if `deadline` passes without one. Takes an available
    // unit even if the deadline has already passed.
    [[nodiscard]] bool timed_acquire(time const& deadline);

    // The same, but gives up after at least this many milliseconds, at most 2147483647.
    // Reads no clock.
    [[nodiscard]] bool timed_acquire(unsigned int milliseconds);

    // Returns one unit and wakes a thread that waits for it. Never blocks.
    void release();

private:
    friend struct detail::inspector;

    friend class event;
    friend class latch;
    template <class Semaphore>
    friend class detail::basic_condition;
    template <class Semaphore>
    friend class detail::plain_mutex;
    template <class Semaphore>
    friend class detail::reentrant_mutex;

    void _acquire_single() {
        acquire();
    }

    bool _acquire_within(DWORD milliseconds);
    void _release(int count);

    [[maybe_unused]] cacheline _before;
    HANDLE const _semaphore;
    [[maybe_unused]] cacheline _after;
};

// Each is defined after the functions it calls; otherwise Windows would treat those as
// imports.

// Takes a unit, or sleeps until it is handed one. Whatever a poll saw, the decrement
// decides: from 0 or below, this thread owes the kernel exactly one wait. Sequentially
// consistent, like every change of `_value`; pairs with the increment in `release`.
[[gnu::always_inline]] inline void semaphore::_take() {
    if (_value.fetch_sub(1) <= 0)
        assure(WaitForSingleObject(_semaphore, INFINITE) == WAIT_OBJECT_0);
}

inline void semaphore::acquire() {
    // Relaxed: a stale value only costs a needless poll, or saves one.
    if (_value.load(std::memory_order_relaxed) <= 0)
        _poll();
    _take();
}

[[gnu::always_inline]] inline void semaphore::_acquire_single() {
    int one = 1;
    if (!_value.compare_exchange_strong(one, 0))
        _acquire_contended();
}

inline bool semaphore::try_acquire() {
    for (;;) {
        // Relaxed: if the value is stale, the exchange fails, or the caller learns what
        // was true a moment ago.
        int value = _value.load(std::memory_order_relaxed);
        if (value <= 0) {
            YieldProcessor();
            return false;
        }
        if (_value.compare_exchange_strong(value, value - 1))
            return true;
        YieldProcessor();
    }
}

inline void semaphore::release() {
    // Once the unit is visible, only a sleeping thread keeps the object alive.
    if (_value.fetch_add(1) < 0)
        assure(ReleaseSemaphore(_semaphore, 1, 0) != 0);
}

}  // namespace ovel

#endif
