// Initialisation that runs exactly once, however many threads race to it.
#ifndef OVEL_ONCE_H
#define OVEL_ONCE_H

#include "ovel_frame.h"

namespace ovel {

// Runs `function` unless it has completed for `flag` before, and returns once it
// has. Threads that race on one flag wait for the one that runs the function;
// different flags never wait for each other. `flag` belongs to the caller, is 0
// before the first call, and is never written by anyone else; 1 means completed.
//
//     static unsigned int volatile flag = 0;
//     call_once(build_table, flag);  // afterwards one read and a comparison
//
// Any thread may call it, also from a function that runs under another flag, but
// not from one under the same flag. An exception that leaves `function` fails
// the check "("unexpected exception", 0)"; a kernel call that fails, for want of
// memory, ends the process through `assure` as well.
OVEL_EXPORT void call_once(void (*function)(), unsigned int volatile& flag);

}  // namespace ovel

#endif
