// Thread groups and their workers.
//
// A worker holds `_mutex` while it looks for work and gives it up while it runs
// any, or waits. Whoever adds work wakes one worker, whoever gives space back or
// concludes the group wakes all, each after giving `_mutex` up; a worker that is
// about to wait has looked under `_mutex`, so it misses none of them.

#include "ovel_thread_group.h"

#include "ovel_allocator_group.h"
#include "ovel_assure.h"
#include "ovel_guard.h"
#include "ovel_thread_support.h"

#include <new>

namespace ovel {

namespace detail {

thread_group_function_base::thread_group_function_base(mutex& mutex, condition& condition,
                                                       double& space, bool& concluded, queue& queue)
    : _mutex(mutex),
      _condition(condition),
      _space(space),
      _concluded(concluded),
      _queue(queue),
      _occupants(nullptr),
      _budget(space) {}

thread_group_function_base::thread_group_function_base(mutex& mutex, condition& condition,
                                                       double& space, bool& concluded, queue& queue,
                                                       unsigned int& occupants, double budget)
    : thread_group_function_base(mutex, condition, space, concluded, queue) {
    _occupants = &occupants;
    _budget = budget;
}

thread_group_function_base::thread_group_function_base(thread_group_function_base const&) = default;

thread_group_function_base::~thread_group_function_base() = default;

// The work to run next if it fits, else the largest. The caller holds `_mutex`, and
// the queue is not empty.
thread_group_function_base::queue::iterator thread_group_function_base::find_element() {
    auto const found =
        _queue.find_first([this](triple<thread_function*, double, double> const& waiting) {
            return waiting.third <= _space;
        });
    return found != _queue.end() ? found : _queue.begin();
}

void thread_group_function_base::operator()() {
    allocator_group* const group = allocator_group::global();
    group->deactivate_allocator(true);
    _mutex.acquire();
    for (;;) {
        if (_queue.size() != 0) {
            auto const element = find_element();
            if (_space >= (*element).third) {
                _run(element);
                continue;
            }
        } else if (_concluded) {
            break;
        }
        _condition.acquire(_mutex);
    }
    _mutex.release();
    group->activate_allocator();
}

// Takes `element` from the queue and runs it. Entered and left with `_mutex` held,
// which it gives up meanwhile.
void thread_group_function_base::_run(queue::iterator element) {
    allocator_group* const group = allocator_group::global();
    group->activate_allocator();
    thread_function& function = *(*element).first;
    double const space = (*element).third;
    _queue.erase(element);
    _take_space(space);
    _mutex.release();

    try {
        function();
    } catch (...) {
        assure(("unexpected exception", 0));
    }
    group->deactivate_allocator(true);

    _mutex.acquire();
    _give_space(space);
    _mutex.release();
    if (space != 0)
        _condition.release_all();  // what did not fit may do so now
    _mutex.acquire();
}

void thread_group_function_base::_take_space(double space) {
    _space -= space;
    if (_occupants != nullptr && space != 0)
        ++*_occupants;
}

// Fractions of a budget need not add up to it again; without the reset, work that
// asks for all of it could wait for ever.
void thread_group_function_base::_give_space(double space) {
    _space += space;
    if (_occupants != nullptr && space != 0 && --*_occupants == 0)
        _space = _budget;
}

}  // namespace detail

namespace {

// `_space` is what the group was built with, and not what is free at the moment:
// work that fits the group waits until it fits.
void assure_schedulable(double time_, double space_, double _space) {
    assure(time_ > 0 && space_ >= 0 && space_ <= _space);
}

}  // namespace

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
      _budget(space) {
    assure(_threads != 0 && space >= 0);
}

thread_group::~thread_group() {
    assure(_acquired == _threads);
    _destruct();
}

unsigned int thread_group::threads() const {
    return _threads;
}

unsigned int thread_group::stack_size() const {
    return _stack_size;
}

void thread_group::schedule(thread_function& function, double time, double space) {
    assure_schedulable(time, space, _budget);
    {
        detail::guard const hold(_mutex);
        assure(!_concluded);
        _queue.insert({&function, time, space});
    }
    _condition.release_one();
}

void thread_group::conclude() {
    {
        detail::guard const hold(_mutex);
        assure(!_concluded);
        _concluded = true;
    }
    _condition.release_all();
}

void thread_group::clear() {
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
    for (unsigned int i = 0; i != _threads; ++i) {
        _thread[i]->schedule(*_function[i]);
        _thread[i]->release();
        _thread_acquired[i] = false;
        --_acquired;
    }
}

// Builds what belongs to each worker. Each array is nulled before it is filled, so
// that `_destruct` can take down any part of it.
void thread_group::_construct() {
    _acquired = _threads;
    _function = new detail::thread_group_function_base* [_threads] {
    };
    for (unsigned int i = 0; i != _threads; ++i)
        _function[i] = new detail::thread_group_function_base(
            _mutex, _condition, _space, _concluded, _queue, _occupants, _budget);
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

void thread_group::acquire() {
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

// Joins the workers that are not joined yet, in turn, up to the first that `join`
// does not.
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
    detail::guard const hold(_mutex);
    _concluded = false;
    return true;
}

}  // namespace ovel
