// SPDX-License-Identifier: Apache-2.0
// Once-only initialisation with a named kernel mutex. It uses no object of the library,
// so it can build the first one.

#include "ovel_once.h"

#include "kernel.h"
#include "ovel_assure.h"
#include "ovel_atomic.h"

#include <cstring>

namespace ovel {

namespace {

// A prefix that no other software uses in a name.
constexpr char tag[] = "6f76656c9d3c41e07ab25f18c6e43b0d71f8a29547de1c8bb36052f9ae847d13";
static_assert(sizeof tag == 64 + 1);

// Writes the name of the mutex for `flag` in this process: the tag, the process, and the
// address of the flag, sign-extended to 64 bits if it is narrower.
void name_mutex(unsigned int const volatile& flag, char* name) {
    std::memcpy(name, tag, sizeof tag);
    _ultoa(GetCurrentProcessId(), name + std::strlen(name), 16);
    auto const address = static_cast<std::int64_t>(reinterpret_cast<std::intptr_t>(&flag));
    _ui64toa(static_cast<std::uint64_t>(address), name + std::strlen(name), 16);
}

}  // namespace

void call_once(void (*function)(), unsigned int volatile& flag) {
    // Acquire pairs with the release below: a thread that reads 1 sees what the function
    // wrote.
    detail::atomic_ref<unsigned int> const completed(flag);
    if (completed.load(std::memory_order_acquire) != 0)
        return;

    // Cancellation would leave the mutex owned, and is no exception that `function` throws.
    deferred_cancellation const meanwhile;
    char name[128];
    name_mutex(flag, name);
    HANDLE const mutex = CreateMutexA(nullptr, 0, name);
    assure(mutex != 0);
    assure(WaitForSingleObject(mutex, INFINITE) == WAIT_OBJECT_0);
    // Relaxed: written only under the mutex, which this thread holds.
    if (completed.load(std::memory_order_relaxed) == 0) {
        try {
            function();
        } catch (...) {
            assure(("unexpected exception", 0));
        }
        completed.store(1, std::memory_order_release);
    }
    assure(ReleaseMutex(mutex) != 0);
    assure(CloseHandle(mutex) != 0);
}

}  // namespace ovel
