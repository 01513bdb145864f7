// SPDX-License-Identifier: Apache-2.0
// The scheduler's interface for the simulated kernel services.
#ifndef OVEL_SIMULATION_SCHEDULER_H
#define OVEL_SIMULATION_SCHEDULER_H

#include "simulation.h"

#include <cstdint>

namespace ovel::simulation {

// What a step does, for the report. The first six values are those of `access`.
enum class operation : unsigned char {
    load,
    store,
    exchange,
    add,
    compare_exchange,
    bits,
    pause,
    begin,
    end,
    sleep,
    wait,
    acquired,
    timed_out,
    post,
    release_mutex,
    create_semaphore,
    create_mutex,
    create_thread,
    close,
    allocate,
    deallocate,
    read_clock,
    affinity,
    read,
    write,
    tick
};

// A set of threads, by slot.
using threads_mask = std::uint64_t;

inline constexpr std::uint64_t never = ~std::uint64_t{0};
inline constexpr unsigned int slot_count = 64;
inline constexpr unsigned int tls_count = 64;  // more than the library and a scenario use
inline constexpr unsigned int fls_count = 8;   // likewise

// A thread-local value and the index under which it was set.
struct tls_entry {
    DWORD index;
    void* value;
};

// What the services keep per thread.
struct thread_state {
    unsigned int number;       // from 1, in order of creation
    unsigned int object;       // the thread's kernel object
    unsigned int stack_bytes;  // as requested
    unsigned int pauses;
    DWORD_PTR affinity;
    unsigned int (*entry)(void*);
    void* argument;
    tls_entry tls[tls_count];
    void* fls[fls_count];
};

// Whether a run is in progress. If not, the library is being loaded or unloaded: a single
// thread calls the services, and they take effect at once.
bool running();

thread_state& current();

// A scheduling point: the scheduler chooses which thread continues. Returns when the
// calling thread is to make the step. `object` is an address, or the number of a kernel
// object.
void point(operation what, void const volatile* object, void* caller, bool yields = false);
void point(operation what, unsigned int object, void* caller, bool yields = false);

// The library is about to access memory that may belong to an atomic word. Call it only
// while `plain_points` is set.
extern bool plain_points;
void access_plainly(void const* memory, std::size_t size, bool writes);

// Records the value that the step found and the one it left.
void note(std::uint64_t found, std::uint64_t left);

// Lets other threads run until the calling thread is ready again and chosen. It becomes
// ready when `make_ready` names it or `deadline` passes. Returns whether the deadline has
// passed.
bool block(std::uint64_t deadline);

threads_mask calling_thread();
void make_ready(threads_mask threads);
// Skips threads whose deadline has passed.
void make_unready(threads_mask threads);

// The clock's reading in `milliseconds`, or later if waits end late.
std::uint64_t deadline_after(DWORD milliseconds);

// Restricts all threads to a new mask of the process. Threads that are already within it
// keep their mask.
void restrict_threads(DWORD_PTR process_mask);

// Starts a thread. Returns false if there are too many.
bool start_thread(thread_state const& state);

// Count a request for memory, for a block of an allocator, or for a kernel object or
// thread. Return whether the scenario wants it refused.
bool count_memory_request();
bool count_block_request();
bool count_object_request();
void count_kernel_call();

// The kernel's objects and slots, for reports and for the start of a run.
void keep_objects();
void restore_objects();
void keep_slots();
void restore_slots();
void describe_object(unsigned int object, char* text, std::size_t size);
// Marks the thread with this object as ended.
void end_thread(unsigned int object);
// Calls the fiber-local callbacks of the calling thread, which is ending.
void call_fiber_local();

// The processors, and the clock's rate; 0 MHz means that it is not in the registry.
struct machine {
    unsigned int processors = 2;
    DWORD_PTR process_mask = 3;
    unsigned int megahertz = 0;
    DWORD_PTR counter_mask = 0;  // affinity of the thread that last read the counter
};
machine& current_machine();

}  // namespace ovel::simulation

#endif
