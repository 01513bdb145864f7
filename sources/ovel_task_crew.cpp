// SPDX-License-Identifier: Apache-2.0
// The threads of a crew: queued work items, sleeping and waking.
//
// One worker at a time is the searching one: it polls, or was woken and has not found
// work yet. When it finds work, it wakes the next worker if there is more. So no other
// worker needs to poll. While no worker searches and one sleeps, every seat is `_wanted`:
// the next push into it calls. A thread that is about to sleep sets the flags and then
// looks once more. So either that look finds a pushed child, or the child's owner calls.
//
// A waiter sleeps with the scope that it waits for. It is woken for a child that descends
// from that scope, even while a worker searches, and when the last child of the scope
// ends.
//
// Lock order: no thread holds `_mutex` and a seat's `_lock` together.

#include "ovel_allocator_group.h"
#include "ovel_assure.h"
#include "ovel_guard.h"
#include "ovel_once.h"
#include "ovel_process.h"
#include "ovel_spin_wait.h"
#include "ovel_task.h"
#include "ovel_thread_function.h"
#include "ovel_thread_support.h"
#include "ovel_work_queue.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <new>
#include <utility>

namespace ovel::detail {

namespace {

// The thread-local slot for each thread's current seat, created with the first crew of the
// process. Release and acquire: a thread that reads the index may use the slot.
unsigned int volatile slot_created = 0;
constinit atomic<DWORD> seat_slot{TLS_OUT_OF_INDEXES};

void create_slot() {
    DWORD const index = TlsAlloc();
    assure(index != 0xffffffff);
    seat_slot.store(index, std::memory_order_release);
}

void set_current_seat(task_seat* value) {
    DWORD const index = seat_slot.load(std::memory_order_acquire);
    assure(TlsSetValue(index, value) != 0);
}

}  // namespace

// A thread of the crew and the work that it runs.
class task_crew::worker : public thread_function {
public:
    void start(task_crew& crew, unsigned int stack_size) {
        _crew = &crew;
        _seat = &crew._add_seat(true, 0);
        _thread = new thread(stack_size);
    }
    void release() {
        _thread->schedule(*this);
        _thread->release();
    }
    void acquire() {
        _thread->acquire();
    }
    ~worker() override {
        delete _thread;
    }

    void operator()() override {
        // Relaxed: only this thread looks for its own identifier.
        _seat->_owner.store(GetCurrentThreadId(), std::memory_order_relaxed);
        set_current_seat(_seat);
        _crew->_work(*_seat);
        set_current_seat(nullptr);
        _seat->_owner.store(0, std::memory_order_relaxed);
    }

private:
    task_crew* _crew = nullptr;
    task_seat* _seat = nullptr;
    thread* _thread = nullptr;
};

task_crew::task_crew(unsigned int threads, double space, unsigned int stack_size, void* owner)
    : _threads(threads),
      _budget(space),
      _owner(owner),
      _spin(current_spin()),
      _mutex(_spin),
      _space(space),
      _runner(this_process()) {
    assure(_threads != 0 && space >= 0);
    call_once(create_slot, slot_created);
    try {
        _build(stack_size);
    } catch (std::bad_alloc const&) {
        _destroy();
        throw;
    }
    for (unsigned int i = 0; i != _threads; ++i)
        _workers[i].release();
}

// In a fork the queue may be half changed, and the threads' objects are in use.
task_crew::~task_crew() {
    if (inherited())
        std::construct_at(&_queue);
    else
        _destroy();
}

bool task_crew::inherited() const {
    return is_inherited(_runner.load(std::memory_order_relaxed));
}

void task_crew::_build(unsigned int stack_size) {
    _workers = new worker[_threads];
    for (unsigned int i = 0; i != _threads; ++i)
        _workers[i].start(*this, stack_size);
}

void task_crew::_destroy() {
    delete[] _workers;
    while (task_seat* const seat = _seats.load(std::memory_order_relaxed)) {
        _seats.store(seat->_next, std::memory_order_relaxed);
        delete seat;
    }
}

bool task_crew::queue(queued_item& item, double time, double space) {
    assure(!inherited());
    assure_schedulable(time, space, _budget);
    auto element = items::prepare({&item, time, space}, _level.load(std::memory_order_relaxed));
    task_seat* woken = nullptr;
    {
        patient_guard const hold(_mutex, _spin);
        if (_stopped)
            return false;
        _queue.insert(element);
        _level.store(_queue.next_level(), std::memory_order_relaxed);
        ++_unfinished;
        _news.store(_news.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        if (!_searching && _sleepers != nullptr && has_fitting_work(_queue, _space))
            woken = _find_worker();
    }
    if (woken != nullptr)
        woken->_wake.release();
    return true;
}

void task_crew::stop() {
    assure(!inherited());
    guard const hold(_mutex);
    _stopped = true;
}

bool task_crew::runs_caller() {
    task_seat const* const seat = find_seat();
    if (seat == nullptr)
        return false;
    // What a thread of no crew runs for a worker is the worker's work.
    bool runs = seat->_worker;
    for (task_frame const* each = seat->_frames.load(std::memory_order_relaxed);
         each != nullptr && !runs; each = each->outer)
        runs = each->scope->_seat._worker;
    return runs;
}

template <class Wait>
bool task_crew::_wait(bool then_stops, Wait const& wait) {
    assure(!inherited());
    guard const hold(_mutex);
    while (_unfinished != 0)
        if (!wait())
            return false;
    _stopped = _stopped || then_stops;
    return true;
}

void task_crew::wait(bool then_stops) {
    _wait(then_stops, [this] {
        _idle.acquire(_mutex);
        return true;
    });
}

// Waits once: the caller computes the time that is left after a wake-up.
bool task_crew::timed_wait(unsigned int milliseconds, bool then_stops) {
    return _wait(then_stops, [this, milliseconds] {
        static_cast<void>(_idle.timed_acquire(_mutex, milliseconds));
        return _unfinished == 0;
    });
}

void task_crew::end() {
    task_seat* woken = nullptr;
    {
        guard const hold(_mutex);
        _concluded = true;
        _news.store(_news.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        woken = _find_worker();
    }
    if (woken != nullptr)
        woken->_wake.release();
    for (unsigned int i = 0; i != _threads; ++i)
        _workers[i].acquire();
    _runner.store(0, std::memory_order_relaxed);
}

task_seat* task_crew::current_seat() {
    // Relaxed: a thread that has a seat has seen the slot's creation.
    return static_cast<task_seat*>(TlsGetValue(seat_slot.load(std::memory_order_relaxed)));
}

void task_crew::forget_seat() {
    if (seat_slot.load(std::memory_order_relaxed) != TLS_OUT_OF_INDEXES)
        set_current_seat(nullptr);
}

task_seat* task_crew::find_seat() {
    task_seat* const current = current_seat();
    if (current != nullptr && &current->_crew == this)
        return current;
    unsigned long const me = GetCurrentThreadId();
    task_seat* seat = _seats.load(std::memory_order_acquire);
    while (seat != nullptr && seat->_owner.load(std::memory_order_relaxed) != me)
        seat = seat->_next;
    return seat;
}

task_seat& task_crew::enter(task_seat*& previous) {
    assure(!inherited());
    previous = current_seat();
    task_seat* seat = find_seat();
    if (seat == nullptr) {
        unsigned long const me = GetCurrentThreadId();
        for (seat = _seats.load(std::memory_order_acquire); seat != nullptr; seat = seat->_next) {
            unsigned long nobody = 0;
            // Relaxed: a hint. The exchange pairs with the release in `leave`: it sees
            // the seat as its last owner left it.
            if (!seat->_worker && seat->_owner.load(std::memory_order_relaxed) == 0 &&
                seat->_owner.compare_exchange_strong(nobody, me))
                break;
        }
        if (seat == nullptr)
            seat = &_add_seat(false, me);
        seat->_wanted.store(true);  // a thread may sleep already
    }
    ++seat->_entries;
    if (seat != previous)
        set_current_seat(seat);
    return *seat;
}

void task_crew::leave(task_seat& seat, task_seat* previous) {
    if (&seat != previous)
        set_current_seat(previous);
    if (--seat._entries == 0 && !seat._worker)
        seat._owner.store(0, std::memory_order_release);
}

// A seat is larger than what the calling thread's allocator serves, so a thread without
// an allocator may call this. Relaxed: the exchange publishes the seat, and corrects
// `first`.
task_seat& task_crew::_add_seat(bool worker, unsigned long owner) {
    auto* const seat = new task_seat(*this, worker);
    seat->_owner.store(owner, std::memory_order_relaxed);
    task_seat* first = _seats.load(std::memory_order_relaxed);
    do
        seat->_next = first;
    while (!_seats.compare_exchange_weak(first, seat));
    return *seat;
}

// The worker's loop. Takes children before queued items, to finish what has begun.
void task_crew::_work(task_seat& seat) {
    allocator_group* const group = allocator_group::global();
    unsigned int const process = this_process();
    items::detached item;  // runs, or has just ended
    bool runs = true;      // it was not discarded
    bool active = true;    // the thread's allocator
    for (;;) {
        bool const steals = _has_task();
        if ((item || !steals) && !_pass(seat, item, !steals, runs))
            break;
        bool const works = item || steals;
        if (works != active) {
            if (works)
                group->activate_allocator();
            else
                group->deactivate_allocator(true);
            active = works;
        }
        if (item) {
            _feed(seat);
            (*item).first->end(*(*item).first, runs);
        } else if (steals) {
            if (task* const stolen = _steal(seat)) {
                _feed(seat);
                scope_base::_run(seat, *stolen, true);
            } else {
                thread_support::yield();  // another thread is taking it
            }
        } else {
            _starve(seat);
            if (!seat._searches || !_poll(seat))
                _sleep(seat);
            continue;
        }
        assure(process == this_process());
        group->flush_allocator(true);
    }
    if (!active)
        group->activate_allocator();
}

// Ends the item that has run, if any. With `takes`, takes the next one that fits, or
// begins to search if no worker does. `runs` tells whether to run the item or discard it.
// Returns false when the worker is to end.
bool task_crew::_pass(task_seat& seat, items::detached& item, bool takes, bool& runs) {
    bool ends = false, idle = false;
    task_seat* woken = nullptr;
    items::detached ended = std::move(item);
    {
        patient_guard const hold(_mutex, _spin);
        if (ended) {
            if (double const space = (*ended).third; space != 0) {
                _space += space;
                // Fractions need not add up to the budget again.
                if (--_occupants == 0)
                    _space = _budget;
            }
            idle = --_unfinished == 0;
        }
        if (takes && has_fitting_work(_queue, _space)) {
            item = _queue.extract(find_work(_queue, _space));
            if (double const space = (*item).third; space != 0) {
                // Infinite space is never used up: infinity - infinity would be NaN.
                if (std::isfinite(_budget))
                    _space -= space;
                ++_occupants;
            }
            runs = !_stopped;
        }
        ends = takes && !item && _concluded && _queue.empty();
        if (ends) {
            // Each of the others is woken to end, one by the other.
            _searching = _searching && !seat._searches;
            woken = _find_worker();
        } else if (takes && !item) {
            if (!_searching)
                _searching = seat._searches = true;
            seat._seen = _news.load(std::memory_order_relaxed);
        } else {
            woken = _stop_searching(seat);
        }
    }
    if (woken != nullptr)
        woken->_wake.release();
    if (idle)
        _idle.release_all();
    return !ends;
}

// The searching thread polls until its spin count is used up. Returns whether there may
// be work.
bool task_crew::_poll(task_seat& seat) {
    if (_spin == 0 || !_worker_memory.should_spin())
        return false;
    for (spin_wait wait(_spin, pace_for_deque); !wait.is_over(); wait.pause())
        if (_news.load(std::memory_order_relaxed) != seat._seen || _has_task()) {
            _worker_memory.has_succeeded();
            return true;
        }
    _worker_memory.has_failed();
    return false;
}

// The same for a thread that waits for `scope`. Returns the descendant that it found.
// Acquire: makes what the children wrote visible, as in `scope_base::_join`.
task* task_crew::_poll_for(task_seat& seat, scope_base& scope) {
    if (_spin == 0 || !_waiter_memory.should_spin())
        return nullptr;
    for (spin_wait wait(_spin, pace_for_deque); !wait.is_over(); wait.pause()) {
        bool const ended = scope._pending.load(std::memory_order_acquire) < 2;
        task* const found = ended ? nullptr : _steal_below(seat, scope);
        if (ended || found != nullptr) {
            _waiter_memory.has_succeeded();
            return found;
        }
    }
    _waiter_memory.has_failed();
    return nullptr;
}

// Waits between setting the `_wanted` flags and the last look. A thread that pushed a
// child and missed the flag has its store under way; it arrives during these pauses. 64
// of them are longer than a store takes to become visible.
void task_crew::_await_stores() const {
    for (spin_wait wait(std::min(_spin, 64u), pace_for_deque); !wait.is_over();)
        wait.pause();
}

// Sleeps until there may be work. Returns at once if there is some.
void task_crew::_sleep(task_seat& seat) {
    {
        patient_guard const hold(_mutex, _spin);
        if (has_fitting_work(_queue, _space) || (_concluded && _queue.empty()))
            return;
        _fall_asleep(seat, nullptr);
        if (seat._searches)
            _searching = seat._searches = false;
        if (!_searching)
            _arm();
    }
    _await_stores();
    if (!_has_task() || !_leave_sleepers(seat))
        seat._wake.acquire();
}

// Makes a thread that waits for `scope` sleep until the scope has ended or there is a
// descendant to run. Returns the descendant if the thread finds one itself.
task* task_crew::_sleep_for(task_seat& seat, scope_base& scope) {
    {
        guard const hold(_mutex);
        _fall_asleep(seat, &scope);
        _arm();
    }
    // From here on the thread that ends the last child wakes this one.
    bool const ended = scope._pending.fetch_or(1) < 2;
    _await_stores();
    task* const found = ended ? nullptr : _steal_below(seat, scope);
    if ((!ended && found == nullptr) || !_leave_sleepers(seat))
        seat._wake.acquire();
    scope._pending.fetch_and(~1);
    return found;
}

// With the mutex held, like the functions below unless they say otherwise.
void task_crew::_fall_asleep(task_seat& seat, scope_base* awaited) {
    seat._asleep = true;
    seat._awaited = awaited;
    seat._next_asleep = _sleepers;
    _sleepers = &seat;
    // Relaxed: `_feed` corrects what a thread reads too early.
    _asleep.store(_asleep.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

// Takes a thread off the list, so that the caller has to wake it. Returns false if it is
// not on the list.
bool task_crew::_remove_sleeper(task_seat& seat) {
    if (!seat._asleep)
        return false;
    task_seat** link = &_sleepers;
    while (*link != &seat)
        link = &(*link)->_next_asleep;
    *link = seat._next_asleep;
    seat._asleep = false;
    _asleep.store(_asleep.load(std::memory_order_relaxed) - 1, std::memory_order_relaxed);
    return true;
}

// Takes a sleeping worker off the list and makes it the searching thread. Returns null if
// none sleeps.
task_seat* task_crew::_find_worker() {
    for (task_seat* each = _sleepers; each != nullptr; each = each->_next_asleep)
        if (each->_awaited == nullptr) {
            _remove_sleeper(*each);
            _searching = each->_searches = true;
            return each;
        }
    return nullptr;
}

// Makes the next push into each deque call. Acquire: see `_seats`.
void task_crew::_arm() {
    for (task_seat* each = _seats.load(std::memory_order_acquire); each != nullptr;
         each = each->_next)
        each->_wanted.store(true);
}

// The thread of `seat` has found work. Returns a worker to wake for more, or null.
task_seat* task_crew::_stop_searching(task_seat& seat) {
    if (seat._searches) {
        _searching = seat._searches = false;
        if (_sleepers != nullptr)
            _arm();
    }
    if (_searching || _sleepers == nullptr)
        return nullptr;
    return has_fitting_work(_queue, _space) || _has_task() ? _find_worker() : nullptr;
}

// Without the mutex: takes the calling thread off the list because it has seen work.
// Returns false if another thread is waking it. There may be more work than it has seen,
// and sleeping workers, so a worker searches again.
bool task_crew::_leave_sleepers(task_seat& seat) {
    guard const hold(_mutex);
    if (!_remove_sleeper(seat))
        return false;
    if (seat._awaited == nullptr && !_searching)
        _searching = seat._searches = true;
    return true;
}

// Without the mutex: wakes the thread if it sleeps.
void task_crew::_wake(task_seat& seat) {
    bool sleeps;
    {
        guard const hold(_mutex);
        sleeps = _remove_sleeper(seat);
    }
    if (sleeps)
        seat._wake.release();
}

// Without the mutex: the caller has pushed a child that a sleeping thread may want.
void task_crew::_call(task_seat& caller) {
    assure(!inherited());
    task_seat* woken = nullptr;
    {
        guard const hold(_mutex);
        for (task_seat* each = _sleepers; each != nullptr && woken == nullptr;
             each = each->_next_asleep)
            if (each->_awaited != nullptr && caller._innermost->_descends_from(*each->_awaited))
                woken = each;
        if (woken != nullptr)
            _remove_sleeper(*woken);
        else if (!_searching)
            woken = _find_worker();
        // A woken worker calls others itself. After waking a waiter, the next push calls.
        caller._wanted.store(woken != nullptr && !_searching && _sleepers != nullptr);
    }
    if (woken != nullptr)
        woken->_wake.release();
}

// The thread of `seat` has work. If it was the searching one, it wakes another. Without
// the mutex. Relaxed: see `_hungry`.
void task_crew::_feed(task_seat& seat) {
    if (seat._hungry) {
        seat._hungry = false;
        _hungry.fetch_sub(1, std::memory_order_relaxed);
    }
    if (!seat._searches)
        return;
    task_seat* woken;
    {
        guard const hold(_mutex);
        woken = _stop_searching(seat);
    }
    if (woken != nullptr)
        woken->_wake.release();
}

void task_crew::_starve(task_seat& seat) {
    if (!seat._hungry) {
        seat._hungry = true;
        _hungry.fetch_add(1, std::memory_order_relaxed);
    }
}

}  // namespace ovel::detail
