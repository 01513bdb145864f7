// SPDX-License-Identifier: Apache-2.0
// Thread-local slots.
//
// An index consists of the slot's number in the low bits and its generation above: how
// often the slot has been allocated. Each entry of a thread stores the index under which
// it was set and is valid for that index only. So a slot that was freed and allocated
// again reads null in every thread, and freeing a slot visits no thread. A slot that has
// used up its generations is retired instead of wrapping: an old entry never becomes
// valid again.

#include "kernel.h"
#include "linux/fork.h"
#include "linux/pthread_guard.h"
#include "ovel_atomic.h"

#include <cstdlib>

#include <pthread.h>

namespace ovel {

constinit thread_local void* detail::quick_pointer_word = nullptr;

pthread_mutex_t detail::slots_lock = PTHREAD_MUTEX_INITIALIZER;

namespace {

constexpr DWORD slot_bits = 11;
constexpr DWORD slot_mask = (1u << slot_bits) - 1;
constexpr DWORD last_generation = TLS_OUT_OF_INDEXES >> slot_bits;
constexpr DWORD near_slots = 64;   // in every thread's own table; as many as on Windows
constexpr DWORD far_slots = 1024;  // in a block, for threads that set one of them; likewise
constexpr DWORD slots = near_slots + far_slots;
static_assert(slots <= slot_mask);  // TLS_OUT_OF_INDEXES names no slot

struct slot {
    // 0 if the slot is free. Written under slots_lock; read without it to tell a stale
    // index from the current one. Relaxed: the program passes the index to the reader,
    // which orders this.
    detail::atomic<DWORD> index;
    DWORD generation;  // under slots_lock
};

constinit slot table[slots] = {};

// A thread's values, and the indexes under which they were set. Initial-exec, so that a
// read is a few loads and no call. A thread has little such storage. Hence two arrays
// without padding, and a separate block for the far slots.
template <DWORD size>
struct entries {
    void* values[size];
    DWORD indexes[size];
};
[[gnu::tls_model("initial-exec")]] constinit thread_local entries<near_slots> near_entries = {};
[[gnu::tls_model("initial-exec")]] constinit thread_local entries<far_slots>* far_entries = nullptr;

// The key's destructor frees a thread's block. If another destructor sets a far slot
// afterwards, that allocates a new block and the system calls the destructor again.
pthread_key_t far_key;
bool has_far_key;  // both written once

void free_far_entries(void* block) {
    far_entries = nullptr;
    free(block);
}

bool make_far_entries() {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, [] { has_far_key = pthread_key_create(&far_key, free_far_entries) == 0; });
    if (!has_far_key)
        return false;
    void* const block = std::calloc(1, sizeof(entries<far_slots>));
    if (!block)
        return false;
    if (pthread_setspecific(far_key, block) != 0) {
        free(block);
        return false;
    }
    far_entries = static_cast<entries<far_slots>*>(block);
    return true;
}

// The slot that `index` identifies; null if the index is not in use.
slot* slot_in_use(DWORD index) {
    DWORD const number = index & slot_mask;
    bool const used = index != 0 && number < slots &&
                      table[number].index.load(std::memory_order_relaxed) == index;
    return used ? &table[number] : nullptr;
}

}  // namespace

DWORD kernel::TlsAlloc() {
    detail::pthread_guard const hold(detail::slots_lock, forking());
    for (DWORD number = 0; number < slots; ++number) {
        slot& free_slot = table[number];
        if (free_slot.index.load(std::memory_order_relaxed) != 0 ||
            free_slot.generation == last_generation)
            continue;
        DWORD const index = ++free_slot.generation << slot_bits | number;
        free_slot.index.store(index, std::memory_order_relaxed);
        return index;
    }
    return TLS_OUT_OF_INDEXES;
}

BOOL kernel::TlsFree(DWORD index) {
    detail::pthread_guard const hold(detail::slots_lock, forking());
    slot* const used = slot_in_use(index);
    if (!used)
        return 0;
    used->index.store(0, std::memory_order_relaxed);
    return 1;
}

void* kernel::TlsGetValue(DWORD index) {
    DWORD const number = index & slot_mask;
    if (number < near_slots)
        return near_entries.indexes[number] == index ? near_entries.values[number] : nullptr;
    DWORD const far_number = number - near_slots;
    if (far_number >= far_slots || !far_entries)
        return nullptr;
    return far_entries->indexes[far_number] == index ? far_entries->values[far_number] : nullptr;
}

BOOL kernel::TlsSetValue(DWORD index, void* value) {
    // A stale index must not overwrite the value of the slot's current holder.
    if (!slot_in_use(index))
        return 0;
    DWORD const number = index & slot_mask;
    if (number < near_slots) {
        near_entries.indexes[number] = index;
        near_entries.values[number] = value;
        return 1;
    }
    if (!far_entries && !make_far_entries())
        return 0;
    far_entries->indexes[number - near_slots] = index;
    far_entries->values[number - near_slots] = value;
    return 1;
}

}  // namespace ovel
