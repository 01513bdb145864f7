// SPDX-License-Identifier: Apache-2.0
// What the client that loads the library learns from the code that uses it.
#ifndef OVEL_WINDOWS_USE_H
#define OVEL_WINDOWS_USE_H

#include "ovel_kernel.h"

// What the library will give up when it is unloaded.
struct holdings {
    HANDLE pool_lock;   // the semaphore of the lock of the pool of threads
    unsigned int idle;  // threads in the pool
};

// Uses all that needs no thread, and with `threads` the rest as well. What goes
// wrong ends the process through a check.
using use_function = holdings(bool threads);

#endif
