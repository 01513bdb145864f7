// SPDX-License-Identifier: Apache-2.0
// Threads and processors as the system has them, and the process-wide spin count.
#ifndef OVEL_THREAD_SUPPORT_H
#define OVEL_THREAD_SUPPORT_H

#include "ovel_atomic.h"
#include "ovel_frame.h"
#include "ovel_time.h"

namespace ovel {

// Services of the system about the calling thread and the processors. Any thread
// may call them. Affinity masks have one bit for each processor, 32 at most. A
// mask that the system refuses, because no processor is left in it or because a
// thread's names one outside the process's, fails the check
// "SetProcessAffinityMask(GetCurrentProcess(), affinity) != 0" or
// "SetThreadAffinityMask(GetCurrentThread(), affinity) != 0". None blocks but
// `yield` and `timed_yield`.
class OVEL_EXPORT thread_support {
public:
    thread_support() = delete;

    // The system's identifier of the calling thread. Never 0.
    static unsigned long thread_identifier();
    static bool thread_identifier_equal(unsigned long left, unsigned long right);

    // Gives up the rest of the caller's time slice.
    static void yield();

    // Sleeps once until about `deadline`, to the nearest millisecond and for
    // 2147483647 of them at most; returns at once when it has passed.
    static void timed_yield(time const& deadline);

    // The number of processors of the machine.
    static unsigned int processors();

    // The number of processors that the process may use.
    static unsigned int available_processors();

    // The processors that the process may use. Setting takes those of `affinity`
    // that the system has, for every thread of the process.
    static unsigned int process_affinity();
    static void process_affinity(unsigned int affinity);

    // The processors that the calling thread may use. Reading opens the whole
    // process's mask to the thread for a moment, for lack of a direct question.
    static unsigned int thread_affinity();
    static void thread_affinity(unsigned int affinity);
};

// The spin count that a spinning object takes when it is not given one: how often
// a waiting thread polls before it sleeps. Each object copies it when it is built;
// a later change reaches only objects built afterwards. Zero until the library is
// loaded, then 1024, or 0 where the process has one processor.
extern OVEL_EXPORT unsigned int volatile default_spin;

// A good spin count for this machine. It measures nothing: 1024.
OVEL_EXPORT unsigned int estimate_default_spin();

// Sets `default_spin`; to 0, whatever `spin` is, where the process has one
// processor, since there nobody can release what is polled.
OVEL_EXPORT void set_default_spin(unsigned int spin);

namespace detail {

// `default_spin` as it is now. Relaxed: any value that it ever had will do.
inline unsigned int current_spin() {
    return atomic_ref<unsigned int>(default_spin).load(std::memory_order_relaxed);
}

// The time from `now` to `deadline` in milliseconds, to the nearest, ties to even;
// 0 when it has passed, and 2147483647 at most.
unsigned int milliseconds_between(time const& now, time const& deadline);

// How often `thread_affinity` has restricted a thread.
extern atomic<unsigned int> restrictions;

// Lets the calling thread use all processors of the process again.
void use_all_processors();

// Keeps the calling thread on `processor`, a mask, if the process may use that, otherwise
// on the lowest that it may use. Returns which.
unsigned int stay_on(unsigned int processor);

}  // namespace detail

}  // namespace ovel

#endif
