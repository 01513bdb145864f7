// SPDX-License-Identifier: Apache-2.0
// Pooled threads.

#include "ovel_thread.h"

#include "ovel_assure.h"

namespace ovel {

thread::thread() : thread(thread_base::default_stack_size) {}

thread::thread(unsigned int stack_size) : _stack_size(stack_size) {}

// Nobody can join a run whose thread a fork left behind.
thread::~thread() {
    if (_element == nullptr || !_element->inherited())
        assure(_acquired);
}

void thread::schedule(thread_function& function) {
    assure(_acquired);
    _function = &function;
}

void thread::release() {
    assure(_acquired && _function != 0);
    _element = detail::thread_element_group::global()->acquire_element(_stack_size);
    _element->thread_function_base_().schedule(*_function);
    _element->thread_function_base_().release();
    _acquired = false;
}

void thread::_assure_joinable() const {
    assure(!_acquired);
    assure(!_element->inherited());
}

void thread::acquire() {
    _assure_joinable();
    _element->thread_function_base_().acquire();
    _join(true);
}

bool thread::try_acquire() {
    _assure_joinable();
    return _join(_element->thread_function_base_().try_acquire());
}

bool thread::timed_acquire(time const& deadline) {
    _assure_joinable();
    return _join(_element->thread_function_base_().timed_acquire(deadline));
}

// Returns the element to the pool if its run has completed. Returns whether it has.
bool thread::_join(bool completed) {
    _acquired = completed;
    if (completed) {
        detail::thread_element_group::global()->release_element(_element);
        _element = nullptr;
    }
    return completed;
}

unsigned int thread::stack_size() const {
    return _stack_size;
}

}  // namespace ovel
