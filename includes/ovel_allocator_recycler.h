// SPDX-License-Identifier: Apache-2.0
// Returns idle memory to the runtime heap, on request or once a period.
#ifndef OVEL_ALLOCATOR_RECYCLER_H
#define OVEL_ALLOCATOR_RECYCLER_H

#include "ovel_atomic.h"
#include "ovel_frame.h"
#include "ovel_thread_function.h"

namespace ovel {

namespace detail {

struct process_hooks;
struct recycler_hook;

}  // namespace detail

// Threads give surplus memory to a reservoir of the process, from which other threads take
// it again. The recycler returns part of it to the runtime heap and keeps about a mebibyte.
// Any thread may call any operation.
class OVEL_EXPORT allocator_recycler {
public:
    ~allocator_recycler();
    allocator_recycler(allocator_recycler const&) = delete;
    allocator_recycler& operator=(allocator_recycler const&) = delete;

    // The one recycler of the process.
    static allocator_recycler* global();

    // Returns a fraction of the reservoir to the runtime heap. `fraction` is clamped to 0 to
    // 1; NaN counts as 0. Drops the reservoir's lock after each chunk, so it does not block
    // other threads for long.
    void recycle_capacity(double fraction);

    // The same, but only of the memory that was idle throughout the time since the last such
    // call by any thread; the first call returns nothing.
    void recycle_minimum_capacity(double fraction);

    // Starts a thread that once a period returns three tenths of the memory that was idle
    // throughout the period. `period` is in seconds and clamped to 1 to 1e9; NaN counts as
    // 1. Only the first call in the process starts the thread, and blocks until it runs. The
    // thread keeps that period, and ends when the library is unloaded. A thread that the
    // system refuses fails the check "_thread != 0".
    void release(double period);

protected:
    allocator_recycler();

private:
    friend struct detail::inspector;
    friend struct detail::process_hooks;
    friend struct detail::recycler_hook;

    // The recycler thread's work.
    class OVEL_HIDDEN recycler_function : public thread_function {
    public:
        explicit recycler_function(detail::atomic<bool>* stop);
        ~recycler_function() override;
        void operator()() override;

    private:
        friend class allocator_recycler;
        friend struct detail::inspector;

        detail::atomic<bool>* const _stop;
        double _period = 10.0;  // seconds; set before the thread starts
    };

    static void _release();
    void _acquire();
    void _forget();

    // Never destroyed: other threads may still use it while the process ends.
    static allocator_recycler& _global;

    [[maybe_unused]] cacheline _before;
    detail::atomic<bool> _stop{false};
    detail::atomic<double> _period{10.0};  // seconds
    recycler_function _function;
};

}  // namespace ovel

#endif
