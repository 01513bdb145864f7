// SPDX-License-Identifier: Apache-2.0
// Threads that are created for one run and end with it.
#ifndef OVEL_THREAD_BASE_H
#define OVEL_THREAD_BASE_H

#include "ovel_atomic.h"
#include "ovel_frame.h"
#include "ovel_kernel.h"
#include "ovel_semaphore.h"
#include "ovel_thread_function.h"
#include "ovel_time.h"

namespace ovel {

// Runs one `thread_function` at a time on a thread that the system creates for the run.
// `schedule` sets the work, `release` starts it, and a successful `acquire`,
// `try_acquire` or `timed_acquire` joins it. After that the object can start another run,
// of the same work unless `schedule` sets other work. What the caller wrote before
// `release` is visible to the work, and what the work wrote is visible once the run is
// joined. One thread at a time drives the object. The object may be destroyed before the
// run has ended, but then nothing can join that run. Debuggers and monitors show the
// threads as "ovel-thread".
//
//     thread_base own;
//     own.schedule(work);
//     own.release();
//     own.acquire();  // what the work wrote is visible here
class OVEL_EXPORT thread_base {
public:
    static constexpr unsigned int default_stack_size = 524288;  // bytes

    // The threads get at least `stack_size` bytes of stack; with 0, as many as the system
    // gives by default.
    thread_base();
    explicit thread_base(unsigned int stack_size);

    // Neither waits for a run nor ends it.
    ~thread_base();

    thread_base(thread_base const&) = delete;
    thread_base& operator=(thread_base const&) = delete;

    // Sets the work. Fails the check "_thread == 0" while a run is not joined.
    void schedule(thread_function& function);

    // Starts the run and returns once the thread has begun. Fails the check "_thread == 0
    // && _function != 0" while a run is not joined or without work, and the check
    // "_thread != 0" if the system refuses to create a thread.
    void release();

    // Blocks until the run has ended and joins it. Without a run it fails the check
    // "_thread != 0".
    void acquire();

    // Joins the run if it has ended, and returns whether it had. Without a run it fails
    // the check "_thread != 0"; so does `timed_acquire`.
    [[nodiscard]] bool try_acquire();

    // Blocks until the run has ended or `deadline` has passed. Joins the run if it has
    // ended, and returns whether it had.
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

// The run loop of a pooled thread: a work object that runs other work, once per request,
// until `terminate`. One thread at a time makes requests: it calls `schedule`, `release`,
// and one successful `acquire`, `try_acquire` or `timed_acquire`, in this order. The loop
// checks none of that. Only those three calls block. The object must outlive the thread
// that runs it.
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

    // Ends the loop before its next run. Drops a request that the loop has not begun.
    void terminate();

    // Takes the completion of one run. Only `try_acquire` does not wait for it.
    void acquire();
    [[nodiscard]] bool try_acquire();
    [[nodiscard]] bool timed_acquire(time const& deadline);

    // The loop, on the pooled thread.
    void operator()() override;

private:
    friend struct inspector;

    semaphore _start;  // a unit for each run requested, and one for the end
    // Written before a unit of `_start` is posted, read after the unit is taken.
    thread_function* _function = nullptr;
    // Relaxed: the unit of `_start` posted after the store orders it. The loop may see it
    // earlier, when it takes the unit of a request, and ends then.
    atomic<bool> _terminate{false};
    timed_semaphore _finish;  // a unit for each run completed
};

}  // namespace detail

}  // namespace ovel

#endif
