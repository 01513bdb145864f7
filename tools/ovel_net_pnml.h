// SPDX-License-Identifier: Apache-2.0
// Reads a net from PNML, the XML interchange format of Petri nets.
#ifndef OVEL_NET_PNML_H
#define OVEL_NET_PNML_H

#include "ovel_net_model.h"

#include <ostream>
#include <string>

namespace ovel_net {

// Reads the first net of `file`, which must be a place/transition net. Adds a line to
// `warnings` for each thing that it ignores. Throws a `failure` with the line number on
// every error.
net read_pnml(std::string const& file, std::ostream& warnings);

}  // namespace ovel_net

#endif
