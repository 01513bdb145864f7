// SPDX-License-Identifier: Apache-2.0
// What the layer does when the process is forked.
#ifndef OVEL_PLATFORM_LINUX_FORK_H
#define OVEL_PLATFORM_LINUX_FORK_H

#include <pthread.h>

namespace ovel::detail {

// The layer's own locks. A fork takes them in this order; otherwise none is taken while
// another is held.
extern pthread_mutex_t named_mutexes_lock;
extern pthread_mutex_t slots_lock;
extern pthread_mutex_t processors_lock;
extern pthread_mutex_t regions_lock;

// In the child: `former` is the identifier that the only thread had in the parent, `now`
// the one that it has. What it owned it owns still.
void inherit_named_mutexes(unsigned long former, unsigned long now);

}  // namespace ovel::detail

#endif
