// SPDX-License-Identifier: Apache-2.0
// The layer keeps its own mask of the process, because the system keeps masks only per
// thread. The first service that needs it reads it from the process's first thread, while
// the library is loaded. Later changes go through this file.
//
// A mask shows 32 processors, but the process may have more. So a mask with all shown
// processors stands for all processors, shown or not: a program that restricts nothing
// loses nothing.

#include "linux/processors.h"

#include "kernel.h"
#include "linux/fork.h"
#include "linux/object.h"
#include "linux/pthread_guard.h"
#include "ovel_atomic.h"

#include <algorithm>
#include <bit>
#include <cstdlib>

#include <dirent.h>
#include <pthread.h>
#include <unistd.h>

namespace ovel {

namespace {

using detail::processor_bits;
using detail::processor_set;

// What the process had at first. Written once.
processor_set initial_set;
unsigned int initial_mask;
unsigned int system_mask;
unsigned int machine_processors;  // 32 at most
processor_bits bits;

// What the process has now. A thread holds `processors_lock` while it changes the
// processors of any thread. So a starting thread either gets the new set, or the thread
// that sets it finds the starting one.
processor_set process_set;  // under processors_lock
// Written under the lock, read without it. Relaxed: it publishes nothing else.
constinit detail::atomic<unsigned int> process_mask{0};

void read_processors() {
    if (!initial_set.read(getpid()) && !initial_set.read(0))
        initial_set.add(0);
    bits.assign(initial_set);
    initial_mask = bits.mask_of(initial_set);
    auto const online = static_cast<unsigned int>(std::max(1l, sysconf(_SC_NPROCESSORS_ONLN)));
    machine_processors = std::min(online, 32u);
    system_mask = initial_mask;
    if (bits.direct())
        system_mask |= 0xffffffffu >> (32 - machine_processors);
    process_set = initial_set;
    process_mask.store(initial_mask, std::memory_order_relaxed);
}

void need_processors() {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, read_processors);
}

// Calls `visit` with the system's number of every thread of the process.
template <class Visit>
void for_each_thread(DIR* threads, Visit const& visit) {
    rewinddir(threads);
    // The 64-bit form: in 32-bit programs the other one fails on some systems.
    while (dirent64 const* const entry = readdir64(threads)) {
        int const thread = std::atoi(entry->d_name);
        if (thread > 0)
            visit(thread);
    }
}

// Restricts every thread to `set`. With the lock held.
//
// A thread that was restricted further stays so if the new set allows it.
void apply_to_all(DIR* threads, processor_set const& set) {
    for_each_thread(threads, [&](pid_t thread) {
        processor_set own;
        if (!own.read(thread) || !own.within(set) || process_set.within(own))
            set.apply(thread);
    });
    // A thread that another thread creates meanwhile, outside this layer, has the
    // processors that its creator had then.
    for (bool again = true; again;) {
        again = false;
        for_each_thread(threads, [&](pid_t thread) {
            processor_set own;
            if (own.read(thread) && !own.within(set) && set.apply(thread))
                again = true;
        });
    }
}

// Makes `wanted`, or the part that the system grants, the processors of the process.
// Returns false and changes nothing if the system grants none. With the lock held.
bool restrict_process(DIR* threads, processor_set const& wanted) {
    processor_set granted;
    if (!wanted.apply(0) || !granted.read(0))
        return false;
    apply_to_all(threads, granted);
    process_set = granted;
    process_mask.store(bits.mask_of(granted), std::memory_order_relaxed);
    return true;
}

constinit detail::kernel_object current_thread{detail::object_kind::current_thread};
constinit detail::kernel_object current_process{detail::object_kind::current_process};

}  // namespace

pthread_mutex_t detail::processors_lock = PTHREAD_MUTEX_INITIALIZER;

void detail::processor_bits::assign(processor_set const& allowed) {
    _size = 0;
    for (int processor = 0; processor < 32; ++processor)
        _processors[_size++] = processor;
    _direct = mask_of(allowed) != 0;
    if (_direct)
        return;
    _size = 0;
    for (int processor = 32; processor < processor_set::limit && _size < 32; ++processor) {
        if (allowed.has(processor))
            _processors[_size++] = processor;
    }
}

unsigned int detail::processor_bits::mask_of(processor_set const& set) const {
    unsigned int mask = 0;
    for (int bit = 0; bit < _size; ++bit)
        mask |= static_cast<unsigned int>(set.has(_processors[bit])) << bit;
    return mask;
}

processor_set detail::processor_bits::set_of(unsigned int mask) const {
    processor_set set;
    for (int bit = 0; bit < _size; ++bit) {
        if ((mask >> bit & 1) != 0)
            set.add(_processors[bit]);
    }
    return set;
}

void detail::use_processors_of_process() {
    need_processors();
    pthread_guard const hold(detail::processors_lock, forking());
    process_set.apply(0);  // if the system refuses, the thread keeps its creator's
}

bool detail::one_processor() {
    need_processors();
    return std::has_single_bit(process_mask.load(std::memory_order_relaxed));
}

HANDLE kernel::GetCurrentThread() {
    return &current_thread;
}

HANDLE kernel::GetCurrentProcess() {
    return &current_process;
}

void kernel::GetSystemInfo(SYSTEM_INFO* information) {
    need_processors();
    information->dwNumberOfProcessors = machine_processors;
}

BOOL kernel::GetProcessAffinityMask(HANDLE process, DWORD_PTR* process_result,
                                    DWORD_PTR* system_result) {
    if (process != &current_process)
        return 0;
    need_processors();
    *process_result = process_mask.load(std::memory_order_relaxed);
    *system_result = system_mask;
    return 1;
}

BOOL kernel::SetProcessAffinityMask(HANDLE process, DWORD_PTR mask) {
    need_processors();
    if (process != &current_process || mask == 0 || (mask & ~DWORD_PTR(system_mask)) != 0)
        return 0;
    DIR* const threads = opendir("/proc/self/task");
    if (!threads)
        return 0;
    bool restricted;
    {
        detail::pthread_guard const hold(detail::processors_lock, forking());
        restricted = restrict_process(threads, mask == initial_mask
                                                   ? initial_set
                                                   : bits.set_of(static_cast<unsigned int>(mask)));
    }
    closedir(threads);
    return restricted;
}

DWORD_PTR kernel::SetThreadAffinityMask(HANDLE thread, DWORD_PTR mask) {
    need_processors();
    detail::pthread_guard const hold(detail::processors_lock, forking());
    unsigned int const all = process_mask.load(std::memory_order_relaxed);
    if (thread != &current_thread || mask == 0 || (mask & ~DWORD_PTR(all)) != 0)
        return 0;
    processor_set former;
    if (!former.read(0))
        return 0;
    bool const restricted =
        (mask == all ? process_set : bits.set_of(static_cast<unsigned int>(mask))).apply(0);
    if (!restricted)
        return 0;
    // The program itself has moved the thread out of the process's mask, so there is no
    // previous mask to return.
    unsigned int const had = bits.mask_of(former) & all;
    return had != 0 ? had : all;
}

}  // namespace ovel
