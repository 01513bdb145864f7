// SPDX-License-Identifier: Apache-2.0
// Lets one thread after another make a step.
#ifndef OVEL_SIMULATION_DISPATCH_H
#define OVEL_SIMULATION_DISPATCH_H

#include "world.h"

namespace ovel::simulation {

// The calling thread is about to do `next`: chooses which thread goes on, and returns
// when that is the calling one. With `yields` it gives way to others.
void reach(action const& next, void* caller, bool yields);

// The first thread waits until every other thread waits without a deadline.
void wait_for_rest();

// A new thread, ready to begin with `main`, in a free slot.
void add_thread(unsigned int slot, thread_state const& state, void (*main)());

// Calls the thread's entry. An exception that leaves it fails the run.
void run_entry(thread_state const& state);

}  // namespace ovel::simulation

#endif
