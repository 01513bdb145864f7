// SPDX-License-Identifier: Apache-2.0
// What the simulated kernel services need of the scheduler.
#ifndef OVEL_SIMULATION_SCHEDULER_H
#define OVEL_SIMULATION_SCHEDULER_H

#include "simulation.h"

#include <cstdint>

namespace ovel::simulation {

// What a step does, for the report. The first six are those of `access`.
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
inline constexpr unsigned int tls_count = 64;
inline constexpr unsigned int fls_count = 8;

// A thread-local value, and the index under which it was set.
struct tls_entry {
    DWORD index;
    void* value;
};

// What a service keeps for the calling thread.
struct thread_state {
    unsigned int number;       // from 1, in order of creation
    unsigned int object;       // the thread's kernel object
    unsigned int stack_bytes;  // as asked for
    unsigned int pauses;
    DWORD_PTR affinity;
    unsigned int (*entry)(void*);
    void* argument;
    tls_entry tls[tls_count];
    void* fls[fls_count];
};

// Whether a run is under way. If not, the library is being loaded or unloaded: a
// single thread calls the services, and they take effect at once.
bool running();

thread_state& current();

// A point where the scheduler chooses which thread goes on. Returns when the calling
// thread is to make the step. `object` is an address or, for the kernel's own objects,
// their number.
void point(operation what, void const volatile* object, void* caller, bool yields = false);
void point(operation what, unsigned int object, void* caller, bool yields = false);

// The library is about to access memory, which may be that of an atomic word. Call
// only while `plain_points` is set.
extern bool plain_points;
void access_plainly(void const* memory, std::size_t size, bool writes);

// Records what the step found and left.
void note(std::uint64_t found, std::uint64_t left);

// Lets other threads run until the calling thread is ready again, because
// `make_ready` named it or `deadline` has passed, and is chosen. Returns whether the
// deadline has passed.
bool block(std::uint64_t deadline);

threads_mask calling_thread();
void make_ready(threads_mask threads);
// Except those whose deadline has passed.
void make_unready(threads_mask threads);

// The clock's reading `milliseconds` from now, and later if waits end late.
std::uint64_t deadline_after(DWORD milliseconds);

// Restricts all threads to a new mask of the process, those that are within it already to
// what they have.
void restrict_threads(DWORD_PTR process_mask);

// A new thread, ready to begin. False when there are too many.
bool start_thread(thread_state const& state);

// Counts a request for memory, for a block of an allocator, or for a kernel object or
// thread. Returns whether the scenario wants it refused.
bool count_memory_request();
bool count_block_request();
bool count_object_request();
void count_kernel_call();

// The kernel's objects, for reports and for the start and end of a run.
void keep_objects();
void restore_objects();
void keep_slots();
void restore_slots();
void describe_object(unsigned int object, char* text, std::size_t size);
// The end of the thread with this object.
void end_thread(unsigned int object);
// Calls what the calling thread has for its end.
void call_fiber_local();

// The processors, and the clock's rate; 0 MHz: not in the registry.
struct machine {
    unsigned int processors = 2;
    DWORD_PTR process_mask = 3;
    unsigned int megahertz = 0;
    DWORD_PTR counter_mask = 0;  // of the thread that read the counter last
};
machine& current_machine();

}  // namespace ovel::simulation

#endif
