// SPDX-License-Identifier: Apache-2.0
// The results of a run: a report to read, JSON for programs, a drawing.
#ifndef OVEL_NET_REPORT_H
#define OVEL_NET_REPORT_H

#include "ovel_net_model.h"
#include "ovel_net_run.h"

#include <string>
#include <vector>

namespace ovel_net {

// Which places have no room for a firing that would put tokens there.
std::vector<bool> full_places(net const& model, result const& made);

// A page of text. With `explain` it says what each transition is waiting for.
std::string report(net const& model, result const& made, bool explain);

// One JSON object. It proves that no token was lost: the initial marking, the firings of
// each transition, the final marking. With `explain` it also has the tokens and slots
// that each transition lacks.
std::string json(net const& model, result const& made, bool explain);

// The net with its final marking and firing counts, in Graphviz's language.
std::string drawing(net const& model, result const& made);

}  // namespace ovel_net

#endif
