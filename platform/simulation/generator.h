// SPDX-License-Identifier: Apache-2.0
// Random numbers for schedules.
#ifndef OVEL_SIMULATION_GENERATOR_H
#define OVEL_SIMULATION_GENERATOR_H

#include <cstdint>

namespace ovel::simulation {

// Splitmix: 64 bits of state, all seeds are equally good, and the numbers are the same on
// every machine.
struct generator {
    std::uint64_t state;

    std::uint64_t next() {
        state += 0x9e3779b97f4a7c15;
        std::uint64_t mixed = state;
        mixed = (mixed ^ (mixed >> 30)) * 0xbf58476d1ce4e5b9;
        mixed = (mixed ^ (mixed >> 27)) * 0x94d049bb133111eb;
        return mixed ^ (mixed >> 31);
    }
    unsigned int below(unsigned int bound) {
        return static_cast<unsigned int>((next() >> 32) * bound >> 32);
    }
};

}  // namespace ovel::simulation

#endif
