// SPDX-License-Identifier: Apache-2.0
// Access to private members, for all scenarios, since these are one program.
#ifndef OVEL_TESTS_SIMULATION_INSPECTOR_H
#define OVEL_TESTS_SIMULATION_INSPECTOR_H

#include "ovel.h"
#include "ovel_allocator.h"
#include "ovel_guard.h"
#include "ovel_memory.h"
#include "ovel_parallel.h"
#include "ovel_petri.h"
#include "ovel_petri_call.h"
#include "ovel_petri_engine.h"
#include "ovel_task.h"
#include "simulation/simulation.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stop_token>
#include <utility>
#include <vector>

struct ovel::detail::inspector {
    // No batch, no waiter, the gate open.
    template <class Condition>
    static bool is_at_rest(Condition& condition) {
        return condition._queued == 0 && condition._released == 0 &&
               condition._gate.try_acquire() && !condition._wait.try_acquire();
    }

    template <class Barrier>
    static bool is_open(Barrier& gate) {
        if constexpr (requires { gate._entry; })
            if (gate._released || !gate._entry.try_acquire())
                return false;
        if constexpr (requires { gate._odd_wait; })
            // Only the bit that tells odd phases from even ones may be set.
            if ((gate._next & ~2u) != 0 || gate._odd_wait.try_acquire())
                return false;
        return gate._count == 0 && !gate._complete && gate._lock.try_acquire() &&
               !gate._wait.try_acquire();
    }

    struct allocators;
    [[noreturn]] static void broken(char const* invariant) {
        simulation::fail("allocator: %s", invariant);
    }

    // Everything that must hold of all allocators while none is in use.
    static allocators check_allocators();

    // The same of the calling thread's allocator, between two of the thread's operations.
    static void check_current_allocator();

    // While no allocator serves a thread: each was given back, once.
    static void check_given_back() {
        std::size_t thread_allocators = 0, released = 0;
        for (allocator* each = allocator::_allocators; each != nullptr; each = each->_next)
            thread_allocators += each->_parent != nullptr;
        for (allocator* each = allocator::_released_allocators; each != nullptr;
             each = each->_next_released) {
            assure(!each->_activated && each != allocator::_default_allocator);
            assure(each->_pending == nullptr);
            assure(++released < thread_allocators);
        }
        assure(released == thread_allocators - 1);
        assure(!allocator::_default_allocator->_activated && !allocator::_default_is_lent);
    }

    // Of all threads.
    static unsigned int active_allocators() {
        unsigned int active = 0;
        for (allocator* each = allocator::_allocators; each != nullptr; each = each->_next)
            active += each->_parent != nullptr && each->_activated;
        return active;
    }

    static void stop_recycler() {
        allocator_recycler::global()->_acquire();
    }

    // Ends the pool's idle threads, as the unloading of the library does.
    static void empty_pool() {
        thread_element_group::_global._end_idle();
    }

    // Frees the memory that the pool's list, now empty, keeps for the next threads.
    static void reset_pool() {
        auto& elements = thread_element_group::_global._elements;
        std::destroy_at(&elements);
        std::construct_at(&elements);
    }

    // The invariants of a group whenever its mutex is free.
    static void check_group(thread_group& group) {
        guard const hold(group._mutex);
        auto const& crew = group._crew;
        assure(group._space >= 0 && group._space <= crew.budget);
        assure(crew.occupants != 0 || group._space == crew.budget);
        assure(crew.idle <= group._threads);
        assure(crew.idle == 0 || crew.looking || !_has_fitting(group._queue, group._space));
    }

    // The same of the crew of a work group.
    static void check_crew(task_crew& crew) {
        guard const hold(crew._mutex);
        unsigned int searching = 0;
        for (task_seat* each = crew._seats.load(); each != nullptr; each = each->_next)
            searching += each->_searches;
        assure(searching == (crew._searching ? 1u : 0u));
        unsigned int asleep = 0;
        bool idle = false;
        for (task_seat* each = crew._sleepers; each != nullptr; each = each->_next_asleep) {
            assure(each->_asleep);
            ++asleep;
            idle = idle || each->_awaited == nullptr;
        }
        assure(asleep == crew._asleep);
        assure(crew._occupants != 0 || crew._space == crew._budget);
        assure(!idle || crew._searching || !_has_fitting(crew._queue, crew._space));
    }

    // The invariants of a net whenever its mutex is free.
    static void check_net(petri_net& net) {
        guard const hold(net._mutex);
        petri_net::engine& engine = *net._engine;
        unsigned int firings = 0;
        unsigned int queued = 0;
        for (petri_transition* each : net._transitions) {
            firings += each->_firing;
            queued += each->queued();
            assure(each->_reentrant || each->_firing <= 1);
            assure(!each->queued() || each->enabled());
            // An enabled transition is queued, or examined when its firing ends.
            assure(!each->enabled() || each->queued() || each->_firing != 0 ||
                   !engine.is_running() || (engine._news & missed) != 0);
        }
        assure(firings == net._firings);
        for (petri_place* each : net._places) {
            assure(each->_readers == _used(each->_consumers, true));
            assure(each->_receive_size == _used(each->_consumers, false) + (each->_readers != 0));
            assure(each->_send_size == _used(each->_producers, false));
            assure(each->_receive_size <= each->_size);
            assure(each->_size + each->_send_size <= each->_capacity);
            assure(each->_receive_skip <= each->_receive_size);
            assure(each->_send_skip <= each->_send_size);
            _check(each->_receivers);
            _check(each->_senders);
            assure(!each->_is_offered);
            // No call waits for what is there, or for what will not come.
            petri_port const* const port = engine.port_of(each);
            bool const defers = port != nullptr && port->_is_deferring && engine.is_running() &&
                                _is_busy(_side(*port));
            assure(defers || each->_receivers.waiting() == 0 || !each->receive_enabled(1));
            assure(defers || each->_senders.waiting() == 0 || !each->send_enabled(1));
            if (port != nullptr)
                _check(*port);
            if (engine._closing._is_complete)
                _check_ends(*each);
        }
        assure(engine._offered == nullptr && engine._sleepers == nullptr);
        _check(engine._enabled, queued);
        unsigned int called = 0;
        for (unsigned int group = 0; group != net._groups; ++group) {
            _check(engine._works[group]->_crew, net, group);
            called += engine._works[group]->_crew._called;
        }
        assure(called == engine._called && engine._touched == nullptr);
    }

    // A net whose threads are at rest: nothing is reserved, nothing fires, and only transitions
    // for which `may_be_enabled` is true are enabled.
    template <class MayBeEnabled>
    static void expect_at_rest(petri_net& net, MayBeEnabled const& may_be_enabled) {
        check_net(net);
        assure(net._firings == 0);
        for (petri_place* each : net._places)
            assure(each->_size == each->_channel._size);
        for (petri_transition* each : net._transitions)
            assure(!each->enabled() || may_be_enabled(each));
    }

    // Of a place.
    static constexpr auto size = &petri_place::_size;
    static constexpr auto receivers = &petri_place::_receivers;
    static constexpr auto senders = &petri_place::_senders;

    static bool has_published(petri_net const& net) {
        return net._engine->_published.load() != nullptr;
    }

    // Of a typed net. Waits at an empty place as `receive_until` does with a std::stop_token,
    // whose own locks the simulated kernel does not know; and wakes the callers as that does.
    static net_core& core(net& of) {
        return *of._core;
    }
    template <class T>
    static bool await_stop(net_core& core, place<T> const& at, atomic<bool>& interrupted) {
        any token;
        auto const made = core._wait(
            *at._record, net_callers::kind::receiver, net_core::without_limit(),
            [&](petri_patience const& patience) {
                return core._net._receive_within(
                    at._record->element, token,
                    {patience.releases, patience.begun, &interrupted, patience.milliseconds});
            });
        assure(made == petri_outcome::done || made == petri_outcome::over);
        return made == petri_outcome::over;
    }
    template <class T>
    static void wake(net_core& core, place<T> const& at) {
        core._net._wake(at.base());
    }

private:
    // Whether some work of a group's queue fits into the space.
    template <class Queue>
    static bool _has_fitting(Queue& queue, double space) {
        return std::ranges::any_of(queue, [=](auto const& each) { return each.third <= space; });
    }

    // What the firings that have not ended read, or take or put, at one side of a place.
    static unsigned int _used(petri_side const& side, bool reads) {
        unsigned int used = 0;
        for (petri_side::end const& each : side.ends)
            if (!each.inhibits && each.reads == reads)
                used += each.transition->_firing * each.size;
        return used;
    }

    static void _check(petri_callers& callers) {
        unsigned int waiting = 0;
        if (petri_call const* each = callers.last)
            do {
                each = each->next;
                ++waiting;
            } while (each != callers.last);
        assure(waiting == callers.waiting());
    }

    static petri_side const& _side(petri_port const& port) {
        return port._is_inlet ? port._place._consumers : port._place._producers;
    }
    static bool _is_busy(petri_side const& side) {
        petri_transition const* const only = side.ends.begin()->transition;
        return only->_firing != 0 || only->queued();
    }
    // Counts are late only while the port is open, and then enable nothing.
    static void _check(petri_port const& port) {
        petri_place& place = port._place;
        bool const is_used = (place._receivers.present & petri_callers::has_port) != 0;
        assure(is_used || (port._is_shut && port._box._size == 0));
        assure(!port._is_shut || port.uncounted() == 0);
        if (port._is_shut)
            return;
        assure(place._receivers.waiting() + place._senders.waiting() == 0);
        petri_side const& side = _side(port);
        assure(side.ends.begin()->transition->_firing != 0 ||
               (port._is_inlet ? place.tokens() : place.slots()) >= side.most);
    }

    // What a closed place ends has ended, and the place is not to be looked at.
    static void _check_ends(petri_place& place) {
        assure(!place._is_listed);
        if (!place._closed)
            return;
        for (petri_side::end const& each : place._producers.ends)
            assure(each.inhibits || _is_over(*each.transition));
        for (petri_side::end const& each : place._consumers.ends)
            assure(each.size <= place._size + place._send_size || _is_over(*each.transition));
        assure(!place.ended() || place._receivers.waiting() == 0);
    }
    static bool _is_over(petri_transition& transition) {
        using life = petri_transition::life;
        return transition._life == (transition._firing == 0 ? life::ended : life::over);
    }

    static void _check(enabled_transitions& enabled, unsigned int queued) {
        assure(enabled._size == queued);
        assure(enabled._short_size + enabled._list.size() + enabled._waiting == queued);
        for (unsigned int i = 0; i != enabled._waiting; ++i)
            assure(enabled._delays[i].transition->queued());
        for (unsigned int i = 1; i < enabled._short_size; ++i)
            assure(!enabled_transitions::order::precedes(enabled._short[i - 1], enabled._short[i]));
    }

    static void _check(petri_crew& crew, petri_net& net, unsigned int group) {
        ready_firings const& ready = crew._ready;
        std::map<petri_transition*, unsigned int> waiting;
        for (unsigned int rank = 0; rank != ready._ranks_size; ++rank) {
            unsigned int const first = ready._ranks[rank].first;
            assure((ready._nonempty.find(rank) == rank) == (first != ready_firings::none));
            for (unsigned int i = first; i != ready_firings::none; i = ready._entries[i].next) {
                petri_transition* const each = ready._entries[i].transition;
                assure(each->_rank == rank && each->_space == ready._ranks[rank].space);
                ++waiting[each];
            }
        }
        unsigned int running = 0;
        unsigned int occupants = 0;
        double space = crew._budget;
        for (petri_transition* each : net._transitions) {
            if (each->_group != group)
                continue;
            assure(waiting[each] <= each->_firing);
            unsigned int const here = each->_firing - waiting[each];
            running += here;
            occupants += each->_space != 0 ? here : 0;
            space -= here * each->_space;
        }
        unsigned int standing = 0;
        for (petri_call* each = crew._standing; each != nullptr; each = each->next)
            ++standing;
        assure(standing == crew._standing_size);
        assure(running + crew._coming + standing == crew._called);
        assure(crew._called <= crew._threads);
        assure(occupants == crew._occupants);
        assure(occupants == 0 ? crew._space == crew._budget : std::abs(crew._space - space) < 1e-9);
        // Nothing that fits waits while a thread is idle and none is on its way, unless one that
        // stands by beside others that fire sees to it.
        assure(crew._coming || (standing != 0 && running != 0) ||
               (standing == 0 && crew._called == crew._threads) || !ready.fits(crew._space));
    }
};

#include "../ovel_allocator_invariants.h"

namespace ovel::detail {

inline inspector::allocators inspector::check_allocators() {
    allocators all;
    for (allocator* each = allocator::_allocators; each != nullptr; each = each->_next)
        all.check(*each);
    return all;
}

// `_lock` keeps others from handing chains over meanwhile.
inline void inspector::check_current_allocator() {
    allocator& current = *current_allocator();
    guard const hold(current._lock);
    allocators().check(current);
}

}  // namespace ovel::detail

#endif
