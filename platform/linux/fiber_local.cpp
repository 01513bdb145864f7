// SPDX-License-Identifier: Apache-2.0
// Fiber-local slots are pthread keys with the callbacks as destructors: the C library
// calls those with the value already null.

#include "kernel.h"

#include <pthread.h>

namespace ovel {

DWORD kernel::FlsAlloc(void (*callback)(void*)) {
    pthread_key_t key;
    return pthread_key_create(&key, callback) == 0 ? key : FLS_OUT_OF_INDEXES;
}

void* kernel::FlsGetValue(DWORD index) {
    // The only service whose key the C library does not check.
    return index != FLS_OUT_OF_INDEXES ? pthread_getspecific(index) : nullptr;
}

BOOL kernel::FlsSetValue(DWORD index, void* value) {
    return pthread_setspecific(index, value) == 0;
}

}  // namespace ovel
