// SPDX-License-Identifier: Apache-2.0
// Which allocator serves which thread.
#ifndef OVEL_ALLOCATOR_GROUP_H
#define OVEL_ALLOCATOR_GROUP_H

#include "ovel_atomic.h"
#include "ovel_frame.h"
#include "ovel_kernel.h"
#include "ovel_thread_specific_ptr.h"

#include <cstddef>

namespace ovel {

// A thread's pool of small blocks. Programs only carry pointers to it about.
class allocator;

namespace detail {

class borrowed_allocator;
allocator* find_current_allocator();
void OVEL_THREAD_ENTRY give_back_at_end(void* lent);

}  // namespace detail

// The allocators of the process. One of them serves each thread that uses the library's
// memory, without a lock, and never serves two threads at a time.
//
// No thread has to prepare for this. A thread that has not acquired an allocator, or has
// released it, is lent one when it first allocates or frees, and gives it back when it ends:
// on Linux after the destructors of its `thread_local` objects, on Windows perhaps before.
// What it frees later is handed straight to its owner, and each later allocation borrows an
// allocator, so both stay correct and only become slower. A thread that ends with an
// allocator it has acquired, or with one that it made its own by `specific_allocator`, must
// release it first: else the allocator, and all that is in it, belongs to nobody.
//
// `acquire_allocator` is of use to a thread that manages its allocator itself, as the
// threads of the library do:
//
//     allocator_group::global()->acquire_allocator();
//     void* memory = allocator_support::allocate(100);
//     ...
//     allocator_group::global()->release_allocator();
//
// Blocks outlive all this: any thread may free what another allocated, also when that
// thread has ended. Frees of other threads' blocks are batched; `flush_allocator` hands
// them over at once.
//
// Every member but the destructor may be called from any thread, and all but
// `global_allocator` and `default_allocator` are about the calling one. Members wait for
// internal locks, which are held briefly, or while the blocks are put back that were freed
// of an allocator whose thread is away. What is called out of turn and not said to fail a
// check goes undetected, and corrupts memory. A slot that the system refuses fails the
// check "index != 0xffffffff" or "TlsSetValue(index, value) != 0".
class OVEL_EXPORT allocator_group {
public:
    // The one group of the process, built on first use and never destroyed.
    // Memory exhausted while it is built fails the check
    // "("unexpected exception", 0)".
    static allocator_group* global();

    // Gives up the thread-local slot. The library never destroys the group.
    ~allocator_group();

    allocator_group(allocator_group const&) = delete;
    allocator_group& operator=(allocator_group const&) = delete;

    // The calling thread's own allocator: the one that it acquired or set last. The
    // default one if that is null; which allocator then serves the thread is not told.
    allocator* specific_allocator() const;

    // Makes `own` the calling thread's allocator, and gives back what the thread was lent.
    // Null, or the default allocator: it has none of its own any more. The caller sees to it
    // that no two threads use `own` at a time.
    void specific_allocator(allocator* own);

    // The allocator that keeps empty chunks for all others and serves nobody.
    allocator* global_allocator() const;

    // The allocator that is lent before any other: to the thread that first uses the
    // library's memory, usually the process's first. When that thread ends, or gets an
    // allocator of its own, the next thread that is lent one takes it over.
    allocator* default_allocator() const;

    // Gives the calling thread an allocator of its own: the one that it was lent, unless
    // that is the default one; else the one released last; else a new one. It must not have
    // its own yet, for it would lose that one. Throws std::bad_alloc, having changed nothing.
    void acquire_allocator();

    // Gives back the allocator that the calling thread acquired, or else the one that it was
    // lent. Fails the check "_activated" if the thread has neither, or has released the
    // former already, or has deactivated it. `specific_allocator` goes on naming an allocator
    // that was acquired until another is set; it may be another thread's by then.
    void release_allocator();

    // Switch the allocator that serves the calling thread off while the thread waits for
    // long, and on again before it allocates or frees. Meanwhile, threads that free blocks
    // of this allocator put them back themselves. With `keep` the blocks of others that
    // the thread has freed stay batched; otherwise they are handed over. Out of turn: the
    // checks "!_activated" and "_activated". A thread that no allocator serves yet is lent
    // one, and std::bad_alloc is thrown if there is no memory for it; where none is lent
    // any more, at the end of a thread, there is nothing to switch.
    void activate_allocator();
    void deactivate_allocator(bool keep);

    // Puts back the blocks that others freed and, unless `keep`, hands over those
    // that the calling thread freed of others.
    void flush_allocator(bool keep);

private:
    friend struct detail::inspector;

    allocator_group();

    // The runtime heap; allocation throws std::bad_alloc.
    static void* operator new(std::size_t size);
    static void operator delete(void* memory);

    static void _construct_globals();
    static void _build();
    allocator* _acquire_allocator();
    void _release_allocator(allocator* own);

    // The lending of allocators: the source file tells how.
    friend allocator* detail::find_current_allocator();
    friend class detail::borrowed_allocator;
    friend void OVEL_THREAD_ENTRY detail::give_back_at_end(void* lent);

    void _serve(allocator* current);
    allocator* _lend();
    allocator* _switchable();
    allocator* _take() noexcept;
    allocator* _take_released();
    void _give_back(allocator* taken);
    void _push_released(allocator* released);

    // Null until the group is built, never reset.
    static detail::atomic<allocator_group*> _global;

    [[maybe_unused]] cacheline _before;
    thread_specific_ptr<allocator> _specific;
    allocator* const _default;
    [[maybe_unused]] cacheline _after;
};

inline allocator_group* allocator_group::global() {
    // Acquire: pairs with the release that ends the building, so that the group
    // and both fixed allocators are seen complete.
    allocator_group* group = _global.load(std::memory_order_acquire);
    if (group == nullptr) [[unlikely]] {
        _construct_globals();
        group = _global.load(std::memory_order_acquire);
    }
    return group;
}

inline allocator* allocator_group::specific_allocator() const {
    allocator* const own = _specific.get();
    return own != nullptr ? own : _default;
}

}  // namespace ovel

#endif
