// SPDX-License-Identifier: Apache-2.0
// A pointer with a separate value in each thread.
#ifndef OVEL_THREAD_SPECIFIC_PTR_H
#define OVEL_THREAD_SPECIFIC_PTR_H

#include "ovel_assure.h"
#include "ovel_kernel.h"

namespace ovel {

// One slot of the system's thread-local storage. A thread that has stored nothing reads
// null. The caller owns the pointees: nothing is deleted when a thread ends or the slot
// is freed. `get` and `set` never block and access only the calling thread's value. The
// constructor fails the check "index != 0xffffffff" if no slot is free. `set` fails the
// check "TlsSetValue(index, value) != 0" if memory runs out.
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

    // What the calling thread has stored, or null.
    T* get() const {
        return static_cast<T*>(TlsGetValue(index));
    }
    // Stores `value` for the calling thread.
    void set(T* value) {
        assure(TlsSetValue(index, value) != 0);
    }

    // The same, but returns false instead of failing a check. The value is then
    // unchanged.
    [[nodiscard]] bool try_set(T* value) {
        return TlsSetValue(index, value) != 0;
    }

private:
    friend struct detail::inspector;

    DWORD const index;
};

}  // namespace ovel

#endif
