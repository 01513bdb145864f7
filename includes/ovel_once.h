// SPDX-License-Identifier: Apache-2.0
// Initialisation that runs exactly once, however many threads race to it.
#ifndef OVEL_ONCE_H
#define OVEL_ONCE_H

#include "ovel_frame.h"

namespace ovel {

// Runs `function` unless it has completed for `flag` before, and returns once it
// has. Threads that race on one flag wait for the thread that runs the function.
// Calls with different flags never wait for each other. What `function` wrote is
// visible to every thread whose call has returned. `flag` belongs to the caller, is 0
// before the first call, and only `call_once` writes it; 1 means completed.
//
//     static unsigned int volatile flag = 0;
//     call_once(build_table, flag);  // afterwards one read and a comparison
//
// Any thread may call it, also from a function that runs under another flag, but
// not from one under the same flag. An exception that leaves `function` fails
// the check "("unexpected exception", 0)". A kernel call that fails, when out of
// memory, ends the process through `assure` as well. In a fork, a function that another
// thread had begun runs anew.
OVEL_EXPORT void call_once(void (*function)(), unsigned int volatile& flag);

}  // namespace ovel

#endif
