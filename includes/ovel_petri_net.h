// SPDX-License-Identifier: Apache-2.0
// Petri nets whose transitions fire concurrently.
//
//     struct doubler : petri_function {
//         petri_place* numbers;
//         petri_place* results;
//
//         void operator()() override {
//             any token;
//             numbers->receive(token);
//             results->send(2 * any_cast<int>(token));
//         }
//     };
//
//     petri_net net;
//     petri_place* const in = net.insert_place(16);
//     petri_place* const out = net.insert_place(16);
//     doubler work;
//     petri_transition* const twice = net.insert_transition(work, true, 1.0, 0.0, 0);
//     net.insert_input_arc(in, twice->input(work.numbers));
//     net.insert_output_arc(twice->output(work.results), out);
//
//     net.release();
//     net.send(in, 21);
//     any result;
//     net.receive(out, result);  // 42
//     net.acquire();
#ifndef OVEL_PETRI_NET_H
#define OVEL_PETRI_NET_H

#include "ovel_any.h"
#include "ovel_assure.h"
#include "ovel_atomic.h"
#include "ovel_channel.h"
#include "ovel_condition.h"
#include "ovel_frame.h"
#include "ovel_list.h"
#include "ovel_mutex.h"
#include "ovel_petri_rows.h"
#include "ovel_skip_list.h"
#include "ovel_thread.h"
#include "ovel_thread_function.h"
#include "ovel_thread_group.h"
#include "ovel_time.h"
#include "ovel_triple.h"

#include <algorithm>
#include <utility>

namespace ovel {

class firing;
class petri_arc;
class petri_net;
class petri_place;
class petri_transition;

namespace detail {

class enabled_transitions;
class net_core;
class petri_closing;
class petri_crew;
class petri_port;
struct petri_call;

// What ends a call of `net` that waits at a place, besides a token or a slot there. By default
// the call does not wait.
struct petri_patience {
    static constexpr unsigned int unlimited = ~0u;

    // Relaxed: the thread that changes them takes the net's mutex afterwards, and then ends
    // the calls whose patience is over.
    bool is_over() const {
        return (releases != nullptr && releases->load(std::memory_order_relaxed) != begun) ||
               (interrupted != nullptr && interrupted->load(std::memory_order_relaxed));
    }

    atomic<unsigned int> const* releases = nullptr;  // changes when the net lets its callers go
    unsigned int begun = 0;                          // what it was when the call began
    atomic<bool> const* interrupted = nullptr;       // whether this caller was asked to stop
    unsigned int milliseconds = 0;                   // the longest wait
};

// What such a call has come to.
enum class petri_outcome {
    done,
    ended,   // the place is closed: no token will come, or none is accepted
    over,    // its patience is over
    elapsed  // it has waited for as long as it may
};

}  // namespace detail

// Holds tokens up to its capacity, first in, first out. Nets create places and own them.
//
// Firing code calls the five operations on the places of its transition, and takes and
// puts exactly what the arcs say. From each input place it takes as many tokens as the
// arc's weight: each by `receive`, or by `receive_skip` to leave it there. On each output
// place it puts as many: each by `send`, or by `send_skip` to leave the slot empty. It
// may `peek` at input places. Taking or peeking without a token fails the check "_size !=
// 0", putting without room the check "_size != _capacity". None of the operations waits
// for a token or a slot, because those are reserved before the code runs. Every other
// thread uses the operations of `petri_net`. A call outside this contract corrupts the
// place's counts.
class OVEL_EXPORT petri_place {
public:
    // Throws std::bad_alloc.
    explicit petri_place(unsigned int capacity);
    ~petri_place();
    petri_place(petri_place const&) = delete;
    petri_place& operator=(petri_place const&) = delete;

    // The capacity in tokens.
    unsigned int capacity() const;

    // Copies the oldest token into `token`. Throws std::bad_alloc.
    void peek(any& token);

    // Moves the oldest token into `token`.
    void receive(any& token);

    // Appends a copy of `token`. Throws std::bad_alloc.
    void send(any const& token);

    // Leaves one of the tokens that the firing would take.
    void receive_skip();

    // Leaves one of the slots empty that the firing would fill.
    void send_skip();

private:
    friend class firing;
    friend class petri_arc;
    friend class petri_net;
    friend class detail::net_core;
    friend class detail::petri_closing;
    friend class detail::petri_port;
    friend struct detail::inspector;
    friend struct detail::petri_access;

    // Appends `token` itself, which is empty then.
    void _put(any&& token);

    // What no firing has reserved. Reads a copy of the capacity, because firing code
    // writes the cache line of the channel's.
    unsigned int tokens() const {
        return _size - _receive_size;
    }
    unsigned int slots() const {
        return _capacity - _send_size - _size;
    }
    bool receive_enabled(unsigned int size) const {
        return tokens() >= size;
    }
    bool send_enabled(unsigned int size) const {
        return slots() >= size;
    }

    // Begin a firing: reserve what it will take and put.
    void reserve_receive(unsigned int size) {
        _receive_size += size;
        assure(_size >= _receive_size);
    }
    void reserve_send(unsigned int size) {
        _send_size += size;
        if (_size + _send_size > _capacity)  // a copy; the check reads the channel's
            assure(_size + _send_size <= _channel.capacity());
    }

    // End a firing, which has taken and put everything but what it skipped. They do not
    // tell which of the firings in progress declared a skip; the counts are right once
    // all have ended. Return how many skips they settled.
    unsigned int commit_receive(unsigned int size) {
        assure(_receive_size >= size);
        _receive_size -= size;
        unsigned int const skips = _settle(_receive_skip, size);
        _size -= size - skips;
        return skips;
    }
    unsigned int commit_send(unsigned int size) {
        assure(_send_size >= size);
        _send_size -= size;
        unsigned int const skips = _settle(_send_skip, size);
        _size += size - skips;
        return skips;
    }

    // A firing that reads a token begins, or ends. The first of those that read at the same time
    // reserves a token, which stays in the place, and the last cancels that. Return whether this
    // one does.
    bool begin_reading() {
        return _readers++ == 0;
    }
    bool end_reading() {
        return --_readers == 0;
    }
    void withdraw_receive(unsigned int size) {
        _receive_size -= size;
    }
    // What the place has, to those that read.
    unsigned int readable() const {
        return tokens() + (_readers != 0);
    }

    // Cancels a reservation whose token was never put.
    void withdraw_send(unsigned int size) {
        _send_size -= size;
    }

    // No token comes any more, and none is there.
    bool ended() const {
        return _closed && _size == 0 && _send_size == 0;
    }

    // A token comes into a free slot, or leaves, without a reservation.
    void count_in() {
        ++_size;
    }
    void count_out() {
        --_size;
    }

    list<petri_arc*>& arcs() {
        return _arcs;
    }
    // Needs room in the side that the arc belongs to.
    inline void insert_arc(list<petri_arc*>::prepared&& arc);

    detail::petri_side& side(bool input) {
        return input ? _consumers : _producers;
    }

    // Subtracts up to `size` declared skips from the count, and returns how many.
    // Relaxed: a firing declares its skips before it ends, on the same thread, so it
    // finds at least its own.
    unsigned int _settle(detail::atomic<unsigned int>& skip, unsigned int size) {
        return skip.load(std::memory_order_relaxed) == 0 ? 0 : _settle_declared(skip, size);
    }
    unsigned int _settle_declared(detail::atomic<unsigned int>& skip, unsigned int size);

    bool inherited() const;
    void _assure_present() const;

    [[maybe_unused]] cacheline _before;
    channel _channel;  // under _mutex
    [[maybe_unused]] cacheline _between;
    // Under the net's mutex. `_receive_size` is at most `_size`, and `_size` plus
    // `_send_size` at most the capacity.
    unsigned int _size = 0;          // committed tokens
    unsigned int _receive_size = 0;  // of these, how many firings have reserved
    unsigned int _send_size = 0;     // free slots that firings have reserved
    unsigned int _readers = 0;       // firings that read; one token is reserved for all of them
    // Declared skips, not yet settled. Written under _mutex.
    detail::atomic<unsigned int> _receive_skip = 0;
    detail::atomic<unsigned int> _send_skip = 0;
    list<petri_arc*> _arcs;  // changes only while the net is stopped
    // Guards `_channel` and writes of `_receive_skip` and `_send_skip`. Taken after the
    // net's.
    mutex _mutex;
    unsigned int const _capacity;
    // The contents of `_arcs`, as the engine reads them.
    detail::petri_side _consumers;
    detail::petri_side _producers;
    // The net's, so that starting a net need not visit its places. Set before others see it.
    detail::atomic<unsigned int> const* _runner;
    // Under the net's mutex: callers of the net that want a token or a slot. A place that has
    // gained what they want is in a list until the mutex is released.
    detail::petri_callers _receivers;
    detail::petri_callers _senders;
    petri_place* _next_offered = nullptr;
    bool _is_offered = false;
    // Under the net's mutex, for nets of `ovel_petri.h`.
    bool _closed = false;
    bool _closes = false;     // closes once each transition that puts into it has ended
    bool _is_listed = false;  // is closed and to be looked at
    petri_place* _next_closed = nullptr;
    // Owned; set once, under the net's mutex. Null until callers need one.
    detail::atomic<detail::petri_port*> _port{nullptr};
};

// Connects a place and a transition in one direction. Its weight is the number of tokens
// that one firing takes or puts. Nets create arcs and own them. The address of a client's
// pointer to the place, the place reference, identifies the arc within its transition.
class OVEL_EXPORT petri_arc {
public:
    // For nets: see `petri_net::insert_input_arc`.
    petri_arc(bool input, petri_place* place, petri_transition* transition,
              petri_place*& place_reference, unsigned int size);

    // Whether it leads from place to transition; otherwise from transition to place.
    bool input() const;
    bool output() const;

    // Its ends, and the variable through which firing code reaches the place.
    petri_place* place() const;
    petri_transition* transition() const;
    petri_place*& place_reference() const;

    // The weight.
    unsigned int size() const;

private:
    friend class petri_net;
    friend class petri_transition;
    friend struct detail::inspector;

    bool enabled() const {
        return _input ? _place->receive_enabled(_size) : _place->send_enabled(_size);
    }

    bool _input;
    petri_place* _place;
    petri_transition* _transition;
    petri_place*& _place_reference;
    unsigned int _size;
};

inline bool detail::petri_access::enabled() const {
    return input ? place->receive_enabled(size) || (reads && place->_readers != 0)
                 : place->_size + place->_send_size <= room;
}

// The transition's end of an arc that does not exist yet. `input` and `output` of a
// transition return it, and `insert_input_arc` and `insert_output_arc` of a net take it.
class OVEL_EXPORT petri_connector {
public:
    // For transitions: see `petri_transition::input`.
    petri_connector(bool input, petri_transition* transition, petri_place*& place_reference,
                    unsigned int size, unsigned int capacity);

    // The same with another weight; the default is 1.
    petri_connector size(unsigned int size) const;

    // The same with another capacity, which no net reads.
    petri_connector capacity(unsigned int capacity) const;

    // The place at the other end of the arc made with this connector. Without such an arc
    // it fails the check "place != 0".
    inline petri_place* place() const;

private:
    friend class petri_net;
    friend struct detail::inspector;

    bool input() const {
        return _input;
    }
    bool output() const {
        return !_input;
    }
    petri_transition* transition() const {
        return _transition;
    }
    petri_place*& place_reference() const {
        return _place_reference;
    }
    unsigned int size() const {
        return _size;
    }
    unsigned int capacity() const {
        return _capacity;
    }

    bool _input;
    petri_transition* _transition;
    petri_place*& _place_reference;
    unsigned int _size;
    unsigned int _capacity;
};

// The code that runs when a transition fires. Derive from it, give it a `petri_place*`
// for each arc, and put the firing code into `operator()`; `petri_place` states the
// code's duties towards its places. It runs on a thread of the transition's group; for a
// reentrant transition one object may run on several threads at once. The client owns the
// object, which outlives the net and serves the transition that it was last inserted
// with. An exception that leaves the code fails the check "("unexpected exception", 0)".
class OVEL_EXPORT petri_function : public thread_function {
public:
    // A copy refers to the same transition until it is inserted with another.
    petri_function();
    petri_function(petri_function const&);
    petri_function& operator=(petri_function const&);
    ~petri_function() override;

    // The transition that runs this function; null if there is none yet.
    petri_transition* transition() const;

private:
    friend class petri_net;
    friend struct detail::inspector;

    void transition(petri_transition* transition) {
        _transition = transition;
    }

    petri_transition* _transition = nullptr;
};

// Fires when each input place has the tokens, and each output place the free slots, that
// its arcs need. Nets create transitions and own them. Only those that
// `insert_transition` returned may get arcs and be activated and deactivated.
class OVEL_EXPORT petri_transition : public thread_function {
public:
    // For nets, and for copies in their containers: see `petri_net::insert_transition`.
    petri_transition(petri_function& function, bool reentrant, double time, double space,
                     unsigned int group, petri_net* net);
    petri_transition(petri_transition const&);
    ~petri_transition() override;

    // The function that it runs.
    petri_function& function() const;

    // Whether several firings may run at once.
    bool reentrant() const;

    // How its group orders its firings (see `thread_group`), and which of several enabled
    // transitions is dispatched first: the one with the largest space, among equal spaces
    // the one with the longest time.
    double time() const;
    double space() const;

    // The index of the group that runs its firings.
    unsigned int group() const;

    // The net that it belongs to.
    petri_net* net() const;

    // The transition's end of an arc that `place_reference` identifies. The variable
    // outlives the net, and the net stores the place in it.
    petri_connector input(petri_place*& place_reference);
    petri_connector output(petri_place*& place_reference);

    // The net's `activate` and `deactivate` of this transition.
    void activate();
    void deactivate();

private:
    friend class petri_connector;
    friend class petri_net;
    friend class petri_queue_function;
    friend class detail::enabled_transitions;
    friend class detail::net_core;
    friend class detail::petri_closing;
    friend class detail::petri_crew;
    friend struct skip_list_order<petri_transition*>;
    friend struct detail::inspector;

    using position = skip_list<petri_transition*>::iterator;

    // Beyond `over` it begins no firing; once it has ended none is running either.
    enum class life : unsigned char { live, over, ended };

    bool activated() const {
        return _activated;
    }
    void activated(bool activated) {
        _activated = activated;
    }
    void enqueue(position where) {
        _iterator = where;
    }
    position dequeue() {
        position const where = _iterator;
        _iterator = position();
        return where;
    }
    bool queued() const {
        return _iterator != position();
    }
    unsigned int random() const {
        return _random;
    }
    void random(unsigned int random) {
        _random = random;
    }
    void begin_fire() {
        assure(_reentrant || _firing == 0);
        ++_firing;
    }
    void end_fire() {
        --_firing;
        assure(_reentrant || _firing == 0);
    }
    list<petri_arc*>& arcs() {
        return _arcs;
    }
    detail::row<detail::petri_access>& accesses() {
        return _accesses;
    }
    unsigned int rank() const {
        return _rank;
    }
    void rank(unsigned int rank) {
        _rank = rank;
    }

    inline bool enabled() const;
    petri_place* find_place(petri_place*& place_reference) const;
    unsigned int input_size() const;
    unsigned int output_size() const;
    void insert_arc(list<petri_arc*>::prepared&& arc);
    unsigned int _count(bool input) const;

    // The firing code, on a thread of the group.
    void operator()() override;

    // Initialised, because a transition can be copied.
    [[maybe_unused]] cacheline _before{};
    petri_function& _function;
    bool const _reentrant;
    double const _time;
    double const _space;
    unsigned int const _group;
    petri_net* const _net;
    // Under the net's mutex.
    bool _activated = true;
    unsigned int _firing = 0;  // firings initiated and not ended
    unsigned int _random = 1;  // drawn when it was last queued
    list<petri_arc*> _arcs;    // changes only while the net is stopped
    position _iterator;        // its place in the net's queue; null if it is not queued
    [[maybe_unused]] cacheline _after{};
    detail::row<detail::petri_access> _accesses;  // what `_arcs` says, as the engine reads it
    unsigned int _rank = 0;  // among the spaces and times of its group, the first to fire is 0
    // Under the net's mutex, for nets of `ovel_petri.h`.
    life _life = life::live;
    petri_place* _at_end = nullptr;  // gets a token when the transition has ended
    ovel::time _delay;               // how long it is enabled before it fires
    // The most firings that may be initiated and not ended. Under the net's mutex.
    unsigned int _most_firings;
};

inline bool petri_transition::enabled() const {
    return _activated && _firing < _most_firings &&
           std::all_of(_accesses.begin(), _accesses.end(),
                       [](detail::petri_access const& access) { return access.enabled(); });
}

inline void petri_place::insert_arc(list<petri_arc*>::prepared&& arc) {
    petri_arc const& inserted = *arc->value;
    side(inserted.input())
        .push_back({inserted.transition(), inserted.size(), inserted.transition()->reentrant(),
                    false, false});
    _arcs.push_back(std::move(arc));
}

inline petri_place* petri_connector::place() const {
    petri_place* const place = _transition->find_place(_place_reference);
    assure(place != 0);
    return place;
}

// Enabled transitions: largest space first, then longest time, then largest random
// number.
template <>
struct skip_list_order<petri_transition*> {
    // Whether `inserted` is dispatched before `queued`.
    static bool precedes(petri_transition* inserted, petri_transition* queued) {
        if (inserted->_space != queued->_space)
            return inserted->_space > queued->_space;
        if (inserted->_time != queued->_time)
            return inserted->_time > queued->_time;
        return inserted->_random > queued->_random;
    }
};

// The work of a net's queue thread. It dispatches what is enabled at the start, waits
// until the net is stopping and has come to rest, and ends the groups.
class OVEL_EXPORT petri_queue_function : public thread_function {
public:
    // For nets.
    explicit petri_queue_function(petri_net* net);
    petri_queue_function(petri_queue_function const&);
    petri_queue_function& operator=(petri_queue_function const&);
    ~petri_queue_function() override;

private:
    friend struct detail::inspector;

    void operator()() override;

    [[maybe_unused]] cacheline _before{};
    petri_net* _net;
    [[maybe_unused]] cacheline _after{};
};

// A net of places and transitions, and the threads that fire it.
//
// A new net is stopped. Only while it is stopped, one thread may build its structure:
// places, transitions, arcs. `release` starts it. From then on every transition fires
// whenever it is enabled and its group has a thread and the space free. Firings that do
// not compete for tokens or slots run at the same time. `acquire` stops the net once it
// has come to rest, that is, when no transition is enabled and no firing is in progress.
// `try_acquire` and `timed_acquire` request the same stop. If they return false, the net
// is stopping and continues until it rests; a later call completes the stop. A net that
// never rests stops only after its transitions were deactivated. Calls of these four
// operations on one net must not overlap, and no other operation of the net may run
// during `release`.
//
// Any thread may use tokens, `activate` and `deactivate` at any time. Tokens are copied
// and destroyed under the net's lock, so their code must not call the net; another thread
// that uses the net at that time may run it. Transitions take what they can before callers
// do, but every few gains of a place at which a caller is present go to callers first, so
// that they are not starved. While the transition at a place goes on firing, a caller that waits
// there may be left asleep for up to a millisecond until it finds several tokens, or slots, when
// it wakes up. What a thread wrote before it sent a token is visible to the firing or thread that
// takes the token.
// Firing code that calls the blocking `send` on a full place, or `receive` on an empty
// one, blocks a thread of its group, and for ever if no other firing makes room or a
// token.
class OVEL_EXPORT petri_net {
public:
    // One group of threads, one thread per processor, without space and so only for
    // transitions of space 0. `stack_size` is in bytes and also applies to the queue
    // thread; 524288 by default. The constructors throw std::bad_alloc.
    petri_net();
    explicit petri_net(unsigned int stack_size);

    // One group of `threads` threads with `space`.
    petri_net(unsigned int threads, double space, unsigned int stack_size);

    // One group for each (threads, space, stack size) of the range. The queue thread has
    // the stack size of the first. An empty range fails the check "_groups != 0".
    petri_net(triple<unsigned int, double, unsigned int> const* begin,
              triple<unsigned int, double, unsigned int> const* end);

    // Destroys places with their tokens, transitions and arcs. Fails the check "_acquired
    // && _queue_thread_acquired && _thread_group_acquireds == _groups" if the net is not
    // stopped, like every change of its structure. In a forked process, where its threads
    // do not exist, it abandons the net and its memory.
    ~petri_net();

    petri_net(petri_net const&) = delete;
    petri_net& operator=(petri_net const&) = delete;

    // Whether the net ran when this process was forked. Its threads then exist only in
    // the parent, and the net can only be destroyed; other operations on it and on its
    // places fail the check "!inherited()". Any thread may call this.
    bool inherited() const;

    // Building. If one of these throws std::bad_alloc, it has inserted nothing.

    // Inserts a place for `capacity` tokens (check "capacity != 0").
    petri_place* insert_place(unsigned int capacity);

    // Inserts a transition that runs `function`. `time` is positive; `space` is from 0 to
    // the space of its group, which is `group` (check "time > 0 && space >= 0 && group <
    // _groups"). With `reentrant` several firings may run at once.
    petri_transition* insert_transition(petri_function& function, bool reentrant, double time,
                                        double space, unsigned int group);

    // Insert an arc from `place` to the connector's transition, or from that transition
    // to `place`. The connector's variable receives the place. The weight is from 1 to
    // the place's capacity (check "connector.size() != 0 && connector.size() <=
    // place->capacity()"). The connector must have that direction (check
    // "connector.input()" or "connector.output()"). The arc must be the only one in its
    // direction between the two, and the only one of the transition with its variable.
    petri_arc* insert_input_arc(petri_place* place, petri_connector connector);
    petri_arc* insert_output_arc(petri_connector connector, petri_place* place);

    // The elements in the order of insertion.
    list<petri_place*>::iterator begin_places();
    list<petri_place*>::iterator end_places();
    list<petri_transition*>::iterator begin_transitions();
    list<petri_transition*>::iterator end_transitions();
    list<petri_arc*>::iterator begin_arcs();
    list<petri_arc*>::iterator end_arcs();

    // Allow a transition to fire, as it may from the beginning; and keep it from being
    // dispatched, while firings in progress run to their end. They block only for
    // internal locks. `activate` throws std::bad_alloc if it cannot queue the transition,
    // and may then be called again.
    void activate(petri_transition* transition);
    void deactivate(petri_transition* transition);

    // From now on the net dispatches a reentrant transition only while fewer than `firings`
    // of its firings run or wait for a thread (check "firings != 0"). Without a limit, each
    // firing that ends may have as many dispatched as its group has threads. Then more and
    // more wait while tokens and room last. Blocks only on internal locks. If it throws
    // std::bad_alloc, the transition is not queued, but the limit holds.
    void limit(petri_transition* transition, unsigned int firings);

    // Tokens. The blocking forms wait until the place has a token that no firing has
    // reserved, or a free slot, whether the net runs or not. The `try_` forms return
    // false instead. If they throw std::bad_alloc, they have changed nothing except as
    // stated for each. A transition that could not be queued is examined again when one
    // of its inputs gains tokens or one of its outputs gains slots, by `activate`, and by
    // `release`.
    //
    // Tokens are copied, moved and destroyed under the net's mutex, by the caller or by
    // another thread that uses the net. So that code does not use the net or depend on its
    // thread, takes no lock that a thread holds while it calls the net, and gets by with
    // the stack of a thread of the net's groups. The net outlives calls that have not
    // returned.

    // Copy the oldest token. After an exception `token` is empty.
    void peek(petri_place* place, any& token);
    [[nodiscard]] bool try_peek(petri_place* place, any& token);

    // Take the oldest token. An exception comes from queueing a transition that is now
    // enabled; the token is taken even then.
    void receive(petri_place* place, any& token);
    [[nodiscard]] bool try_receive(petri_place* place, any& token);

    // Put a copy of `token`. After an exception from copying it they have put nothing;
    // after one from queueing a transition they have put the token.
    void send(petri_place* place, any const& token);
    [[nodiscard]] bool try_send(petri_place* place, any const& token);

    // Starts the net. If it is not stopped, it fails the destructor's check; a transition
    // without arcs fails the check "(*i)->input_size() != 0 || (*i)->output_size() != 0".
    // If it throws std::bad_alloc, it has started nothing.
    void release();

    // Stops the net: blocks until it has come to rest, and joins its threads. A net that
    // is stopped fails the check "!_queue_thread_acquired || _thread_group_acquireds !=
    // _groups", here and below. Firing code of the net would wait for its own end, and
    // fails the check "!_runs_caller()".
    void acquire();

    // Begins the stop, and completes it if the net is at rest and its threads have ended.
    // Returns whether it has completed it.
    [[nodiscard]] bool try_acquire();

    // The same, but waits until `deadline`.
    [[nodiscard]] bool timed_acquire(time const& deadline);

private:
    friend class petri_queue_function;
    friend class petri_transition;
    friend class detail::net_core;
    friend struct detail::inspector;

    // Makes a token from what `from` points to, in an empty `any`.
    using maker = void (*)(any& token, void* from);

    class OVEL_HIDDEN change;
    class OVEL_HIDDEN engine;
    class OVEL_HIDDEN firing_work;
    class slot;
    class start;

    petri_net(unsigned int groups, unsigned int stack_size);
    void _assure_stopped() const;
    void _construct_groups(triple<unsigned int, double, unsigned int> const* groups);
    void _withdraw_start();

    petri_arc* _insert_arc(petri_place* place, petri_connector const& connector);

    void _enter();
    void _dispatch();
    void _leave();
    bool _await_rest();
    void _commit(detail::petri_call& call);
    petri_transition* _first_firing(firing_work& of);
    petri_transition* _next_firing(firing_work& of, petri_transition* ended);
    petri_transition* _next_firing_late(firing_work& of, petri_transition* ended);

    void _enqueue_initial_transitions();
    detail::petri_outcome _complete(detail::petri_call& call);
    detail::petri_outcome _complete_late(detail::petri_call& call);
    bool _perform(detail::petri_call& call);
    bool _carry_out(detail::petri_call& call);
    template <class Attempt>
    bool _pass(petri_place* place, bool may_wait, detail::petri_callers& callers,
               Attempt const& attempt);
    static void _remove_oldest(petri_place* place, any& token);
    static void _peek_oldest(petri_place* place, any& token);
    void _count_moved();
    void _receive(petri_place* place, any& token);
    void _send(petri_place* place, any const& token);

    // The operations of `net`. A token that is put is made under the net's lock; after any
    // exception nothing is put or taken. `_wake` ends the calls whose patience is over, at the
    // place if there is one.
    detail::petri_outcome _receive_within(petri_place* place, any& token,
                                          detail::petri_patience const& patience);
    detail::petri_outcome _put_within(petri_place* place, maker make, void* from,
                                      detail::petri_patience const& patience);
    bool _try_take(petri_place* place, any& token);
    bool _try_put(petri_place* place, maker make, void* from);
    void _take(petri_place* place, any& token);
    void _put(petri_place* place, maker make, void* from);
    void _wake();
    void _wake(petri_place* place);
    void _close(petri_place* place);
    void _insert_inhibitor(petri_place* place, petri_transition* transition);
    void _insert_reader(petri_place* place, petri_transition* transition);
    void _delay(petri_transition* transition, ovel::time const& delay);
    bool _ended(petri_place* place);
    unsigned int _tokens(petri_place* place);

    bool _runs_caller() const;
    template <class Join>
    bool _stop(Join join);
    template <class Join>
    bool _join_groups(Join join);

    // Guards `_firings`, `_acquired`, `_random`, `_queue`, and `_engine` except as stated
    // there; of a place `_size`, `_receive_size`, `_send_size` and the callers; of a
    // transition `_activated`, `_firing`, `_most_firings`, `_random`, `_iterator` and, from a
    // start to the stop, `_rank`. Taken before a place's mutex. Never held while firing code
    // runs or while the net calls a group.
    mutex _mutex;
    unsigned int const _groups;
    unsigned int _firings = 0;  // initiated and not ended, of all transitions
    bool _acquired = true;      // stopping or stopped
    unsigned int _random = 1;   // state of the generator
    // The progress of a stop. For the thread that starts and stops the net.
    bool _queue_thread_acquired = true;
    unsigned int _thread_group_acquireds;
    bool* _thread_group_acquired = nullptr;
    petri_queue_function _queue_function;
    thread _queue_thread;
    thread_group** _thread_groups = nullptr;
    list<petri_place*> _places;
    list<petri_transition*> _transitions;
    list<petri_arc*> _arcs;
    skip_list<petri_transition*> _queue;  // enabled transitions waiting for dispatch
    condition _condition;                 // the queue thread waits here, with `_mutex`
    engine* _engine = nullptr;            // owned
    // The process that runs the net; 0 while it is stopped. Written by the thread that
    // starts and stops it. Relaxed: it only tells a forked process from the one that set
    // it.
    detail::atomic<unsigned int> _runner{0};
};

}  // namespace ovel

#endif
