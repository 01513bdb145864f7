// SPDX-License-Identifier: Apache-2.0
// Bodies that do not fit their transitions, each with the message for it. The compiler must
// report it in the line that inserts the transition.
#include <ovel_petri.h>

#include <memory>
#include <tuple>

struct other {};

// clang-format off
void insert(ovel::net& net, ovel::place<int> const& in, ovel::place<int> const& out) {
    net.insert_transition("1", from(in), to(out), [](other) { return 1; });            // a body takes one token of each place in from
    net.insert_transition("2", from(in), to(out), [](int) {});                         // a body returns what the places in to
    net.insert_transition("3", from(in), to(out), [](int) { return other(); });        // a body returns what the places in to
    net.insert_transition("4", from(in), [](int) { return 1; });                       // a body without to() returns nothing
    net.insert_transition("5", from(in), to(out, out), [](int) { return 1; });         // a body returns a std::tuple with a value for each place
    net.insert_transition("6", from(in.times(2)), to(out), [](int) { return 1; });     // a body with weighted arcs takes a firing
    net.insert_transition("7", from(in), to(out), [](ovel::firing&) { return 1; });    // a body that takes a firing& returns nothing
}
// clang-format on
