// SPDX-License-Identifier: Apache-2.0
// Petri nets: their construction, their mutex, the token interface, start and stop. The
// engine that fires them is in `ovel_petri_engine.h`; how tokens are moved for clients, and what
// nets of `ovel_petri.h` add to the token interface, is in `ovel_petri_clients.cpp`.
//
// This file contains everything that can fail a check of nets, because a check prints its
// file.
//
// Lock order: the net's `_mutex`, then a place's.

#include "ovel_petri_net.h"

#include "ovel_allocator_group.h"
#include "ovel_guard.h"
#include "ovel_petri_call.h"
#include "ovel_petri_change.h"
#include "ovel_petri_engine.h"
#include "ovel_petri_port.h"
#include "ovel_process.h"
#include "ovel_thread_support.h"
#include "ovel_time.h"

#include <algorithm>
#include <exception>
#include <memory>
#include <utility>

namespace ovel {

using detail::petri_outcome;

// Adds an arc: the only one in its direction with its place, and the only one with its
// variable. Needs room in the row.
void petri_transition::insert_arc(list<petri_arc*>::prepared&& inserted) {
    petri_arc const* const arc = inserted->value;
    for (auto i = _arcs.begin(); i != _arcs.end(); ++i) {
        assure(arc->input() != (*i)->input() || arc->place() != (*i)->place());
        assure(&arc->place_reference() != &(*i)->place_reference());
    }
    for (detail::petri_access const& each : _accesses) {
        bool const is_read = each.reads && arc->input() && each.place == arc->place();
        assure(!is_read);
    }
    _accesses.push_back(
        {arc->place(), arc->size(), arc->place()->capacity() - arc->size(), arc->input()});
    _arcs.push_back(std::move(inserted));
}

// Here, where the check can inline it.
bool petri_place::inherited() const {
    return detail::is_inherited(_runner->load(std::memory_order_relaxed));
}

void petri_place::_assure_present() const {
    assure(!inherited());
}

// Takes the mutex.
void petri_net::_enter() {
    assure(!inherited());
    _mutex.acquire();
}

// Dispatches what is now enabled. There must be memory for it.
void petri_net::_dispatch() {
    try {
        _engine->dispatch();
    } catch (...) {
        assure(("unexpected exception", 0));
    }
}

// Releases `_mutex`, and wakes the threads that have a reason to look again.
void petri_net::_leave() {
    engine::wake_ups const wakes = _engine->collect_wake_ups();
    if (_engine->has_news()) {
        _engine->release_with_news(wakes);
        return;
    }
    _mutex.release();
    engine::call(wakes.called);
    if (wakes.queue_thread)
        _engine->release_queue_thread();
}

void petri_transition::operator()() {
    try {
        _function();
    } catch (...) {
        assure(("unexpected exception", 0));
    }
}

void petri_net::firing_work::call() {
    try {
        _group.schedule(*this, 1.0, 0.0);
    } catch (...) {
        assure(("unexpected exception", 0));
    }
}

void petri_net::firing_work::operator()() {
    petri_net& net = _net;  // other threads may write this object's cache lines meanwhile
    allocator_group* const group = allocator_group::global();
    using detail::this_process;
    unsigned int const process = this_process();
    for (petri_transition* firing = net._first_firing(*this); firing != nullptr;) {
        firing->petri_transition::operator()();  // not virtual: saves a cache miss
        assure(process == this_process());
        // The group sees one long work item here, and would flush only at its end.
        group->flush_allocator(true);
        firing = net._mutex.try_acquire() ? net._next_firing(*this, firing)
                                          : net._next_firing_late(*this, firing);
    }
}

// On a thread of `of`, which has arrived: returns its first firing, or null.
petri_transition* petri_net::_first_firing(firing_work& of) {
    if (!_mutex.try_acquire())
        return _next_firing_late(of, nullptr);
    engine::arrive(of);
    return _next_firing(of, nullptr);
}

// The same as `_first_firing` or `_next_firing` when the mutex is taken.
petri_transition* petri_net::_next_firing_late(firing_work& of, petri_transition* ended) {
    detail::petri_call call(of, ended);
    _engine->enter_contended(of, call);
    petri_transition* const next = _next_firing(of, nullptr);
    if (call.unit != nullptr)
        CloseHandle(call.unit);
    return next;
}

// For another thread.
void petri_net::_commit(detail::petri_call& call) {
    try {
        _engine->commit(call);
    } catch (...) {
        assure(("unexpected exception", 0));
    }
}

// On a thread of `of`: commits the firing that it has run, if any, and returns the one to
// run next. Null ends its work. With the mutex, which it releases.
petri_transition* petri_net::_next_firing(firing_work& of, petri_transition* ended) {
    _engine->prefetch(of);
    try {
        if (ended != nullptr)
            _engine->terminate(ended);
        _engine->dispatch();
    } catch (...) {
        assure(("unexpected exception", 0));
    }
    if (ended != nullptr)
        engine::give_back(of, ended);
    petri_transition* const next = _engine->next(of);
    if (next == nullptr && _engine->begin_poll(of))
        return _engine->poll(of);
    _leave();
    return next;
}

void petri_queue_function::operator()() {
    _net->_enter();
    _net->_dispatch();
    _net->_leave();
    while (!_net->_await_rest()) {}
    for (unsigned int i = 0; i != _net->_groups; ++i)
        _net->_thread_groups[i]->conclude();
}

// Whether the net is at rest and stops. Otherwise waits once until it may be, or until a
// transition with a delay may fire. On the queue thread.
bool petri_net::_await_rest() {
    change const hold(*this);
    if (_acquired && _engine->is_at_rest()) {
        _engine->close_ports();
        _engine->stop();
        return true;
    }
    _engine->wait_for_rest();
    return false;
}

// A start that is undone unless it is completed.
class petri_net::start {
public:
    explicit start(petri_net& net) : _net(&net) {}
    ~start() {
        if (_net != nullptr)
            _net->_withdraw_start();
    }
    start(start const&) = delete;
    start& operator=(start const&) = delete;

    void complete() {
        _net = nullptr;
    }

private:
    petri_net* _net;
};

namespace {

// Joins a group or a thread, however long that takes.
constexpr auto join = [](auto& joined) {
    joined.acquire();
    return true;
};

}  // namespace

petri_net::petri_net() : petri_net(thread_base::default_stack_size) {}

petri_net::petri_net(unsigned int stack_size)
    : petri_net(thread_support::processors(), 0.0, stack_size) {}

petri_net::petri_net(unsigned int threads, double space, unsigned int stack_size)
    : petri_net(1, stack_size) {
    triple<unsigned int, double, unsigned int> const group{threads, space, stack_size};
    _construct_groups(&group);
}

petri_net::petri_net(triple<unsigned int, double, unsigned int> const* begin,
                     triple<unsigned int, double, unsigned int> const* end)
    : petri_net(static_cast<unsigned int>(end - begin), begin != end ? begin->third : 0) {
    _construct_groups(begin);
}

// A net without groups. Once it has run, the destructor undoes what the rest of a
// construction did before it threw.
petri_net::petri_net(unsigned int groups, unsigned int stack_size)
    : _mutex(detail::current_spin()),
      _groups(groups),
      _thread_group_acquireds(groups),
      _queue_function(this),
      _queue_thread(stack_size),
      _condition(0) {
    assure(_groups != 0);
}

void petri_net::_construct_groups(triple<unsigned int, double, unsigned int> const* groups) {
    _thread_group_acquired = new bool[_groups];
    _thread_groups = new thread_group* [_groups] {
    };
    _engine = new engine(*this, detail::current_spin());
    for (unsigned int i = 0; i != _groups; ++i) {
        _thread_group_acquired[i] = true;
        _thread_groups[i] = new thread_group(groups[i].first, groups[i].second, groups[i].third);
        _engine->insert_group(i, *_thread_groups[i], groups[i].second);
    }
}

// In a fork the lists of places, transitions and arcs are intact, because they change
// only while the net is stopped. Their elements are in use.
petri_net::~petri_net() {
    if (inherited()) {
        std::construct_at(&_queue);
        return;
    }
    _assure_stopped();
    for (petri_place* place : _places)
        delete place;
    for (petri_transition* transition : _transitions)
        delete transition;
    for (petri_arc* arc : _arcs)
        delete arc;
    delete _engine;
    if (_thread_groups != nullptr)
        for (unsigned int i = 0; i != _groups; ++i)
            delete _thread_groups[i];
    delete[] _thread_groups;
    delete[] _thread_group_acquired;
}

void petri_net::_assure_stopped() const {
    assure(_acquired && _queue_thread_acquired && _thread_group_acquireds == _groups);
}

petri_place* petri_net::insert_place(unsigned int capacity) {
    _assure_stopped();
    assure(capacity != 0);
    auto place = std::make_unique<petri_place>(capacity);
    place->_runner = &_runner;
    auto of_net = list<petri_place*>::prepare(place.get());
    // A thread that lets callers go looks at all places.
    detail::guard const hold(_mutex);
    _places.push_back(std::move(of_net));
    return place.release();
}

petri_transition* petri_net::insert_transition(petri_function& function, bool reentrant,
                                               double time, double space, unsigned int group) {
    _assure_stopped();
    assure(time > 0 && space >= 0 && group < _groups);
    auto transition =
        std::make_unique<petri_transition>(function, reentrant, time, space, group, this);
    _transitions.push_back(transition.get());
    function.transition(transition.get());
    return transition.release();
}

petri_arc* petri_net::insert_input_arc(petri_place* place, petri_connector connector) {
    _assure_stopped();
    assure(connector.input());
    return _insert_arc(place, connector);
}

petri_arc* petri_net::insert_output_arc(petri_connector connector, petri_place* place) {
    _assure_stopped();
    assure(connector.output());
    return _insert_arc(place, connector);
}

// Allocates everything before it links anything, so a failure leaves no arc that only one
// of its ends knows. The net is stopped, but a caller that it blocked may be waking up
// and look at the place's arcs.
petri_arc* petri_net::_insert_arc(petri_place* place, petri_connector const& connector) {
    assure(connector.size() != 0 && connector.size() <= place->capacity());
    auto arc = std::make_unique<petri_arc>(connector.input(), place, connector.transition(),
                                           connector.place_reference(), connector.size());
    auto of_net = list<petri_arc*>::prepare(arc.get());
    auto of_place = list<petri_arc*>::prepare(arc.get());
    auto of_transition = list<petri_arc*>::prepare(arc.get());
    detail::guard const hold(_mutex);
    place->side(arc->input()).ends.make_room();
    connector.transition()->accesses().make_room();
    _arcs.push_back(std::move(of_net));
    place->insert_arc(std::move(of_place));
    connector.transition()->insert_arc(std::move(of_transition));
    connector.place_reference() = place;
    _engine->change_structure(place);
    // Tokens of a stopped net may have enabled the transition without this arc.
    if (connector.transition()->queued() && !arc->enabled())
        _engine->dequeue(connector.transition());
    return arc.release();
}

void petri_net::activate(petri_transition* transition) {
    change const hold(*this);
    transition->activated(transition->_life == petri_transition::life::live);
    _engine->enqueue_if_enabled(transition);
}

void petri_net::deactivate(petri_transition* transition) {
    // The end of its delay may be all that a stop waits for.
    change const hold(*this);
    transition->activated(false);
    if (transition->queued())
        _engine->dequeue(transition);
}

void petri_net::limit(petri_transition* transition, unsigned int firings) {
    assure(firings != 0);
    change const hold(*this);
    transition->_most_firings = transition->_reentrant ? firings : 1;
    if (!transition->queued())
        _engine->enqueue_if_enabled(transition);
    else if (!transition->enabled())
        _engine->dequeue(transition);
}

void petri_net::_enqueue_initial_transitions() {
    for (auto i = _transitions.begin(); i != _transitions.end(); ++i) {
        assure((*i)->input_size() != 0 || (*i)->output_size() != 0);
        _engine->enqueue_if_enabled(*i);
    }
    _engine->forget_missed();
}

// Carries the call out if its place has what it needs, and returns whether it has.
[[gnu::always_inline]] inline bool petri_net::_perform(detail::petri_call& call) {
    using kind = detail::petri_call::kind;
    petri_place* const place = call.place;
    if (engine::port_of(place) != nullptr)
        _engine->shut_port(place);
    bool const peeks = call.what <= kind::try_peek;
    if (call.receives() ? !place->receive_enabled(1) && !(peeks && place->_readers != 0)
                        : !place->send_enabled(1))
        return false;
    if (peeks)
        _peek_oldest(place, *call.token);
    else if (call.what <= kind::try_receive)
        _receive(place, *call.token);
    else if (call.what <= kind::try_take)
        _take(place, *call.token);
    else if (call.what <= kind::try_send)
        _send(place, *call.token);
    else if (place->_closed)
        return false;
    else
        _put(place, call.make, call.from);
    call.outcome = petri_outcome::done;
    return true;
}

// The same for a call of another thread, which throws what this throws. Returns whether the
// call is to end.
bool petri_net::_carry_out(detail::petri_call& call) {
    try {
        return _perform(call);
    } catch (...) {
        call.failure = std::current_exception();
        return true;
    }
}

// Completes a call of the calling thread, or has the thread that holds the mutex do it.
[[gnu::always_inline]] inline petri_outcome petri_net::_complete(detail::petri_call& call) {
    assure(!inherited());
    if (!_engine->is_attended() && _mutex.try_acquire()) {
        change const hold(*this, change::taken);
        detail::petri_callers& at = engine::callers(call);
        if (at.last != nullptr)
            _engine->serve_dozing(at);
        if (_perform(call)) {
            if (call.is_try())
                engine::found(call);
            return call.outcome;
        }
        if (!_engine->wait_or_miss(call))
            return call.outcome;
    }
    return _complete_late(call);
}

// Moves a token through the port of the place, if that is open, without the mutex.
template <class Attempt>
[[gnu::always_inline]] inline bool petri_net::_pass(petri_place* place, bool may_wait,
                                                    detail::petri_callers& callers,
                                                    Attempt const& attempt) {
    assure(!inherited());
    detail::petri_port* const port = place->_port.load(std::memory_order_acquire);
    return port != nullptr &&
           (attempt(*port) ||
            (may_wait && port->await(_engine->spin(), callers.memory) && attempt(*port)));
}

void petri_net::peek(petri_place* place, any& token) {
    detail::petri_call call(detail::petri_call::kind::peek, place, &token);
    _complete(call);
}

bool petri_net::try_peek(petri_place* place, any& token) {
    detail::petri_call call(detail::petri_call::kind::try_peek, place, &token);
    return _complete(call) == petri_outcome::done;
}

void petri_net::receive(petri_place* place, any& token) {
    if (_pass(place, true, place->_receivers,
              [&](detail::petri_port& port) { return port.take(token); }))
        return;
    detail::petri_call call(detail::petri_call::kind::receive, place, &token);
    _complete(call);
}

bool petri_net::try_receive(petri_place* place, any& token) {
    if (_pass(place, false, place->_receivers,
              [&](detail::petri_port& port) { return port.take(token); }))
        return true;
    detail::petri_call call(detail::petri_call::kind::try_receive, place, &token);
    return _complete(call) == petri_outcome::done;
}

void petri_net::send(petri_place* place, any const& token) {
    if (_pass(place, true, place->_senders, [&](detail::petri_port& port) {
            return port.put([&](channel& box) { box.send(token); });
        }))
        return;
    detail::petri_call call(detail::petri_call::kind::send, place, const_cast<any*>(&token));
    _complete(call);
}

bool petri_net::try_send(petri_place* place, any const& token) {
    if (_pass(place, false, place->_senders, [&](detail::petri_port& port) {
            return port.put([&](channel& box) { box.send(token); });
        }))
        return true;
    detail::petri_call call(detail::petri_call::kind::try_send, place, const_cast<any*>(&token));
    return _complete(call) == petri_outcome::done;
}

petri_outcome petri_net::_receive_within(petri_place* place, any& token,
                                         detail::petri_patience const& patience) {
    if (_pass(place, patience.milliseconds != 0, place->_receivers,
              [&](detail::petri_port& port) { return port.take(token); }))
        return petri_outcome::done;
    detail::petri_call call(detail::petri_call::kind::take, place, &token, &patience);
    return _complete(call);
}

bool petri_net::_try_take(petri_place* place, any& token) {
    if (_pass(place, false, place->_receivers,
              [&](detail::petri_port& port) { return port.take(token); }))
        return true;
    detail::petri_call call(detail::petri_call::kind::try_take, place, &token);
    return _complete(call) == petri_outcome::done;
}

petri_outcome petri_net::_put_within(petri_place* place, maker make, void* from,
                                     detail::petri_patience const& patience) {
    if (_pass(place, patience.milliseconds != 0, place->_senders, [&](detail::petri_port& port) {
            return port.put([&](channel& box) {
                any token;
                make(token, from);
                box.put(std::move(token));
            });
        }))
        return petri_outcome::done;
    detail::petri_call call(detail::petri_call::kind::put, place, make, from, &patience);
    return _complete(call);
}

bool petri_net::_try_put(petri_place* place, maker make, void* from) {
    if (_pass(place, false, place->_senders, [&](detail::petri_port& port) {
            return port.put([&](channel& box) {
                any token;
                make(token, from);
                box.put(std::move(token));
            });
        }))
        return true;
    detail::petri_call call(detail::petri_call::kind::try_put, place, make, from);
    return _complete(call) == petri_outcome::done;
}

void petri_net::release() {
    _assure_stopped();
    {
        // No other thread changes a stopped net while it starts, but callers that it
        // blocks may wake up and look.
        change const hold(*this);
        _engine->complete_structure();
        _engine->rank(_transitions);
        _enqueue_initial_transitions();
    }
    start starting(*this);
    _runner.store(detail::this_process(), std::memory_order_relaxed);
    for (unsigned int i = 0; i != _groups; ++i) {
        _thread_groups[i]->release();
        _thread_group_acquired[i] = false;
        --_thread_group_acquireds;
    }
    starting.complete();
    {
        detail::guard const hold(_mutex);
        _acquired = false;
        _engine->start();
    }
    _queue_thread.schedule(_queue_function);
    _queue_thread.release();
    _queue_thread_acquired = false;
}

// Ends the groups that a start has begun with, after one could not be started.
void petri_net::_withdraw_start() {
    for (unsigned int i = 0; i != _groups; ++i)
        if (!_thread_group_acquired[i])
            _thread_groups[i]->conclude();
    _join_groups(join);
    _runner.store(0, std::memory_order_relaxed);
}

void petri_net::acquire() {
    assure(!_runs_caller());
    _stop(join);
}

bool petri_net::try_acquire() {
    return _stop([](auto& joined) { return joined.try_acquire(); });
}

bool petri_net::timed_acquire(ovel::time const& deadline) {
    return _stop([&deadline](auto& joined) { return joined.timed_acquire(deadline); });
}

// Asks the net to stop when it is at rest, and joins its threads in order until `join`
// fails for one.
template <class Join>
bool petri_net::_stop(Join join) {
    assure(!_queue_thread_acquired || _thread_group_acquireds != _groups);
    {
        change const hold(*this);
        _acquired = true;
    }
    if (!_join_groups(join))
        return false;
    if (!_queue_thread_acquired)
        _queue_thread_acquired = join(_queue_thread);
    if (_queue_thread_acquired)
        _runner.store(0, std::memory_order_relaxed);
    return _queue_thread_acquired;
}

template <class Join>
bool petri_net::_join_groups(Join join) {
    for (unsigned int i = 0; i != _groups; ++i) {
        if (_thread_group_acquired[i])
            continue;
        if (!join(*_thread_groups[i]))
            return false;
        _thread_group_acquired[i] = true;
        ++_thread_group_acquireds;
    }
    return true;
}

}  // namespace ovel
