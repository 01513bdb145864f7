// SPDX-License-Identifier: Apache-2.0
// The state of the library's global objects right after the library was loaded.
#ifndef OVEL_SIMULATION_SNAPSHOT_H
#define OVEL_SIMULATION_SNAPSHOT_H

namespace ovel::simulation::snapshot {

// Saves the writable data of the shared object that contains the library. Does nothing if
// the program has no such object.
void keep();
void restore();

}  // namespace ovel::simulation::snapshot

#endif
