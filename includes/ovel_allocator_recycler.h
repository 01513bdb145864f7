// SPDX-License-Identifier: Apache-2.0
// Giving idle memory back to the runtime heap, on request or once a period.
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

// Threads give the memory they have no use for to a reservoir of the process, from
// which other threads take it again. The recycler returns part of that to the
// runtime heap; it leaves about a mebibyte. Any thread may call any operation.
class OVEL_EXPORT allocator_recycler {
public:
    ~allocator_recycler();
    allocator_recycler(allocator_recycler const&) = delete;
    allocator_recycler& operator=(allocator_recycler const&) = delete;

    // The one recycler of the process.
    static allocator_recycler* global();

    // Returns a fraction, 0 to 1, of the reservoir to the runtime heap; outside
    // that range it counts as the nearer end, a not-a-number as 0. Takes and drops
    // the reservoir's lock for each piece, so other threads go on meanwhile.
    void recycle_capacity(double fraction);

    // The same of what lay idle in the reservoir ever since the last such call, by
    // anyone; the first returns nothing.
    void recycle_minimum_capacity(double fraction);

    // Starts a thread that once a period returns three tenths of what lay idle
    // through all of it. `period` is in seconds, from 1 to 1e9 (more counts as
    // that, less, or a not-a-number, as 1). Only the first call in the process
    // starts the thread, and blocks until it has begun; it keeps its period, and
    // ends when the library is unloaded. A thread that the system refuses fails
    // the check "_thread != 0".
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

    // Never destroyed: threads may go on using it while the process ends.
    static allocator_recycler& _global;

    [[maybe_unused]] cacheline _before;
    detail::atomic<bool> _stop{false};
    detail::atomic<double> _period{10.0};  // seconds
    recycler_function _function;
};

}  // namespace ovel

#endif
