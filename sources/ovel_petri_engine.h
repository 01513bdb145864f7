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
//     running      on that thread                its code returns, and the thread commits it, or
//                                                publishes the end if the mutex is taken
//     published    in `_published`               the thread with the mutex commits it
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
// Delays. A transition that has one is queued when it is enabled, as any, but its dispatch waits
// until it has been enabled for that long. The queue thread sees to it, and sleeps until the
// earliest of them.
//
// Counts. Of the `_size` committed tokens of a place, `_receive_size` are reserved by
// firings, and `_send_size` of its free slots are. A firing reserves all that its arcs ask
// for when it is initiated, and commits it when it ends. So no other thread ever sees half
// of a firing, and firing code never waits.
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
// Calls. A client's call that finds the mutex taken is published, and one that waits is in a
// list of its place. The thread that holds the mutex carries both out, and hears of them from the
// places: one at which callers are present, or that is closed, reports its gains. Dispatch
// handles these before the mutex is released, so that what a closed place ends has ended, and
// what that enables is dispatched, within the hold of the mutex in which it came about.
//
// Turns. Firings go before callers, but for one gain in `most_passed` of a place at which a
// caller is present. Then a call that waits is carried out before the next reservation. For
// calls that do not wait, nothing is reserved: the thread gives them a moment to be published.
// Where both are present, they take turns.
//
// Wake-ups. They all happen after the mutex was released: one thread for each crew that needs
// one, which may stand by; the callers whose calls have ended while they were asleep; and the queue
// thread if the net is stopping and at rest, or a delay has begun.
#ifndef OVEL_PETRI_ENGINE_H
#define OVEL_PETRI_ENGINE_H

#include "ovel_petri_net.h"

#include "ovel_atomic.h"
#include "ovel_condition.h"
#include "ovel_counter.h"
#include "ovel_petri_call.h"
#include "ovel_petri_closing.h"
#include "ovel_petri_crew.h"
#include "ovel_petri_enabled_transitions.h"
#include "ovel_petri_port.h"
#include "ovel_spin_wait.h"
#include "ovel_thread_function.h"
#include "ovel_thread_group.h"
#include "ovel_time.h"
#include "ovel_work_queue.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
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
    // The number of ended firings, modulo the range. Relaxed: a thread that waits for the mutex
    // reads how fast it grows, and a stale value costs a pause or saves one.
    detail::atomic<unsigned int> _ended = 0;
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
        bool queue_thread;
    };

    // Building, while the net is stopped.

    void insert_group(unsigned int index, thread_group& group, double budget) {
        _works[index] = std::make_unique<firing_work>(_net, group, budget);
    }
    // Gives all transitions their ranks if some have none yet.
    void rank(list<petri_transition*>& transitions);

    // An arc is added to the place: what closed places end waits until the structure is complete.
    void change_structure(petri_place* place) {
        _closing.change_structure(place);
    }
    void complete_structure() {
        _closing.complete_structure(*this);
    }

    // From here on dispatch runs what is enabled. All transitions must have been
    // examined.
    void start() {
        _forget(detail::not_running);
    }
    void stop() {
        _news |= detail::not_running;
    }
    bool is_running() const {
        return (_news & detail::not_running) == 0;
    }
    // All transitions have been examined, so none that could not be queued is missed.
    void forget_missed() {
        _forget(detail::missed);
    }

    bool is_at_rest() const {
        return _net._firings == 0 && _called == 0 && _enabled.none();
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
        if (place->_receivers.present != 0)
            _offer(place, place->_receivers, place->tokens() > before);
        _enqueue_side(place->_consumers, before, place->tokens());
    }
    void gained_slots(petri_place* place, unsigned int before) {
        if (place->_senders.present != 0)
            _offer(place, place->_senders, place->slots() > before);
        _enqueue_side(place->_producers, before, place->slots());
    }

    // The place has lost available tokens, or free slots.
    void lost_tokens(petri_place* place) {
        _dequeue_side(place->_consumers, place->tokens());
    }
    void lost_slots(petri_place* place) {
        _dequeue_side(place->_producers, place->slots());
    }

    // Initiates the firings of all queued transitions, and carries out the calls of other
    // threads. Ends what closed places end.
    void dispatch() {
        // Relaxed: a thread that publishes a call takes the mutex if no thread carries it out.
        if ((_news & ~(detail::missed | detail::not_running)) != 0 ||
            _published.load(std::memory_order_relaxed) != nullptr)
            _dispatch_among_callers();
        else if (is_running())
            _dispatch();
    }

    // Publishes the call. Returns false once another thread has taken it over, and true once
    // this thread has the mutex; then its next dispatch carries out all that is published. Any
    // thread, without the mutex.
    bool publish(detail::petri_call& call);

    // Takes the mutex, which was taken, for a thread of `of` that has run a firing or has arrived,
    // as `call` says. Publishes that: the thread with the mutex commits it, or this thread's next
    // dispatch does.
    void enter_contended(firing_work& of, detail::petri_call& call);

    // Commits it, for the thread with the mutex.
    void commit(detail::petri_call& call) {
        firing_work& of = *static_cast<firing_work*>(call.work);
        if (call.firing != nullptr) {
            terminate(call.firing);
            give_back(of, call.firing);
        } else {
            of._crew.arrive();
        }
        // Relaxed: its thread ends it with the mutex.
        if (call.now.load(std::memory_order_relaxed) != detail::petri_call::state::ended)
            of._crew.stand_by(call);
        _touch(of);
    }

    // The place does not have what the call needs. Returns whether the call waits for it.
    bool wait_or_miss(detail::petri_call& call);

    // A call that never waits has been carried out: its place owes such callers no chance.
    static void found(detail::petri_call& call) {
        detail::petri_callers& at = callers(call);
        if ((at.present & detail::petri_callers::has_tried) != 0)
            _forget_tries(at);
    }

    // A call that dozes has done so for long enough, unless it has ended.
    void hasten(detail::petri_call& call) {
        call.dozes.store(false, std::memory_order_relaxed);
        _list(call.place);
    }

    // Carries out the calls that wait on one side of a place, although they may doze.
    void serve_dozing(detail::petri_callers& callers);

    // Ends a call that waits. Returns whether it did.
    bool withdraw(detail::petri_call& call);

    // Ends the calls that wait at the place and have no more reason to.
    void end_calls(petri_place* place);

    // Shuts the port, which the place has, until the end of this hold of the mutex at least.
    void shut_port(petri_place* place) {
        detail::petri_port& port = *port_of(place);
        if (port.is_shut())
            return;
        port.count(detail::petri_port::shuts);
        _list(place);
    }
    // Ends the use of a port until callers are found to need one again.
    void close_port(petri_place* place);
    // The same for all places.
    void close_ports();

    // Relaxed: it changes under the mutex.
    static detail::petri_port* port_of(petri_place* place) {
        return place->_port.load(std::memory_order_relaxed);
    }

    static detail::petri_callers& callers(detail::petri_call& call) {
        return call.receives() ? call.place->_receivers : call.place->_senders;
    }

    // Commits a firing of the transition.
    void terminate(petri_transition* transition) {
        _commit(transition);
        transition->end_fire();
        --_net._firings;
        enqueue_if_enabled(transition);
    }

    // What `petri_crew` does: a called thread of `of` has arrived, a firing of a thread of `of` has
    // ended, a thread of `of` takes its next firing.
    static void arrive(firing_work& of) {
        of._crew.arrive();
    }
    static void give_back(firing_work& of, petri_transition* ended) {
        of._crew.give_back(ended);
        detail::add(of._ended, 1u);
    }
    // Fetches what the end of any firing changes. Where several threads fire, these cache lines are
    // at the processor that had the mutex last, and each would be waited for in turn.
    void prefetch(firing_work const& of) const {
        of._crew.prefetch();
        _enabled.prefetch();
    }
    petri_transition* next(firing_work& of) {
        petri_transition* const next = of._crew.next();
        _called -= next == nullptr;
        _touch(of);
        return next;
    }

    // A thread of `of` has left. Returns whether it polls before it returns to its group; then its
    // crew calls this thread first.
    bool begin_poll(firing_work& of) {
        if (_poller != nullptr || _spin == 0 || !is_running() || _net._acquired ||
            !_poll_memory.should_spin())
            return false;
        _poller = &of;
        _is_poller_called.store(false, std::memory_order_relaxed);
        return true;
    }
    // Polls, and returns the firing that the thread runs next; null ends its work. With the mutex,
    // which it releases.
    petri_transition* poll(firing_work& of);

    // Whether a thread had better publish its call than try to take the mutex.
    bool is_attended() const {
        return _is_attended.load(std::memory_order_relaxed);
    }

    // Closes a place for good: no further firing puts into it, nor does a caller of `net`.
    void close(petri_place* place) {
        _closing.close(place, *this);
        _news |= detail::for_closing;
    }

    // There is one more transition with a delay. Throws std::bad_alloc.
    void make_room_for_delay() {
        _enabled.make_room();
    }

    // Waits once, as the queue thread, until the net may be at rest or a delay has ended.
    // What that enables is dispatched. With the mutex, which it gives up meanwhile.
    void wait_for_rest() {
        if (!_enabled.has_delays()) {
            _net._condition.acquire(_net._mutex);
            return;
        }
        time due;
        if (!_enabled.find_due(due)) {
            _clock.acquire(_net._mutex);
            return;
        }
        // Rounded up: a delay never ends early.
        double const left = (due - time::now()).seconds();
        if (left > 0)
            static_cast<void>(_clock.timed_acquire(_net._mutex, _milliseconds(left)));
        // The queue beside the list is empty after each dispatch, so this needs no memory.
        for (time const now = time::now(); _enabled.end_delays(now);)
            dispatch();
    }
    // Wakes it. Without the mutex.
    void release_queue_thread() {
        _net._condition.release_one();
        _clock.release_one();
    }

    // Whether a delay has begun, or callers that are asleep are to be woken.
    bool has_news() const {
        return (_news & (detail::for_clock | detail::for_sleepers)) != 0;
    }
    // Releases the mutex and wakes those that `wakes` names, when calls have ended whose threads
    // are asleep, or a delay has begun.
    void release_with_news(wake_ups const& wakes);

    // Puts an empty token into a place that no other thread knows, for one transition. In a
    // stopped net there may be no memory to queue that; the start examines it.
    void put_mark(petri_place* place) {
        place->count_in();
        place->_put(any());
        try {
            gained_tokens(place, 0);
        } catch (...) {
            if (is_running())
                throw;
        }
    }

    wake_ups collect_wake_ups() {
        if (!_net._acquired || _net._firings != 0)
            return {_begin_calls(), false};
        _send_home();
        return {_begin_calls(), is_at_rest()};
    }
    // Makes the calls that `collect_wake_ups` returned. Without the mutex.
    static void call(firing_work* called) {
        while (called != nullptr)
            std::exchange(called, called->_next_called)->call();
    }

    unsigned int spin() const {
        return _spin;
    }

private:
    friend struct detail::inspector;

    // Gains of a place in a row that firings may take while a caller is present.
    static constexpr unsigned int most_passed = 4;

    // A firing or a call has changed a place that is closed, or at which callers are present. It
    // has gained nothing that they want if the firing skipped that. Out of line, so that the usual
    // way stays short.
    [[gnu::noinline]] void _offer(petri_place* place, detail::petri_callers& to, bool has_gained) {
        if (!has_gained && !place->_closed)
            return;
        to.passed += has_gained;
        if (port_of(place) != nullptr)
            _count_passed(place);
        if (place->_closed) {
            _closing.look_again(place);
            _news |= detail::for_closing;
        }
        _list(place);
    }
    void _list(petri_place* place) {
        _news |= detail::for_callers;
        if (!std::exchange(place->_is_offered, true))
            place->_next_offered = std::exchange(_offered, place);
    }

    void _count_passed(petri_place* place);
    void _provide_port(petri_place* place);
    static bool _needs_all_calls(petri_place* place, bool is_inlet);

    void _push(detail::petri_call& call) {
        // Usually no other call is published, and a look would be another cache miss.
        call.next = nullptr;
        while (!_published.compare_exchange_weak(call.next, &call)) {}
    }

    void _dispatch_among_callers();
    bool _take_turns(bool is_first);
    // Whether it is the callers' turn. It stays their turn while the place has nothing for them.
    static bool _is_turn(petri_place const* place, detail::petri_callers const& of) {
        return of.passed >= most_passed &&
               (&of == &place->_receivers ? place->tokens() : place->slots()) != 0;
    }
    // Whether calls that do not wait have found nothing, and transitions compete with them. If
    // none does, a gain is still there when the next call comes.
    static bool _need_chance(petri_place const* place, detail::petri_callers const& callers) {
        auto const& ends =
            (&callers == &place->_receivers ? place->_consumers : place->_producers).ends;
        return (callers.present & detail::petri_callers::has_tried) != 0 &&
               std::any_of(ends.begin(), ends.end(),
                           [](detail::petri_side::end const& each) { return !each.inhibits; });
    }
    void _await_published(unsigned int pauses);
    void _end_chance();
    static void _forget_tries(detail::petri_callers& at) {
        at.present &= ~(detail::petri_callers::has_tried | detail::petri_callers::tries_first);
        at.passed = at.misses = 0;
    }
    void _serve(petri_place* place);
    bool _serve_one(detail::petri_callers& callers);
    bool _defers(detail::petri_call const& call);
    // Whether more follows at a port soon: its transition fires, or is about to.
    bool _goes_on(petri_place* place) const {
        detail::petri_side const& side =
            port_of(place)->is_inlet() ? place->_consumers : place->_producers;
        petri_transition const* const transition = side.ends.begin()->transition;
        return is_running() && (transition->_firing != 0 || transition->queued());
    }
    bool _list_deferring();
    void _take_published();
    void _carry_out_published();
    void _end(detail::petri_call& call);
    static detail::petri_outcome _reason_to_end(detail::petri_call const& call);
    static detail::petri_call* _unlink(detail::petri_callers& from, detail::petri_call* before);

    static unsigned int _milliseconds(double seconds) {
        return static_cast<unsigned int>(
            std::min(std::ceil(seconds * 1000), static_cast<double>(detail::longest_wait)));
    }

    void _enqueue(petri_transition* transition) {
        try {
            _enabled.insert(transition);
        } catch (...) {
            _news |= detail::missed;
            throw;
        }
    }

    // A place has `now` tokens or slots available, and had `before`.
    void _enqueue_side(detail::petri_side const& side, unsigned int before, unsigned int now) {
        if ((_news & (detail::not_running | detail::missed)) != 0)
            before = 0;
        if (before >= side.most)
            return;
        for (auto const& [transition, size, reentrant, inhibits, reads] : side.ends)
            if (size <= now && (size > before || reentrant))
                enqueue_if_enabled(transition);
    }
    [[gnu::always_inline]] void _dequeue_side(detail::petri_side const& side, unsigned int now) {
        if (!_enabled.none() && now < side.most)
            _dequeue_disabled(side, now);
    }
    [[gnu::noinline]] void _dequeue_disabled(detail::petri_side const& side, unsigned int now) {
        for (auto const& [transition, size, reentrant, inhibits, reads] : side.ends)
            if (size > now && transition->queued() && !(reads && transition->enabled()))
                dequeue(transition);
    }

    void _forget(unsigned int news) {
        _news &= static_cast<unsigned char>(~news);
    }

    // While the net runs. Of a reentrant transition as many firings at once as its group has
    // threads.
    void _dispatch() {
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
                if (access.reads && !place->begin_reading())
                    continue;
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
            if (access.reads) {
                _end_reading(place);
                continue;
            }
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

    [[gnu::noinline]] void _end_reading(petri_place* place) {
        unsigned int const tokens = place->tokens();
        if (!place->end_reading())
            return;
        place->withdraw_receive(1);
        gained_tokens(place, tokens);
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
            if (!each._crew.needs_thread())
                continue;
            if (&each == _poller && !_is_poller_called.load(std::memory_order_relaxed)) {
                each._crew.call_new();
                ++_called;
                _is_poller_called.store(true, std::memory_order_relaxed);
            } else if (each._crew.has_standing()) {
                _end(each._crew.call_standing());
            } else {
                each._crew.call_new();
                ++_called;
                each._next_called = std::exchange(called, &each);
            }
        }
        return called;
    }

    enum class attempt : unsigned char { succeeded, outpaced, failed };
    attempt _enter_spinning(firing_work const& of, detail::petri_call const& call);
    void _stand_by(detail::petri_call& call);
    void _enter_polling(firing_work& of);
    void _send_home();

    unsigned int const _spin;
    petri_net& _net;
    std::unique_ptr<std::unique_ptr<firing_work>[]> const _works;  // one for each group
    unsigned char _news = detail::not_running;                     // bits of `petri_news`
    detail::enabled_transitions _enabled{_net._queue, _net._random, &_news};
    firing_work* _touched = nullptr;          // the first of those that may need a thread
    unsigned int _called = 0;                 // called threads that have not left, of all crews
    unsigned int _ranked = 0;                 // transitions that have their rank
    petri_place* _offered = nullptr;          // the first of those with something for callers
    detail::petri_call* _sleepers = nullptr;  // the first that is asleep and has ended
    firing_work* _poller = nullptr;  // of the thread that polls, until that has the mutex again
    detail::spin_memory _poll_memory;
    detail::petri_call* _taken = nullptr;  // of clients, in the order in which they came
    detail::petri_port* _ports = nullptr;  // of all places, the one made last first
    petri_place* _deferring = nullptr;     // the first of those that let a call doze on
    detail::petri_closing _closing;
    timed_condition _clock{0};  // the queue thread of a net with delays, with the mutex
    [[maybe_unused]] cacheline _before;
    // The last call that was published and is not taken over yet.
    detail::atomic<detail::petri_call*> _published = nullptr;
    // The thread that polls is counted as called again and may stop. Written under the mutex.
    // Relaxed: the thread then takes the mutex.
    detail::atomic<bool> _is_poller_called{false};
    [[maybe_unused]] cacheline _between;
    // Whether a thread polls, again and again, and takes over what is published: that moves fewer
    // cache lines to the calling thread and back than the mutex and what it guards. Relaxed: a
    // call that is not taken over soon takes the mutex, and clears this.
    detail::atomic<bool> _is_attended{false};
    [[maybe_unused]] cacheline _after;
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
