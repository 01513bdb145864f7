// SPDX-License-Identifier: Apache-2.0
// Thread groups: a fixed set of threads that run queued work within a budget of
// space.
#ifndef OVEL_THREAD_GROUP_H
#define OVEL_THREAD_GROUP_H

#include "ovel_atomic.h"
#include "ovel_condition.h"
#include "ovel_frame.h"
#include "ovel_mutex.h"
#include "ovel_skip_list.h"
#include "ovel_thread.h"
#include "ovel_thread_function.h"
#include "ovel_time.h"
#include "ovel_triple.h"

namespace ovel {

class petri_net;
class work_group;

namespace detail {

// The workers of a group, and what they share with threads that schedule, beside the
// fields that the workers are built with. Written under the group's mutex.
struct thread_group_crew {
    double const budget;         // the space that the group was built with
    unsigned int const spin;     // polls before a worker sleeps
    unsigned int occupants = 0;  // running work items that take space
    unsigned int idle = 0;       // workers that wait on the condition, woken or not
    // A worker polls, or one was woken and has not looked yet. It takes what fits and has
    // the next one woken if more fits, so no other worker need be woken.
    bool looking = false;
    // Counts changes that concern a polling worker. Relaxed: the worker looks again under
    // the mutex.
    atomic<unsigned int> changes{0};
    // On how many levels the queue will link the next item, for threads that prepare it
    // without the mutex. Relaxed: the insertion allocates again if it needs more.
    atomic<unsigned int> level{1};
};

// The loop of one worker of a group. It works on the fields of the group.
class OVEL_EXPORT thread_group_function_base : public thread_function {
public:
    using queue = skip_list<triple<thread_function*, double, double>>;

    thread_group_function_base(mutex& mutex, condition& condition, double& space, bool& concluded,
                               queue& queue);

    // When no item that takes space runs any more, `space` is reset to `crew`'s budget.
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
    // Null for a worker that shares nothing else with the others. It waits for a
    // `release_one` for each item, and wakes all when it gives space back.
    thread_group_crew* _crew;
    // Of the thread that runs the loop; 0 while none does. Relaxed: only that thread looks
    // for what it wrote itself.
    atomic<unsigned long> _identifier{0};
};

}  // namespace detail

// A group of threads that run scheduled work items. Each item has a `space`, which it
// occupies while it runs, in a unit of the client's choice, and a positive `time`, which
// orders items of equal space. A free thread takes, of the items that fit into the group's
// free space, the one with the largest space; of equal spaces the one with the longest
// time; of equal pairs the one scheduled first. An item that does not fit waits until
// running items have ended. What a thread wrote before `schedule` is visible to the item,
// and what the item wrote is visible after the join.
//
// The owner calls `release`, which starts the threads, then `conclude`, which declares
// that nothing more will be scheduled, and joins them with `acquire` once the queue has
// drained. Then the group can be started again. Threads are borrowed from the pool.
//
//     thread_group group(4, 100.0, 524288);
//     group.release();
//     group.schedule(work, 1.0, 25.0);  // a quarter of the group's space
//     group.conclude();
//     group.acquire();
//
// Any thread may call `schedule`, `conclude` and `clear`, also work that runs in the group.
// Only the owner may call the other operations.
class OVEL_EXPORT thread_group {
public:
    // One thread for each processor, and no space: work of space 0 only.
    // `stack_size` is in bytes, 524288 unless given.
    thread_group();
    explicit thread_group(unsigned int stack_size);

    // No threads, or a negative space, fail the check "_threads != 0 && space >= 0".
    thread_group(unsigned int threads, double space, unsigned int stack_size);

    // Discards waiting items. Threads that are not joined fail the check
    // "_acquired == _threads", but in a fork, which they are not part of. All calls of
    // `schedule`, `conclude` and `clear` must have returned: they may still be waking a
    // thread after the group has been joined.
    ~thread_group();

    thread_group(thread_group const&) = delete;
    thread_group& operator=(thread_group const&) = delete;

    // Whether the group ran when this process was forked: then its threads exist in
    // the parent only, its memory is left to that, and all that is to be done with it is
    // to destroy it. Else operations fail the check "!inherited()". Any thread.
    bool inherited() const;

    // How many threads it has, and their stacks' size in bytes.
    unsigned int threads() const;
    unsigned int stack_size() const;

    // Queues `function` to run once, now or when the group is started. `time` is
    // positive, `space` from 0 to the group's (check "time_ > 0 && space_ >= 0 &&
    // space_ <= _space"). Waits for the group's own locks, never for running work.
    // The queue's memory comes from the calling thread's allocator. The caller keeps
    // `function` alive until it has run or was cleared. A concluded group fails the check
    // "!_concluded". Throws std::bad_alloc, having queued nothing.
    void schedule(thread_function& function, double time, double space);

    // Declares that nothing more will be scheduled until the threads are joined; they end
    // once the queue is empty. A second call fails the check "!_concluded".
    void conclude();

    // Discards waiting items; running ones continue. A concluded group fails the check
    // "!_concluded".
    void clear();

    // Starts the threads. Running threads fail the check "_acquired == _threads".
    // The first time it may throw std::bad_alloc, having started nothing.
    void release();

    // Joins the threads: blocks until the group has been concluded and its work
    // has ended. A group that is not started fails the check "_function != 0 &&
    // _acquired != _threads", here and below. The group's own work, which would wait for
    // its own end, fails the check "!_runs_caller()".
    void acquire();

    // Joins the threads that have ended, and returns whether all have been joined.
    // After false, any of the three goes on where this one stopped.
    [[nodiscard]] bool try_acquire();

    // The same, waiting for each thread until `deadline`.
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
    unsigned int _acquired;  // workers joined; owner only, like the three arrays
    double _space;           // free at this moment
    bool _concluded = false;
    queue _queue;  // waiting work
    detail::thread_group_function_base** _function = nullptr;
    thread** _thread = nullptr;
    bool* _thread_acquired = nullptr;
    condition _condition;  // idle workers wait here
    detail::thread_group_crew _crew;
    // The process that runs the threads, 0 while they are joined. Written by the owner;
    // relaxed: it tells forks from the process that set it.
    detail::atomic<unsigned int> _runner{0};
};

}  // namespace ovel

#endif
