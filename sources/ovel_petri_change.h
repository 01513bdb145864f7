// SPDX-License-Identifier: Apache-2.0
// How a thread other than those that fire changes a net.
#ifndef OVEL_PETRI_CHANGE_H
#define OVEL_PETRI_CHANGE_H

#include "ovel_petri_net.h"

namespace ovel {

// Holds a net's mutex for a change. The end of the scope dispatches what is enabled then,
// and wakes the threads that this concerns, also when an exception ends it half way.
class petri_net::change {
public:
    explicit change(petri_net& net) : _net(net) {
        _net._enter();
    }
    ~change() {
        _net._dispatch();
        _net._leave();
    }
    change(change const&) = delete;
    change& operator=(change const&) = delete;

private:
    petri_net& _net;
};

}  // namespace ovel

#endif
