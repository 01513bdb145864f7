// SPDX-License-Identifier: Apache-2.0
// Lets threads make their steps, one at a time.
#ifndef OVEL_SIMULATION_DISPATCH_H
#define OVEL_SIMULATION_DISPATCH_H

#include "world.h"

namespace ovel::simulation {

// The calling thread is about to do `next`. Chooses which thread continues, and returns
// when it is the calling one. With `yields` the caller yields to others.
void reach(action const& next, void* caller, bool yields);

// Makes the first thread wait until every other thread waits without a deadline.
void wait_for_rest();

// Creates a thread in a free slot, ready to begin with `main`.
void add_thread(unsigned int slot, thread_state const& state, void (*main)());

// Calls the thread's entry function. An exception that leaves it fails the run.
void run_entry(thread_state const& state);

}  // namespace ovel::simulation

#endif
