// SPDX-License-Identifier: Apache-2.0
// Clients of nets: how the thread that holds a net's mutex carries out the calls of others, how it
// moves their tokens, and what the nets of `ovel_petri.h` add to the token interface.

#include "ovel_assure.h"
#include "ovel_guard.h"
#include "ovel_petri_call.h"
#include "ovel_petri_change.h"
#include "ovel_petri_engine.h"
#include "ovel_petri_net.h"
#include "ovel_petri_port.h"
#include "ovel_spin_wait.h"

#include <algorithm>
#include <utility>

namespace ovel {

using detail::petri_call;
using detail::petri_callers;
using detail::petri_outcome;
using detail::petri_port;

// Published calls are taken over once, so that this thread gets on with its own work. Firings that
// other threads have ended come before the turns, so that callers get theirs of what these put.
void petri_net::engine::_dispatch_among_callers() {
    // Relaxed, as in `dispatch`.
    if ((_news & (detail::for_callers | detail::for_closing)) == 0 &&
        _published.load(std::memory_order_relaxed) == nullptr) {
        if (is_running())
            _dispatch();
        if (!_list_deferring())
            return;
    }
    _take_published();
    for (bool is_first = true;; is_first = false) {
        bool const is_their_chance = _take_turns(is_first);
        if (is_their_chance) {
            _carry_out_published();
            _end_chance();
            _take_turns(false);
        }
        if (is_running())
            _dispatch();
        if (is_first && !is_their_chance) {
            _carry_out_published();
            _take_turns(false);
            if (is_running())
                _dispatch();
        }
        _forget(detail::for_callers);
        while (_offered != nullptr)
            _serve(std::exchange(_offered, _offered->_next_offered));
        if ((_news & detail::for_closing) != 0) {
            _forget(detail::for_closing);
            _closing.settle(*this);
        }
        if ((_enabled.empty() || !is_running()) &&
            (_news & (detail::for_callers | detail::for_closing)) == 0) {
            if (!_list_deferring())
                return;
        }
    }
}

// Returns whether calls that do not wait should get their chance. Those of a thread that tries
// again and again have then had a moment to be published: each time that it found nothing earns
// it one such moment. It needs some if it shares its processor with this thread or with others,
// since it runs again only after they have run for as long as it did. The call of a thread that
// has tried once is carried out only if it is there, so that the net does not wait for one that
// may never come.
bool petri_net::engine::_take_turns(bool is_first) {
    constexpr unsigned int most_pauses = 16;
    bool is_their_chance = false;
    bool waits = false;
    unsigned int pauses = 0;
    for (petri_place* place = _offered; place != nullptr; place = place->_next_offered)
        for (petri_callers* each : {&place->_receivers, &place->_senders}) {
            if (!_is_turn(place, *each))
                continue;
            bool const has_tried = (each->present & petri_callers::has_tried) != 0;
            bool const is_chance =
                is_first && is_running() && !_enabled.empty() && _need_chance(place, *each);
            bool const tries_first = is_chance && (each->present & petri_callers::tries_first) != 0;
            if (!tries_first) {
                if (!has_tried || each->passed >= most_passed + petri_callers::most_misses)
                    _forget_tries(*each);
                if (_serve_one(*each)) {
                    if ((each->present & petri_callers::has_tried) != 0)
                        each->present |= petri_callers::tries_first;
                    continue;
                }
            }
            if (is_chance) {
                is_their_chance = true;
                waits = waits || each->misses > 1;
                if (each->passed == most_passed || each->misses == petri_callers::most_misses)
                    pauses = most_pauses;
            }
        }
    if (waits)
        _await_published(pauses);
    return is_their_chance;
}

// Ends a chance of calls that do not wait, and carries out those that have let them go first.
void petri_net::engine::_end_chance() {
    for (petri_place* place = _offered; place != nullptr; place = place->_next_offered)
        for (petri_callers* each : {&place->_receivers, &place->_senders}) {
            if (!_is_turn(place, *each) || !_need_chance(place, *each))
                continue;
            bool const tries_first = (each->present & petri_callers::tries_first) != 0;
            if (--each->misses == 0)
                _forget_tries(*each);
            if (tries_first)
                _serve_one(*each);
        }
}

// Serves all callers that the place has something for, and ends the calls that can't be.
void petri_net::engine::_serve(petri_place* place) {
    place->_is_offered = false;
    // First, because a call that cannot be carried out any more would hold up those behind it.
    if (place->_closed)
        end_calls(place);
    while (_serve_one(place->_receivers) || _serve_one(place->_senders)) {}
    if (place->_closed)
        end_calls(place);
    petri_port* const port = port_of(place);
    if (port != nullptr && port->is_shut() &&
        (place->_receivers.present & petri_callers::has_port) != 0 &&
        !_needs_all_calls(place, port->is_inlet()))
        port->open();
}

// The place of an open port has gained something: callers may move more, and what they have moved
// is counted if the transition lacks tokens or slots.
void petri_net::engine::_count_passed(petri_place* place) {
    petri_port& port = *port_of(place);
    if (port.is_shut())
        return;
    port.extend();
    if (port.is_inlet()) {
        unsigned int const before = place->tokens();
        if (before < place->_consumers.most && port.count(place->_consumers.most) != 0)
            _enqueue_side(place->_consumers, before, place->tokens());
    } else {
        unsigned int const before = place->slots();
        if (before < place->_producers.most && port.count(place->_producers.most) != 0)
            _enqueue_side(place->_producers, before, place->slots());
    }
}

// Gives the place a port if it may have one. Called when callers meet at the mutex, or wait.
void petri_net::engine::_provide_port(petri_place* place) {
    constexpr unsigned int least_capacity = 8;
    if ((place->_receivers.present & petri_callers::has_port) != 0 || !is_running() ||
        place->_closed || place->_capacity < least_capacity)
        return;
    auto const& consumers = place->_consumers.ends;
    auto const& producers = place->_producers.ends;
    bool const is_inlet = producers.begin() == producers.end();
    auto const& ends = is_inlet ? consumers : producers;
    if ((!is_inlet && consumers.begin() != consumers.end()) || ends.end() - ends.begin() != 1 ||
        ends.begin()->reentrant || ends.begin()->inhibits || ends.begin()->reads)
        return;
    if (port_of(place) == nullptr) {
        try {
            place->_port = _ports = new petri_port(*place, _ports);
        } catch (std::bad_alloc const&) {
            return;
        }
    }
    // Opened once the place is served, if it may be.
    port_of(place)->make(is_inlet);
    place->_receivers.present |= petri_callers::has_port;
    place->_senders.present |= petri_callers::has_port;
    _list(place);
}

void petri_net::engine::close_port(petri_place* place) {
    if ((place->_receivers.present & petri_callers::has_port) == 0)
        return;
    petri_port& port = *port_of(place);
    if (!port.is_shut())
        port.count(petri_port::shuts);
    port.give_back();
    place->_receivers.present &= ~petri_callers::has_port;
    place->_senders.present &= ~petri_callers::has_port;
}

void petri_net::engine::close_ports() {
    for (petri_port* each = _ports; each != nullptr; each = each->next())
        close_port(each->place());
}

// Whether the port of the place has to be shut.
bool petri_net::engine::_needs_all_calls(petri_place* place, bool is_inlet) {
    petri_callers const& own = is_inlet ? place->_senders : place->_receivers;
    petri_callers const& others = is_inlet ? place->_receivers : place->_senders;
    if ((others.present & ~petri_callers::has_port) != 0 || own.waiting() != 0)
        return true;
    detail::petri_side const& side = is_inlet ? place->_consumers : place->_producers;
    return side.ends.begin()->transition->_firing == 0 &&
           (is_inlet ? place->tokens() : place->slots()) < side.most;
}

// Carries out the first of the calls that wait, if that is possible.
bool petri_net::engine::_serve_one(petri_callers& callers) {
    if (callers.last == nullptr || _defers(*callers.last->next) ||
        !_net._carry_out(*callers.last->next))
        return false;
    callers.passed = 0;
    _end(*_unlink(callers, callers.last));
    return true;
}

// Whether a call that the place has something for is left asleep a little longer, so that its
// thread finds a batch when it wakes up.
bool petri_net::engine::_defers(petri_call const& call) {
    petri_place* const place = call.place;
    if (!call.dozes.load(std::memory_order_relaxed) || !_goes_on(place))
        return false;
    petri_port& port = *port_of(place);
    unsigned int const there = call.receives() ? place->tokens() : place->slots();
    if (there == 0 || there >= port.batch() || place->_closed)
        return false;
    port.defer(_deferring);
    _news |= detail::for_deferred;
    return true;
}

void petri_net::engine::serve_dozing(petri_callers& callers) {
    do {
        if (callers.last != nullptr)
            callers.last->next->dozes.store(false, std::memory_order_relaxed);
    } while (_serve_one(callers));
}

// Lists the places at which calls were left asleep and where nothing more follows, to be served.
// Returns whether there are any.
bool petri_net::engine::_list_deferring() {
    bool are_any = false;
    petri_place* next = std::exchange(_deferring, nullptr);
    while (next != nullptr) {
        petri_place* const place = next;
        next = port_of(place)->end_deferring();
        if (_goes_on(place)) {
            port_of(place)->defer(_deferring);
        } else {
            _list(place);
            are_any = true;
        }
    }
    if (_deferring == nullptr)
        _forget(detail::for_deferred);
    return are_any;
}

bool petri_net::engine::publish(petri_call& call) {
    _push(call);
    // To look at the call costs nothing before it changes. An attempt to take the mutex is a
    // cache miss for the thread that has it.
    constexpr unsigned int patience = 16;  // for a thread that polls to take over the call
    unsigned int looks = 0;
    unsigned int next_attempt = is_attended() ? patience : detail::pace_for_net.first;
    for (detail::spin_wait wait(_spin, detail::pace_for_unit); !wait.is_over(); wait.pause()) {
        if (call.now.load() != petri_call::state::open)
            return false;
        if (++looks == next_attempt) {
            if (_net._mutex.try_acquire()) {
                if (is_attended())
                    _is_attended.store(false, std::memory_order_relaxed);
                return true;
            }
            looks = 0;
            next_attempt = std::min(2 * next_attempt, detail::pace_for_net.most);
        }
    }
    _net._mutex.acquire();
    return true;
}

// A caller that tries again and again is seldom at the mutex when that is taken, but comes soon
// if it has a processor.
void petri_net::engine::_await_published(unsigned int pauses) {
    if (_taken != nullptr)
        return;
    for (detail::spin_wait wait(std::min(_spin, pauses), detail::pace_for_unit);
         !wait.is_over() && _published.load(std::memory_order_relaxed) == nullptr;)
        wait.pause();
    if (_published.load(std::memory_order_relaxed) == nullptr)
        Sleep(0);
}

// Commits the firings that are published, and keeps the calls of clients for later.
void petri_net::engine::_take_published() {
    petri_call* newest = _published.exchange(nullptr);
    petri_call* oldest = nullptr;
    while (newest != nullptr)
        oldest = std::exchange(newest, std::exchange(newest->next, oldest));
    petri_call** end = &_taken;
    while (*end != nullptr)
        end = &(*end)->next;
    while (oldest != nullptr) {
        petri_call& call = *std::exchange(oldest, oldest->next);
        if (call.work != nullptr) {
            _net._commit(call);
            continue;
        }
        call.next = nullptr;
        *end = &call;
        end = &call.next;
    }
}

void petri_net::engine::_carry_out_published() {
    _take_published();
    while (_taken != nullptr) {
        petri_call& call = *std::exchange(_taken, _taken->next);
        petri_callers& at = callers(call);
        _provide_port(call.place);
        // Calls that wait have come earlier, but do not always go first.
        if (call.may_wait() || (at.present & petri_callers::tries_first) == 0)
            serve_dozing(at);
        if (_net._carry_out(call)) {
            at.passed = 0;
            if (!call.may_wait())
                found(call);
            _end(call);
        } else if (!wait_or_miss(call)) {
            _end(call);
        }
    }
}

bool petri_net::engine::wait_or_miss(petri_call& call) {
    petri_callers& at = callers(call);
    if (call.is_try()) {
        at.count_miss();
        return false;
    }
    call.outcome = _reason_to_end(call);
    if (call.outcome != petri_outcome::elapsed)
        return false;
    if (!call.may_wait()) {
        // Before a call that waits comes one that does not, without a reason to end.
        if (call.patience->releases != nullptr)
            at.count_miss();
        return false;
    }
    _provide_port(call.place);
    bool const dozes =
        (at.present & petri_callers::has_port) != 0 &&
        port_of(call.place)->is_inlet() != call.receives() &&
        (call.patience == nullptr || call.patience->milliseconds > petri_call::longest_doze);
    call.dozes.store(dozes, std::memory_order_relaxed);
    if (at.last == nullptr)
        at.last = call.next = &call;
    else
        call.next = std::exchange(at.last->next, &call);
    at.last = &call;
    at.present += petri_callers::one_waiting;
    call.now = petri_call::state::waiting;
    return true;
}

bool petri_net::engine::withdraw(petri_call& call) {
    if (call.now.load() == petri_call::state::ended)
        return false;
    petri_callers& at = callers(call);
    petri_call* before = at.last;
    while (before->next != &call)
        before = before->next;
    _unlink(at, before);
    call.now = petri_call::state::ended;
    return true;
}

void petri_net::engine::end_calls(petri_place* place) {
    for (petri_callers* each : {&place->_receivers, &place->_senders}) {
        petri_call* before = each->last;
        for (unsigned int left = each->waiting(); left != 0; --left) {
            petri_call& call = *before->next;
            call.outcome = _reason_to_end(call);
            if (call.outcome != petri_outcome::elapsed)
                _end(*_unlink(*each, before));
            else
                before = &call;
        }
    }
}

// Why a call that waits should end although its place does not have what it needs; `elapsed` if
// there is no reason.
petri_outcome petri_net::engine::_reason_to_end(petri_call const& call) {
    if (call.patience == nullptr)
        return petri_outcome::elapsed;
    if (call.receives() ? call.place->ended() : call.place->_closed)
        return petri_outcome::ended;
    return call.patience->is_over() ? petri_outcome::over : petri_outcome::elapsed;
}

void petri_net::engine::_end(petri_call& call) {
    using state = petri_call::state;
    if (call.now.exchange(state::ended) != state::asleep)
        return;
    call.next = std::exchange(_sleepers, &call);
    _news |= detail::for_sleepers;
}

// Removes the call after `before`, and returns it.
petri_call* petri_net::engine::_unlink(petri_callers& from, petri_call* before) {
    petri_call* const unlinked = before->next;
    before->next = unlinked->next;
    if (unlinked == before)
        from.last = nullptr;
    else if (unlinked == from.last)
        from.last = before;
    from.present -= petri_callers::one_waiting;
    return unlinked;
}

// Completes a call that waits already, or that finds the mutex taken.
petri_outcome petri_net::_complete_late(detail::petri_call& call) {
    using state = detail::petri_call::state;
    if (call.now.load() == state::open && _engine->publish(call)) {
        // All that is published is carried out before the mutex is free.
        change const hold(*this, change::taken);
    }
    detail::await(
        call, _engine->spin(), engine::callers(call).memory,
        [&] {
            change const hold(*this);
            _engine->hasten(call);
        },
        [&] {
            change const hold(*this);
            return _engine->withdraw(call);
        });
    if (call.failure != nullptr)
        std::rethrow_exception(std::exchange(call.failure, nullptr));
    return call.outcome;
}

// The port of the place is shut, if there is one.
void petri_net::_remove_oldest(petri_place* place, any& token) {
    detail::petri_port* const port = engine::port_of(place);
    if (port != nullptr && port->has_boxed())
        port->receive_boxed(token);
    else
        place->receive(token);
}
void petri_net::_peek_oldest(petri_place* place, any& token) {
    detail::petri_port* const port = engine::port_of(place);
    if (port != nullptr && port->has_boxed())
        port->peek_boxed(token);
    else
        place->peek(token);
}

// A slot of a place, reserved for a token that is given up unless it is put.
class petri_net::slot {
public:
    explicit slot(petri_place& place) : _place(&place) {
        place.reserve_send(1);
    }
    ~slot() {
        if (_place != nullptr)
            _place->withdraw_send(1);
    }
    slot(slot const&) = delete;
    slot& operator=(slot const&) = delete;

    void commit() {
        std::exchange(_place, nullptr)->commit_send(1);
    }

private:
    petri_place* _place;
};

// Takes an available token. If that settles a skip, the end of the firing that declared
// it makes up for it.
void petri_net::_receive(petri_place* place, any& token) {
    unsigned int const slots = place->slots();
    place->reserve_receive(1);
    _remove_oldest(place, token);
    place->commit_receive(1);
    _engine->lost_tokens(place);
    _engine->gained_slots(place, slots);
}

// Puts a token into a free slot.
void petri_net::_send(petri_place* place, any const& token) {
    unsigned int const tokens = place->tokens();
    {
        slot reserved(*place);
        place->send(token);  // throws if copying the token throws
        reserved.commit();
    }
    _engine->lost_slots(place);
    _engine->gained_tokens(place, tokens);
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

// Takes an available token. It is not counted before it leaves, for the same reason.
void petri_net::_take(petri_place* place, any& token) {
    unsigned int const slots = place->slots();
    place->count_out();
    try {
        _engine->gained_slots(place, slots);
    } catch (...) {
        place->count_in();
        _engine->lost_slots(place);
        throw;
    }
    _remove_oldest(place, token);
    _engine->lost_tokens(place);
}

void petri_net::_wake() {
    change const hold(*this);
    for (petri_place* place : _places)
        _engine->end_calls(place);
}

void petri_net::_wake(petri_place* place) {
    change const hold(*this);
    _engine->end_calls(place);
}

void petri_net::_close(petri_place* place) {
    change const hold(*this);
    _engine->close(place);
}

// Before any arc of the transition. Starts the clock, which the engine reads under the mutex.
void petri_net::_delay(petri_transition* transition, ovel::time const& delay) {
    static_cast<void>(time::now());
    change const hold(*this);
    _engine->make_room_for_delay();
    transition->_delay = delay;
}

bool petri_net::_ended(petri_place* place) {
    assure(!inherited());
    detail::guard const hold(_mutex);
    return place->ended();
}

unsigned int petri_net::_tokens(petri_place* place) {
    assure(!inherited());
    detail::guard const hold(_mutex);
    petri_port const* const port = engine::port_of(place);
    if (port == nullptr || port->is_shut())
        return place->readable();
    return place->tokens() + (port->is_inlet() ? port->uncounted() : -port->uncounted());
}

void petri_net::_count_moved() {
    for (petri_place* place : _places)
        if (petri_port* const port = engine::port_of(place); port != nullptr && !port->is_shut())
            port->count(petri_port::shuts);
}

}  // namespace ovel
