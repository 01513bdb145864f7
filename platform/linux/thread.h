// SPDX-License-Identifier: Apache-2.0
// The object behind a thread's handle.
#ifndef OVEL_PLATFORM_LINUX_THREAD_H
#define OVEL_PLATFORM_LINUX_THREAD_H

#include "linux/futex_word.h"
#include "linux/object.h"
#include "ovel_atomic.h"

#include <cstdint>

#include <pthread.h>

namespace ovel::detail {

// Held by its handle and by its thread, and freed by whichever leaves last.
struct kernel_thread : kernel_object {
    static constexpr object_kind own_kind = object_kind::thread;

    kernel_thread(unsigned int (*entry_)(void*), void* argument_)
        : kernel_object{own_kind}, entry(entry_), argument(argument_) {}

    // Waits for the thread's end and joins it. Any number of threads may call it. The
    // results of `WaitForSingleObject`; `WAIT_FAILED` in a fork, and when the system
    // refuses to join, as it does a thread that would join itself.
    DWORD wait(DWORD milliseconds);

    // Gives the handle up.
    void close();

    // Gives a hold up.
    void leave();

    // The thread exists in the process that has started it, and in no fork of that.
    unsigned int const process = process_generation();
    unsigned int (*const entry)(void*);
    void* const argument;
    atomic<std::uint32_t> identifier = 0;  // of the thread, once it runs
    atomic<std::uint32_t> ended = 0;       // 1 once `entry` has returned
    atomic<unsigned int> holds = 2;

    pthread_t thread = {};  // by its creator, before the handle is known
    pthread_mutex_t join_lock = PTHREAD_MUTEX_INITIALIZER;
    bool joined = false;  // under join_lock

private:
    bool _wait_for_return(deadline const& until);
    DWORD _join();
    bool _try_join();
};

}  // namespace ovel::detail

#endif
