// SPDX-License-Identifier: Apache-2.0
// Shared by the suites of nets with typed places.
#ifndef OVEL_TYPED_NETS_H
#define OVEL_TYPED_NETS_H

#include "ovel_petri.h"
#include "ovel_test.h"

#include <exception>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <tuple>

using namespace std::chrono_literals;
using ovel::net;
using ovel::place;

struct ovel::detail::inspector {
    // Threads that block in the net's places, or are about to.
    static unsigned int blocked(net& in) {
        return in._core->_callers.count();
    }
};

// Starts the net and stops it when it has come to rest.
inline void run(net& tested) {
    tested.start();
    tested.join();
}

// The tokens of a place at rest.
template <class T>
std::vector<T> drain(place<T> const& from) {
    std::vector<T> tokens;
    while (std::optional<T> token = from.try_receive())
        tokens.push_back(*std::move(token));
    return tokens;
}

#endif
