// SPDX-License-Identifier: Apache-2.0
// Runs a net on the library's Petri nets.
#ifndef OVEL_NET_RUN_H
#define OVEL_NET_RUN_H

#include "ovel_net_model.h"
#include "ovel_net_options.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

namespace ovel_net {

enum class outcome {
    dead,    // at rest, and no transition would be enabled even with unlimited room
    full,    // at rest only because places are full
    stopped  // a limit ended the run while some transition was enabled
};

// The name of an outcome, for example "dead".
char const* name_of(outcome end);

// How a run ended. Each vector is in the order of the net's places or transitions.
struct result {
    unsigned int threads = 0;
    double seconds = 0;  // from the start of the net to its stop
    std::vector<unsigned int> capacities;
    std::vector<unsigned int> marking;
    std::vector<std::uint64_t> firings;
    std::optional<std::uint64_t> own;  // of these, if other processes fire as well
    outcome end = outcome::dead;

    std::uint64_t total_firings() const;

    // Whether the place at the arc's end has no room for the arc's transition.
    bool refuses(arc const& output) const {
        return capacities[output.place] - marking[output.place] < output.weight;
    }
};

// Throws a `failure` unless the marking follows from the firings.
void verify_marking(net const& model, result const& made);

// Derives the outcome from the marking. Throws a `failure` if a net that no limit stopped
// is not at rest.
outcome judge(net const& model, result const& made, bool limited);

// Called now and then during a run with the elapsed seconds and the firings. Returns
// whether to continue; false counts as a limit.
using observer = std::function<bool(double, std::uint64_t)>;

// Runs `model` until it comes to rest or a limit of `chosen` stops it, and blocks until
// then. Throws a `failure` if the remaining tokens do not add up. Each firing is a scope
// for a recorder; its name is the transition's name in `model`, with the same address.
result run(net const& model, options const& chosen, observer const& observe);

}  // namespace ovel_net

#endif
