// SPDX-License-Identifier: Apache-2.0
// What the layer does when the process is forked.
#ifndef OVEL_PLATFORM_LINUX_FORK_H
#define OVEL_PLATFORM_LINUX_FORK_H

#include <pthread.h>

namespace ovel::detail {

// The layer's own locks. A fork takes them in this order; no other code takes one while it
// holds another.
extern pthread_mutex_t named_mutexes_lock;
extern pthread_mutex_t slots_lock;
extern pthread_mutex_t processors_lock;
extern pthread_mutex_t regions_lock;
extern pthread_mutex_t modules_lock;

// In the child: `former` is the identifier of its only thread in the parent, `now` the one
// in the child. The thread still owns the mutexes that it owned.
void inherit_named_mutexes(unsigned long former, unsigned long now);

}  // namespace ovel::detail

#endif
