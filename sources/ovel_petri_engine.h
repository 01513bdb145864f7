// SPDX-License-Identifier: Apache-2.0
// The engine that fires a net's transitions.
//
// Transitions.
//
//     state        how it shows                  what ends it
//     idle         in no other                   a token, a slot, an end of its own firing, an
//                                                activation or a start that enables it: queued
//     queued       in `_enabled`                 its dispatch: firing
//                                                a loss of tokens or slots, a deactivation: idle
//     firing       `_firing` is not 0            the end of its last firing: idle or queued
//
// A reentrant transition can be firing and idle, or firing and queued, at the same time.
//
// Firings.
//
//     state        where                         what ends it
//     ready        in its group's crew           a thread of the group that takes it: running
//     running      on that thread                its code returns, and the thread commits it
//
// Nets. `acquired` is `_acquired`; `joined` are the two fields that count joined threads.
//
//     state        acquired  joined  is_running  what ends it
//     stopped      yes       all     no          `release`: starting
//     starting     yes       some    no          all groups have their threads: running
//     running      no        none    yes         an operation that stops the net: stopping
//     stopping     yes       none    yes         rest, which the queue thread sees: resting
//     resting      yes       some    no          the last thread is joined: stopped
//
// A net is at rest when nothing is queued, every initiated firing has ended, and all
// called threads have left.
//
// Counts. Firings have reserved `_receive_size` of the `_size` committed tokens of a
// place, and `_send_size` of its free slots. A firing reserves everything that its arcs
// need when it is initiated, and commits it when it ends. So no other thread ever sees
// half of a firing, and firing code never waits.
//
// Enabling. A transition is queued only if it is enabled; a reservation that disables it
// takes it off the queue. It is examined when one of its places gains tokens or slots,
// when one of its firings ends, when it is activated, and at the start. A place that
// gains looks only at arcs that are now enabled. In a running net it also skips arcs that
// were enabled before: their transition is queued, or fires, or lacks something else and
// is examined when it gets that. The exceptions are reentrant transitions, stopped nets,
// and any time after memory ran out for queueing a transition; then every enabled arc
// counts.
//
// Dispatching. In a running net each thread that changes something under the net's
// `_mutex` initiates what that enables before it releases the mutex. So from the first
// dispatch on, nothing is queued while the mutex is free. Ready firings wait in the crew
// of their group. A thread that ends a firing takes the next one within the same hold of
// the mutex.
//
// Wake-ups. They all happen after the mutex was released: one thread for each crew that
// needs one, blocked callers if a place that one of them waits at has gained what it
// waits for, and the queue thread if the net is stopping and at rest.
#ifndef OVEL_PETRI_ENGINE_H
#define OVEL_PETRI_ENGINE_H

#include "ovel_petri_net.h"

#include "ovel_atomic.h"
#include "ovel_counter.h"
#include "ovel_petri_crew.h"
#include "ovel_petri_enabled_transitions.h"
#include "ovel_thread_function.h"
#include "ovel_thread_group.h"
#include "ovel_work_queue.h"

#include <algorithm>
#include <memory>
#include <tuple>
#include <utility>

namespace ovel {

// The work with which the net calls the threads of a group, and the group's crew.
class petri_net::firing_work final : public thread_function {
public:
    firing_work(petri_net& net, thread_group& group, double budget)
        : _net(net),
          _group(group),
          _budget(budget),
          _threads(group.threads()),
          _crew(_threads, budget, nullptr, nullptr) {}

    // Calls a thread of the group. Without the net's mutex.
    void call();

private:
    friend class engine;
    friend struct detail::inspector;

    // Fires until no ready firing fits.
    void operator()() override;

    petri_net& _net;
    thread_group& _group;
    double const _budget;
    unsigned int const _threads;
    // Under the net's mutex.
    detail::petri_crew _crew;
    bool _is_touched = false;
    firing_work* _next_touched = nullptr;
    // For the thread that calls one, from `collect_wake_ups` to the call. No other thread
    // calls one in between, because at most one called thread of a crew has not arrived.
    firing_work* _next_called = nullptr;
};

// Keeps the set of enabled transitions in step with the counts of the places, and gives
// firings to the crews. Everything is under the net's mutex unless stated otherwise. A
// function that can queue a transition or a firing throws std::bad_alloc.
class petri_net::engine {
public:
    // `spin` limits the pauses of a thread that waits for the net's mutex.
    engine(petri_net& net, unsigned int spin)
        : _spin(spin), _net(net), _works(new std::unique_ptr<firing_work>[net._groups]) {}

    // What a thread does for others after it has released the mutex.
    struct wake_ups {
        firing_work* called;  // the groups to call a thread of, linked by `_next_called`
        bool callers;         // whether to wake blocked callers
        bool queue_thread;
    };

    // Building, while the net is stopped.

    void insert_group(unsigned int index, thread_group& group, double budget) {
        _works[index] = std::make_unique<firing_work>(_net, group, budget);
    }
    // Gives all transitions their ranks if some have none yet.
    void rank(list<petri_transition*>& transitions);

    // From here on dispatch runs what is enabled. All transitions must have been
    // examined.
    void start() {
        _is_running = true;
    }
    void stop() {
        _is_running = false;
    }
    // All transitions have been examined, so none that could not be queued is missed.
    void forget_missed() {
        _missed = false;
    }

    bool is_at_rest() const {
        return _net._firings == 0 && _called == 0 && _enabled.empty();
    }

    void enqueue_if_enabled(petri_transition* transition) {
        if (!transition->queued() && transition->enabled())
            _enqueue(transition);
    }
    void dequeue(petri_transition* transition) {
        _enabled.erase(transition);
    }

    // The place has gained tokens, or free slots; `before` were available.
    void gained_tokens(petri_place* place, unsigned int before) {
        _wakes_callers |= place->_receivers != 0 && place->receive_enabled(1);
        _enqueue_side(place->_consumers, before, place->tokens());
    }
    void gained_slots(petri_place* place, unsigned int before) {
        _wakes_callers |= place->_senders != 0 && place->send_enabled(1);
        _enqueue_side(place->_producers, before, place->slots());
    }

    // The place has lost available tokens, or free slots.
    void lost_tokens(petri_place* place) {
        _dequeue_side(place->_consumers, place->tokens());
    }
    void lost_slots(petri_place* place) {
        _dequeue_side(place->_producers, place->slots());
    }

    // Initiates the firings of all queued transitions; of a reentrant transition as many
    // at once as its group has threads.
    void dispatch() {
        if (!_is_running)
            return;
        while (!_enabled.empty()) {
            petri_transition* const transition = _enabled.take_first();
            firing_work& work = *_works[transition->_group];
            unsigned int left = transition->_reentrant ? work._threads : 1;
            do {
                _initiate(transition);
                _insert(work, transition);
            } while (--left != 0 && transition->enabled());
        }
    }

    // Commits a firing of the transition.
    void terminate(petri_transition* transition) {
        _commit(transition);
        transition->end_fire();
        --_net._firings;
        detail::add(_ended, 1u);
        enqueue_if_enabled(transition);
    }

    // The firing that a thread of `of` runs next, as in `petri_crew::next`.
    petri_transition* next(firing_work& of, petri_transition* ended) {
        petri_transition* const next = of._crew.next(ended);
        _called -= next == nullptr;
        _touch(of);
        return next;
    }

    // Makes all blocked callers look again.
    void wake_callers() {
        _wakes_callers = true;
    }

    wake_ups collect_wake_ups() {
        return {_begin_calls(), std::exchange(_wakes_callers, false),
                _net._acquired && is_at_rest()};
    }
    // Makes the calls that `collect_wake_ups` returned. Without the mutex.
    static void call(firing_work* called) {
        while (called != nullptr)
            std::exchange(called, called->_next_called)->call();
    }

    // The number of ended firings, modulo the range. Without the mutex. Relaxed: a thread
    // that waits for the mutex reads how fast it grows, and a stale value costs a pause
    // or saves one.
    unsigned int ended() const {
        return _ended.load(std::memory_order_relaxed);
    }

    unsigned int const _spin;

private:
    friend struct detail::inspector;

    void _enqueue(petri_transition* transition) {
        try {
            _enabled.insert(transition);
        } catch (...) {
            _missed = true;
            throw;
        }
    }

    // A place has `now` tokens or slots available, and had `before`.
    void _enqueue_side(detail::petri_side const& side, unsigned int before, unsigned int now) {
        if (!_is_running || _missed)
            before = 0;
        if (before >= side.most)
            return;
        for (auto const& [transition, size, reentrant] : side.ends)
            if (size <= now && (size > before || reentrant))
                enqueue_if_enabled(transition);
    }
    void _dequeue_side(detail::petri_side const& side, unsigned int now) {
        if (now >= side.most || _enabled.empty())
            return;
        for (auto const& [transition, size, reentrant] : side.ends)
            if (size > now && transition->queued())
                dequeue(transition);
    }

    void _initiate(petri_transition* transition) {
        ++_net._firings;
        transition->begin_fire();
        _reserve(transition);
    }

    // Reserves what a firing of the transition will take and put.
    void _reserve(petri_transition* transition) {
        for (detail::petri_access const& access : transition->accesses()) {
            petri_place* const place = access.place;
            if (access.input) {
                place->reserve_receive(access.size);
                lost_tokens(place);
            } else {
                place->reserve_send(access.size);
                lost_slots(place);
            }
        }
    }

    // Commits what a firing of the transition reserved. What it skipped stays with the
    // other side of the place, so this examines that side too.
    void _commit(petri_transition* transition) {
        for (detail::petri_access const& access : transition->accesses()) {
            petri_place* const place = access.place;
            unsigned int const tokens = place->tokens();
            unsigned int const slots = place->slots();
            bool const skipped = access.input ? place->commit_receive(access.size) != 0
                                              : place->commit_send(access.size) != 0;
            if (access.input || skipped)
                gained_slots(place, slots);
            if (!access.input || skipped)
                gained_tokens(place, tokens);
        }
    }

    void _insert(firing_work& into, petri_transition* transition) {
        // A group would refuse work that takes more than all of its space.
        if (transition->_space > into._budget)
            detail::assure_schedulable(transition->_time, transition->_space, into._budget);
        into._crew.insert(transition);
        _touch(into);
    }

    // A thread of the group may be needed.
    void _touch(firing_work& touched) {
        if (std::exchange(touched._is_touched, true))
            return;
        touched._next_touched = std::exchange(_touched, &touched);
    }

    // Begins the calls of the threads that are needed, and links their groups.
    firing_work* _begin_calls() {
        firing_work* called = nullptr;
        while (_touched != nullptr) {
            firing_work& each = *std::exchange(_touched, _touched->_next_touched);
            each._is_touched = false;
            if (each._crew.begin_call()) {
                ++_called;
                each._next_called = std::exchange(called, &each);
            }
        }
        return called;
    }

    petri_net& _net;
    std::unique_ptr<std::unique_ptr<firing_work>[]> const _works;  // one for each group
    detail::enabled_transitions _enabled{_net._queue, _net._random};
    firing_work* _touched = nullptr;  // the first of those that may need a thread
    unsigned int _called = 0;         // called threads that have not left, of all crews
    bool _is_running = false;
    bool _missed = false;                     // memory ran out for queueing a transition
    bool _wakes_callers = false;              // a blocked caller may have what it waits for
    unsigned int _ranked = 0;                 // the number of ranked transitions
    detail::atomic<unsigned int> _ended = 0;  // written under the mutex
};

// A new transition may belong between any two others.
inline void petri_net::engine::rank(list<petri_transition*>& transitions) {
    if (_ranked == transitions.size())
        return;
    std::unique_ptr<petri_transition*[]> const sorted(new petri_transition*[transitions.size()]);
    petri_transition** const end = std::copy(transitions.begin(), transitions.end(), sorted.get());
    std::sort(sorted.get(), end, [](petri_transition const* one, petri_transition const* other) {
        return std::tuple(one->_group, -one->_space, -one->_time) <
               std::tuple(other->_group, -other->_space, -other->_time);
    });
    petri_transition** first = sorted.get();
    for (unsigned int group = 0; group != _net._groups; ++group) {
        petri_transition** const last = std::find_if(
            first, end, [group](petri_transition const* each) { return each->_group != group; });
        firing_work& work = *_works[group];
        work._crew = detail::petri_crew(work._threads, work._budget, first, last);
        first = last;
    }
    _ranked = transitions.size();
}

}  // namespace ovel

#endif
