// SPDX-License-Identifier: Apache-2.0
// What the structure of a net says before it runs: place invariants, and the bounds and
// capacities that follow from them.
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

// The limits of one place, whatever fires.
struct place_limits {
    std::uint64_t bound;  // it never holds more tokens

    // With this capacity the net never comes to rest only because this place is full. It
    // exceeds the bound if a transition both takes tokens from the place and puts some
    // into it: the slots of the taken tokens are free only when the firing ends.
    std::uint64_t capacity;
};

struct analysis {
    // A basis of the invariants found, and every invariant that gives the lowest bound of
    // some place.
    std::vector<invariant> invariants;
    std::size_t found = 0;                            // invariants that contain no smaller one
    bool complete = true;                             // whether these are all there are
    std::vector<std::optional<place_limits>> limits;  // in the order of the places
};

// Exact. Leaves out what does not fit into 64 bits, and most of the invariants if there
// are too many. The result is then not complete, and bounds may be higher than necessary.
analysis analyse(net const& model);

// A page of text, and one JSON object. `capacity` is the one from the command line.
std::string check_report(net const& model, analysis const& made, unsigned int capacity);
std::string check_json(net const& model, analysis const& made, unsigned int capacity);

// Writes a line for each place that would run with less than its capacity.
void warn_of_capacities(std::string const& file, net const& model, analysis const& made,
                        unsigned int capacity, std::ostream& warnings);

}  // namespace ovel_net

#endif
