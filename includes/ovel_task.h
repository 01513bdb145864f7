// SPDX-License-Identifier: Apache-2.0
// The basis of `ovel_work.h` and `ovel_parallel.h`, the headers that programs use: a crew
// of threads that run queued work items and steal the children of scopes from each other.
#ifndef OVEL_TASK_H
#define OVEL_TASK_H

#include "ovel_allocator_support.h"
#include "ovel_atomic.h"
#include "ovel_condition.h"
#include "ovel_frame.h"
#include "ovel_mutex.h"
#include "ovel_semaphore.h"
#include "ovel_skip_list.h"
#include "ovel_spin_memory.h"
#include "ovel_thread.h"
#include "ovel_time.h"
#include "ovel_triple.h"

#include <cstddef>
#include <exception>
#include <new>
#include <utility>

namespace ovel::detail {

class scope_base;
class task_crew;

// Keeps the first of the exceptions that several threads catch, until one thread takes
// it. The client's code does all throwing and catching; the library does none.
class first_exception {
public:
    void keep(std::exception_ptr caught) {
        state expected = none;
        if (!_state.compare_exchange_strong(expected, busy))
            return;
        _caught = std::move(caught);
        // Release: publishes `_caught` to the exchange in `take`.
        _state.store(kept, std::memory_order_release);
    }

    // Relaxed: only a hint; `take` acquires the state.
    bool is_kept() const {
        return _state.load(std::memory_order_relaxed) == kept;
    }

    // Returns null if there is none.
    std::exception_ptr take() {
        state expected = kept;
        if (!is_kept() || !_state.compare_exchange_strong(expected, busy))
            return nullptr;
        std::exception_ptr taken = std::exchange(_caught, nullptr);
        // Release: the next `keep` writes `_caught` after this thread has read it.
        _state.store(none, std::memory_order_release);
        return taken;
    }

private:
    enum state : unsigned char { none, busy, kept };
    atomic<state> _state{none};
    std::exception_ptr _caught;  // belongs to the thread that made the state `busy`
};

// Work that one thread allocates and another one may free. It comes from
// `allocator_support`, where that is cheap.
struct handed_over {
    static void* operator new(std::size_t size) {
        return allocator_support::allocate(size);
    }
    static void operator delete(void* memory) {
        allocator_support::deallocate(memory);
    }
    // For callables with a stricter alignment than `allocator_support` provides.
    static void* operator new(std::size_t size, std::align_val_t alignment) {
        return ::operator new(size, alignment);
    }
    static void operator delete(void* memory, std::align_val_t alignment) {
        ::operator delete(memory, alignment);
    }
};

// An item of a crew's queue.
struct queued_item {
    // Runs the item, or discards it if `runs` is false, and deletes it. Throws nothing.
    void (*const end)(queued_item& self, bool runs);
};

// A child of a scope. The client keeps it on its stack or its heap.
struct task {
    // Runs the child unless its scope has been stopped, and frees it if it is on the
    // heap. Throws nothing: exceptions go to the scope.
    void (*const run)(task& self, bool stolen);
    scope_base& scope;
};

// A child that can also wait in the list of a frame.
struct listed_task : task {
    listed_task* next = nullptr;
};

// A frame belongs to a child that a thread runs apart from its deque: one that it stole, or
// one for which the deque had no room. What the thread pushes from `mark` on descends from
// that child, and so from `scope`.
class task_frame {
public:
    // The owner of the seat calls these two, for children of `scope`.
    void add(listed_task& child);
    listed_task* take();

    scope_base* scope;
    unsigned int mark;
    task_frame* outer = nullptr;  // of the work that the thread interrupted for this child

    task_frame(scope_base& of, unsigned int from) : scope(&of), mark(from) {}

private:
    // Children for which the deque has no room left at all.
    listed_task* _first = nullptr;
    listed_task* _last = nullptr;
    unsigned int _size = 0;
};

// A thread's place in a crew, with the deque of the children that it has yet to run. One
// thread owns a seat at a time. The seats live as long as their crew.
//
// The slots below `_bottom` hold children, oldest first, or null where a child was
// stolen. The thread that exchanges a child for null gets it. The owner pushes and pops
// at the bottom, without `_lock`. Thieves hold `_lock`. A thief that may run any child
// takes the oldest; a waiter takes the oldest above the mark of a frame whose scope
// descends from the waiter's own. The frame cannot end meanwhile, because ending it takes
// `_lock`.
class task_seat {
public:
    // Bounds the memory of a seat: 8 KiB of slots with 64-bit words. A thread with so many
    // waiting children runs further ones at once.
    static constexpr unsigned int capacity = 1024;

    task_seat(task_crew& crew, bool worker);

    task_crew& crew() const {
        return _crew;
    }
    // The scope that the owner opened last, or the scope of the child that it runs. Owner
    // only.
    scope_base* innermost() const {
        return _innermost;
    }
    // Owner only, and so relaxed: no other thread writes it.
    unsigned int bottom() const {
        return _bottom.load(std::memory_order_relaxed);
    }

    // Pushes a child unless the deque is full. Owner only.
    bool push(task& pushed) {
        unsigned int const where = bottom();
        if (where >= _limit) [[unlikely]]
            return false;
        // Release, both: publish the child to the thief that reads `_bottom` and
        // exchanges it.
        _tasks[where].store(&pushed, std::memory_order_release);
        _bottom.store(where + 1, std::memory_order_release);
        // Relaxed: a thread that is about to sleep sets the flag, pauses, and then looks
        // at the deques a last time. If it still missed this child, the owner runs the
        // child itself.
        if (_wanted.load(std::memory_order_relaxed)) [[unlikely]]
            _call();
        return true;
    }

    // Pops the newest child; returns null if it was stolen. Owner only, above its mark.
    task* pop() {
        unsigned int const where = bottom() - 1;
        // Acquire-release, as in a thief's exchange: only one of the two gets the child.
        task* const taken = _tasks[where].exchange(nullptr, std::memory_order_acq_rel);
        // Relaxed: a thief that reads the old value finds null in the slot.
        _bottom.store(where, std::memory_order_relaxed);
        if (taken == nullptr) [[unlikely]]
            _lower_top(where);
        return taken;
    }

    // Whether some thread is idle and can find nothing to take here. A hint for the
    // owner.
    bool is_begged() const;

private:
    friend class scope_base;
    friend class task_crew;
    friend struct inspector;

    // Slots for the children of children that run because the deque is full: 8 slots each
    // for 8 nested runs.
    static constexpr unsigned int _reserve = 64;

    OVEL_EXPORT void _call();
    OVEL_EXPORT void _lower_top(unsigned int bottom);
    bool _may_have_task() const;
    bool _has_task() const;
    task* _take(unsigned int first);
    task* _take_below(scope_base const& scope);

    [[maybe_unused]] cacheline _before;
    atomic<unsigned int> _bottom{0};  // written by the owner only
    unsigned int _limit = capacity - _reserve;
    scope_base* _innermost = nullptr;
    task_seat* _victim = nullptr;  // the seat it last stole from; owner only
    bool _hungry = false;          // counted in the crew's `_hungry`; owner only
    unsigned int _entries = 0;     // calls of `enter` without their `leave`; owner only
    [[maybe_unused]] cacheline _between;
    // A sleeping thread could take what this one pushes. Set under the crew's mutex, or
    // by the owner; cleared under the mutex when no thread could.
    atomic<bool> _wanted{false};
    task_crew& _crew;
    bool const _worker;
    atomic<unsigned long> _owner{0};  // the thread that has the seat, or 0
    task_seat* _next = nullptr;       // in the crew's list; set before it is listed
    // State of an owner that sleeps or is being woken. Under the crew's mutex.
    bool _asleep = false;
    bool _searches = false;  // it is the crew's searching thread
    unsigned int _seen = 0;  // the crew's `_news` when it began to search
    scope_base* _awaited = nullptr;
    task_seat* _next_asleep = nullptr;
    semaphore _wake{0, 0};  // a unit for each time it was taken off the list of sleepers
    mutex _lock;            // guards _top and _frames, and orders thieves
    // The oldest slot that can hold a child. Guarded by _lock, like _frames. Relaxed: the
    // lock orders both; reads without it are hints.
    atomic<unsigned int> _top{0};
    atomic<task_frame*> _frames{nullptr};
    [[maybe_unused]] cacheline _after;
    atomic<task*> _tasks[capacity]{};
};

// Children that a thread waits for together. A thread closes its scopes in the reverse
// order of opening them.
class scope_base {
public:
    scope_base(scope_base const&) = delete;
    scope_base& operator=(scope_base const&) = delete;

    task_seat& seat() const {
        return _seat;
    }

    void stop() {
        _stopped.store(true);
    }
    // Relaxed: a child that begins because of the old value began before the stop.
    bool is_stopped() const {
        return _stopped.load(std::memory_order_relaxed);
    }

    first_exception error;

    // The scope that the thread had open, or whose child it ran, before this one; null if
    // none.
    scope_base* parent() const {
        return _parent;
    }

protected:
    explicit scope_base(task_seat& seat)
        : _seat(seat),
          _parent(seat._innermost),
          _depth(_parent != nullptr ? _parent->_depth + 1 : 0),
          _mark(seat.bottom()) {
        seat._innermost = this;
    }
    // No children may be left.
    ~scope_base() {
        _seat._innermost = _parent;
    }

    // Pushes a child into the opener's deque, or runs it and returns false if the deque is
    // full. Only for the opener, outside of this scope's children.
    bool _fork(task& child) {
        if (_seat.push(child)) [[likely]]
            return true;
        _run_here(_seat, child);
        return false;
    }

    // The same for the thread of `seat`, which is the opener or runs a child. `child` is a
    // `listed_task`.
    OVEL_EXPORT void _fork_from(task_seat* seat, task& child);

    // Whether the opener runs a child apart from its deque, above whatever else. Opener
    // only.
    bool _runs_child() const {
        task_frame const* const frame = _seat._frames.load(std::memory_order_relaxed);
        return frame != nullptr && frame->scope == this;
    }

    // Runs the children that no thread stole, and waits for the others. `stolen` of those
    // the caller has found when it popped. Opener only.
    void _join(unsigned int stolen = 0) {
        while (_seat.bottom() != _mark) {
            if (task* const child = _seat.pop())
                child->run(*child, false);
            else
                ++stolen;
        }
        // Acquire: makes what children wrote on other threads visible; pairs with
        // `_finish`.
        if (stolen != 0 || _pending.load(std::memory_order_acquire) != 0) [[unlikely]]
            _wait(stolen);
    }

private:
    friend class task_crew;
    friend class task_seat;
    friend struct inspector;

    OVEL_EXPORT static void _run_here(task_seat& seat, task& child);
    OVEL_EXPORT void _wait(unsigned int stolen);
    static void _run(task_seat& seat, task& child, bool stolen);
    static void _finish(scope_base& scope);
    bool _descends_from(scope_base const& scope) const;

    task_seat& _seat;  // the opener's
    scope_base* const _parent;
    unsigned int const _depth;
    unsigned int const _mark;  // the bottom of the opener's deque when the scope was opened
    atomic<bool> _stopped{false};
    // Twice the number of children that other threads took or pushed and that have not
    // ended, plus one while the opener may be asleep. Until the opener has counted all
    // that were stolen, the value may be too low, even negative.
    atomic<int> _pending{0};
};

// Threads that run queued work items in the order of `thread_group`, within a budget of
// space, and help each other with the children of scopes. Children go first.
class task_crew {
public:
    // Checks "_threads != 0 && space >= 0". Throws std::bad_alloc. `owner()` returns
    // `owner`.
    OVEL_EXPORT task_crew(unsigned int threads, double space, unsigned int stack_size, void* owner);
    // `end` must have been called, unless the crew is inherited.
    OVEL_EXPORT ~task_crew();
    task_crew(task_crew const&) = delete;
    task_crew& operator=(task_crew const&) = delete;

    // Whether the process was forked while the crew ran, so that its threads do not exist
    // here. Using an inherited crew fails the check "!inherited()"; only destroying it is
    // allowed.
    OVEL_EXPORT bool inherited() const;

    unsigned int threads() const {
        return _threads;
    }
    void* owner() const {
        return _owner;
    }

    // Queues `item` and takes ownership: the crew deletes it after running it, or without
    // running it after a stop. After a stop it returns false, and the caller keeps the
    // item; the caller also keeps it if std::bad_alloc is thrown. Check "time_ > 0 &&
    // space_ >= 0 && space_ <= _space".
    OVEL_EXPORT bool queue(queued_item& item, double time, double space);

    // Discards the items that have not begun.
    OVEL_EXPORT void stop();

    // Block until no item is left. With `then_stops`, nothing can be queued from then on.
    // `timed_wait` returns false after that many milliseconds, or after an earlier
    // wake-up.
    OVEL_EXPORT void wait(bool then_stops);
    [[nodiscard]] OVEL_EXPORT bool timed_wait(unsigned int milliseconds, bool then_stops);

    // Whether the calling thread is one of the crew's threads.
    OVEL_EXPORT bool runs_caller();

    // Ends the threads once they have run what is queued. Called once, by the owner.
    OVEL_EXPORT void end();

    // Returns the calling thread's seat in this crew, or assigns a free one. It becomes
    // the thread's current seat until `leave` is called with the seat returned in
    // `previous`. Throws std::bad_alloc.
    OVEL_EXPORT task_seat& enter(task_seat*& previous);
    OVEL_EXPORT static void leave(task_seat& seat, task_seat* previous);

    // The calling thread's seat in this crew, or null.
    OVEL_EXPORT task_seat* find_seat();

    // The calling thread's current seat, or null.
    OVEL_EXPORT static task_seat* current_seat();

    // In a fork: leaves the calling thread without a current seat.
    static void forget_seat();

private:
    friend class scope_base;
    friend class task_seat;
    friend struct inspector;

    using items = skip_list<triple<queued_item*, double, double>>;
    class worker;

    template <class Wait>
    bool _wait(bool then_stops, Wait const& wait);
    void _build(unsigned int stack_size);
    void _destroy();
    task_seat& _add_seat(bool worker, unsigned long owner);

    // The worker's loop.
    void _work(task_seat& seat);
    bool _pass(task_seat& seat, items::detached& item, bool takes, bool& runs);
    bool _poll(task_seat& seat);
    task* _poll_for(task_seat& seat, scope_base& scope);
    void _await_stores() const;
    void _sleep(task_seat& seat);

    // Stealing.
    task* _steal(task_seat& seat);
    task* _steal_below(task_seat& seat, scope_base const& scope);
    bool _has_task() const;
    void _feed(task_seat& seat);
    void _starve(task_seat& seat);

    // Sleeping and waking.
    task* _sleep_for(task_seat& seat, scope_base& scope);
    void _fall_asleep(task_seat& seat, scope_base* awaited);
    bool _leave_sleepers(task_seat& seat);
    bool _remove_sleeper(task_seat& seat);
    task_seat* _find_worker();
    task_seat* _stop_searching(task_seat& seat);
    void _arm();
    void _wake(task_seat& seat);
    void _call(task_seat& caller);

    unsigned int const _threads;
    double const _budget;  // the total space
    void* const _owner;
    unsigned int const _spin;
    worker* _workers = nullptr;  // one per thread
    // Only grows. Acquire loads see each seat as `_add_seat` built it.
    atomic<task_seat*> _seats{nullptr};
    // The number of idle threads. Relaxed: a hint for loops.
    atomic<unsigned int> _hungry{0};
    // Changes when an item is queued, for the thread that polls. Relaxed: it looks again
    // under the mutex.
    atomic<unsigned int> _news{0};
    // The number of levels on which the queue will link the next item, so that a caller
    // can prepare one without the mutex. Relaxed: the insertion reallocates an item with
    // too few.
    atomic<unsigned int> _level{1};
    // The number of threads in the list of sleepers. Written under the mutex. Relaxed:
    // `_feed` corrects what a thread reads too early.
    atomic<unsigned int> _asleep{0};
    [[maybe_unused]] cacheline _between;
    mutex _mutex;                    // guards _space to _queue, and the seats' sleeping state
    double _space;                   // free now
    unsigned int _occupants = 0;     // running items that take space
    std::size_t _unfinished = 0;     // items queued or running
    bool _stopped = false;           // no further item begins
    bool _concluded = false;         // the workers end once the queue is empty
    bool _searching = false;         // a worker polls or is on its way to work
    task_seat* _sleepers = nullptr;  // last in, first out
    items _queue;
    timed_condition _idle;  // released when `_unfinished` reaches 0
    // The process that runs the threads; 0 once they are joined. Relaxed: it only tells a
    // forked process from the one that set it.
    atomic<unsigned int> _runner;
    spin_memory _worker_memory;  // of workers that poll
    spin_memory _waiter_memory;  // of threads that poll for the end of a scope
};

// Relaxed, here and below: hints.
inline bool task_seat::is_begged() const {
    return _crew._hungry.load(std::memory_order_relaxed) != 0 && !_may_have_task();
}

inline bool task_seat::_may_have_task() const {
    return _top.load(std::memory_order_relaxed) < _bottom.load(std::memory_order_relaxed);
}

}  // namespace ovel::detail

#endif
