// SPDX-License-Identifier: Apache-2.0
// Pooled threads: threads that are borrowed for a run and given back.
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

// A thread of the pool: the run loop and the thread that runs it, for as long as
// the element lives. It belongs to the pool while it is idle and to whoever
// borrowed it otherwise.
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

    // Whether this process was forked since: then there is no such thread in it.
    bool inherited() const;

private:
    friend struct inspector;

    thread_function_base _function;
    thread_base _thread_base;
    unsigned int const _process;  // that has started it
};

}  // namespace detail

// Idle threads in ascending order of their stacks; of equal ones the one put back
// last comes first.
template <>
struct skip_list_order<detail::thread_element*> {
    // Whether the stack of `inserted` is not larger.
    static bool precedes(detail::thread_element* inserted, detail::thread_element* element) {
        return inserted->thread_base_().stack_size() <= element->thread_base_().stack_size();
    }
};

namespace detail {

// The pool of idle threads, one for the process. It keeps every thread that was
// given back until the library is unloaded. Any thread may call it.
class OVEL_EXPORT thread_element_group {
public:
    thread_element_group();

    // Ends and joins every idle thread.
    ~thread_element_group();

    thread_element_group(thread_element_group const&) = delete;
    thread_element_group& operator=(thread_element_group const&) = delete;

    // The pool of the process. When that ends, its idle threads end; those that are
    // given back later stay idle.
    static thread_element_group* global();

    // An idle thread with at least `stack_size` bytes of stack and less than four
    // times as many (with 0: one of the system's default), or a new one. Memory
    // that is exhausted fails the check "("unexpected exception", 0)", a thread
    // that the system refuses the check "_thread != 0". Blocks while a new one starts.
    thread_element* acquire_element(unsigned int stack_size);

    // Takes back an element whose run has been joined, and flushes the caller's
    // allocator. Without memory to keep it, ends it instead.
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

    // Never destroyed: threads may go on using it while the process ends.
    static thread_element_group& _global;

    semaphore _lock;                       // taken before the allocators'
    skip_list<thread_element*> _elements;  // under _lock
};

}  // namespace detail

// Runs one `thread_function` at a time on a thread borrowed from the pool, and
// gives the thread back when the run is joined: a run creates a thread only when no
// idle one fits. `schedule` names the work, `release` starts it, and a successful
// `acquire`, `try_acquire` or `timed_acquire` joins it, after which the object can
// start another run, of the same work unless `schedule` names other. One thread
// at a time drives the object. Debuggers and monitors show the pool's threads as
// "ovel-pool". A thread that returns to the pool may use all processors of the process
// again, whatever its work has set.
//
//     thread helper;
//     helper.schedule(work);
//     helper.release();
//     helper.acquire();  // what the work wrote is visible here
class OVEL_EXPORT thread {
public:
    // Its runs have at least `stack_size` bytes of stack, 524288 unless given.
    thread();
    explicit thread(unsigned int stack_size);

    // A run that is not joined fails the check "_acquired".
    ~thread();

    thread(thread const&) = delete;
    thread& operator=(thread const&) = delete;

    // Names the work. A run that is not joined fails the check "_acquired".
    void schedule(thread_function& function);

    // Starts the run; blocks only where a thread has to be created, until that has
    // begun. A run that is not joined, or no work, fails the check "_acquired &&
    // _function != 0"; memory or a thread that cannot be had, the checks of
    // `thread_element_group::acquire_element`.
    void release();

    // Joins the run, blocking until it has ended. No run fails the check
    // "!_acquired", here and below.
    void acquire();

    // Joins the run if it has ended, and returns whether it had.
    [[nodiscard]] bool try_acquire();

    // Joins the run once it has ended, unless `deadline` passes before; returns
    // whether it did.
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
    detail::thread_element* _element = nullptr;  // lent for the run outstanding
    [[maybe_unused]] cacheline _after;
};

}  // namespace ovel

#endif
