// SPDX-License-Identifier: Apache-2.0
// How a thread other than those that fire changes a net.
#ifndef OVEL_PETRI_CHANGE_H
#define OVEL_PETRI_CHANGE_H

#include "ovel_petri_net.h"

namespace ovel {

// Holds a net's mutex for a change. The end of the scope carries out the calls of other threads,
// dispatches what is enabled then, and wakes the threads that this concerns, also when an
// exception ends it half way.
class petri_net::change {
public:
    // That the caller has the mutex.
    static constexpr bool taken = true;

    explicit change(petri_net& net, bool is_taken = false) : _net(net) {
        if (!is_taken)
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
