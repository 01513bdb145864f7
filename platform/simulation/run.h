// SPDX-License-Identifier: Apache-2.0
// How a run starts and ends.
#ifndef OVEL_SIMULATION_RUN_H
#define OVEL_SIMULATION_RUN_H

#include "strategies.h"

#include <string>
#include <vector>

namespace ovel::simulation {

// Like `run`. With strategy::choices, sets `points` to those of the run.
outcome run_and_trace(scenario const& program, schedule const& when, unsigned int steps_shown,
                      std::vector<choice_point>& points);

// Ends the run as a failure. Control leaves the fibers for `run` and never returns to
// them.
[[noreturn]] void fail_run(std::string failure);

}  // namespace ovel::simulation

#endif
