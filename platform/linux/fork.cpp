// SPDX-License-Identifier: Apache-2.0
// Forks. The child has a copy of the memory and one thread. A lock that another thread held
// at the fork would stay locked for ever, and its data half changed. So the library's
// handlers take its locks before the fork, and the layer takes its own inside them.

#include "linux/fork.h"

#include "kernel.h"

#include <iterator>

namespace ovel {

constinit unsigned int detail::process_generation_word = 0;

namespace {

fork_handlers library;
pthread_mutex_t* const locks[] = {&detail::named_mutexes_lock, &detail::slots_lock,
                                  &detail::processors_lock, &detail::regions_lock,
                                  &detail::modules_lock};

void unlock() {
    for (auto each = std::rbegin(locks); each != std::rend(locks); ++each)
        pthread_mutex_unlock(*each);
}

void before_fork() {
    library.before();
    for (pthread_mutex_t* const each : locks)
        pthread_mutex_lock(each);
}

void after_fork_in_parent() {
    unlock();
    library.in_parent();
}

// This thread has taken the locks before the fork, and so owns them in the child.
void after_fork_in_child() {
    unsigned long const former = current_thread_id;
    current_thread_id = 0;
    ++detail::process_generation_word;
    if (former != 0)  // otherwise it owns nothing
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
