// SPDX-License-Identifier: Apache-2.0
// Pooled threads, borrowed for a run and then returned.
#ifndef OVEL_THREAD_H
#define OVEL_THREAD_H

#include "ovel_frame.h"
#include "ovel_semaphore.h"
#include "ovel_skip_list.h"
#include "ovel_thread_base.h"
#include "ovel_thread_function.h"
#include "ovel_time.h"

namespace ovel {

namespace detail {

struct pool_hook;
struct process_hooks;

// A thread of the pool: the run loop and the thread that runs it. The thread lives as
// long as the element. The pool owns an idle element; a borrowed one belongs to its
// borrower.
class OVEL_EXPORT thread_element {
public:
    // Starts the thread, with at least `stack_size` bytes of stack.
    explicit thread_element(unsigned int stack_size);

    // Ends the thread and joins it.
    ~thread_element();

    thread_element(thread_element const&) = delete;
    thread_element& operator=(thread_element const&) = delete;

    thread_function_base& thread_function_base_();
    thread_base& thread_base_();

    // Whether the process was forked since the thread started. The thread then does not
    // exist in this process.
    bool inherited() const;

private:
    friend struct inspector;

    thread_function_base _function;
    thread_base _thread_base;
    unsigned int const _process;  // the process that started it
};

}  // namespace detail

// Idle threads by ascending stack size. Among equals, the thread returned last comes
// first.
template <>
struct skip_list_order<detail::thread_element*> {
    // Whether `inserted` has at most as much stack as `element`.
    static bool precedes(detail::thread_element* inserted, detail::thread_element* element) {
        return inserted->thread_base_().stack_size() <= element->thread_base_().stack_size();
    }
};

namespace detail {

// The process's pool of idle threads. It keeps every returned thread until the library is
// unloaded. Any thread may call it.
class OVEL_EXPORT thread_element_group {
public:
    thread_element_group();

    // Ends and joins every idle thread.
    ~thread_element_group();

    thread_element_group(thread_element_group const&) = delete;
    thread_element_group& operator=(thread_element_group const&) = delete;

    // The pool of the process. When the pool ends, it ends its idle threads; threads that
    // are returned later stay idle.
    static thread_element_group* global();

    // Returns an idle thread with at least `stack_size` and less than four times as many
    // bytes of stack, or a new one. With 0 it returns a thread with the system's default.
    // Blocks while a new thread starts. Out of memory fails the check "("unexpected
    // exception", 0)"; if the system refuses to create a thread, the check "_thread != 0"
    // fails.
    thread_element* acquire_element(unsigned int stack_size);

    // Takes back an element whose run has been joined, and flushes the caller's
    // allocator. If there is no memory to keep the element, ends it instead.
    void release_element(thread_element* element);

    // The number of idle threads.
    unsigned int size();

private:
    friend struct inspector;
    friend struct pool_hook;
    friend struct process_hooks;

    thread_element* _take(unsigned int stack_size);
    thread_element* _take_first();
    void _end_idle();

    // Never destroyed: threads may use it while the process ends.
    static thread_element_group& _global;

    semaphore _lock;                       // guards _elements; taken before the allocators' locks
    skip_list<thread_element*> _elements;  // under _lock
};

}  // namespace detail

// Runs one `thread_function` at a time on a thread borrowed from the pool, and returns
// the thread when the run is joined. A run creates a thread only if no idle one fits.
// `schedule` sets the work, `release` starts it, and a successful `acquire`,
// `try_acquire` or `timed_acquire` joins it. After that the object can start another run,
// of the same work unless `schedule` sets other work. What the caller wrote before
// `release` is visible to the work, and what the work wrote is visible once the run is
// joined. One thread at a time drives the object. Debuggers and monitors show the pool's
// threads as "ovel-pool". A thread that returns to the pool may use all processors of the
// process again, whatever affinity the work has set.
//
//     thread helper;
//     helper.schedule(work);
//     helper.release();
//     helper.acquire();  // what the work wrote is visible here
class OVEL_EXPORT thread {
public:
    // The runs get at least `stack_size` bytes of stack, 524288 by default.
    thread();
    explicit thread(unsigned int stack_size);

    // Fails the check "_acquired" while a run is not joined.
    ~thread();

    thread(thread const&) = delete;
    thread& operator=(thread const&) = delete;

    // Sets the work. Fails the check "_acquired" while a run is not joined.
    void schedule(thread_function& function);

    // Starts the run. Blocks only if it must create a thread, until that thread has
    // begun. Fails the check "_acquired && _function != 0" while a run is not joined or
    // without work. If memory runs out or the system refuses to create a thread, it fails
    // the checks of `thread_element_group::acquire_element`.
    void release();

    // Blocks until the run has ended and joins it. Without a run it fails the check
    // "!_acquired"; so do the two below.
    void acquire();

    // Joins the run if it has ended, and returns whether it had.
    [[nodiscard]] bool try_acquire();

    // Blocks until the run has ended or `deadline` has passed. Joins the run if it has
    // ended, and returns whether it had.
    [[nodiscard]] bool timed_acquire(time const& deadline);

    // In bytes.
    unsigned int stack_size() const;

private:
    friend struct detail::inspector;

    void _assure_joinable() const;
    bool _join(bool completed);

    [[maybe_unused]] cacheline _before;
    unsigned int const _stack_size;
    bool _acquired = true;  // no run is outstanding
    thread_function* _function = nullptr;
    detail::thread_element* _element = nullptr;  // borrowed for the current run
    [[maybe_unused]] cacheline _after;
};

}  // namespace ovel

#endif
