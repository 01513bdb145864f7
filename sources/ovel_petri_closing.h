// SPDX-License-Identifier: Apache-2.0
// What ends when the places of a net are closed.
#ifndef OVEL_PETRI_CLOSING_H
#define OVEL_PETRI_CLOSING_H

#include "ovel_petri_net.h"

#include <algorithm>
#include <utility>

namespace ovel::detail {

// The closed places of a net that are to be looked at, and what ends there.
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
// A place is looked at when it is closed, when it gets an arc, and when it gains tokens or slots
// while it is closed. Nothing else can end a transition around it: when a firing ends, it commits
// at each of its transition's places. So a firing costs no look at other closed places.
//
// Not thread safe: all under the net's mutex.
class petri_closing {
public:
    template <class Engine>
    void close(petri_place* place, Engine& engine) {
        if (std::exchange(place->_closed, true))
            return;
        engine.close_port(place);
        place->_receivers.present |= petri_callers::is_closed;
        place->_senders.present |= petri_callers::is_closed;
        engine.end_calls(place);
        look_again(place);
    }

    // Has a closed place looked at.
    void look_again(petri_place* place) {
        if (!std::exchange(place->_is_listed, true))
            place->_next_closed = std::exchange(_first, place);
    }

    // An arc is added to the place.
    void change_structure(petri_place* place) {
        _is_complete = false;
        if (place->_closed)
            look_again(place);
    }
    template <class Engine>
    void complete_structure(Engine& engine) {
        _is_complete = true;
        settle(engine);
    }

    // Ends the transitions that have no more to do. What ends may close further places.
    template <class Engine>
    void settle(Engine& engine) {
        while (_is_complete && _first != nullptr) {
            petri_place* const place = std::exchange(_first, _first->_next_closed);
            place->_is_listed = false;
            _settle(*place, engine);
        }
    }

private:
    friend struct inspector;

    using life = petri_transition::life;

    template <class Engine>
    void _settle(petri_place& place, Engine& engine) {
        for (auto const& [transition, size, reentrant, inhibits, reads] : place._producers.ends)
            if (!inhibits)
                _end_life(*transition, engine);
        if (place._send_size != 0 || place._size >= place._consumers.most)
            return;
        for (auto const& [transition, size, reentrant, inhibits, reads] : place._consumers.ends)
            if (place._size < size)
                _end_life(*transition, engine);
    }

    // The transition can't fire again.
    template <class Engine>
    void _end_life(petri_transition& transition, Engine& engine) {
        if (transition._life == life::live) {
            transition._life = life::over;
            transition._activated = false;
            if (transition.queued())
                engine.dequeue(&transition);
        }
        if (transition._life == life::over && transition._firing == 0) {
            transition._life = life::ended;
            if (petri_place* const told = std::exchange(transition._at_end, nullptr)) {
                if (!_puts_into_closed(transition))
                    engine.put_mark(told);
                close(told, engine);
            }
            for (petri_access const& access : transition._accesses)
                if (!access.input && access.size != 0 && access.place->_closes &&
                    _have_ended(access.place->_producers))
                    close(access.place, engine);
        }
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
    bool _is_complete = false;  // no arc has been added since the last start
};

}  // namespace ovel::detail

#endif
