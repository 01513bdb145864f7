// SPDX-License-Identifier: Apache-2.0
// A pointer with a value of its own in each thread.
#ifndef OVEL_THREAD_SPECIFIC_PTR_H
#define OVEL_THREAD_SPECIFIC_PTR_H

#include "ovel_assure.h"
#include "ovel_kernel.h"

namespace ovel {

// One slot of the system's thread-local storage. A thread that stored nothing
// reads null. The pointees belong to the caller: nothing is deleted when a thread ends
// or the slot is freed. `get` and `set` never block, and reach only the calling thread's
// value. Constructing one without a free slot fails the check "index != 0xffffffff";
// storing a value when out of memory fails the check "TlsSetValue(index, value) != 0".
template <class T>
class thread_specific_ptr {
public:
    thread_specific_ptr() : index(TlsAlloc()) {
        assure(index != 0xffffffff);
    }
    ~thread_specific_ptr() {
        assure(TlsFree(index) != 0);
    }
    thread_specific_ptr(thread_specific_ptr const&) = delete;
    thread_specific_ptr& operator=(thread_specific_ptr const&) = delete;

    // What the calling thread has stored; null if nothing.
    T* get() const {
        return static_cast<T*>(TlsGetValue(index));
    }
    // Stores `value` for the calling thread.
    void set(T* value) {
        assure(TlsSetValue(index, value) != 0);
    }

    // The same, but false, with nothing changed, in place of a failed check.
    bool try_set(T* value) {
        return TlsSetValue(index, value) != 0;
    }

private:
    friend struct detail::inspector;

    DWORD const index;
};

}  // namespace ovel

#endif
