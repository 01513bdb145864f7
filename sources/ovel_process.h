// SPDX-License-Identifier: Apache-2.0
// Which process runs something that has threads. They do not exist in a fork of it.
#ifndef OVEL_PROCESS_H
#define OVEL_PROCESS_H

#include "kernel.h"

namespace ovel::detail {

// A number for this process that none before it had. Not 0, which stands for none.
inline unsigned int this_process() {
    return process_generation() + 1;
}

// Whether `runner`, the process that runs something or 0, is one that this was forked
// from. It may be read with a relaxed load: a fork keeps what was written before it.
inline bool is_inherited(unsigned int runner) {
    return runner != 0 && runner != this_process();
}

}  // namespace ovel::detail

#endif
