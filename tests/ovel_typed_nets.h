// SPDX-License-Identifier: Apache-2.0
// Shared by the suites of nets with typed places.
#ifndef OVEL_TYPED_NETS_H
#define OVEL_TYPED_NETS_H

#include "ovel_test.h"

using namespace std::chrono_literals;
using ovel::net;
using ovel::place;

struct ovel::detail::inspector {
    // Threads that block in the net's places, or are about to.
    static unsigned int blocked(net& in) {
        return in._core->_callers.count();
    }
    static thread_group const& group(petri_net const& of, int i) {
        return *of._thread_groups[i];
    }
    static thread const& queue_thread(petri_net const& of) {
        return of._queue_thread;
    }
    static bool enabled(petri_transition const& of) {
        return of.enabled();
    }
};

// Places with these names, of one type and capacity.
template <class T, class... Names>
std::array<place<T>, sizeof...(Names)> insert_places(net& in, unsigned int room, Names... names) {
    return {in.insert_place<T>(names, room)...};
}

// Sends tokens for which there is room.
template <class T>
void fill(place<T> const& into, std::initializer_list<std::type_identity_t<T>> tokens) {
    for (T const& token : tokens)
        into.send(token);
}

inline constexpr auto pass_on = [](int token) {
    return token;
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
