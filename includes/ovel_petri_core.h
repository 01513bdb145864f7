// SPDX-License-Identifier: Apache-2.0
// What a net of `ovel_petri.h` is made of, and how the threads outside wait at its places. For
// that header only.
#ifndef OVEL_PETRI_CORE_H
#define OVEL_PETRI_CORE_H

#include "ovel_any.h"
#include "ovel_atomic.h"
#include "ovel_mutex.h"
#include "ovel_petri_callers.h"
#include "ovel_petri_explain.h"
#include "ovel_petri_net.h"
#include "ovel_petri_record.h"
#include "ovel_std.h"
#include "ovel_thread_base.h"
#include "ovel_trace.h"
#include "ovel_triple.h"

#include <cstddef>
#include <exception>
#include <memory>
#include <mutex>
#include <stop_token>
#include <string>
#include <utility>
#include <vector>

namespace ovel::detail {

// The net, the records of its elements, and its blocked callers.
class net_core {
public:
    // Makes the token of a value in its place.
    using maker = petri_net::maker;

    template <class... Arguments>
    explicit net_core(Arguments... arguments) : _net(arguments...) {}

    // Stops a net that runs, without waiting for it to rest, and lets its callers go. In a
    // fork, where its threads or its callers do not exist, it only goes out of use.
    ~net_core() {
        if (_net.inherited())
            return;
        if (_callers.process() != process_number() && (_callers.are_inherited() || !_is_free())) {
            _abandon();
            return;
        }
        halt(true);
        if (_running)
            _net.acquire();
        std::lock_guard const hold(_lock);
        _callers.wait_unblocked();
    }

    net_core(net_core const&) = delete;
    net_core& operator=(net_core const&) = delete;

    petri_net& base() {
        return _net;
    }

    // Building, as `net` has it.
    inline place_record* insert_place(std::string&& name, unsigned int capacity, bool closes);
    inline void insert(std::unique_ptr<transition_record> inserted, bool reentrant, double time,
                       double space, unsigned int group, ovel::time const& delay);
    // The same for one that fires once, when `of` has ended and its `mark_place` gets a token.
    inline void insert_at_end(transition_record& of, std::unique_ptr<transition_record> inserted,
                              double time, double space, unsigned int group);

    inline void activate(transition_record& activated);
    inline void deactivate(transition_record& deactivated);

    void start();
    void join();
    template <class Point>
    bool join_until(Point const& point);
    void halt(bool is_final = false);
    void fail(std::exception_ptr failure);
    void let_go();

    // What bodies poll: requested when the net halts or fails.
    std::stop_token stop_token() const {
        return _stop.get_token();
    }
    // The net gets one. While it is stopped.
    void make_stop_source() {
        auto const hold = _hold();
        if (!_stop.stop_possible())
            _renew_stop_source();
    }

    // Operations of places, with how long they wait: `without_limit`, a std::stop_token, or a
    // point in time, whatever `deadline` accepts.
    struct without_limit {};
    template <class Limit>
    bool receive(place_record& from, any& token, Limit const& limit);
    template <class Limit>
    bool put(place_record& to, maker make, void* value, Limit const& limit);
    bool try_receive(place_record& from, any& token) {
        _note_process();
        return _net._try_take(from.element, token);
    }
    bool try_put(place_record& to, maker make, void* value) {
        _note_process();
        return _net._try_put(to.element, make, value);
    }
    void close(place_record& closed) {
        _note_process();
        _net._close(closed.element);
    }
    bool ended(place_record& asked) {
        return _net._ended(asked.element);
    }
    unsigned int tokens(place_record& asked) {
        return _net._tokens(asked.element);
    }

    inline explanation explain();

private:
    friend class ovel::firing;
    friend class ovel::net;
    friend class ovel::transition;
    friend class transition_record;
    friend struct inspector;

    // Takes `_lock` for the length of a scope.
    [[nodiscard]] std::lock_guard<lockable<mutex>> _hold();

    // Has room for one more.
    template <class Record>
    static void _make_room(std::vector<std::unique_ptr<Record>>& in) {
        if (in.size() == in.capacity())
            in.reserve(2 * in.size() + 1);
    }

    template <class Limit, class Attempt>
    petri_outcome _complete(place_record& at, net_callers::kind of, Limit const& limit,
                            Attempt const& attempt);
    template <class Limit, class Attempt>
    petri_outcome _wait(place_record& at, net_callers::kind of, Limit const& limit,
                        Attempt const& attempt);
    template <class Attempt>
    petri_outcome _within(place_record&, without_limit, Attempt const& attempt) {
        return attempt(petri_patience::unlimited, nullptr);
    }
    template <class Attempt>
    petri_outcome _within(place_record& at, std::stop_token const& token, Attempt const& attempt);
    template <class Point, class Attempt>
    petri_outcome _within(place_record& at, Point const& point, Attempt const& attempt);
    void _insert_arcs(transition_record& of);
    // Swaps, since gcc 12 gives a warning for an assignment.
    void _renew_stop_source() {
        std::stop_source made;
        _stop.swap(made);
    }
    void _deactivate();
    void _end();

    void _note_process() {
        if (!_callers.note_process()) [[unlikely]]
            _abandon();
    }
    // In a fork: the net is its parent's from now on, which its operations check.
    void _abandon() {
        _net._runner.store(_callers.process(), std::memory_order_relaxed);
    }

    // In a fork: whether no thread of its parent held the net's mutex.
    bool _is_free() {
        if (!_net._mutex.try_acquire())
            return false;
        _net._mutex.release();
        return true;
    }

    // Guards `_callers`, `_halted`, which is read without it as well, `_started`, the records,
    // which other threads look at while the net is built, and whether each is active. Lock order:
    // `_lock`, then what the net locks.
    lockable<mutex> _lock;
    net_callers _callers{_lock};
    atomic<bool> _halted{false};
    bool _started = false;
    bool _running = false;  // owner only
    // Replaced while the net is stopped only.
    std::stop_source _stop{std::nostopstate};
    std::vector<std::unique_ptr<place_record>> _places;
    std::vector<std::unique_ptr<transition_record>> _transitions;
    petri_net _net;  // the last: its elements refer to the records
};

// Joins a net that comes to rest before `point`, whatever `deadline` accepts.
template <class Point>
bool join_until(petri_net& stopped, Point const& point) {
    return attempt_until(point, [&stopped](unsigned int milliseconds) {
        return stopped.timed_acquire(from_now(milliseconds / 1000.0L));
    });
}

inline place_record* net_core::insert_place(std::string&& name, unsigned int capacity,
                                            bool closes) {
    auto const hold = _hold();
    _make_room(_places);
    std::unique_ptr<place_record> inserted(new place_record{
        this, trace::shared_name(std::move(name)), _net.insert_place(capacity), _places.size()});
    inserted->element->_closes = closes;
    _places.push_back(std::move(inserted));
    return _places.back().get();
}

inline void net_core::insert(std::unique_ptr<transition_record> inserted, bool reentrant,
                             double time, double space, unsigned int group,
                             ovel::time const& delay) {
    transition_record& record = *inserted;
    {
        // A record that is listed has its element.
        auto const hold = _hold();
        _make_room(_transitions);
        record.element = _net.insert_transition(record, reentrant, time, space, group);
        _transitions.push_back(std::move(inserted));
    }
    if (delay != ovel::time())
        _net._delay(record.element, delay);
    _insert_arcs(record);
}

inline void net_core::insert_at_end(transition_record& of,
                                    std::unique_ptr<transition_record> inserted, double time,
                                    double space, unsigned int group) {
    transition_record& at_end = *inserted;
    insert(std::move(inserted), false, time, space, group, {});
    auto const hold = _hold();
    lockable view(_net._mutex);
    std::lock_guard const hold_net(view);
    of.at_end = &at_end;
    of.element->_at_end = at_end.mark_place->element;
}

inline void net_core::activate(transition_record& activated) {
    auto const hold = _hold();
    for (transition_record* each = &activated; each != nullptr; each = each->at_end) {
        each->active = true;
        // Relaxed: it changes under the lock.
        if (!_halted.load(std::memory_order_relaxed))
            each->element->activate();
    }
}

inline void net_core::deactivate(transition_record& deactivated) {
    auto const hold = _hold();
    for (transition_record* each = &deactivated; each != nullptr; each = each->at_end) {
        each->active = false;
        each->element->deactivate();
    }
}

inline void net_core::start() {
    _note_process();
    {
        auto const hold = _hold();
        if (_callers.has_failed())
            _callers.wait_unblocked();
        // Relaxed: it changes under the lock.
        if (_halted.load(std::memory_order_relaxed)) {
            for (auto const& record : _transitions)
                if (record->active)
                    record->element->activate();
            // The thread that halted it may have yet to request the stop.
            if (_stop.stop_possible())
                _renew_stop_source();
        }
        // What fails it from here on holds for this run.
        _callers.forget_failure();
        _callers.shut(false);
        _halted = false;
        _started = true;
    }
    try {
        _net.release();
    } catch (...) {
        auto const hold = _hold();
        _started = false;
        _callers.shut(false);
        throw;
    }
    _running = true;
}

inline void net_core::join() {
    _net.acquire();
    _end();
}

template <class Point>
bool net_core::join_until(Point const& point) {
    if (!detail::join_until(_net, point))
        return false;
    _end();
    return true;
}

// The threads have been joined.
inline void net_core::_end() {
    _running = false;
    {
        auto const hold = _hold();
        _started = false;
        _callers.shut(false);
    }
    if (std::exception_ptr const failure = _callers.await_unblocked())
        std::rethrow_exception(failure);
}

inline void net_core::halt(bool is_final) {
    std::stop_source stop{std::nostopstate};
    {
        auto const hold = _hold();
        _deactivate();
        _callers.shut(_started || is_final);
        _callers.let_go();
        _net._wake();
        stop = _stop;
    }
    // Without the lock: callbacks may use the net.
    stop.request_stop();
}

inline void net_core::fail(std::exception_ptr failure) {
    std::stop_source stop{std::nostopstate};
    {
        auto const hold = _hold();
        if (_callers.has_failed())
            return;
        _callers.fail(std::move(failure));
        _deactivate();
        _net._wake();
        stop = _stop;
    }
    stop.request_stop();
}

// Has the threads that are blocked leave.
inline void net_core::let_go() {
    auto const hold = _hold();
    _callers.let_go();
    _net._wake();
}

// The caller holds `_lock`.
inline void net_core::_deactivate() {
    _halted = true;
    for (auto const& record : _transitions)
        record->element->deactivate();
}

// Makes an attempt at a place and waits if that has to.
//
// A first attempt that does not wait needs no count, but a thread that finds the net's mutex
// taken would have both attempts carried out by another thread. So without a limit the thread
// counts as blocked before it knows, and makes one attempt. A trace shows only real waits.
template <class Limit, class Attempt>
petri_outcome net_core::_complete(place_record& at, net_callers::kind of, Limit const& limit,
                                  Attempt const& attempt) {
    _note_process();
    if (std::is_same_v<Limit, without_limit> && !trace::recorder::_is_active()) {
        net_callers::blocked const counted(_callers, of);
        if (counted.is_let_in()) {
            petri_outcome const made = attempt(petri_patience{&_callers.releases(), counted.begun(),
                                                              nullptr, petri_patience::unlimited});
            if (made != petri_outcome::done)
                _callers.rethrow_failure();
            return made;
        }
    }
    petri_outcome const made = attempt(petri_patience());
    return made == petri_outcome::done ? made : _wait(at, of, limit, attempt);
}

// Waits at a place, in attempts that are given the milliseconds that they may wait and the
// flag that interrupts them.
template <class Limit, class Attempt>
petri_outcome net_core::_wait(place_record& at, net_callers::kind of, Limit const& limit,
                              Attempt const& attempt) {
    trace::scope const here(at.name, trace::wait);
    net_callers::blocked counted(_callers, of);
    counted.insist();
    petri_outcome made = petri_outcome::over;
    if (counted.is_let_in())
        made = _within(at, limit, [&](unsigned int milliseconds, atomic<bool> const* interrupted) {
            return attempt(
                petri_patience{&_callers.releases(), counted.begun(), interrupted, milliseconds});
        });
    if (made != petri_outcome::done)
        _callers.rethrow_failure();
    return made;
}

// A thread that asks to stop ends the calls at the place whose patience is over. It has done so
// when the callback has been destroyed, and then uses the net no more. A call that was asked to
// stop before is one that does not wait, so that a thread that makes it again and again gets its
// turn.
template <class Attempt>
petri_outcome net_core::_within(place_record& at, std::stop_token const& token,
                                Attempt const& attempt) {
    if (token.stop_requested())
        return attempt(0, nullptr);
    atomic<bool> interrupted{false};
    std::stop_callback const wakes(token, [&] {
        interrupted = true;
        _net._wake(at.element);
    });
    return attempt(petri_patience::unlimited, &interrupted);
}

template <class Point, class Attempt>
petri_outcome net_core::_within(place_record&, Point const& point, Attempt const& attempt) {
    petri_outcome made = petri_outcome::elapsed;
    static_cast<void>(attempt_until(point, [&](unsigned int milliseconds) {
        made = attempt(milliseconds, nullptr);
        return made != petri_outcome::elapsed;
    }));
    return made;
}

template <class Limit>
bool net_core::receive(place_record& from, any& token, Limit const& limit) {
    return _complete(from, net_callers::kind::receiver, limit, [&](petri_patience const& patience) {
               return _net._receive_within(from.element, token, patience);
           }) == petri_outcome::done;
}

template <class Limit>
bool net_core::put(place_record& to, maker make, void* value, Limit const& limit) {
    return _complete(to, net_callers::kind::sender, limit, [&](petri_patience const& patience) {
               return _net._put_within(to.element, make, value, patience);
           }) == petri_outcome::done;
}

inline explanation net_core::explain() {
    explanation made;
    auto const hold = _hold();
    lockable view(_net._mutex);
    std::lock_guard const hold_net(view);
    _net._count_moved();
    // Relaxed: the first changes under the lock, and the second as the net starts and stops.
    made.halted = _halted.load(std::memory_order_relaxed);
    made.running = _net._runner.load(std::memory_order_relaxed) != 0;
    for (auto const& record : _places) {
        petri_place const& place = *record->element;
        made.places.push_back({record->name.text(), place.readable(),
                               place._receive_size - (place._readers != 0), place._send_size,
                               place._capacity, place._closed, place.ended(), place._readers});
    }
    for (auto const& record : _transitions) {
        if (record->mark_place != nullptr)
            continue;
        using life = petri_transition::life;
        bool const flushes = record->at_end != nullptr && record->element->_life == life::ended;
        transition_record const& shown = flushes ? *record->at_end : *record;
        petri_transition const& element = *shown.element;
        bool const ended = element._life == life::ended;
        made.transitions.push_back({record->name.text(),
                                    record->active,
                                    ended,
                                    flushes && !ended,
                                    element.queued() && element._delay != ovel::time(),
                                    element._firing >= element._most_firings,
                                    element._firing,
                                    {}});
        auto& arcs = made.transitions.back().arcs;
        for (arc_record const& arc : shown.arcs) {
            if (arc.place == shown.mark_place)
                continue;
            petri_place const& place = *arc.place->element;
            arcs.push_back({arc.place->index, arc.input, arc.weight,
                            arc.reads   ? place.readable()
                            : arc.input ? place.tokens()
                                        : place.slots(),
                            !arc.input && place._closed, false, arc.reads});
        }
        for (place_record const* inhibitor : shown.inhibitors) {
            petri_place const& place = *inhibitor->element;
            arcs.push_back(
                {inhibitor->index, false, place._capacity, place.slots(), false, true, false});
        }
    }
    return made;
}

}  // namespace ovel::detail

#endif
