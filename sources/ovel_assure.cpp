// SPDX-License-Identifier: Apache-2.0
// Ends a process whose invariant is broken.

#include "ovel_assure.h"

#include <cstdio>
#include <cstdlib>

namespace ovel {

void assure_failed(char const* expression, char const* file, int line) {
    std::fprintf(stderr, "ovel::assure_failed(%s, %s, %d)\n", expression, file, line);
    std::abort();
}

}  // namespace ovel
