// SPDX-License-Identifier: Apache-2.0
// Thread groups: a fixed set of threads that run queued work within a budget of space.
#ifndef OVEL_THREAD_GROUP_H
#define OVEL_THREAD_GROUP_H

#include "ovel_atomic.h"
#include "ovel_condition.h"
#include "ovel_frame.h"
#include "ovel_mutex.h"
#include "ovel_skip_list.h"
#include "ovel_spin_memory.h"
#include "ovel_thread.h"
#include "ovel_thread_function.h"
#include "ovel_time.h"
#include "ovel_triple.h"

namespace ovel {

class petri_net;
class work_group;

namespace detail {

// The workers of a group, and what they share with threads that schedule, in addition to
// the fields that they get at construction. Written under the group's mutex.
struct thread_group_crew {
    double const budget;         // the space that the group was built with
    unsigned int const spin;     // polls before a worker sleeps
    unsigned int occupants = 0;  // running work items that take space
    unsigned int idle = 0;       // workers that wait on the condition, woken or not
    // A worker polls, or was woken and has not looked yet. It takes what fits and wakes
    // the next worker if more fits, so no other worker needs waking.
    bool looking = false;
    spin_memory memory{};  // of workers that poll
    // Counts changes that matter to a polling worker. Relaxed: the worker looks again
    // under the mutex.
    atomic<unsigned int> changes{0};
    // The number of levels on which the queue will link the next item, for threads that
    // prepare it without the mutex. Relaxed: the insertion reallocates an item with too
    // few.
    atomic<unsigned int> level{1};
};

// The loop of one worker of a group. It works on the fields of the group.
class OVEL_EXPORT thread_group_function_base : public thread_function {
public:
    using queue = skip_list<triple<thread_function*, double, double>>;

    thread_group_function_base(mutex& mutex, condition& condition, double& space, bool& concluded,
                               queue& queue);

    // Resets `space` to `crew`'s budget when no item that takes space is running.
    thread_group_function_base(mutex& mutex, condition& condition, double& space, bool& concluded,
                               queue& queue, thread_group_crew& crew);

    thread_group_function_base(thread_group_function_base const&);
    ~thread_group_function_base() override;

    void operator()() override;

    // Whether the calling thread runs this loop.
    bool runs_caller() const;

private:
    friend struct inspector;

    struct idle_lock;

    queue::iterator find_element();
    bool _has_ended() const;
    void _acquire();
    queue::detached _take();
    bool _claim_wake_up();
    void _give_space(double space);
    void _wait();
    bool _poll();

    mutex& _mutex;
    condition& _condition;
    double& _space;
    bool& _concluded;
    queue& _queue;
    // Null for a worker that shares nothing else with the others. It then needs a
    // `release_one` for each item, and wakes all workers when it returns space.
    thread_group_crew* _crew;
    // The identifier of the thread that runs the loop; 0 if none does. Relaxed: a thread
    // looks only for its own value.
    atomic<unsigned long> _identifier{0};
};

}  // namespace detail

// A group of threads that run scheduled work items. Each item has a `space`, which it
// occupies while it runs, in a unit of the client's choice, and a positive `time`, which
// orders items of equal space. Among the items that fit into the group's free space, a
// free thread takes the one with the largest space; among equal spaces the one with the
// longest time; among equal pairs the one scheduled first. An item that does not fit
// waits until running items have ended. What a thread wrote before `schedule` is visible
// to the item, and what the item wrote is visible after the join.
//
// The owner calls `release`, which starts the threads; then `conclude`, which declares
// that nothing more will be scheduled; and then joins them with `acquire`, which waits
// for the queue to drain. After that the group can be started again. The group borrows
// its threads from the pool.
//
//     thread_group group(4, 100.0, 524288);
//     group.release();
//     group.schedule(work, 1.0, 25.0);  // a quarter of the group's space
//     group.conclude();
//     group.acquire();
//
// Any thread may call `schedule`, `conclude` and `clear`, including work that runs in the
// group. Only the owner may call the other operations.
class OVEL_EXPORT thread_group {
public:
    // One thread per processor, and no space: only for work of space 0. `stack_size` is
    // in bytes, 524288 by default.
    thread_group();
    explicit thread_group(unsigned int stack_size);

    // No threads, or negative space, fail the check "_threads != 0 && space >= 0".
    thread_group(unsigned int threads, double space, unsigned int stack_size);

    // Discards waiting items. Fails the check "_acquired == _threads" if threads are not
    // joined, except in a forked process, where they do not exist. All calls of
    // `schedule`, `conclude` and `clear` must have returned: they may still be waking a
    // thread after the group has been joined.
    ~thread_group();

    thread_group(thread_group const&) = delete;
    thread_group& operator=(thread_group const&) = delete;

    // Whether the group ran when this process was forked. Its threads then exist only in
    // the parent, which also keeps its memory, and the group can only be destroyed; other
    // operations fail the check "!inherited()". Any thread may call this.
    bool inherited() const;

    // The number of threads, and the size of their stacks in bytes.
    unsigned int threads() const;
    unsigned int stack_size() const;

    // Queues `function` to run once, now or when the group starts. `time` is positive,
    // `space` is from 0 to the group's (check "time_ > 0 && space_ >= 0 && space_ <=
    // _space"). Waits for the group's own locks, never for running work. The queue's
    // memory comes from the calling thread's allocator. The caller keeps `function` alive
    // until it has run or was cleared. A concluded group fails the check "!_concluded".
    // If it throws std::bad_alloc, it has queued nothing.
    void schedule(thread_function& function, double time, double space);

    // Declares that nothing more will be scheduled until the threads are joined. The
    // threads end once the queue is empty. A second call fails the check "!_concluded".
    void conclude();

    // Discards waiting items; running ones continue. A concluded group fails the check
    // "!_concluded".
    void clear();

    // Starts the threads. Fails the check "_acquired == _threads" if they are running.
    // The first call may throw std::bad_alloc, and has then started nothing.
    void release();

    // Joins the threads: blocks until the group has been concluded and its work has
    // ended. A group that is not started fails the check "_function != 0 && _acquired !=
    // _threads", here and below. The group's own work would wait for its own end, and
    // fails the check "!_runs_caller()".
    void acquire();

    // Joins the threads that have ended, and returns whether all have been joined. After
    // false, any of the three continues where this one stopped.
    [[nodiscard]] bool try_acquire();

    // The same, but waits for each thread until `deadline`.
    [[nodiscard]] bool timed_acquire(time const& deadline);

private:
    friend class petri_net;
    friend class work_group;
    friend struct detail::inspector;

    using queue = detail::thread_group_function_base::queue;

    bool _runs_caller() const;
    void _construct();
    void _destruct();
    template <class Join>
    bool _join(Join join);

    mutex _mutex;  // guards _space, _concluded, _queue and _crew's variable fields
    unsigned int const _threads;
    unsigned int const _stack_size;
    unsigned int _acquired;  // joined workers; owner only, like the three arrays
    double _space;           // free now
    bool _concluded = false;
    queue _queue;  // waiting work
    detail::thread_group_function_base** _function = nullptr;
    thread** _thread = nullptr;
    bool* _thread_acquired = nullptr;
    condition _condition;  // idle workers wait here
    detail::thread_group_crew _crew;
    // The process that runs the threads; 0 while they are joined. Written by the owner.
    // Relaxed: it only tells a forked process from the one that set it.
    detail::atomic<unsigned int> _runner{0};
};

}  // namespace ovel

#endif
