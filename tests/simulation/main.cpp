// SPDX-License-Identifier: Apache-2.0
#include "simulation/simulation.h"

#include <sys/personality.h>
#include <unistd.h>
#include <iostream>

int main(int count, char** arguments) {
    // At the same addresses in every process, so that a run is the same although
    // the program under test should look at an address.
    if ((personality(0xffffffff) & ADDR_NO_RANDOMIZE) == 0 && personality(ADDR_NO_RANDOMIZE) != -1)
        execv("/proc/self/exe", arguments);
    int const result = ovel::simulation::explore(count, arguments);
    std::cout.flush();
    // The library's state is that of the last run, which its exit hooks must not
    // see.
    _exit(result);
}
