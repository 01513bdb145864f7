// SPDX-License-Identifier: Apache-2.0
// The threads of a group, as a net sees them.
#ifndef OVEL_PETRI_CREW_H
#define OVEL_PETRI_CREW_H

#include "ovel_petri_call.h"
#include "ovel_petri_net.h"
#include "ovel_petri_ready_firings.h"

#include <memory>
#include <utility>

namespace ovel::detail {

// A group's firings that were initiated and have not ended, and the threads of the group
// that run them.
//
// A firing is ready until a thread takes it, and then runs until that thread asks for the
// next one. A thread is idle in its group until it is called. It then arrives, runs one
// firing after another, and leaves when no ready firing fits. At most one called thread
// has not arrived yet; once it arrives, it causes the next call.
//
// A thread whose firing another one has committed stands by: it takes its next firing when it gets
// the mutex, for which it waits at most a millisecond asleep. While a thread stands by and others
// run firings, no thread is called. If all stand by, one of them is needed, and is then on its way
// like a called one.
//
// Invariant: the space left is the budget minus what the running firings take, up to
// rounding, and exactly the budget if none of them takes any. So a firing that takes all
// of it fits sooner or later.
//
// Each pair of space and time among the transitions of the group is a rank: largest space
// first, among equal spaces longest time first.
//
// Not thread safe: every call is under the net's mutex.
class petri_crew {
public:
    // For the transitions from `begin` to `end`, which are sorted by rank; assigns their
    // ranks. Throws std::bad_alloc.
    petri_crew(unsigned int threads, double budget, petri_transition* const* begin,
               petri_transition* const* end)
        : _budget(budget), _space(budget), _threads(threads), _ready(_rank(begin, end)) {}

    // Adds an initiated firing. Throws std::bad_alloc.
    void insert(petri_transition* transition) {
        _ready.insert(transition->_rank, transition);
    }

    // The called thread has arrived.
    void arrive() {
        _coming = false;
    }

    // A firing has ended.
    void give_back(petri_transition* ended) {
        _give_back(ended->_space);
    }

    // The thread of the call, which has no firing, stands by.
    void stand_by(petri_call& call) {
        call.next = std::exchange(_standing, &call);
        call.is_standing = true;
        ++_standing_size;
    }
    // It does no more.
    void resume(petri_call& call) {
        petri_call** at = &_standing;
        while (*at != &call)
            at = &(*at)->next;
        *at = call.next;
        --_standing_size;
    }

    // Returns the firing that a thread runs next, which has none; null if none fits, and the
    // thread has then left.
    petri_transition* next() {
        petri_transition* const taken = _ready.take(_space);
        if (taken == nullptr)
            --_called;
        else
            _take(taken->_space);
        return taken;
    }

    // Before a thread gives back a firing and asks for the next one.
    void prefetch() const {
        _ready.prefetch();
    }

    // Whether another thread is needed. The caller then calls one that stands by, if there are
    // any, or else a new one.
    bool needs_thread() const {
        return !_coming &&
               (_standing == nullptr ? _called != _threads : _standing_size == _called) &&
               _ready.fits(_space);
    }
    // Whether one that stands by can be called.
    bool has_standing() const {
        return _standing != nullptr && !_coming;
    }
    // Counts one as on its way, and returns its call.
    petri_call& call_standing() {
        _coming = true;
        --_standing_size;
        return *std::exchange(_standing, _standing->next);
    }
    void call_new() {
        _coming = true;
        ++_called;
    }
    // A thread that has left comes back without a call.
    void come_back() {
        ++_called;
    }

private:
    friend struct inspector;

    static ready_firings _rank(petri_transition* const* begin, petri_transition* const* end) {
        auto const size = static_cast<unsigned int>(end - begin);
        std::unique_ptr<double[]> const spaces(new double[size]);
        unsigned int ranks = 0;
        for (petri_transition* const* each = begin; each != end; ++each) {
            if (each == begin || (*each)->_space != each[-1]->_space ||
                (*each)->_time != each[-1]->_time)
                spaces[ranks++] = (*each)->_space;
            (*each)->rank(ranks - 1);
        }
        return {spaces.get(), ranks, size};
    }

    void _take(double space) {
        _space -= space;
        _occupants += space != 0;
    }
    // Fractions of a budget need not add up to it again.
    void _give_back(double space) {
        _space += space;
        if (space != 0 && --_occupants == 0)
            _space = _budget;
    }

    double _budget;
    double _space;                // the space left
    unsigned int _occupants = 0;  // running firings that take space
    unsigned int _threads;
    unsigned int _called = 0;         // threads called that have not left
    bool _coming = false;             // one of them has not arrived
    petri_call* _standing = nullptr;  // of the threads that stand by, the last one first
    unsigned int _standing_size = 0;
    ready_firings _ready;
};

}  // namespace ovel::detail

#endif
