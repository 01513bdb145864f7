// SPDX-License-Identifier: Apache-2.0
// Threads created for one run, the run loop of pooled threads, and the pool.

#include "ovel_thread_base.h"

#include "kernel.h"
#include "ovel_allocator_group.h"
#include "ovel_assure.h"
#include "ovel_guard.h"
#include "ovel_library.h"
#include "ovel_process.h"
#include "ovel_semaphore.h"
#include "ovel_spin_wait.h"
#include "ovel_thread.h"
#include "ovel_thread_support.h"

#include <algorithm>
#include <new>

namespace ovel {

namespace {

// What the thread that calls `release` passes to the new one. It lives on that thread's
// stack until the new thread has taken what it needs.
struct start_record {
    thread_base& base;
    semaphore started;
};

}  // namespace

thread_base::thread_base() : thread_base(default_stack_size) {}

thread_base::thread_base(unsigned int stack_size) : _stack_size(stack_size) {}

thread_base::~thread_base() = default;

void thread_base::schedule(thread_function& function) {
    assure(_thread == 0);
    _function = &function;
}

void thread_base::release() {
    assure(_thread == 0 && _function != 0);
    start_record record{*this, {0, detail::current_spin()}};
    allocator_group::global();  // so that the new thread need not build it
    unsigned int identifier;
    _thread = reinterpret_cast<HANDLE>(
        _beginthreadex(nullptr, _stack_size, _call, &record, 0, &identifier));
    assure(_thread != 0);
    record.started.acquire();
}

unsigned int OVEL_THREAD_ENTRY thread_base::_call(void* argument) {
    auto& record = *static_cast<start_record*>(argument);
    thread_function& function = *record.base._function;
    record.started.release();  // from here on the record is gone, and the base may be
    set_thread_name("ovel-thread");

    try {
        allocator_group* const group = allocator_group::global();
        group->acquire_allocator();
        function();
        group->release_allocator();
        // By the time this thread's own objects are destroyed, another thread may have
        // it.
        group->specific_allocator(nullptr);
    } catch (...) {
        assure(("unexpected exception", 0));
    }
    return 0;
}

void thread_base::acquire() {
    assure(_thread != 0);
    assure(WaitForSingleObject(_thread, INFINITE) == WAIT_OBJECT_0);
    assure(CloseHandle(_thread) != 0);
    _thread = nullptr;
}

bool thread_base::try_acquire() {
    assure(_thread != 0);
    return _acquire_within(0);
}

bool thread_base::timed_acquire(time const& deadline) {
    assure(_thread != 0);
    return _acquire_within(detail::milliseconds_between(time::now(), deadline));
}

bool thread_base::_acquire_within(DWORD milliseconds) {
    DWORD const r = WaitForSingleObject(_thread, milliseconds);
    if (r == WAIT_TIMEOUT)
        return false;
    assure(r == WAIT_OBJECT_0);
    assure(CloseHandle(_thread) != 0);
    _thread = nullptr;
    return true;
}

unsigned int thread_base::stack_size() const {
    return _stack_size;
}

namespace detail {

thread_function_base::thread_function_base()
    : _start(0, current_spin()), _finish(0, current_spin()) {}

thread_function_base::~thread_function_base() = default;

void thread_function_base::schedule(thread_function& function) {
    _function = &function;
}

void thread_function_base::terminate() {
    _terminate.store(true, std::memory_order_relaxed);
    _start.release();
}

// A run that does little ends while these polls last. Those of the kernel's semaphore soon
// become rarer, and would notice its end late.
void thread_function_base::acquire() {
    constexpr unsigned int few = 16;
    for (spin_wait wait(std::min(current_spin(), few), pace_for_unit); !wait.is_over();
         wait.pause())
        if (_finish.try_acquire())
            return;
    _finish.acquire();
}

bool thread_function_base::try_acquire() {
    return _finish.try_acquire();
}

bool thread_function_base::timed_acquire(time const& deadline) {
    return _finish.timed_acquire(deadline);
}

// The thread's allocator is active only while the thread runs work. Otherwise blocks that
// other threads free would wait for a thread that may idle for long.
void thread_function_base::operator()() {
    set_thread_name("ovel-pool");
    allocator_group* const group = allocator_group::global();
    unsigned int const process = this_process();
    group->deactivate_allocator(false);
    for (;;) {
        _start.acquire();
        if (_terminate.load(std::memory_order_relaxed))
            break;
        group->activate_allocator();
        // Relaxed, here and below: a thread sees its own change, and another's is not of
        // interest.
        unsigned int const before = restrictions.load(std::memory_order_relaxed);
        try {
            (*_function)();
        } catch (...) {
            assure(("unexpected exception", 0));
        }
        assure(process == this_process());
        // Makes the system call only if this run, or another one meanwhile, restricted a
        // thread.
        if (restrictions.load(std::memory_order_relaxed) != before)
            use_all_processors();
        group->deactivate_allocator(false);
        _finish.release();
    }
    group->activate_allocator();
}

thread_element::thread_element(unsigned int stack_size)
    : _thread_base(stack_size), _process(this_process()) {
    _thread_base.schedule(_function);
    _thread_base.release();
}

thread_element::~thread_element() {
    _function.terminate();
    _thread_base.acquire();
}

thread_function_base& thread_element::thread_function_base_() {
    return _function;
}

thread_base& thread_element::thread_base_() {
    return _thread_base;
}

bool thread_element::inherited() const {
    return is_inherited(_process);
}

thread_element_group::thread_element_group() : _lock(1, current_spin()) {}

thread_element_group::~thread_element_group() {
    _end_idle();
}

// Borrowed elements are not in the pool and stay. Joins without the lock, because the
// thread's thread-local objects may use the pool.
void thread_element_group::_end_idle() {
    while (thread_element* const idle = _take_first())
        delete idle;
}

// Returns null if there is none.
thread_element* thread_element_group::_take_first() {
    guard const hold(_lock, forking());
    if (_elements.size() == 0)
        return nullptr;
    thread_element* const first = *_elements.begin();
    _elements.erase(_elements.begin());
    return first;
}

pool_hook::~pool_hook() {
    if (!other_threads_have_ended())
        thread_element_group::global()->_end_idle();
}

thread_element_group* thread_element_group::global() {
    return &_global;
}

// Creates an element without the lock, because that waits until the thread has started.
thread_element* thread_element_group::acquire_element(unsigned int stack_size) {
    if (thread_element* const idle = _take(stack_size))
        return idle;
    try {
        return new thread_element(stack_size);
    } catch (...) {
        assure(("unexpected exception", 0));
    }
    return nullptr;
}

// Returns the smallest idle element whose stack is large enough, unless it is wastefully
// large; null if there is none.
thread_element* thread_element_group::_take(unsigned int stack_size) {
    guard const hold(_lock, forking());
    auto const found = _elements.find_first([stack_size](thread_element* element) {
        return element->thread_base_().stack_size() >= stack_size;
    });
    if (found == _elements.end())
        return nullptr;
    thread_element* const element = *found;
    // A request for the system's default, 0, needs a thread with the system's default.
    unsigned int const idle_size = element->thread_base_().stack_size();
    bool const fits = stack_size != 0 ? idle_size / 4 < stack_size : idle_size == 0;
    if (!fits)
        return nullptr;
    _elements.erase(found);
    return element;
}

void thread_element_group::release_element(thread_element* element) {
    try {
        guard const hold(_lock, forking());
        _elements.insert(element);
    } catch (std::bad_alloc const&) {
        delete element;
    }
    allocator_group::global()->flush_allocator(false);
}

unsigned int thread_element_group::size() {
    guard const hold(_lock, forking());
    return _elements.size();
}

}  // namespace detail

}  // namespace ovel
