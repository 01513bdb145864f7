// SPDX-License-Identifier: Apache-2.0
// What the client that loads the library calls of the code that uses it.
#ifndef OVEL_WINDOWS_USE_H
#define OVEL_WINDOWS_USE_H

#include "ovel_kernel.h"

// Uses all that needs no thread, and with `threads` the rest as well. What goes
// wrong ends the process through a check.
using use_function = void(bool threads);

#endif
