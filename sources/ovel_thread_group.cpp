// SPDX-License-Identifier: Apache-2.0
// Thread groups and their workers.
//
// A worker holds `_mutex` while it looks for work, and releases it while it runs work or
// waits. Invariant: while fitting work waits and a worker is idle, one worker is
// `looking`: it polls, or was woken and has not taken `_mutex` yet. A thread that breaks
// the invariant, because it adds work or takes some and leaves more that fits, wakes one
// worker. A worker that is about to wait looks once more after it was counted as idle. A
// worker that returns space looks next itself. So at most one wake-up is in progress, and
// none is lost.

#include "ovel_thread_group.h"

#include "ovel_allocator_group.h"
#include "ovel_assure.h"
#include "ovel_counter.h"
#include "ovel_guard.h"
#include "ovel_process.h"
#include "ovel_spin_wait.h"
#include "ovel_thread_support.h"
#include "ovel_work_queue.h"

#include <memory>
#include <new>

namespace ovel {

namespace detail {

namespace {

using queue = thread_group_function_base::queue;

// If a worker has to be woken, claims the wake-up. That worker counts as looking from
// here on. The caller holds the mutex, and wakes the worker after releasing it.
[[nodiscard]] bool claim_wake_up(thread_group_crew& crew, queue& waiting, double space) {
    if (crew.idle == 0 || crew.looking || !has_fitting_work(waiting, space))
        return false;
    crew.looking = true;
    return true;
}

// Ends the polling of a worker, if one polls. The caller holds the mutex.
void end_poll(thread_group_crew& crew) {
    if (crew.looking)
        add(crew.changes, 1u);
}

}  // namespace

// The mutex that the condition gets from a worker that waits without holding the group's.
// The condition calls `release` once it has counted the worker: `release` takes the
// mutex, counts the worker as idle and looks once more. So any later wake-up reaches the
// worker, and the worker does not hold the mutex while an earlier batch of the condition
// leaves.
struct thread_group_function_base::idle_lock {
    struct state {};

    void release(state&, bool) {
        worker._acquire();
        ++worker._crew->idle;
        bool const wakes = worker._has_ended() || worker._claim_wake_up();
        worker._mutex.release();
        if (wakes)
            worker._condition.release_one();
    }
    void acquire(state&, bool) {
        worker._acquire();
        --worker._crew->idle;
        worker._crew->looking = false;
    }

    thread_group_function_base& worker;
};

thread_group_function_base::thread_group_function_base(mutex& mutex, condition& condition,
                                                       double& space, bool& concluded, queue& queue)
    : _mutex(mutex),
      _condition(condition),
      _space(space),
      _concluded(concluded),
      _queue(queue),
      _crew(nullptr) {}

thread_group_function_base::thread_group_function_base(mutex& mutex, condition& condition,
                                                       double& space, bool& concluded, queue& queue,
                                                       thread_group_crew& crew)
    : thread_group_function_base(mutex, condition, space, concluded, queue) {
    _crew = &crew;
}

thread_group_function_base::thread_group_function_base(thread_group_function_base const& other)
    : thread_function(other),
      _mutex(other._mutex),
      _condition(other._condition),
      _space(other._space),
      _concluded(other._concluded),
      _queue(other._queue),
      _crew(other._crew) {}

thread_group_function_base::~thread_group_function_base() = default;

// Except `_acquire`, the functions up to the loop are called with `_mutex` held.

void thread_group_function_base::_acquire() {
    acquire_patiently(_mutex, _crew != nullptr ? _crew->spin : 0);
}

thread_group_function_base::queue::iterator thread_group_function_base::find_element() {
    return find_work(_queue, _space);
}

bool thread_group_function_base::_has_ended() const {
    return _concluded && _queue.empty();
}

// Takes the next work item that fits from the queue, and its space. Returns null if none
// fits.
thread_group_function_base::queue::detached thread_group_function_base::_take() {
    if (_queue.empty())
        return nullptr;
    auto const element = find_element();
    double const space = (*element).third;
    if (!(_space >= space))
        return nullptr;
    _space -= space;
    if (_crew != nullptr && space != 0)
        ++_crew->occupants;
    return _queue.extract(element);
}

// Returns the space of an item that has ended. Fractions of a budget need not add up to
// it again: without the reset, an item that needs all of it could wait for ever.
void thread_group_function_base::_give_space(double space) {
    _space += space;
    if (_crew == nullptr || space == 0)
        return;
    if (--_crew->occupants == 0)
        _space = _crew->budget;
    end_poll(*_crew);
}

bool thread_group_function_base::_claim_wake_up() {
    return _crew != nullptr && claim_wake_up(*_crew, _queue, _space);
}

// Waits until there may be work. Releases `_mutex` meanwhile.
void thread_group_function_base::_wait() {
    if (_crew == nullptr) {
        _condition.acquire(_mutex);
        return;
    }
    if (_poll())
        return;
    // The condition counts the worker as idle, through `idle_lock`.
    _mutex.release();
    idle_lock lock{*this};
    _condition.acquire(lock);
}

// Polls for changes until the spin count is used up, unless another worker polls, or recent
// polls were in vain. Returns whether there was a change. Releases `_mutex` meanwhile.
// Relaxed: see `changes`.
bool thread_group_function_base::_poll() {
    if (_crew->looking || _crew->spin == 0 || !_crew->memory.should_spin())
        return false;
    _crew->looking = true;
    unsigned int const before = _crew->changes.load(std::memory_order_relaxed);
    auto const has_changed = [&] {
        return _crew->changes.load(std::memory_order_relaxed) != before;
    };
    _mutex.release();
    // Only one worker of the group polls, and the word rarely changes.
    for (spin_wait wait(_crew->spin, pace_for_unit); !wait.is_over() && !has_changed();)
        wait.pause();
    _acquire();
    _crew->looking = false;
    bool const changed = has_changed();
    changed ? _crew->memory.has_succeeded() : _crew->memory.has_failed();
    return changed;
}

bool thread_group_function_base::runs_caller() const {
    return _identifier.load(std::memory_order_relaxed) == thread_support::thread_identifier();
}

void thread_group_function_base::operator()() {
    _identifier.store(thread_support::thread_identifier(), std::memory_order_relaxed);
    allocator_group* const group = allocator_group::global();
    group->deactivate_allocator(true);
    unsigned int const process = this_process();
    bool active = false;  // the thread's allocator
    _acquire();
    while (!_has_ended()) {
        if (auto taken = _take()) {
            bool const wakes = _claim_wake_up();
            // Another worker usually takes the item that is now first. This worker takes
            // the one after it next.
            auto const next = _queue.look_ahead();
            _mutex.release();
            if (wakes)
                _condition.release_one();
            if (!active)
                group->activate_allocator();
            thread_function& function = *(*taken).first;
            double const space = (*taken).third;
            taken.reset();
            try {
                function();
            } catch (...) {
                assure(("unexpected exception", 0));
            }
            assure(process == this_process());
            // Does what deactivating and activating again would do, while there is work.
            group->flush_allocator(true);
            active = true;
            // These cache misses overlap with the mutex's instead of following it.
            next.fetch();
            _acquire();
            _give_space(space);
            if (_crew == nullptr && space != 0)
                _condition.release_all();  // items that did not fit may now fit
        } else if (active) {
            _mutex.release();
            group->deactivate_allocator(true);
            active = false;
            _acquire();
        } else {
            _wait();
        }
    }
    // Workers that waited for space when the group was concluded are still asleep.
    bool const others_sleep = _crew != nullptr && _crew->idle != 0;
    _mutex.release();
    if (others_sleep)
        _condition.release_all();
    if (!active)
        group->activate_allocator();
    _identifier.store(0, std::memory_order_relaxed);
}

}  // namespace detail

// `_space` is the group's total space, not what is free now: work that fits the group
// waits until it fits.
void detail::assure_schedulable(double time_, double space_, double _space) {
    assure(time_ > 0 && space_ >= 0 && space_ <= _space);
}

thread_group::thread_group() : thread_group(thread_base::default_stack_size) {}

thread_group::thread_group(unsigned int stack_size)
    : thread_group(thread_support::processors(), 0.0, stack_size) {}

thread_group::thread_group(unsigned int threads, double space, unsigned int stack_size)
    : _mutex(detail::current_spin()),
      _threads(threads),
      _stack_size(stack_size),
      _acquired(threads),
      _space(space),
      _condition(detail::current_spin()),
      _crew{space, detail::current_spin()} {
    assure(_threads != 0 && space >= 0);
}

// In a fork the queue may be half changed, and the threads' objects are in use.
thread_group::~thread_group() {
    if (inherited()) {
        std::construct_at(&_queue);
        return;
    }
    assure(_acquired == _threads);
    _destruct();
}

bool thread_group::inherited() const {
    return detail::is_inherited(_runner.load(std::memory_order_relaxed));
}

unsigned int thread_group::threads() const {
    return _threads;
}

unsigned int thread_group::stack_size() const {
    return _stack_size;
}

void thread_group::schedule(thread_function& function, double time, double space) {
    detail::assure_schedulable(time, space, _crew.budget);
    assure(!inherited());
    auto element =
        queue::prepare({&function, time, space}, _crew.level.load(std::memory_order_relaxed));
    bool wakes;
    {
        detail::patient_guard const hold(_mutex, _crew.spin, detail::pace_for_scheduling);
        assure(!_concluded);
        _queue.insert(element);
        // The level rarely changes. Not storing it again leaves the cache line with the
        // workers.
        unsigned int const level = _queue.next_level();
        if (_crew.level.load(std::memory_order_relaxed) != level)
            _crew.level.store(level, std::memory_order_relaxed);
        detail::end_poll(_crew);
        wakes = detail::claim_wake_up(_crew, _queue, _space);
    }
    if (wakes)
        _condition.release_one();
}

void thread_group::conclude() {
    assure(!inherited());
    {
        detail::patient_guard const hold(_mutex, _crew.spin);
        assure(!_concluded);
        _concluded = true;
        detail::end_poll(_crew);
    }
    _condition.release_all();
}

void thread_group::clear() {
    assure(!inherited());
    detail::guard const hold(_mutex);
    assure(!_concluded);
    _queue.clear();
}

void thread_group::release() {
    assure(_acquired == _threads);
    if (_function == nullptr) {
        try {
            _construct();
        } catch (std::bad_alloc const&) {
            _destruct();
            throw;
        }
    }
    _runner.store(detail::this_process(), std::memory_order_relaxed);
    for (unsigned int i = 0; i != _threads; ++i) {
        _thread[i]->schedule(*_function[i]);
        _thread[i]->release();
        _thread_acquired[i] = false;
        --_acquired;
    }
}

// Builds each worker's objects. Each array is nulled before it is filled, so `_destruct`
// can handle any part of it.
void thread_group::_construct() {
    _acquired = _threads;
    _function = new detail::thread_group_function_base* [_threads] {
    };
    for (unsigned int i = 0; i != _threads; ++i)
        _function[i] = new detail::thread_group_function_base(_mutex, _condition, _space,
                                                              _concluded, _queue, _crew);
    _thread = new thread* [_threads] {
    };
    for (unsigned int i = 0; i != _threads; ++i)
        _thread[i] = new thread(_stack_size);
    _thread_acquired = new bool[_threads];
    for (unsigned int i = 0; i != _threads; ++i)
        _thread_acquired[i] = true;
}

void thread_group::_destruct() {
    delete[] _thread_acquired;
    _thread_acquired = nullptr;
    if (_thread != nullptr)
        for (unsigned int i = 0; i != _threads; ++i)
            delete _thread[i];
    delete[] _thread;
    _thread = nullptr;
    if (_function != nullptr)
        for (unsigned int i = 0; i != _threads; ++i)
            delete _function[i];
    delete[] _function;
    _function = nullptr;
}

// Whether the calling thread is one of the group's workers.
bool thread_group::_runs_caller() const {
    return _function != nullptr &&
           std::any_of(_function, _function + _threads,
                       [](auto const* worker) { return worker->runs_caller(); });
}

void thread_group::acquire() {
    assure(!_runs_caller());
    _join([](thread& worker) {
        worker.acquire();
        return true;
    });
}

bool thread_group::try_acquire() {
    return _join([](thread& worker) { return worker.try_acquire(); });
}

bool thread_group::timed_acquire(time const& deadline) {
    return _join([&deadline](thread& worker) { return worker.timed_acquire(deadline); });
}

// Joins the workers that are not joined yet, in order, until `join` fails for one.
template <class Join>
bool thread_group::_join(Join join) {
    assure(_function != 0 && _acquired != _threads);
    for (unsigned int i = 0; i != _threads; ++i) {
        if (_thread_acquired[i])
            continue;
        if (!join(*_thread[i]))
            return false;
        _thread_acquired[i] = true;
        ++_acquired;
    }
    _runner.store(0, std::memory_order_relaxed);
    detail::guard const hold(_mutex);
    _concluded = false;
    return true;
}

}  // namespace ovel
