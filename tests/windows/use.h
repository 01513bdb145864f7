// SPDX-License-Identifier: Apache-2.0
// The interface between the client, which loads this code, and the code that uses the library.
#ifndef OVEL_WINDOWS_USE_H
#define OVEL_WINDOWS_USE_H

#include "ovel_kernel.h"

// Uses everything that needs no thread and, with `threads`, the rest. An error fails a check.
using use_function = void(bool threads);

#endif
