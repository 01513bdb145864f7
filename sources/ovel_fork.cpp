// SPDX-License-Identifier: Apache-2.0
// Forks of the process. The thread that forks takes the library's locks first, so that
// nothing they guard is half changed in the child, where it is the only thread. The rings of
// other threads' allocators, which need no lock, may be half changed.
//
// Lock order: the pool's lock, which also serializes forks; the locks of all allocators but
// the global one; the global allocator's; those of the kernel services. A thread that holds
// an allocator's lock waits for the global one's only, and no thread waits for another lock
// while it holds that one.

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

// The threads that waited for it do not exist in the child.
void free_in_child(semaphore& lock, unsigned int spin) {
    std::destroy_at(&lock);
    std::construct_at(&lock, 1, spin);
}

}  // namespace

// Other threads may register further allocators, at the front of the list, while this one
// locks those behind.
void process_hooks::_lock_allocators() {
    semaphore& registry = allocator_group::global()->global_allocator()->_lock;
    allocator* locked = nullptr;  // this and all behind it
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

// A deactivated allocator is consistent, and may serve a thread of the child. One that was
// serving another thread stays activated: it accepts freed blocks as pending, and no thread
// uses its rings. Where there are forks, the quick pointer holds this thread's allocator.
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

// The pool has no threads left, and nor has the crew of the thread's current seat. The
// pool's lock does not poll, like the one built at load. The recycler and the clock start
// again when they are next used.
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
