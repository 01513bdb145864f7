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

// A thread's pool of small blocks. Programs only pass pointers to it.
class allocator;

namespace detail {

class borrowed_allocator;
allocator* find_current_allocator();
void OVEL_THREAD_ENTRY give_back_at_end(void* lent);

}  // namespace detail

// The allocators of the process. Each thread that uses the library's memory is served by one
// of them, without a lock. No allocator serves two threads at a time.
//
// Threads need no preparation. A thread that has not acquired an allocator, or has released
// it, is lent one when it first allocates or frees. It gives the allocator back when it ends:
// on Linux after the destructors of its `thread_local` objects, on Windows possibly before.
// A block that it frees later goes straight to its owner, and each later allocation borrows
// an allocator: correct, but slower. A thread that has acquired an allocator, or set one by
// `specific_allocator`, must release it before it ends. Otherwise the allocator and its
// memory leak.
//
// `acquire_allocator` is for threads that manage their allocator themselves, as the threads
// of the library do:
//
//     allocator_group::global()->acquire_allocator();
//     void* memory = allocator_support::allocate(100);
//     ...
//     allocator_group::global()->release_allocator();
//
// Any thread may free what another allocated, even after that thread has ended. Frees of
// other threads' blocks are batched; `flush_allocator` hands them over at once.
//
// Any thread may call every member but the destructor. All but `global_allocator` and
// `default_allocator` act on the calling thread. Members wait for internal locks, which are
// held briefly, or as long as it takes to put back blocks of a deactivated allocator. Calls
// out of turn corrupt memory undetected, unless a check is documented. A slot that the
// system refuses fails the check "index != 0xffffffff" or "TlsSetValue(index, value) != 0".
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

    // The calling thread's own allocator: the one that it acquired or set last. If that is
    // null, the default allocator, whichever allocator really serves the thread.
    allocator* specific_allocator() const;

    // Makes `own` the calling thread's allocator, and gives a lent one back. With null or the
    // default allocator the thread has none of its own any more. The caller ensures that no
    // two threads use `own` at a time.
    void specific_allocator(allocator* own);

    // The allocator that keeps empty chunks for all others. It serves no thread.
    allocator* global_allocator() const;

    // The allocator that is lent first: to the thread that first uses the library's memory,
    // usually the process's first thread. After that thread has ended, or has acquired an
    // allocator of its own, the next thread that needs an allocator is lent it.
    allocator* default_allocator() const;

    // Gives the calling thread an allocator of its own: the one that it was lent, unless that
    // is the default one; otherwise the one released last; otherwise a new one. A thread that
    // already has its own would leak it. Throws std::bad_alloc, having changed nothing; without
    // memory for a lock it fails the check "_semaphore != 0".
    void acquire_allocator();

    // Gives back the allocator that the calling thread acquired, or otherwise the one that it
    // was lent. Fails the check "_activated" if the thread has neither, or has already
    // released or deactivated it. `specific_allocator` keeps returning a released allocator
    // until another is set, although it may serve another thread by then.
    void release_allocator();

    // Deactivate the allocator that serves the calling thread for a long wait, and activate
    // it before the thread allocates or frees again. In between, use nothing of the library
    // but locks: joining a thread, for one, allocates. Meanwhile, threads that free blocks of
    // this allocator put them back themselves. With `keep` the freed blocks of others stay
    // batched; otherwise they are handed over. Calls out of turn fail the checks
    // "!_activated" and "_activated". A thread without an allocator is lent one first;
    // throws std::bad_alloc if there is no memory for it. At the end of a thread, when
    // nothing is lent any more, these do nothing.
    void activate_allocator();
    void deactivate_allocator(bool keep);

    // Puts back the blocks that other threads have freed and, unless `keep`, hands over the
    // blocks of others that the calling thread has freed.
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

    // Lending; described in the source file.
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
    // Acquire: pairs with the release that ends `_build`, so that the group and both fixed
    // allocators are complete.
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
