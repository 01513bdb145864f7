// SPDX-License-Identifier: Apache-2.0
// Identifies the process that runs something with threads. The threads do not exist in
// its forks.
#ifndef OVEL_PROCESS_H
#define OVEL_PROCESS_H

#include "kernel.h"

namespace ovel::detail {

// A number for this process that none of its ancestors had. Never 0, which means none.
inline unsigned int this_process() {
    return process_generation() + 1;
}

// Whether this process was forked from `runner`, the process that runs something; false
// for 0. A relaxed load of `runner` is enough: a fork keeps what was written before it.
inline bool is_inherited(unsigned int runner) {
    return runner != 0 && runner != this_process();
}

}  // namespace ovel::detail

#endif
