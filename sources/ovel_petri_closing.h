// SPDX-License-Identifier: Apache-2.0
// What ends when the places of a net are closed.
#ifndef OVEL_PETRI_CLOSING_H
#define OVEL_PETRI_CLOSING_H

#include "ovel_petri_net.h"

#include <algorithm>
#include <utility>

namespace ovel::detail {

// The closed places of a net in which something may still happen.
//
// No firing is initiated that puts into a closed place. So once no slot of it is reserved, no
// token comes, and a transition that takes more than is there never fires again: its life is
// over. The same holds of a transition that would put into a closed place. When none of its
// firings is running it has ended. The place that is to hear of it, if there is one, then gets
// a token and is closed. And each place that closes by itself, and that only ended transitions
// put into, is closed.
//
// While the structure changes nothing but calls ends: a place that closes by itself may yet get
// more transitions that put into it, and a transition a place that is to hear of its end. The
// start completes the structure.
//
// Tokens that a running firing has reserved may be left by it. So what a place has counts them,
// and it is looked at again when they are committed.
//
// Not thread safe: all under the net's mutex.
class petri_closing {
public:
    void close(petri_place* place) {
        if (std::exchange(place->_closed, true))
            return;
        place->_receivers.present |= petri_callers::is_closed;
        place->_senders.present |= petri_callers::is_closed;
        place->_next_closed = std::exchange(_first, place);
    }

    // An arc is added to the place.
    void change_structure(petri_place* place) {
        _is_complete = false;
        if (place->_closed)
            _list(place);
    }
    template <class Engine>
    void complete_structure(Engine& engine) {
        _is_complete = true;
        settle(engine);
    }

    // Ends what has no more to do: transitions, and calls that wait at a closed place.
    template <class Engine>
    void settle(Engine& engine) {
        do {
            _changed = false;
            for (petri_place* rest = std::exchange(_first, nullptr); rest != nullptr;) {
                petri_place* const place = std::exchange(rest, rest->_next_closed);
                if (!_settle(*place, engine))
                    _list(place);
            }
        } while (_changed);
    }

private:
    friend struct inspector;

    using life = petri_transition::life;

    // Has a closed place looked at again.
    void _list(petri_place* place) {
        for (petri_place* each = _first; each != nullptr; each = each->_next_closed)
            if (each == place)
                return;
        place->_next_closed = std::exchange(_first, place);
    }

    // Returns whether all transitions around the place have ended.
    template <class Engine>
    bool _settle(petri_place& place, Engine& engine) {
        engine.end_calls(&place);
        if (!_is_complete)
            return false;
        bool all = true;
        for (auto const& [transition, size, reentrant, inhibits] : place._producers.ends)
            all &= inhibits || _settle(*transition, true, engine);
        for (auto const& [transition, size, reentrant, inhibits] : place._consumers.ends)
            all &= _settle(*transition, place._send_size == 0 && place._size < size, engine);
        return all;
    }

    // Returns whether the transition has ended. `is_over` if it can't fire again.
    template <class Engine>
    bool _settle(petri_transition& transition, bool is_over, Engine& engine) {
        if (is_over && transition._life == life::live) {
            transition._life = life::over;
            transition._activated = false;
            if (transition.queued())
                engine.dequeue(&transition);
        }
        if (transition._life == life::over && transition._firing == 0) {
            transition._life = life::ended;
            _changed = true;
            if (petri_place* const told = std::exchange(transition._at_end, nullptr)) {
                if (!_puts_into_closed(transition))
                    engine.put_mark(told);
                close(told);
            }
            for (petri_access const& access : transition._accesses)
                if (!access.input && access.size != 0 && access.place->_closes &&
                    _have_ended(access.place->_producers))
                    close(access.place);
        }
        return transition._life == life::ended;
    }

    static bool _puts_into_closed(petri_transition& transition) {
        return std::any_of(transition._accesses.begin(), transition._accesses.end(),
                           [](petri_access const& each) {
                               return !each.input && each.size != 0 && each.place->_closed;
                           });
    }
    static bool _have_ended(petri_side const& producers) {
        return std::all_of(producers.ends.begin(), producers.ends.end(),
                           [](petri_side::end const& each) {
                               return each.inhibits || each.transition->_life == life::ended;
                           });
    }

    petri_place* _first = nullptr;
    bool _changed = false;      // a transition has ended
    bool _is_complete = false;  // no arc has been added since the last start
};

}  // namespace ovel::detail

#endif
