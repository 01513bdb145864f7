// SPDX-License-Identifier: Apache-2.0
// Runs a net in a database, as one of several processes.
#ifndef OVEL_NET_STORE_H
#define OVEL_NET_STORE_H

#include "ovel_net_model.h"
#include "ovel_net_options.h"
#include "ovel_net_run.h"

#include <string>

namespace ovel_net {

// Like `run`, in `chosen.store`. The result adds up all processes. Also throws a
// `failure` if the store fails or its library is missing.
result run_in_store(net const& model, options const& chosen, observer const& observe);

// What the nets in a store are doing, as text.
std::string show_store(std::string const& store);

}  // namespace ovel_net

#endif
