// SPDX-License-Identifier: Apache-2.0
// Work objects, and services for the threads that run them.

#include "ovel_thread_function.h"

#include "kernel.h"
#include "ovel_assure.h"
#include "ovel_thread_support.h"
#include "ovel_time_server.h"

#include <bit>

namespace ovel {

namespace {

struct masks {
    unsigned int process;  // processors of the system that the process may use
    unsigned int system;
};

masks affinity_masks() {
    DWORD_PTR pm;
    DWORD_PTR sm;
    assure(GetProcessAffinityMask(GetCurrentProcess(), &pm, &sm) != 0);
    return {static_cast<unsigned int>(pm & sm), static_cast<unsigned int>(sm)};
}

// The system refuses a mask that has just become too large for the process. Even if other
// threads change the process's mask all the time, it does not do so this often in a row.
constexpr int most_refusals = 10000;

// Restricts the calling thread to what `choose` selects from the process's processors.
// Tries again if those change meanwhile: the change has restricted the thread too, and the
// thread may have undone that. Returns the mask.
template <class Choose>
unsigned int restrict_thread(Choose const& choose) {
    for (int refusals = 0;;) {
        unsigned int const process = affinity_masks().process;
        unsigned int const chosen = choose(process);
        if (SetThreadAffinityMask(GetCurrentThread(), chosen) == 0)
            assure(++refusals != most_refusals);
        else if (affinity_masks().process == process)
            return chosen;
    }
}

}  // namespace

// Relaxed: a thread that restricts itself sees its own count.
constinit detail::atomic<unsigned int> detail::restrictions{0};

void detail::use_all_processors() {
    restrict_thread([](unsigned int process) { return process; });
}

unsigned int detail::stay_on(unsigned int processor) {
    return restrict_thread([processor](unsigned int process) {
        return (process & processor) != 0 ? processor : process & -process;
    });
}

thread_function::thread_function() = default;
thread_function::thread_function(thread_function const&) = default;
thread_function& thread_function::operator=(thread_function const&) = default;
thread_function::~thread_function() = default;

void thread_function::operator()() {}

unsigned long thread_support::thread_identifier() {
    return GetCurrentThreadId();
}

bool thread_support::thread_identifier_equal(unsigned long left, unsigned long right) {
    return left == right;
}

void thread_support::yield() {
    Sleep(0);
}

void thread_support::timed_yield(time const& deadline) {
    time const now = time::now();
    if (now < deadline)
        Sleep(detail::milliseconds_between(now, deadline));
}

unsigned int thread_support::processors() {
    SYSTEM_INFO information;
    GetSystemInfo(&information);
    return information.dwNumberOfProcessors;
}

unsigned int thread_support::available_processors() {
    return static_cast<unsigned int>(std::popcount(process_affinity()));
}

unsigned int thread_support::process_affinity() {
    return affinity_masks().process;
}

void thread_support::process_affinity(unsigned int affinity) {
    affinity &= affinity_masks().system;
    assure(SetProcessAffinityMask(GetCurrentProcess(), affinity) != 0);
    time_server::follow_processors();
}

unsigned int thread_support::thread_affinity() {
    // Only setting a mask returns the previous one. Tries again if the process's processors
    // change meanwhile.
    for (int refusals = 0;;) {
        unsigned int const process = process_affinity();
        auto const affinity =
            static_cast<unsigned int>(SetThreadAffinityMask(GetCurrentThread(), process));
        if (affinity == 0 || SetThreadAffinityMask(GetCurrentThread(), affinity) == 0) {
            if (++refusals == most_refusals) {
                assure(affinity != 0);
                assure(SetThreadAffinityMask(GetCurrentThread(), affinity) != 0);
            }
        } else if (affinity != process || process_affinity() == process) {
            return affinity;
        } else {
            // The thread had all processors of before, and has just taken them again. But
            // the change gave it the new ones.
            detail::use_all_processors();
        }
    }
}

void thread_support::thread_affinity(unsigned int affinity) {
    affinity &= affinity_masks().system;
    detail::restrictions.fetch_add(1, std::memory_order_relaxed);
    assure(SetThreadAffinityMask(GetCurrentThread(), affinity) != 0);
}

unsigned int estimate_default_spin() {
    // 1024 pauses take 2 to 25 us: about what it costs to put a thread to sleep and wake
    // it. So a thread that spins in vain pays at most twice.
    return 1024;
}

void set_default_spin(unsigned int spin) {
    // Relaxed: each object copies the value that it finds.
    detail::atomic_ref<unsigned int>(default_spin)
        .store(thread_support::available_processors() != 1 ? spin : 0, std::memory_order_relaxed);
}

}  // namespace ovel
