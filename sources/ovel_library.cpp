// SPDX-License-Identifier: Apache-2.0
// Loading and unloading: the library's global objects, in the order of construction. All
// of them are here, because only within one file does the order of definitions determine
// the order of construction.
//
// The exit hooks run in the reverse order: they join the recycler's thread, then every
// idle thread of the pool. Other threads may use the library during and after that, so no
// object is destroyed. What is built on first use has no hook: the tick's length, the
// time server with its thread, the allocators.

#include "ovel_library.h"

#include "kernel.h"
#include "ovel_allocator_recycler.h"
#include "ovel_thread.h"
#include "ovel_thread_support.h"
#include "ovel_time_server.h"

#include <new>

namespace ovel {

namespace {

// Storage for an object that is never destroyed.
template <class T>
struct storage {
    alignas(T) unsigned char bytes[sizeof(T)];
};
storage<allocator_recycler> recycler_storage;
storage<detail::thread_element_group> pool_storage;

}  // namespace

// 1. The recycler and its work, for a period of 10 seconds.
allocator_recycler& allocator_recycler::_global = *new (&recycler_storage) allocator_recycler;

// 2. The recycler's thread, not started.
thread_base detail::_recycler_thread(65536);
detail::atomic<bool> detail::_recycler_started{false};
unsigned int volatile detail::_recycler_flag = 0;

// 3. The pool of threads. `default_spin` is still 0, and so is the spin count of its
// lock.
detail::thread_element_group& detail::thread_element_group::_global =
    *new (&pool_storage) detail::thread_element_group;

// 4. Only hooks: at unload they end the recycler's thread and then the pool's idle
// threads.
namespace {
detail::pool_hook pool_hook;
detail::recycler_hook recycler_hook;
}  // namespace

// 5. The default spin count of everything built from here on.
unsigned int volatile default_spin =
    thread_support::available_processors() != 1 ? estimate_default_spin() : 0;

// 6. The time server's once-flag, not yet set.
unsigned int volatile time_server::_created = 0;
time_server* time_server::_global = nullptr;

// 7. Only the fork handlers.
namespace {
[[maybe_unused]] bool const handled =
    at_fork({&detail::process_hooks::before_fork, &detail::process_hooks::in_parent,
             &detail::process_hooks::in_child});
}  // namespace

}  // namespace ovel
