// SPDX-License-Identifier: Apache-2.0
// Threads of their own: created for a run and ended with it.
#ifndef OVEL_THREAD_BASE_H
#define OVEL_THREAD_BASE_H

#include "ovel_atomic.h"
#include "ovel_frame.h"
#include "ovel_kernel.h"
#include "ovel_semaphore.h"
#include "ovel_thread_function.h"
#include "ovel_time.h"

namespace ovel {

// Runs one `thread_function` at a time on a thread that the system creates for
// the run. `schedule` names the work, `release` starts it, and a successful
// `acquire`, `try_acquire` or `timed_acquire` joins it, after which the object can
// start another run, of the same work unless `schedule` names other. One thread
// at a time drives the object; it need not outlive the run it started, but an
// unjoined run can then not be joined any more. Debuggers and monitors show its threads
// as "ovel-thread".
//
//     thread_base own;
//     own.schedule(work);
//     own.release();
//     own.acquire();  // what the work wrote is visible here
class OVEL_EXPORT thread_base {
public:
    static constexpr unsigned int default_stack_size = 524288;  // bytes

    // Its threads have at least `stack_size` bytes of stack; with 0 as many as
    // the system gives by default.
    thread_base();
    explicit thread_base(unsigned int stack_size);

    // Neither waits for a run nor ends it.
    ~thread_base();

    thread_base(thread_base const&) = delete;
    thread_base& operator=(thread_base const&) = delete;

    // Names the work. An unjoined run fails the check "_thread == 0".
    void schedule(thread_function& function);

    // Starts the run, and returns once the thread has begun. An unjoined run or
    // no work fails the check "_thread == 0 && _function != 0", a thread that
    // the system refuses the check "_thread != 0".
    void release();

    // Joins the run, blocking until it has ended. No run fails the check
    // "_thread != 0".
    void acquire();

    // Joins the run if it has ended, and returns whether it had. No run fails the
    // check "_thread != 0", here and below.
    [[nodiscard]] bool try_acquire();

    // Joins the run once it has ended, unless `deadline` passes before; returns
    // whether it did.
    [[nodiscard]] bool timed_acquire(time const& deadline);

    // In bytes.
    unsigned int stack_size() const;

private:
    friend struct detail::inspector;

    static unsigned int OVEL_THREAD_ENTRY _call(void* record);
    bool _acquire_within(DWORD milliseconds);

    [[maybe_unused]] cacheline _before;
    unsigned int const _stack_size;
    HANDLE _thread = nullptr;
    thread_function* _function = nullptr;
    [[maybe_unused]] cacheline _after;
};

namespace detail {

// The run loop of a pooled thread: a work object that runs other work, one on
// each request, until it is told to end. One requesting thread at a time calls
// `schedule`, `release` and one successful `acquire`, `try_acquire` or
// `timed_acquire` in turn; the loop checks none of that. Only those three block.
// The object outlives the thread that runs it.
class OVEL_EXPORT thread_function_base : public thread_function {
public:
    thread_function_base();
    ~thread_function_base() override;
    thread_function_base(thread_function_base const&) = delete;
    thread_function_base& operator=(thread_function_base const&) = delete;

    void schedule(thread_function& function);

    // Requests one run.
    void release() {
        _start.release();
    }

    // Ends the loop when it next looks for a request; one that it has not begun
    // is dropped.
    void terminate();

    // Wait for one run to complete.
    void acquire();
    [[nodiscard]] bool try_acquire();
    [[nodiscard]] bool timed_acquire(time const& deadline);

    // The loop, on the pooled thread.
    void operator()() override;

private:
    friend struct inspector;

    semaphore _start;  // a unit for each run requested, and one for the end
    // Written before a unit of `_start` is posted, read after it was taken.
    thread_function* _function = nullptr;
    // Relaxed: the unit of `_start` that follows it orders it; but a loop that takes
    // an earlier one may look as well.
    atomic<bool> _terminate{false};
    timed_semaphore _finish;  // a unit for each run completed
};

}  // namespace detail

}  // namespace ovel

#endif
