// SPDX-License-Identifier: Apache-2.0
// Mutual exclusion: plain and recursive, spinning and timed.
#ifndef OVEL_MUTEX_H
#define OVEL_MUTEX_H

#include "ovel_atomic.h"
#include "ovel_frame.h"
#include "ovel_kernel.h"
#include "ovel_semaphore.h"
#include "ovel_thread_support.h"
#include "ovel_time.h"

#include <limits>

namespace ovel {

namespace detail {

// A mutex that consists of a semaphore of count 1.
template <class Semaphore>
class plain_mutex {
public:
    explicit plain_mutex(unsigned int spin) : _semaphore(1, spin) {}

    // What `release(state&, bool)` saves for `acquire(state&, bool)`.
    struct state {
        Semaphore* underlying;
    };

    void acquire() {
        _semaphore._acquire_single();
    }
    [[nodiscard]] bool try_acquire() {
        return _semaphore.try_acquire();
    }
    void release() {
        _semaphore.release();
    }

    // Takes the mutex back. With `block` false it only restores the records, because the
    // semaphore is still taken.
    void acquire(state& saved, bool block) {
        if (block)
            saved.underlying->acquire();
    }

    // Releases the mutex, whatever its depth, and saves in `saved` how to take it back.
    // With `unlock` false the semaphore stays taken.
    void release(state& saved, bool unlock) {
        saved.underlying = &_semaphore;
        if (unlock)
            _semaphore.release();
    }

protected:
    Semaphore _semaphore;

private:
    friend struct inspector;
};

// A mutex that its owner may take again.
template <class Semaphore>
class OVEL_EXPORT reentrant_mutex {
public:
    explicit reentrant_mutex(unsigned int spin);
    reentrant_mutex(reentrant_mutex const&) = delete;
    reentrant_mutex& operator=(reentrant_mutex const&) = delete;

    struct state {
        Semaphore* underlying;
        unsigned int depth;
    };

    // Always inlined: a program that imports the class from a DLL finds no copy there.
    [[gnu::always_inline]] void acquire() {
        unsigned long const me = GetCurrentThreadId();
        if (_owner.load(std::memory_order_relaxed) != me) {
            _semaphore._acquire_single();
            _owner.store(me, std::memory_order_relaxed);
        }
        _enter();
    }

    [[nodiscard, gnu::always_inline]] bool try_acquire() {
        unsigned long const me = GetCurrentThreadId();
        if (_owner.load(std::memory_order_relaxed) != me) {
            if (!_semaphore.try_acquire())
                return false;
            _owner.store(me, std::memory_order_relaxed);
        }
        _enter();
        return true;
    }

    [[gnu::always_inline]] void release() {
        if (--_depth == 0) {
            _owner.store(0, std::memory_order_relaxed);
            _semaphore.release();
        }
    }

    // Like those of `plain_mutex`; they also save and restore the depth.
    void acquire(state& saved, bool block);
    void release(state& saved, bool unlock);

protected:
    // Counts one more acquisition by the caller, who is the owner.
    [[gnu::always_inline]] void _enter() {
        if (_depth != std::numeric_limits<unsigned int>::max())
            ++_depth;
        else
            _enter_once_too_often();
    }
    void _enter_once_too_often();

    [[maybe_unused]] cacheline _before;
    // The owner's thread identifier, or 0. Only the owner writes it, while it holds the
    // semaphore. Relaxed: another thread only compares it with its own identifier, which
    // no value that it may read equals.
    detail::atomic<unsigned long> _owner{0};
    [[maybe_unused]] cacheline _between;
    unsigned int _depth = 0;  // under _semaphore
    Semaphore _semaphore;     // of count 1; guards _owner and _depth

private:
    friend struct inspector;
};

extern template class reentrant_mutex<semaphore>;
extern template class reentrant_mutex<timed_semaphore>;

}  // namespace detail

// All mutexes share one contract. `acquire` blocks until the caller owns the mutex.
// `try_acquire` never blocks and returns whether the caller owns the mutex. The timed
// kinds have `timed_acquire`, which gives up at an absolute deadline, but takes a free
// mutex even if the deadline has passed. `release` releases the mutex; only the owner may
// call it, which is not checked. Any thread may call the others. There is no first-come
// order. What an owner wrote before `release` is visible to the next owner. With
// `release(state&, true)` and `acquire(state&, true)` an owner releases a mutex
// completely, whatever its depth, and takes it back as it was; conditions do so around
// their wait.
//
// A constructor takes the spin count: the most pauses that a waiting thread makes, with
// polls of the mutex in between, before it sleeps. After waits that spun in vain it
// sleeps at once. The timed kinds never spin, whatever the spin count is.

// The ordinary lock: it spins, has no deadlines, and is not recursive.
class mutex : public detail::plain_mutex<semaphore> {
public:
    // Starts free. `spin` is the spin count.
    explicit mutex(unsigned int spin = detail::current_spin()) : plain_mutex(spin) {}
};

// A lock with deadlines, not recursive.
class OVEL_EXPORT timed_mutex : public detail::plain_mutex<timed_semaphore> {
public:
    // Starts free and ignores the spin count.
    timed_mutex();
    explicit timed_mutex(unsigned int spin);

    // Acquires the mutex unless `deadline` passes first; returns whether it did.
    [[nodiscard]] bool timed_acquire(time const& deadline);

    // The same with a limit in milliseconds: waits at least this long, and at most
    // 2147483647. Reads no clock.
    [[nodiscard]] bool timed_acquire(unsigned int milliseconds);
};

// A recursive lock that spins. It is free once its owner has released it as often as
// acquired. Acquiring it again costs no locked instruction. Acquiring it 2^32 times fails
// the check "++_depth != 0".
class OVEL_EXPORT recursive_mutex : public detail::reentrant_mutex<semaphore> {
public:
    // Starts free. `spin` is the spin count.
    recursive_mutex();
    explicit recursive_mutex(unsigned int spin);
};

// Like `recursive_mutex`, with deadlines and without spinning.
class OVEL_EXPORT timed_recursive_mutex : public detail::reentrant_mutex<timed_semaphore> {
public:
    // Starts free and ignores the spin count.
    timed_recursive_mutex();
    explicit timed_recursive_mutex(unsigned int spin);

    // Acquires the mutex unless `deadline` passes first; returns whether it did.
    [[nodiscard]] bool timed_acquire(time const& deadline);

    // The same with a limit in milliseconds: waits at least this long, and at most
    // 2147483647. Reads no clock.
    [[nodiscard]] bool timed_acquire(unsigned int milliseconds);

private:
    template <class Limit>
    bool _timed_acquire(Limit const& limit);
};

}  // namespace ovel

#endif
