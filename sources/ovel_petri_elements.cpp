// SPDX-License-Identifier: Apache-2.0
// The elements of nets and a net's lists of them: what they hold and return, and the needs of
// typed nets that are no arcs. Checking, firing, starting and stopping are in `ovel_petri_net.cpp`.

#include "ovel_petri_net.h"

#include "ovel_counter.h"
#include "ovel_guard.h"
#include "ovel_petri_callers.h"
#include "ovel_petri_engine.h"
#include "ovel_petri_port.h"
#include "ovel_process.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace ovel {

namespace {
constinit detail::atomic<unsigned int> const no_runner{0};  // of a place without a net
}

petri_place::petri_place(unsigned int capacity)
    : _channel(capacity),
      _mutex(detail::current_spin()),
      _capacity(capacity),
      _runner(&no_runner) {}

// Relaxed: no other thread uses it any more.
petri_place::~petri_place() {
    delete _port.load(std::memory_order_relaxed);
}

unsigned int petri_place::capacity() const {
    return _channel.capacity();
}

void petri_place::peek(any& token) {
    _assure_present();
    detail::guard const hold(_mutex);
    _channel.peek(token);
}

void petri_place::receive(any& token) {
    _assure_present();
    detail::guard const hold(_mutex);
    _channel.receive(token);
}

void petri_place::send(any const& token) {
    _assure_present();
    detail::guard const hold(_mutex);
    _channel.send(token);
}

void petri_place::_put(any&& token) {
    _assure_present();
    detail::guard const hold(_mutex);
    _channel.put(std::move(token));
}

void petri_place::receive_skip() {
    _assure_present();
    detail::guard const hold(_mutex);
    detail::add(_receive_skip, 1u);
}

void petri_place::send_skip() {
    _assure_present();
    detail::guard const hold(_mutex);
    detail::add(_send_skip, 1u);
}

// Relaxed: the count changes only under `_mutex`.
unsigned int petri_place::_settle_declared(detail::atomic<unsigned int>& skip, unsigned int size) {
    detail::guard const hold(_mutex);
    unsigned int const settled = std::min(skip.load(std::memory_order_relaxed), size);
    detail::add(skip, -settled);
    return settled;
}

petri_arc::petri_arc(bool input, petri_place* place, petri_transition* transition,
                     petri_place*& place_reference, unsigned int size)
    : _input(input),
      _place(place),
      _transition(transition),
      _place_reference(place_reference),
      _size(size) {}

bool petri_arc::input() const {
    return _input;
}

bool petri_arc::output() const {
    return !_input;
}

petri_place* petri_arc::place() const {
    return _place;
}

petri_transition* petri_arc::transition() const {
    return _transition;
}

petri_place*& petri_arc::place_reference() const {
    return _place_reference;
}

unsigned int petri_arc::size() const {
    return _size;
}

petri_connector::petri_connector(bool input, petri_transition* transition,
                                 petri_place*& place_reference, unsigned int size,
                                 unsigned int capacity)
    : _input(input),
      _transition(transition),
      _place_reference(place_reference),
      _size(size),
      _capacity(capacity) {}

petri_connector petri_connector::size(unsigned int size) const {
    return {_input, _transition, _place_reference, size, _capacity};
}

petri_connector petri_connector::capacity(unsigned int capacity) const {
    return {_input, _transition, _place_reference, _size, capacity};
}

petri_function::petri_function() = default;
petri_function::petri_function(petri_function const&) = default;
petri_function& petri_function::operator=(petri_function const&) = default;
petri_function::~petri_function() = default;

petri_transition* petri_function::transition() const {
    return _transition;
}

petri_transition::petri_transition(petri_function& function, bool reentrant, double time,
                                   double space, unsigned int group, petri_net* net)
    : _function(function),
      _reentrant(reentrant),
      _time(time),
      _space(space),
      _group(group),
      _net(net),
      _most_firings(reentrant ? std::numeric_limits<unsigned int>::max() : 1) {}

petri_transition::petri_transition(petri_transition const&) = default;
petri_transition::~petri_transition() = default;

petri_function& petri_transition::function() const {
    return _function;
}

bool petri_transition::reentrant() const {
    return _reentrant;
}

double petri_transition::time() const {
    return _time;
}

double petri_transition::space() const {
    return _space;
}

unsigned int petri_transition::group() const {
    return _group;
}

petri_net* petri_transition::net() const {
    return _net;
}

petri_connector petri_transition::input(petri_place*& place_reference) {
    return {true, this, place_reference, 1, 1};
}

petri_connector petri_transition::output(petri_place*& place_reference) {
    return {false, this, place_reference, 1, 1};
}

void petri_transition::activate() {
    _net->activate(this);
}

void petri_transition::deactivate() {
    _net->deactivate(this);
}

// The place of the arc with this very variable, or null.
petri_place* petri_transition::find_place(petri_place*& place_reference) const {
    for (petri_arc const* arc : _arcs)
        if (&arc->place_reference() == &place_reference)
            return arc->place();
    return nullptr;
}

unsigned int petri_transition::input_size() const {
    return _count(true);
}

unsigned int petri_transition::output_size() const {
    return _count(false);
}

unsigned int petri_transition::_count(bool input) const {
    return static_cast<unsigned int>(
        std::count_if(_arcs.begin(), _arcs.end(),
                      [input](petri_arc const* arc) { return arc->input() == input; }));
}

petri_queue_function::petri_queue_function(petri_net* net) : _net(net) {}

petri_queue_function::petri_queue_function(petri_queue_function const&) = default;
petri_queue_function& petri_queue_function::operator=(petri_queue_function const&) = default;
petri_queue_function::~petri_queue_function() = default;

unsigned int detail::process_number() {
    return this_process();
}

bool petri_net::inherited() const {
    return detail::is_inherited(_runner.load(std::memory_order_relaxed));
}

// Whether the calling thread is one of the net's that fire.
bool petri_net::_runs_caller() const {
    return std::any_of(_thread_groups, _thread_groups + _groups,
                       [](thread_group const* each) { return each->_runs_caller(); });
}

// An arc that reserves nothing. For the engine it is one that puts no token and needs all
// slots free: it is enabled while no token is there or on its way, and is looked at when the
// place gains slots.
void petri_net::_insert_inhibitor(petri_place* place, petri_transition* transition) {
    _assure_stopped();
    detail::guard const hold(_mutex);
    place->_producers.ends.make_room();
    transition->accesses().make_room();
    place->_producers.push_back(
        {transition, place->_capacity, transition->reentrant(), true, false});
    _engine->change_structure(place);
    transition->accesses().push_back({place, 0, 0, false});
    if (transition->queued() && !transition->enabled())
        _engine->dequeue(transition);
}

void petri_net::_insert_reader(petri_place* place, petri_transition* transition) {
    _assure_stopped();
    detail::guard const hold(_mutex);
    auto& accesses = transition->accesses();
    bool const is_input = std::any_of(
        accesses.begin(), accesses.end(),
        [place](detail::petri_access const& each) { return each.input && each.place == place; });
    assure(!is_input);
    place->_consumers.ends.make_room();
    accesses.make_room();
    place->_consumers.push_back({transition, 1, transition->reentrant(), false, true});
    _engine->change_structure(place);
    accesses.push_back({place, 1, 0, true, true});
    if (transition->queued() && !transition->enabled())
        _engine->dequeue(transition);
}

list<petri_place*>::iterator petri_net::begin_places() {
    return _places.begin();
}

list<petri_place*>::iterator petri_net::end_places() {
    return _places.end();
}

list<petri_transition*>::iterator petri_net::begin_transitions() {
    return _transitions.begin();
}

list<petri_transition*>::iterator petri_net::end_transitions() {
    return _transitions.end();
}

list<petri_arc*>::iterator petri_net::begin_arcs() {
    return _arcs.begin();
}

list<petri_arc*>::iterator petri_net::end_arcs() {
    return _arcs.end();
}

}  // namespace ovel
