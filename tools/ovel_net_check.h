// SPDX-License-Identifier: Apache-2.0
// What a net's structure tells before it runs: place invariants, and the capacities that
// they imply.
#ifndef OVEL_NET_CHECK_H
#define OVEL_NET_CHECK_H

#include "ovel_net_model.h"

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace ovel_net {

// Positive weights of places. The weighted sum of their tokens is the same in every
// marking that the net can reach, apart from running firings.
struct invariant {
    struct term {
        std::size_t place;  // index in `net::places`
        std::int64_t weight;
    };
    std::vector<term> terms;  // in the order of the places
    std::uint64_t sum;
};

// What holds for one place, whatever fires.
struct place_limits {
    std::uint64_t bound;  // it never holds more tokens

    // With this capacity the net never rests only because room is missing here. It
    // is above the bound where a transition also takes tokens from the place that
    // it puts some into: their slots are free only when the firing ends.
    std::uint64_t capacity;
};

struct analysis {
    // A basis of the invariants found, with all those that bound some place most.
    std::vector<invariant> invariants;
    std::size_t found = 0;                            // invariants that contain no smaller one
    bool complete = true;                             // whether these are all there are
    std::vector<std::optional<place_limits>> limits;  // in the order of the places
};

// Exact. What does not fit 64 bits is left out, and of too many invariants most
// are; then the result is not complete, and bounds may be higher than need be.
analysis analyse(net const& model);

// A page of text, and one JSON object. `capacity` is that of the command line.
std::string check_report(net const& model, analysis const& made, unsigned int capacity);
std::string check_json(net const& model, analysis const& made, unsigned int capacity);

// A line for each place that would be run with less than its capacity.
void warn_of_capacities(std::string const& file, net const& model, analysis const& made,
                        unsigned int capacity, std::ostream& warnings);

}  // namespace ovel_net

#endif
