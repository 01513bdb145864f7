// SPDX-License-Identifier: Apache-2.0
// Objects of the process that are built when the library is loaded and belong to no
// class.
#ifndef OVEL_LIBRARY_H
#define OVEL_LIBRARY_H

#include "ovel_atomic.h"
#include "ovel_thread_base.h"

namespace ovel::detail {

// The recycler's thread, whether it was started, and the once-flag for starting it.
extern thread_base _recycler_thread;
extern atomic<bool> _recycler_started;
extern unsigned int volatile _recycler_flag;

// Its destructor stops and joins the recycler's thread if it was started.
struct recycler_hook {
    ~recycler_hook();
};

// What the library does when the process forks.
struct process_hooks {
    static void before_fork();
    static void in_parent();
    static void in_child();

private:
    static void _lock_allocators();
    static void _unlock_allocators();
    static void _inherit_allocators();
};

// Its destructor ends the idle threads of the pool.
struct pool_hook {
    ~pool_hook();
};

}  // namespace ovel::detail

#endif
