// SPDX-License-Identifier: Apache-2.0
// What the library does when the process forks.
//
// The child has a copy of the memory, and of the threads only the one that forked. Data that
// another thread was changing at the fork stays half changed there. So the forking thread
// takes the library's locks before the fork: no other thread is then changing what they
// guard. No lock guards the rings of an activated allocator. Those of another thread may be
// half changed in the child, so no thread of the child uses them.
//
// Lock order: the pool's lock, so one fork at a time; the locks of all allocators but the
// global one; the global allocator's lock; those of the kernel services. A thread that holds
// an allocator's lock waits only for the global allocator's. A thread that holds that one
// waits for no other lock.
//
// Fork handlers of others may run while the forking thread holds all these locks. What they
// allocate and free then takes none: see `forking`.

#include "kernel.h"
#include "ovel_allocator.h"
#include "ovel_allocator_group.h"
#include "ovel_allocator_recycler.h"
#include "ovel_library.h"
#include "ovel_semaphore.h"
#include "ovel_task.h"
#include "ovel_thread.h"
#include "ovel_thread_support.h"
#include "ovel_time_server.h"

#include <memory>

namespace ovel::detail {

namespace {

// Frees a lock that the parent holds. The threads that waited for it do not exist in the
// child, so the semaphore forgets them.
void free_in_child(semaphore& lock, unsigned int spin) {
    std::destroy_at(&lock);
    std::construct_at(&lock, 1, spin);
}

}  // namespace

// While this thread acquires the locks of the allocators in the list, other threads may
// register further ones at its front. So it repeats until the list has not grown. Returns
// with all allocators' locks held, the global allocator's last.
void process_hooks::_lock_allocators() {
    semaphore& registry = allocator_group::global()->global_allocator()->_lock;
    allocator* locked = nullptr;  // the locks of this one and all behind it are held
    for (registry.acquire(); allocator::_allocators != locked; registry.acquire()) {
        allocator* const first = allocator::_allocators;
        registry.release();
        for (allocator* each = first; each != locked; each = each->_next)
            if (each != allocator::_global_allocator)
                each->_lock.acquire();
        locked = first;
    }
}

void process_hooks::_unlock_allocators() {
    for (allocator* each = allocator::_allocators; each != nullptr; each = each->_next)
        if (each != allocator::_global_allocator)
            each->_lock.release();
    allocator::_global_allocator->_lock.release();
}

// A deactivated allocator is consistent and may serve a thread of the child. An activated one
// was serving another thread of the parent. It stays activated, so blocks that the child frees
// wait in `_pending` and nothing touches its rings. The quick pointer is this thread's
// allocator: every platform that forks has one.
void process_hooks::_inherit_allocators() {
    allocator* const own = static_cast<allocator*>(quick_pointer());
    allocator::_released_allocators = nullptr;
    for (allocator* each = allocator::_allocators; each != nullptr; each = each->_next) {
        free_in_child(each->_lock, current_spin());
        if (each->_activated || each == own)
            continue;
        if (each == allocator::_default_allocator) {
            allocator::_default_is_lent = false;
            continue;
        }
        each->_next_released = allocator::_released_allocators;
        allocator::_released_allocators = each;
    }
}

void process_hooks::before_fork() {
    thread_element_group::global()->_lock.acquire();
    _lock_allocators();
}

void process_hooks::in_parent() {
    _unlock_allocators();
    thread_element_group::global()->_lock.release();
}

// Neither the pool nor the crew of the thread's current seat has any threads. The pool's lock
// has spin count 0, like the one built at load. The recycler and the clock start again when
// the child first uses them.
void process_hooks::in_child() {
    _inherit_allocators();
    thread_element_group& pool = *thread_element_group::global();
    free_in_child(pool._lock, 0);
    std::construct_at(&pool._elements);
    allocator_recycler::global()->_forget();
    time_server::_created = 0;
    task_crew::forget_seat();
}

}  // namespace ovel::detail
