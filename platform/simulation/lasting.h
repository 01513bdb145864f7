// SPDX-License-Identifier: Apache-2.0
// Objects that exist before any constructor has run and after every destructor has run.
// The library's global objects are built before those of the program that contains the
// simulated kernel, and their exit hooks run later.
#ifndef OVEL_SIMULATION_LASTING_H
#define OVEL_SIMULATION_LASTING_H

namespace ovel::simulation {

template <class T>
union lasting {
    constexpr lasting() : value() {}
    ~lasting() {}

    T value;
};

}  // namespace ovel::simulation

#endif
