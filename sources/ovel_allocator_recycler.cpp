// SPDX-License-Identifier: Apache-2.0
// The recycler and its thread.

#include "ovel_allocator_recycler.h"

#include "kernel.h"
#include "ovel_allocator.h"
#include "ovel_allocator_group.h"
#include "ovel_library.h"
#include "ovel_once.h"
#include "ovel_thread_support.h"
#include "ovel_time.h"

#include <algorithm>
#include <memory>

namespace ovel {

namespace {

constexpr double nap = 0.1;    // seconds between two readings of the clock
constexpr double share = 0.3;  // of the memory idle throughout a period

// Seconds. A deadline a few periods ahead must stay within the clock's range.
constexpr double shortest_period = 1.0;
constexpr double longest_period = 1e9;

allocator& reservoir() {
    return *allocator_group::global()->global_allocator();
}

}  // namespace

allocator_recycler::allocator_recycler() : _function(&_stop) {}

allocator_recycler::~allocator_recycler() = default;

allocator_recycler* allocator_recycler::global() {
    return &_global;
}

void allocator_recycler::recycle_capacity(double fraction) {
    reservoir().recycle(fraction, false);
}

void allocator_recycler::recycle_minimum_capacity(double fraction) {
    reservoir().recycle(fraction, true);
}

void allocator_recycler::release(double period) {
    allocator_group::global();
    // Relaxed: the call that starts the thread reads the value that it has written or one
    // that a concurrent call has written, and either is correct.
    if (!(period >= shortest_period))  // true for NaN as well
        period = shortest_period;
    _period.store(std::min(period, longest_period), std::memory_order_relaxed);
    call_once(_release, detail::_recycler_flag);
}

void allocator_recycler::_release() {
    _global._function._period = _global._period.load(std::memory_order_relaxed);
    detail::_recycler_thread.schedule(_global._function);
    {
        blocked_signals const meanwhile;  // the program's handlers run on the program's threads
        detail::_recycler_thread.release();
    }
    // Last: `_acquire`, on any thread, joins a thread that it finds started.
    detail::_recycler_started = true;
}

// A thread that is being started, or is started later, reads the flag and stops.
void allocator_recycler::_acquire() {
    _stop = true;
    if (detail::_recycler_started.exchange(false))
        detail::_recycler_thread.acquire();
}

void allocator_recycler::_forget() {
    std::construct_at(&detail::_recycler_thread, detail::_recycler_thread.stack_size());
    detail::_recycler_started = false;
    detail::_recycler_flag = 0;
    _stop = false;
}

detail::recycler_hook::~recycler_hook() {
    if (!other_threads_have_ended())
        allocator_recycler::global()->_acquire();
}

allocator_recycler::recycler_function::recycler_function(detail::atomic<bool>* stop)
    : _stop(stop) {}

allocator_recycler::recycler_function::~recycler_function() = default;

// Skips periods that pass while the thread does not run.
void allocator_recycler::recycler_function::operator()() {
    set_thread_name("ovel-recycler");
    time const period = time::seconds(_period);
    time deadline = time::now() + period;
    detail::retire_current_allocator();
    while (!*_stop) {
        thread_support::timed_yield(time::then(nap));
        if (time::now() > deadline) {
            reservoir().recycle(share, true);
            do
                deadline += period;
            while (deadline < time::now());
        }
    }
    allocator_group::global()->activate_allocator();
}

}  // namespace ovel
