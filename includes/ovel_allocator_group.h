// Which allocator serves which thread.
#ifndef OVEL_ALLOCATOR_GROUP_H
#define OVEL_ALLOCATOR_GROUP_H

#include "ovel_atomic.h"
#include "ovel_frame.h"
#include "ovel_thread_specific_ptr.h"

#include <cstddef>

namespace ovel {

// A thread's pool of small blocks. Programs only carry pointers to it about.
class allocator;

// The allocators of the process: each thread that wants one has its own, from
// which it allocates without a lock; all others share the default allocator.
//
// Sharing takes no lock either: threads without an allocator of their own must
// not allocate or free through the library at the same time. The threads that
// the library starts have their own; any other acquires one first, as its first
// use of the library's memory, and releases it as its last. Nearly everything
// allocates: containers, nets, starting a thread or a group, the first reading of
// the clock. The library is not told when a thread ends: one that ends without
// releasing leaves its allocator, and all that is in it, to nobody. The thread that
// ends the process keeps its own, for the library frees memory on it at the end.
//
//     allocator_group::global()->acquire_allocator();
//     void* memory = allocator_support::allocate(100);
//     ...
//     allocator_group::global()->release_allocator();
//
// Blocks outlive all this: any thread may free what another allocated, also
// when that thread has released its allocator. Frees of other threads' blocks
// are batched; `flush_allocator` hands them over at once.
//
// Every member but the destructor may be called from any thread and is about the
// calling thread's allocator. Members wait for internal locks, which are held
// briefly, or while the blocks are put back that were freed of an allocator whose
// thread is away. What is called out of turn and not said to fail a check goes
// undetected, and corrupts memory. A slot that the system refuses fails the check
// "index != 0xffffffff" or "TlsSetValue(index, value) != 0"; a lock that it has no
// memory for, the check "_semaphore != 0".
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

    // The calling thread's own allocator, or the default one if it has none.
    allocator* specific_allocator() const;

    // Makes `own` the calling thread's allocator; null: the default one again.
    // The caller sees to it that no two threads use an allocator at a time.
    void specific_allocator(allocator* own);

    // The allocator that keeps empty chunks for all others and serves nobody.
    allocator* global_allocator() const;

    // The allocator of all threads that have none of their own.
    allocator* default_allocator() const;

    // Gives the calling thread an allocator of its own, which it must not have
    // yet (it would lose that one): the one released last, else a new one. Throws
    // std::bad_alloc, having changed nothing.
    void acquire_allocator();

    // Gives back the allocator that the calling thread acquired; without one it
    // would give the default allocator away. It must be the thread's last use of
    // the library's memory; releasing an allocator that is not activated fails the
    // check "_activated".
    void release_allocator();

    // Switch the calling thread's allocator off while the thread waits for long,
    // and on again before it allocates or frees. Meanwhile, threads that free
    // blocks of this allocator put them back themselves. With `keep` the blocks
    // of others that the thread has freed stay batched; otherwise they are handed
    // over. Out of turn: the checks "!_activated" and "_activated". A thread
    // without an allocator of its own would switch the default one off for all.
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
