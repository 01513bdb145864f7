// The list of scenarios, to which each file of them adds its own at load.
#ifndef OVEL_TESTS_SIMULATION_SCENARIOS_H
#define OVEL_TESTS_SIMULATION_SCENARIOS_H

#include "simulation/simulation.h"

#include <vector>

namespace ovel::simulation {

std::vector<scenario>& scenarios();

struct registration {
    explicit registration(scenario const& added) {
        scenarios().push_back(added);
    }
};

}  // namespace ovel::simulation

#endif
