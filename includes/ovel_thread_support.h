// SPDX-License-Identifier: Apache-2.0
// The calling thread, the processors, and the process-wide spin count.
#ifndef OVEL_THREAD_SUPPORT_H
#define OVEL_THREAD_SUPPORT_H

#include "ovel_atomic.h"
#include "ovel_frame.h"
#include "ovel_time.h"

namespace ovel {

// System services for the calling thread and the processors. Any thread may call them.
// Only `yield` and `timed_yield` block. An affinity mask has one bit for each processor,
// 32 at most. The system refuses a mask that leaves no processor, and a thread's mask
// that contains a processor outside the process's mask. A refused mask fails the check
// "SetProcessAffinityMask(GetCurrentProcess(), affinity) != 0" or
// "SetThreadAffinityMask(GetCurrentThread(), affinity) != 0".
class OVEL_EXPORT thread_support {
public:
    thread_support() = delete;

    // The system's identifier of the calling thread. Never 0.
    static unsigned long thread_identifier();
    static bool thread_identifier_equal(unsigned long left, unsigned long right);

    // Gives up the rest of the caller's time slice.
    static void yield();

    // Sleeps once, until a timed wait for `deadline` would end (see `time`). Returns at once
    // if the deadline has passed.
    static void timed_yield(time const& deadline);

    // The number of processors of the machine.
    static unsigned int processors();

    // The number of processors that the process may use.
    static unsigned int available_processors();

    // The processors that the process may use. The setter applies to every thread of the
    // process and ignores processors that the system does not have.
    static unsigned int process_affinity();
    static void process_affinity(unsigned int affinity);

    // The processors that the calling thread may use. To read the mask, the getter opens
    // all of the process's processors to the thread for a moment, because the system
    // offers no direct query.
    static unsigned int thread_affinity();
    static void thread_affinity(unsigned int affinity);
};

// The spin count of an object that is not given one: how often a waiting thread polls
// before it sleeps. Each object copies it at construction; a later change affects only
// objects built afterwards. It is 0 until the library is loaded, then 1024, or 0 if the
// process has one processor.
extern OVEL_EXPORT unsigned int volatile default_spin;

// A good spin count for this machine. It measures nothing and returns 1024.
OVEL_EXPORT unsigned int estimate_default_spin();

// Sets `default_spin`. If the process has one processor, sets it to 0 whatever `spin` is:
// while a thread polls there, no other thread can run to release what it polls.
OVEL_EXPORT void set_default_spin(unsigned int spin);

namespace detail {

// `default_spin` as it is now. Relaxed: any value that it ever had will do.
inline unsigned int current_spin() {
    return atomic_ref<unsigned int>(default_spin).load(std::memory_order_relaxed);
}

// The milliseconds from `now` to `deadline`, rounded to the nearest, ties to even; 0 if
// the deadline has passed, 2147483647 at most.
unsigned int milliseconds_between(time const& now, time const& deadline);

// How often `thread_affinity` has restricted a thread. Compared only, to see whether any
// thread was restricted in between.
extern atomic<unsigned int> restrictions;

// Lets the calling thread use all processors of the process again.
void use_all_processors();

// Pins the calling thread to `processor`, a mask with one bit. If the process may not use
// that processor, pins it to the lowest that the process may use. Returns the mask in
// effect.
unsigned int stay_on(unsigned int processor);

}  // namespace detail

}  // namespace ovel

#endif
