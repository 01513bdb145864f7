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

// A mutex that is nothing but a semaphore of count 1.
template <class Semaphore>
class plain_mutex {
public:
    explicit plain_mutex(unsigned int spin) : _semaphore(1, spin) {}

    // What a mutex that was given up completely is taken back with.
    struct state {
        Semaphore* underlying;
    };

    void acquire() {
        _semaphore._acquire_single();
    }
    bool try_acquire() {
        return _semaphore.try_acquire();
    }
    void release() {
        _semaphore.release();
    }

    // Takes the mutex back; with `block` false only its records.
    void acquire(state& saved, bool block) {
        if (block)
            saved.underlying->acquire();
    }

    // Gives the mutex up, whatever its depth, and notes in `saved` how to take it
    // back; with `unlock` false its semaphore stays taken.
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

    // Always inline: where a class is imported from a DLL, nobody else has them.
    [[gnu::always_inline]] void acquire() {
        unsigned long const me = GetCurrentThreadId();
        if (_owner.load(std::memory_order_relaxed) != me) {
            _semaphore._acquire_single();
            _owner.store(me, std::memory_order_relaxed);
        }
        _enter();
    }
    [[gnu::always_inline]] bool try_acquire() {
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

    // As those of `plain_mutex`; the depth is saved and restored with them.
    void acquire(state& saved, bool block);
    void release(state& saved, bool unlock);

protected:
    // Counts one more entry of the caller, who is the owner.
    [[gnu::always_inline]] void _enter() {
        if (_depth != std::numeric_limits<unsigned int>::max())
            ++_depth;
        else
            _enter_once_too_often();
    }
    void _enter_once_too_often();

    [[maybe_unused]] cacheline _before;
    // The owner's thread identifier, or 0. Only the owner writes it, while it
    // holds the semaphore; others read it to compare it with their own, which it
    // can then not be. So relaxed is enough.
    detail::atomic<unsigned long> _owner{0};
    [[maybe_unused]] cacheline _between;
    unsigned int _depth = 0;  // owner only
    Semaphore _semaphore;

private:
    friend struct inspector;
};

extern template class reentrant_mutex<semaphore>;
extern template class reentrant_mutex<timed_semaphore>;

}  // namespace detail

// The mutexes share one contract. `acquire` blocks until the caller owns the
// mutex; `try_acquire` never blocks and tells whether it does; `timed_acquire`,
// where there is one, gives up at an absolute deadline, but takes a free mutex
// even when that has passed. `release` gives it up; only the owner may call it,
// which is not checked. Any thread may call the others; no order is promised, and
// whatever an owner wrote is visible to the next. With `release(state&, true)` and
// `acquire(state&, true)` an owner gives a mutex up completely, whatever its depth,
// and takes it back as it was; conditions do so around their wait.
//
// A constructor takes the number of pauses that a waiting thread makes before it
// sleeps, with a look at the mutex now and then; the timed kinds never spin, whatever
// it is.

// The ordinary lock: it spins, has no deadline, and its owner may not take it again.
class mutex : public detail::plain_mutex<semaphore> {
public:
    explicit mutex(unsigned int spin = detail::current_spin()) : plain_mutex(spin) {}
};

// A lock with deadlines, which its owner may not take again.
class OVEL_EXPORT timed_mutex : public detail::plain_mutex<timed_semaphore> {
public:
    timed_mutex();
    explicit timed_mutex(unsigned int spin);

    bool timed_acquire(time const& deadline);
};

// A lock that spins and that its owner may take again; it is free once it has been
// released as often. Taking it again costs no locked instruction. 2^32 entries fail
// the check "++_depth != 0".
class OVEL_EXPORT recursive_mutex : public detail::reentrant_mutex<semaphore> {
public:
    recursive_mutex();
    explicit recursive_mutex(unsigned int spin);
};

// As `recursive_mutex`, with deadlines and without spinning.
class OVEL_EXPORT timed_recursive_mutex : public detail::reentrant_mutex<timed_semaphore> {
public:
    timed_recursive_mutex();
    explicit timed_recursive_mutex(unsigned int spin);

    bool timed_acquire(time const& deadline);
};

}  // namespace ovel

#endif
