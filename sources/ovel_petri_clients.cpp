// SPDX-License-Identifier: Apache-2.0
// What the nets of `ovel_petri.h` add to the operations on tokens: waits that end early,
// tokens that are made in their place, and places that are closed.

#include "ovel_assure.h"
#include "ovel_guard.h"
#include "ovel_petri_change.h"
#include "ovel_petri_engine.h"
#include "ovel_petri_net.h"

#include <utility>

namespace ovel {

using detail::petri_outcome;
using detail::petri_patience;

// Waits until `look` finds something, which it then tells, or the caller's patience is over;
// what is there comes first. `callers` counts those that wait there. With a deadline it waits
// once only, since the caller's own clock decides whether to wait again.
template <class Look>
petri_outcome petri_net::_await(unsigned int& callers, petri_patience const& patience,
                                Look const& look) {
    bool waited = patience.milliseconds == 0;
    for (;;) {
        petri_outcome const found = look();
        if (found != petri_outcome::elapsed)
            return found;
        if (patience.is_over())
            return petri_outcome::over;
        if (waited)
            return petri_outcome::elapsed;
        ++callers;
        if (patience.milliseconds == petri_patience::unlimited) {
            _condition.acquire(_mutex);
        } else {
            _engine->wait_for_news(patience.milliseconds);
            waited = true;
        }
        --callers;
    }
}

petri_outcome petri_net::_receive_within(petri_place* place, any& token,
                                         petri_patience const& patience) {
    change const hold(*this);
    petri_outcome const found = _await(place->_receivers, patience, [place] {
        if (place->receive_enabled(1))
            return petri_outcome::done;
        return place->ended() ? petri_outcome::ended : petri_outcome::elapsed;
    });
    if (found == petri_outcome::done)
        _receive(place, token);
    return found;
}

petri_outcome petri_net::_put_within(petri_place* place, maker make, void* from,
                                     petri_patience const& patience) {
    change const hold(*this);
    petri_outcome const found = _await(place->_senders, patience, [place] {
        if (place->_closed)
            return petri_outcome::ended;
        return place->send_enabled(1) ? petri_outcome::done : petri_outcome::elapsed;
    });
    if (found == petri_outcome::done)
        _put(place, make, from);
    return found;
}

bool petri_net::_try_put(petri_place* place, maker make, void* from) {
    change const hold(*this);
    if (place->_closed || !place->send_enabled(1))
        return false;
    _put(place, make, from);
    return true;
}

// Puts a token into a slot that is free. It is counted before it is there, so that all
// that may throw comes before the value is moved: the firings that take it are reserved
// under the mutex, later.
void petri_net::_put(petri_place* place, maker make, void* from) {
    unsigned int const tokens = place->tokens();
    place->count_in();
    try {
        _engine->gained_tokens(place, tokens);
        any token;
        make(token, from);
        place->_put(std::move(token));
    } catch (...) {
        place->count_out();
        _engine->lost_tokens(place);
        throw;
    }
    _engine->lost_slots(place);
}

void petri_net::_wake() {
    change const hold(*this);
    _engine->wake_callers();
}

void petri_net::_close(petri_place* place) {
    change const hold(*this);
    _engine->close(place);
}

// Arcs have been added to the place.
void petri_net::_settle(petri_place* place) {
    change const hold(*this);
    if (place->_closed)
        _engine->settle(place);
}

// Before any arc of the transition. Starts the clock, which the engine reads under the mutex.
void petri_net::_delay(petri_transition* transition, ovel::time const& delay) {
    static_cast<void>(time::now());
    change const hold(*this);
    _engine->make_room_for_delay();
    transition->_delay = delay;
}

// An arc that reserves nothing. For the engine it is one that puts no token and needs all
// slots free: it is enabled while no token is there or on its way, and is looked at when the
// place gains slots.
void petri_net::_insert_inhibitor(petri_place* place, petri_transition* transition) {
    detail::guard const hold(_mutex);
    place->_producers.ends.make_room();
    transition->accesses().make_room();
    place->_producers.push_back({transition, place->_capacity, transition->reentrant(), true});
    transition->accesses().push_back({place, 0, 0, false});
    if (transition->queued() && !transition->enabled())
        _engine->dequeue(transition);
}

bool petri_net::_ended(petri_place* place) {
    assure(!inherited());
    detail::guard const hold(_mutex);
    return place->ended();
}

unsigned int petri_net::_tokens(petri_place* place) {
    assure(!inherited());
    detail::guard const hold(_mutex);
    return place->tokens();
}

}  // namespace ovel
