// SPDX-License-Identifier: Apache-2.0
// The state of the library's global objects as its load left it.
#ifndef OVEL_SIMULATION_SNAPSHOT_H
#define OVEL_SIMULATION_SNAPSHOT_H

namespace ovel::simulation::snapshot {

// Keeps the writable data of the shared object that holds the library; nothing
// when the program has none.
void keep();
void restore();

}  // namespace ovel::simulation::snapshot

#endif
