// SPDX-License-Identifier: Apache-2.0
// Remembers how recent waits on a synchronisation object ended. Clients do not use it.
#ifndef OVEL_SPIN_MEMORY_H
#define OVEL_SPIN_MEMORY_H

#include "ovel_atomic.h"

#include <algorithm>
#include <cstdint>

namespace ovel::detail {

// Decides from the results of recent waits whether a wait should spin before it sleeps.
//
// Spinning helps only while another processor runs the thread that is waited for. If
// there are more threads than processors, it keeps that thread from running. So after a
// wait has spun in vain, the next one sleeps at once, and after each further failure
// twice as many do, up to `most`. Then one spins again to find out. A success takes an
// eighth off the number: a spin in vain costs several times what a successful one saves.
// So an object whose waits are mostly short keeps spinning after a long one, and an object
// whose waits are often long spends little on spinning.
//
// Any number of threads may use it at once. Relaxed, and read and written in separate
// steps: losing a decision to another thread's costs a needless poll, or saves one.
class spin_memory {
public:
    // Whether to spin now. A thread that spins then reports how it ended.
    bool should_spin() {
        unsigned int const state = _state.load(std::memory_order_relaxed);
        if (state % unit == 0)
            return true;
        _keep(state - 1);
        return false;
    }

    void has_succeeded() {
        unsigned int const state = _state.load(std::memory_order_relaxed);
        if (state != 0)
            _keep(state / unit * 7 / 8 * unit);
    }
    void has_failed() {
        unsigned int const state = _state.load(std::memory_order_relaxed);
        unsigned int const skipped = std::min(state / unit * 2 + 1, most);
        _keep(skipped * unit + skipped);
    }

private:
    void _keep(unsigned int state) {
        _state.store(static_cast<std::uint16_t>(state), std::memory_order_relaxed);
    }

    static constexpr unsigned int most = 255;  // a vain spin of 25 us then costs 0.1 us per wait
    static constexpr unsigned int unit = 256;

    // The number of waits that will still sleep at once, plus `unit` times the number
    // that did so after the last failure. Small, to fit into the padding of the objects
    // that wait.
    atomic<std::uint16_t> _state{0};
};

}  // namespace ovel::detail

#endif
