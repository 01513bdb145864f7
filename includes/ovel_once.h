// SPDX-License-Identifier: Apache-2.0
// Initialisation that runs exactly once, however many threads race for it.
#ifndef OVEL_ONCE_H
#define OVEL_ONCE_H

#include "ovel_frame.h"

namespace ovel {

// Runs `function` unless it has already completed for `flag`. Returns once it has
// completed. Threads that race on one flag wait for the thread that runs the function;
// calls with different flags never wait for each other. What `function` wrote is visible
// to every thread whose call has returned. The caller provides `flag`, which is 0 before
// the first call and 1 once the function has completed. Only `call_once` writes it.
//
//     static unsigned int volatile flag = 0;
//     call_once(build_table, flag);  // afterwards one read and a comparison
//
// Any thread may call it, also from a function that runs under another flag, but not from
// one under the same flag. An exception that leaves `function` fails the check
// "("unexpected exception", 0)". A system call that fails, for example out of memory,
// also ends the process through `assure`. No thread is cancelled inside. In a forked process, a
// function that another thread had begun runs again.
OVEL_EXPORT void call_once(void (*function)(), unsigned int volatile& flag);

}  // namespace ovel

#endif
