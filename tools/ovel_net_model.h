// SPDX-License-Identifier: Apache-2.0
// A place/transition net as its file describes it, independent of how it runs.
#ifndef OVEL_NET_MODEL_H
#define OVEL_NET_MODEL_H

#include <cstddef>
#include <string>
#include <vector>

namespace ovel_net {

struct place {
    std::string id;
    std::string name;             // the id when the file gives no name
    unsigned int initial = 0;     // tokens of the initial marking
    unsigned int least_room = 0;  // the smallest capacity with which the place can run
};

// One end of a transition. The model merges all arcs between the same pair in the same
// direction into one, and adds their weights.
struct arc {
    std::size_t place;  // index in `net::places`
    unsigned int weight;
};

struct transition {
    std::string id;
    std::string name;  // the id when the file gives no name
    std::vector<arc> inputs;
    std::vector<arc> outputs;
};

// Places and transitions are in the file's order. Every transition has an arc.
struct net {
    std::string name;
    std::vector<place> places;
    std::vector<transition> transitions;

    std::size_t arcs() const {
        std::size_t sum = 0;
        for (transition const& each : transitions)
            sum += each.inputs.size() + each.outputs.size();
        return sum;
    }
};

}  // namespace ovel_net

#endif
