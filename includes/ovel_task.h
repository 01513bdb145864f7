// SPDX-License-Identifier: Apache-2.0
// What `ovel_work.h` and `ovel_parallel.h` are made of: a crew of threads that run
// queued work items and steal the children of scopes from each other. Programs use
// those two headers.
#ifndef OVEL_TASK_H
#define OVEL_TASK_H

#include "ovel_allocator_support.h"
#include "ovel_atomic.h"
#include "ovel_condition.h"
#include "ovel_frame.h"
#include "ovel_mutex.h"
#include "ovel_semaphore.h"
#include "ovel_skip_list.h"
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

// The first of the exceptions that several threads catch, until one thread takes it.
// It is the client's: the library itself neither throws nor catches it.
class first_exception {
public:
    void keep(std::exception_ptr caught) {
        state expected = none;
        if (!_state.compare_exchange_strong(expected, busy))
            return;
        _caught = std::move(caught);
        // Pairs with the exchange in `take`.
        _state.store(kept, std::memory_order_release);
    }

    // Relaxed: `take` acquires it.
    bool is_kept() const {
        return _state.load(std::memory_order_relaxed) == kept;
    }

    // Null when there is none.
    std::exception_ptr take() {
        state expected = kept;
        if (!is_kept() || !_state.compare_exchange_strong(expected, busy))
            return nullptr;
        std::exception_ptr taken = std::exchange(_caught, nullptr);
        _state.store(none, std::memory_order_release);
        return taken;
    }

private:
    enum state : unsigned char { none, busy, kept };
    atomic<state> _state{none};
    std::exception_ptr _caught;  // of the thread that made the state `busy`
};

// An item of a crew's queue. It is the client's, in memory of `allocator_support`, as
// threads hand many over to each other.
struct queued_item {
    // Runs the item, or with `runs` false discards it, and deletes it. Throws nothing.
    void (*const end)(queued_item& self, bool runs);

    static void* operator new(std::size_t size) {
        return allocator_support::allocate(size);
    }
    static void operator delete(void* memory) {
        allocator_support::deallocate(memory);
    }
    // For callables that ask for more alignment than `allocator_support` has.
    static void* operator new(std::size_t size, std::align_val_t alignment) {
        return ::operator new(size, alignment);
    }
    static void operator delete(void* memory, std::align_val_t alignment) {
        ::operator delete(memory, alignment);
    }
};

// A child of a scope. It is the client's, on its stack or its heap.
struct task {
    // Runs the child, or not if its scope has been stopped, and frees it where it is on
    // the heap. Throws nothing: exceptions go to the scope.
    void (*const run)(task& self, bool stolen);
    scope_base& scope;
};

// While a thread runs a child that it took from another thread, what it puts into its
// deque from `mark` on descends from that child, and so from `scope`.
struct task_frame {
    scope_base* scope;
    unsigned int mark;
    task_frame* outer;  // that the thread interrupted for this one
};

// A thread's place in a crew, with the deque of the children that it may yet run. One
// thread owns a seat at a time; the seats live as long as their crew.
//
// The slots below `_bottom` hold children, oldest first, or null where one was stolen.
// Who exchanges a child for null has it. The owner puts in and takes out at the bottom,
// without `_lock`. Thieves hold `_lock`; those of all kinds take the oldest child, a
// waiter the oldest from the mark of a frame on whose scope descends from its own. The
// frame cannot end meanwhile, since that takes `_lock`.
class task_seat {
public:
    static constexpr unsigned int capacity = 1024;

    task_seat(task_crew& crew, bool worker);

    task_crew& crew() const {
        return _crew;
    }
    // The scope that the owner opened last, or whose child it runs. Owner only.
    scope_base* innermost() const {
        return _innermost;
    }
    unsigned int bottom() const {
        return _bottom.load(std::memory_order_relaxed);
    }

    // Puts a child in, unless the deque is full. Owner only.
    bool push(task& pushed) {
        unsigned int const where = bottom();
        if (where >= _limit) [[unlikely]]
            return false;
        // Pairs with the exchange of a thief.
        _tasks[where].store(&pushed, std::memory_order_release);
        _bottom.store(where + 1, std::memory_order_release);
        // Relaxed: a thread that sleeps set it some time before it looked for the last
        // time. If neither noticed the other, the owner would run the child itself.
        if (_wanted.load(std::memory_order_relaxed)) [[unlikely]]
            _call();
        return true;
    }

    // Takes the newest child out, null if it was stolen. Owner only, above its mark.
    task* pop() {
        unsigned int const where = bottom() - 1;
        task* const taken = _tasks[where].exchange(nullptr, std::memory_order_acq_rel);
        // Relaxed: a thief that reads the old one finds null there.
        _bottom.store(where, std::memory_order_relaxed);
        if (taken == nullptr) [[unlikely]]
            _lower_top(where);
        return taken;
    }

    // Whether a thread has nothing to do, nor finds anything to take here. A hint, for
    // the owner.
    bool is_begged() const;

private:
    friend class scope_base;
    friend class task_crew;
    friend struct inspector;

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
    task_seat* _victim = nullptr;  // where it looks for children first; owner only
    bool _hungry = false;          // counted as such; owner only
    [[maybe_unused]] cacheline _between;
    // A thread that sleeps could take what this one puts in. Set under the crew's mutex;
    // cleared there when nobody can.
    atomic<bool> _wanted{false};
    task_crew& _crew;
    bool const _worker;
    atomic<unsigned long> _owner{0};  // the thread that has the seat, or 0
    task_seat* _next = nullptr;       // in the crew's list; set before it is listed
    // Of an owner that sleeps or is being woken. Under the crew's mutex.
    bool _asleep = false;
    bool _searches = false;  // it is the searching thread of the crew
    unsigned int _seen = 0;  // the crew's `_news` when it began to
    scope_base* _awaited = nullptr;
    task_seat* _next_asleep = nullptr;
    semaphore _wake{0, 0};  // a unit for each time that it left the list of sleepers
    mutex _lock;
    // The oldest slot that can hold a child. Under _lock, as are the frames; relaxed
    // reads without it are hints.
    atomic<unsigned int> _top{0};
    atomic<task_frame*> _frames{nullptr};
    [[maybe_unused]] cacheline _after;
    atomic<task*> _tasks[capacity]{};
};

// Children that are waited for together. A thread opens scopes and closes them in
// reverse order.
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
    // Relaxed: a child that begins because this reads the old value began before the stop.
    bool is_stopped() const {
        return _stopped.load(std::memory_order_relaxed);
    }

    first_exception error;

    // The scope that was open on this thread, or whose child it ran; null if none was.
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
    // No child is left.
    ~scope_base() {
        _seat._innermost = _parent;
    }

    // Puts a child into the opener's deque, or runs it if that is full. The opener only,
    // who runs no child of this scope.
    void _fork(task& child) {
        if (!_seat.push(child)) [[unlikely]]
            _run_here(_seat, child);
    }

    // The same for the thread of `seat`, which is the opener or runs a child.
    OVEL_EXPORT void _fork_from(task_seat* seat, task& child);

    // Runs the children that nobody took and waits for the others. The opener only.
    void _join() {
        unsigned int stolen = 0;
        while (_seat.bottom() != _mark) {
            if (task* const child = _seat.pop())
                child->run(*child, false);
            else
                ++stolen;
        }
        // Acquire: what children on other threads wrote is visible.
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
    unsigned int const _mark;  // the bottom of the opener's deque when it was opened
    atomic<bool> _stopped{false};
    // Twice the children that other threads took, or put in, and that have not ended;
    // plus one while the opener may sleep. Before the opener has noticed all that were
    // taken it may be less, also than 0.
    atomic<int> _pending{0};
};

// Threads that run queued work items in the order of `thread_group`, within a budget of
// space, and help each other with the children of scopes, which go first.
class task_crew {
public:
    // Checks "_threads != 0 && space >= 0". Throws std::bad_alloc. `owner` is what
    // `owner()` returns.
    OVEL_EXPORT task_crew(unsigned int threads, double space, unsigned int stack_size, void* owner);
    // `end` has been called, unless it is inherited.
    OVEL_EXPORT ~task_crew();
    task_crew(task_crew const&) = delete;
    task_crew& operator=(task_crew const&) = delete;

    // Whether this process was forked while the crew ran, and has none of its threads. Then
    // all that uses it fails the check "!inherited()", but for its destruction.
    OVEL_EXPORT bool inherited() const;

    unsigned int threads() const {
        return _threads;
    }
    void* owner() const {
        return _owner;
    }

    // Queues `item`, which then belongs to the crew: it is deleted when it has run, or
    // unrun after a stop. False after a stop, with `item` still the caller's. Throws
    // std::bad_alloc likewise. Check "time_ > 0 && space_ >= 0 && space_ <= _space".
    OVEL_EXPORT bool queue(queued_item& item, double time, double space);

    // Items that have not begun are discarded.
    OVEL_EXPORT void stop();

    // Wait until no item is left; with `then_stops` nothing is queued from then on. The
    // timed one returns false after that many milliseconds, or an earlier wake-up.
    OVEL_EXPORT void wait(bool then_stops);
    [[nodiscard]] OVEL_EXPORT bool timed_wait(unsigned int milliseconds, bool then_stops);

    // Whether the calling thread is one of the crew's.
    OVEL_EXPORT bool runs_caller();

    // Ends the threads, once they have run what is queued. The owner, once.
    OVEL_EXPORT void end();

    // The calling thread's seat in this crew, or a free one that it gets. It is the
    // thread's current one until `leave` is called with the one returned in `previous`.
    // Throws std::bad_alloc.
    OVEL_EXPORT task_seat& enter(task_seat*& previous);
    OVEL_EXPORT static void leave(task_seat& seat, task_seat* previous);

    // The calling thread's seat in this crew; null if it has none.
    OVEL_EXPORT task_seat* find_seat();

    // The calling thread's current seat; null if it has none.
    OVEL_EXPORT static task_seat* current_seat();

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

    // The loop of a worker.
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
    double const _budget;  // the space that it was built with
    void* const _owner;
    unsigned int const _spin;
    worker* _workers = nullptr;          // one for each thread
    atomic<task_seat*> _seats{nullptr};  // only grows
    // Threads that have nothing to do. Relaxed: a hint for loops.
    atomic<unsigned int> _hungry{0};
    // Changed when an item is queued, for the thread that polls. Relaxed: it looks again
    // under the mutex.
    atomic<unsigned int> _news{0};
    // How many levels the queue will next link an item on, so that a caller can
    // prepare one without the mutex. Relaxed: the insertion allocates anew where more are needed.
    atomic<unsigned int> _level{1};
    // Threads in the list of sleepers. Written under the mutex.
    atomic<unsigned int> _asleep{0};
    [[maybe_unused]] cacheline _between;
    mutex _mutex;                    // guards what follows
    double _space;                   // free at this moment
    unsigned int _occupants = 0;     // items that run and take space
    std::size_t _unfinished = 0;     // items queued and not ended
    bool _stopped = false;           // no item begins any more
    bool _concluded = false;         // the workers end once the queue is empty
    bool _searching = false;         // a worker polls, or is on its way to work
    task_seat* _sleepers = nullptr;  // last come first
    items _queue;
    timed_condition _idle;  // `_unfinished` has come to 0
    // The process that runs the threads, 0 once they are joined. Relaxed: it tells forks
    // from the process that set it.
    atomic<unsigned int> _runner;
};

inline bool task_seat::is_begged() const {
    return _crew._hungry.load(std::memory_order_relaxed) != 0 && !_may_have_task();
}

inline bool task_seat::_may_have_task() const {
    return _top.load(std::memory_order_relaxed) < _bottom.load(std::memory_order_relaxed);
}

}  // namespace ovel::detail

#endif
