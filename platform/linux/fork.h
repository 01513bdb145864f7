// SPDX-License-Identifier: Apache-2.0
// What the layer does when the process is forked.
#ifndef OVEL_PLATFORM_LINUX_FORK_H
#define OVEL_PLATFORM_LINUX_FORK_H

#include <pthread.h>

namespace ovel::detail {

// The layer's own locks. A fork takes them in this order. No other code takes one while it
// holds another. The thread that is `forking` holds all of them.
extern pthread_mutex_t named_mutexes_lock;  // the table of named mutexes, their handle counts
extern pthread_mutex_t slots_lock;          // which thread-local slots are in use, generations
extern pthread_mutex_t processors_lock;     // the process's mask; changes of any thread's mask
extern pthread_mutex_t regions_lock;        // the mappings from which regions are cut
extern pthread_mutex_t modules_lock;        // reading the C library's list of modules

// Called in the child. Its thread still owns the named mutexes that it owned in the parent,
// where its identifier was `former`; in the child it is `now`.
void inherit_named_mutexes(unsigned long former, unsigned long now);

}  // namespace ovel::detail

#endif
