// SPDX-License-Identifier: Apache-2.0
// The threads of a group as a net sees them.
#ifndef OVEL_PETRI_CREW_H
#define OVEL_PETRI_CREW_H

#include "ovel_petri_net.h"
#include "ovel_petri_ready_firings.h"

#include <memory>

namespace ovel::detail {

// The firings of a group that are initiated and have not ended, and the threads of the
// group that run them.
//
// A firing is ready until a thread takes it, and then runs until that thread asks for the
// next one. A thread is idle in its group until it is called; it comes, runs one firing
// after the other, and leaves when none that is ready fits. No more than one thread that
// was called is still on its way; it sees to the next one once it has come.
//
// Invariant: the space left is the budget less what the running firings take, up to
// rounding, and exactly the budget when none of those takes any. So a firing that takes
// all of it fits sooner or later.
//
// Each pair of a space and a time that a transition of the group has is a rank: the
// largest space first, of equal spaces the longest time.
//
// Not thread safe: all under the net's mutex.
class petri_crew {
public:
    // For the transitions from `begin` to `end`, sorted by rank, which it gives their
    // ranks. Throws std::bad_alloc.
    petri_crew(unsigned int threads, double budget, petri_transition* const* begin,
               petri_transition* const* end)
        : _budget(budget), _space(budget), _threads(threads), _ready(_rank(begin, end)) {}

    // A firing has been initiated. Throws std::bad_alloc.
    void insert(petri_transition* transition) {
        _ready.insert(transition->_rank, transition);
    }

    // The firing that a thread runs next; null if none fits, and the thread has left. It
    // has ended the firing `ended`, or has just come if that is null.
    petri_transition* next(petri_transition* ended) {
        if (ended != nullptr)
            _give_back(ended->_space);
        else
            _coming = false;
        petri_transition* const taken = _ready.take(_space);
        if (taken == nullptr)
            --_called;
        else
            _take(taken->_space);
        return taken;
    }

    // Counts one more thread as called, and returns whether there was reason to: then the
    // caller calls one.
    bool begin_call() {
        if (_coming || _called == _threads || !_ready.fits(_space))
            return false;
        _coming = true;
        ++_called;
        return true;
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
    double _space;                // left
    unsigned int _occupants = 0;  // running firings that take space
    unsigned int _threads;
    unsigned int _called = 0;  // threads called and not gone
    bool _coming = false;      // one of them has not come
    ready_firings _ready;
};

}  // namespace ovel::detail

#endif
