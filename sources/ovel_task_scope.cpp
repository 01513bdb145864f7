// SPDX-License-Identifier: Apache-2.0
// Scopes and seats: pushing children, stealing them, and waiting for them.
//
// Memory orders. `_top` and `_frames` change under the seat's `_lock`, which orders them;
// relaxed reads without it only choose where to look. Acquire loads of `_bottom` pair
// with the release in `push`: they see the pushed child and all that its opener wrote.
// Relaxed loads of a slot only skip empty ones; the exchange that follows decides.

#include "ovel_assure.h"
#include "ovel_guard.h"
#include "ovel_task.h"
#include "ovel_thread_support.h"

#include <algorithm>

namespace ovel::detail {

task_seat::task_seat(task_crew& crew, bool worker)
    : _crew(crew), _worker(worker), _lock(current_spin()) {}

void task_seat::_call() {
    _crew._call(*this);
}

// A child at `bottom` was stolen, so the next push there would be below `_top`. Waits
// until the thief is done with the deque.
void task_seat::_lower_top(unsigned int bottom) {
    task_crew const& crew = _crew;
    assure(!crew.inherited());
    guard const hold(_lock);
    if (_top.load(std::memory_order_relaxed) > bottom)
        _top.store(bottom, std::memory_order_relaxed);
}

// Whether there is a child to take. Without the lock, so the child may be gone.
bool task_seat::_has_task() const {
    unsigned int const end = _bottom.load(std::memory_order_acquire);
    for (unsigned int i = _top.load(std::memory_order_relaxed); i < end; ++i)
        if (_tasks[i].load(std::memory_order_relaxed) != nullptr)
            return true;
    return false;
}

// Takes the oldest child from slot `first` on; null if there is none. With the lock held.
task* task_seat::_take(unsigned int first) {
    unsigned int const end = _bottom.load(std::memory_order_acquire);
    for (unsigned int i = first; i < end; ++i) {
        if (_tasks[i].load(std::memory_order_relaxed) == nullptr)
            continue;
        if (task* const taken = _tasks[i].exchange(nullptr, std::memory_order_acq_rel)) {
            // Nothing is pushed at or below this slot until the owner has been here.
            if (first == _top.load(std::memory_order_relaxed))
                _top.store(i + 1, std::memory_order_relaxed);
            return taken;
        }
    }
    return nullptr;
}

// The same for a child that descends from `scope`. With the lock held.
task* task_seat::_take_below(scope_base const& scope) {
    task_frame const* outermost = nullptr;
    for (task_frame const* each = _frames.load(std::memory_order_relaxed);
         each != nullptr && each->scope->_descends_from(scope); each = each->outer)
        outermost = each;
    if (outermost == nullptr)
        return nullptr;
    return _take(std::max(outermost->mark, _top.load(std::memory_order_relaxed)));
}

bool task_crew::_has_task() const {
    for (task_seat const* each = _seats.load(std::memory_order_acquire); each != nullptr;
         each = each->_next)
        if (each->_may_have_task() && each->_has_task())
            return true;
    return false;
}

// Takes the oldest child of some thread. Returns null if there is none, or another thread
// is taking it.
task* task_crew::_steal(task_seat& seat) {
    task_seat* const first = seat._victim != nullptr ? seat._victim : &seat;
    task_seat* each = first;
    do {
        if (each->_may_have_task() && each->_lock.try_acquire()) {
            task* const taken = each->_take(each->_top.load(std::memory_order_relaxed));
            each->_lock.release();
            if (taken != nullptr) {
                seat._victim = each;
                return taken;
            }
        }
        each = each->_next != nullptr ? each->_next : _seats.load(std::memory_order_acquire);
    } while (each != first);
    return nullptr;
}

// The same for a child that descends from `scope`.
task* task_crew::_steal_below(task_seat& seat, scope_base const& scope) {
    for (task_seat* each = _seats.load(std::memory_order_acquire); each != nullptr;
         each = each->_next) {
        if (each == &seat || !each->_may_have_task() ||
            each->_frames.load(std::memory_order_relaxed) == nullptr)
            continue;
        guard const hold(each->_lock);
        if (task* const taken = each->_take_below(scope))
            return taken;
    }
    return nullptr;
}

bool scope_base::_descends_from(scope_base const& scope) const {
    scope_base const* each = this;
    while (each->_depth > scope._depth)
        each = each->_parent;
    return each == &scope;
}

// Counts a child that another thread took or pushed as ended. The scope may be gone then,
// but not the seat. The subtraction releases what the child wrote to the scope's opener.
void scope_base::_finish(scope_base& scope) {
    task_seat& opener = scope._seat;
    if (scope._pending.fetch_sub(2) == 3)
        opener._crew._wake(opener);
}

// Few children wait in their order, so that a chain of children, each of which adds the
// next one and others, leaves none behind. Beyond that the newest goes first: descending
// into a tree takes less memory than keeping a level of it.
void task_frame::add(listed_task& child) {
    if (_first == nullptr) {
        _first = _last = &child;
    } else if (_size < 64) {
        _last = _last->next = &child;
    } else {
        child.next = std::exchange(_first, &child);
    }
    ++_size;
}

listed_task* task_frame::take() {
    listed_task* const taken = _first;
    if (taken != nullptr) {
        _first = taken->next;
        --_size;
    }
    return taken;
}

// Runs a child apart from what the thread of `seat` is busy with, and then what the child
// pushed.
void scope_base::_run(task_seat& seat, task& child, bool stolen) {
    task_crew& crew = seat._crew;
    assure(!crew.inherited());
    // A child that runs at once may have been added from inside a scope of another group.
    task_seat* previous = &seat;
    if (!stolen)
        crew.enter(previous);
    scope_base& scope = child.scope;
    scope_base* const interrupted = std::exchange(seat._innermost, &scope);
    task_frame frame(scope, seat.bottom());
    {
        guard const hold(seat._lock);
        frame.outer = seat._frames.load(std::memory_order_relaxed);
        seat._frames.store(&frame, std::memory_order_relaxed);
    }
    // From now on other threads may want what this one pushes. Relaxed, both: hints.
    if (crew._asleep.load(std::memory_order_relaxed) != 0)
        seat._wanted.store(true, std::memory_order_relaxed);
    unsigned int const limit = seat._limit;
    // Children that the child pushes run in the loop below, instead of nesting inside
    // each other. 8 slots of the reserve are for them.
    seat._limit = std::min(task_seat::capacity, limit + 8);
    child.run(child, stolen);
    for (;;) {
        bool const pops = seat.bottom() != frame.mark;
        task* const own = pops ? seat.pop() : frame.take();
        if (own != nullptr) {
            own->run(*own, false);
            _finish(scope);
        } else if (!pops) {
            break;
        }
    }
    assure(!crew.inherited());  // the child may have forked
    seat._limit = limit;
    {
        guard const hold(seat._lock);
        seat._frames.store(frame.outer, std::memory_order_relaxed);
    }
    seat._innermost = interrupted;
    if (stolen)
        _finish(scope);
    else
        task_crew::leave(seat, previous);
}

void scope_base::_run_here(task_seat& seat, task& child) {
    _run(seat, child, false);
}

void scope_base::_fork_from(task_seat* seat, task& child) {
    if (seat == nullptr) {
        child.run(child, false);
        return;
    }
    // Below the children of an inner scope there is no room for a child of this scope.
    if (seat->_innermost != this) {
        _run(*seat, child, false);
        return;
    }
    task_frame* const frame = seat->_frames.load(std::memory_order_relaxed);
    if (frame == nullptr || frame->scope != this) {
        _fork(child);
        return;
    }
    // Relaxed: the child that runs here stays counted until this thread has counted the
    // new one.
    _pending.fetch_add(2, std::memory_order_relaxed);
    if (seat->push(child))
        return;
    // Where all the reserve is in use, children must not nest any deeper.
    if (seat->_limit == task_seat::capacity) {
        frame->add(static_cast<listed_task&>(child));
        return;
    }
    _run(*seat, child, false);
    _finish(*this);
}

void scope_base::_wait(unsigned int stolen) {
    task_crew& crew = _seat._crew;
    assure(!crew.inherited());
    _pending.fetch_add(2 * static_cast<int>(stolen));
    while (_pending.load(std::memory_order_acquire) >= 2) {
        task* found = crew._steal_below(_seat, *this);
        if (found == nullptr) {
            crew._starve(_seat);
            found = crew._poll_for(_seat, *this);
            if (found == nullptr && _pending.load(std::memory_order_acquire) >= 2)
                found = crew._sleep_for(_seat, *this);
            crew._feed(_seat);
        }
        if (found != nullptr)
            _run(_seat, *found, true);
    }
}

}  // namespace ovel::detail
