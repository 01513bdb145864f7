// The building of the allocator group, and the coming and going of threads.

#include "ovel_allocator_group.h"

#include "kernel.h"
#include "ovel_allocator.h"
#include "ovel_assure.h"
#include "ovel_guard.h"
#include "ovel_once.h"

#include <new>

namespace ovel {

namespace {

// The inline members are part of the binary interface as well, for callers whose
// compiler does not inline them: naming them here has them emitted.
[[gnu::used]] allocator_group* (*const exported_global)() = &allocator_group::global;
[[gnu::used]] allocator* (allocator_group::*const exported_specific)() const =
    &allocator_group::specific_allocator;

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

// Runs once in the process. No allocation passes through the group until it is
// there, so everything here comes from the runtime heap.
void allocator_group::_build() {
    try {
        allocator::_global_allocator = new allocator(true);
        allocator::_default_allocator = new allocator(false);
        // Release, and last: whoever sees the group sees all of the above.
        _global.store(new allocator_group, std::memory_order_release);
    } catch (...) {
        assure(("unexpected exception", 0));
    }
}

// Also for whoever reads the quick pointer: null sends them to the slot.
void allocator_group::specific_allocator(allocator* own) {
    _specific.set(own);
    set_quick_pointer(own);
}

allocator& detail::find_own_allocator() {
    allocator* const own = allocator_group::global()->specific_allocator();
    set_quick_pointer(own);
    return *own;
}

allocator* allocator_group::global_allocator() const {
    global();
    return allocator::_global_allocator;
}

allocator* allocator_group::default_allocator() const {
    global();
    return allocator::_default_allocator;
}

void allocator_group::acquire_allocator() {
    specific_allocator(_acquire_allocator());
}

void allocator_group::release_allocator() {
    _release_allocator(specific_allocator());
}

void allocator_group::activate_allocator() {
    specific_allocator()->activate();
}

void allocator_group::deactivate_allocator(bool keep) {
    specific_allocator()->deactivate(keep);
}

void allocator_group::flush_allocator(bool keep) {
    detail::own_allocator().flush(keep);
}

allocator* allocator_group::_acquire_allocator() {
    allocator* reused;
    {
        detail::guard<semaphore> const hold(allocator::_global_allocator->_lock);
        reused = allocator::_released_allocators;
        if (reused != nullptr)
            allocator::_released_allocators = reused->_next_released;
    }
    if (reused == nullptr)
        return new allocator;
    reused->activate();
    return reused;
}

// The allocator keeps its chunks, and the blocks that others still use: when
// those are freed, the freeing threads put them back.
void allocator_group::_release_allocator(allocator* own) {
    own->deactivate(false);
    detail::guard<semaphore> const hold(allocator::_global_allocator->_lock);
    own->_next_released = allocator::_released_allocators;
    allocator::_released_allocators = own;
}

}  // namespace ovel
