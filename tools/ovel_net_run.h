// SPDX-License-Identifier: Apache-2.0
// Runs a net on the library's Petri nets.
#ifndef OVEL_NET_RUN_H
#define OVEL_NET_RUN_H

#include "ovel_net_model.h"
#include "ovel_net_options.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace ovel_net {

enum class outcome {
    dead,    // at rest, and no transition would be enabled even with unlimited room
    full,    // at rest only because places are full
    stopped  // a limit ended the run while some transition was enabled
};

// As "dead".
char const* name_of(outcome end);

// How a run ended. Each vector is in the order of the net's places or transitions.
struct result {
    unsigned int threads = 0;
    double seconds = 0;  // from the start of the net to its stop
    std::vector<unsigned int> capacities;
    std::vector<unsigned int> marking;
    std::vector<std::uint64_t> firings;
    outcome end = outcome::dead;

    std::uint64_t total_firings() const;

    // Whether the arc's transition finds no room in the place at its end.
    bool refuses(arc const& output) const {
        return capacities[output.place] - marking[output.place] < output.weight;
    }
};

// The marking must follow from the firings; a `failure` otherwise.
void verify_marking(net const& model, result const& made);

// What the marking says. A net that no limit stopped must be at rest; a `failure` otherwise.
outcome judge(net const& model, result const& made, bool limited);

// Called from time to time during a run with the seconds so far and the firings.
// Returns whether to go on; false is a limit too.
using observer = std::function<bool(double, std::uint64_t)>;

// Runs `model` until it comes to rest or a limit of `chosen` stops it. Blocks
// until then. Throws a `failure` when the tokens left don't add up. Each firing is a
// scope that a recorder records; its name is that of the transition in `model`, by
// address.
result run(net const& model, options const& chosen, observer const& observe);

}  // namespace ovel_net

#endif
