// SPDX-License-Identifier: Apache-2.0
// How the allocator group is built, and how threads get and give back allocators.
//
// Three thread-local slots record what serves a thread. `_specific` is what the program sees
// and sets. `current` is the allocator in use; the quick pointer is a copy of it where the
// platform has one. `lent` is the same allocator while the library has lent it, and null
// while it is the thread's own. So if `lent` is not null, it equals `current`. An allocator
// is activated when it is lent or acquired and deactivated when it is given back. In between
// it is not among the released ones and, if it is the default one, marked as lent. So it
// serves only one thread.
//
// A thread that ends gives the lent allocator back, once. Nothing is lent to it afterwards:
// each later allocation borrows an allocator, and a free needs none. The same holds for a
// thread for which the system has no memory to record a lent allocator.

#include "ovel_allocator_group.h"

#include "kernel.h"
#include "ovel_allocator.h"
#include "ovel_assure.h"
#include "ovel_guard.h"
#include "ovel_once.h"

#include <memory>
#include <new>

namespace ovel {

namespace {

// The inline members are part of the ABI, for callers whose compiler does not inline them.
// These pointers make the compiler emit them.
[[gnu::used]] allocator_group* (*const exported_global)() = &allocator_group::global;
[[gnu::used]] allocator* (allocator_group::*const exported_specific)() const =
    &allocator_group::specific_allocator;

// Besides `_specific`.
struct thread_slots {
    thread_specific_ptr<allocator> current;
    // Without such a slot nothing is lent, and every allocation borrows.
    DWORD const lent = FlsAlloc(detail::give_back_at_end);
    thread_specific_ptr<allocator_group> ended;  // once the callback of `lent` has run

    allocator* get_lent() const {
        return static_cast<allocator*>(FlsGetValue(lent));
    }
};

// Built before other threads can see the group, and like it never destroyed.
union lasting_slots {
    constexpr lasting_slots() : none() {}
    ~lasting_slots() {}
    char none;
    thread_slots value;
};
constinit lasting_slots lasting;
constinit thread_slots& slots = lasting.value;

}  // namespace

constinit detail::atomic<allocator_group*> allocator_group::_global{nullptr};

allocator_group::allocator_group() : _default(allocator::_default_allocator) {}

allocator_group::~allocator_group() = default;

void* allocator_group::operator new(std::size_t size) {
    void* const memory = malloc(size);
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}

void allocator_group::operator delete(void* memory) {
    free(memory);
}

void allocator_group::_construct_globals() {
    static unsigned int volatile flag = 0;
    call_once(_build, flag);
}

// Runs once in the process. Nothing can be allocated through the group before it exists, so
// everything here comes from the runtime heap.
void allocator_group::_build() {
    try {
        allocator::_global_allocator = new allocator(true);
        allocator::_default_allocator = new allocator(false);
        allocator::_default_allocator->deactivate(false);  // it serves no thread yet
        std::construct_at(&lasting.value);
        // Release, and last: a thread that sees the group sees all of the above.
        _global.store(new allocator_group, std::memory_order_release);
    } catch (...) {
        assure(("unexpected exception", 0));
    }
}

void allocator_group::specific_allocator(allocator* own) {
    _specific.set(own);
    if (allocator* const lent = slots.get_lent()) {
        FlsSetValue(slots.lent, nullptr);
        _give_back(lent);
    }
    // The default allocator means none: `specific_allocator()` returns it for null.
    _serve(own != _default ? own : nullptr);
}

// Sets the allocator in use.
void allocator_group::_serve(allocator* current) {
    slots.current.set(current);
    set_quick_pointer(current);
}

allocator* detail::find_current_allocator() {
    allocator_group& group = *allocator_group::global();
    allocator* const current = slots.current.get();
    return current != nullptr ? current : group._lend();
}

allocator* allocator_group::global_allocator() const {
    global();
    return allocator::_global_allocator;
}

allocator* allocator_group::default_allocator() const {
    global();
    return allocator::_default_allocator;
}

// A lent allocator becomes the thread's own, as if given back and acquired again.
void allocator_group::acquire_allocator() {
    allocator* own = slots.get_lent();
    if (own == nullptr || own == _default) {
        own = _acquire_allocator();
    } else {
        FlsSetValue(slots.lent, nullptr);
        own->leave();
        own->activate();
    }
    specific_allocator(own);
}

void allocator_group::release_allocator() {
    allocator* const own = _specific.get();
    allocator* const lent = slots.get_lent();
    bool const has_own = own != nullptr && own != _default;
    detail::expect_activated(has_own ? slots.current.get() == own && lent == nullptr
                                     : lent != nullptr && lent->_activated);
    _serve(nullptr);
    if (lent != nullptr) {
        FlsSetValue(slots.lent, nullptr);
        _give_back(lent);
    } else {
        _release_allocator(own);
    }
}

// The allocator that the calling thread may switch off and on; null past its end.
allocator* allocator_group::_switchable() {
    allocator* const current = detail::current_allocator();
    if (current == nullptr && slots.ended.get() == nullptr)
        throw std::bad_alloc();
    return current;
}

void allocator_group::activate_allocator() {
    if (allocator* const current = _switchable())
        current->activate();
}

void allocator_group::deactivate_allocator(bool keep) {
    if (allocator* const current = _switchable())
        current->deactivate(keep);
}

void detail::retire_current_allocator() {
    if (allocator* const current = current_allocator())
        current->retire();
}

// A thread without an allocator has nothing to put back or hand over.
void allocator_group::flush_allocator(bool keep) {
    if (allocator* const current = slots.current.get())
        current->flush(keep);
}

allocator* allocator_group::_acquire_allocator() {
    allocator* const reused = _take_released();
    return reused != nullptr ? reused : new allocator;
}

// Null if there is none.
allocator* allocator_group::_take_released() {
    allocator* reused;
    {
        detail::guard<semaphore> const hold(allocator::_global_allocator->_lock, forking());
        reused = allocator::_released_allocators;
        if (reused == nullptr)
            return nullptr;
        allocator::_released_allocators = reused->_next_released;
    }
    reused->activate();
    return reused;
}

// The allocator keeps its chunks and the blocks that are still in use. Threads that free
// those put them back.
void allocator_group::_release_allocator(allocator* own) {
    own->retire();
    _push_released(own);
}

void allocator_group::_push_released(allocator* released) {
    detail::guard<semaphore> const hold(allocator::_global_allocator->_lock, forking());
    released->_next_released = allocator::_released_allocators;
    allocator::_released_allocators = released;
}

// An allocator to lend: the default one if no thread has it. The exchange acquires what the
// store in `_give_back` releases. Null when memory is exhausted.
allocator* allocator_group::_take() noexcept {
    if (!allocator::_default_is_lent.exchange(true, std::memory_order_acquire)) {
        _default->activate();
        return _default;
    }
    allocator* const reused = _take_released();
    return reused != nullptr ? reused : allocator::build_to_lend();
}

void allocator_group::_give_back(allocator* taken) {
    taken->leave();
    if (taken == _default)
        allocator::_default_is_lent.store(false, std::memory_order_release);
    else
        _push_released(taken);
}

// Null when nothing can be lent.
allocator* allocator_group::_lend() {
    if (slots.ended.get() != nullptr)
        return nullptr;
    allocator* const lent = _take();
    if (lent == nullptr)
        return nullptr;
    if (slots.current.try_set(lent)) {
        if (FlsSetValue(slots.lent, lent) != 0) {
            set_quick_pointer(lent);
            return lent;
        }
        slots.current.set(nullptr);
    }
    _give_back(lent);
    return nullptr;
}

// Runs on a thread that ends with an allocator that it was lent.
void OVEL_THREAD_ENTRY detail::give_back_at_end(void* lent) {
    allocator_group& group = *allocator_group::global();
    // Without memory for this, the thread may be lent an allocator again, and gives it back
    // in the system's next round of destructors.
    static_cast<void>(slots.ended.try_set(&group));
    FlsSetValue(slots.lent, nullptr);
    group._serve(nullptr);
    group._give_back(static_cast<allocator*>(lent));
}

detail::borrowed_allocator::borrowed_allocator() noexcept
    : _borrowed(allocator_group::global()->_take()) {}

detail::borrowed_allocator::~borrowed_allocator() {
    if (_borrowed != nullptr)
        allocator_group::global()->_give_back(_borrowed);
}

}  // namespace ovel
