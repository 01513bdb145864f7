// SPDX-License-Identifier: Apache-2.0
// What the layer does when the process forks. A lock that another thread held at the fork
// would stay locked in the child for ever, with its data half changed. So the forking thread
// takes the library's locks first, then the layer's own.
//
// Handlers of a library that registered them earlier run after `before_fork`, and before the
// other two. They may allocate and free on the thread that holds all these locks.

#include "linux/fork.h"

#include "kernel.h"

#include <iterator>

namespace ovel {

constinit unsigned int detail::process_generation_word = 0;
constinit thread_local bool detail::forking_word = false;

namespace {

fork_handlers library;
pthread_mutex_t* const locks[] = {&detail::named_mutexes_lock, &detail::slots_lock,
                                  &detail::processors_lock, &detail::regions_lock,
                                  &detail::modules_lock};

void unlock() {
    detail::forking_word = false;
    for (auto each = std::rbegin(locks); each != std::rend(locks); ++each)
        pthread_mutex_unlock(*each);
}

void before_fork() {
    library.before();
    for (pthread_mutex_t* const each : locks)
        pthread_mutex_lock(each);
    detail::forking_word = true;
}

void after_fork_in_parent() {
    unlock();
    library.in_parent();
}

// The thread owns the locks that it took before the fork. Unlocks the layer's own first,
// because the library's handler calls its services.
void after_fork_in_child() {
    unsigned long const former = current_thread_id;
    current_thread_id = 0;
    ++detail::process_generation_word;
    if (former != 0)  // otherwise it has never owned a named mutex
        detail::inherit_named_mutexes(former, GetCurrentThreadId());
    unlock();
    library.in_child();
}

}  // namespace

bool kernel::at_fork(fork_handlers const& handlers) {
    library = handlers;
    return pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child) == 0;
}

}  // namespace ovel
