// SPDX-License-Identifier: Apache-2.0
// The object that a thread's handle points to.
#ifndef OVEL_PLATFORM_LINUX_THREAD_H
#define OVEL_PLATFORM_LINUX_THREAD_H

#include "linux/futex_word.h"
#include "linux/object.h"
#include "ovel_atomic.h"

#include <cstdint>

#include <pthread.h>

namespace ovel::detail {

// Its handle and its thread each hold it; the last to leave frees it.
struct kernel_thread : kernel_object {
    static constexpr object_kind own_kind = object_kind::thread;

    kernel_thread(unsigned int (*entry_)(void*), void* argument_)
        : kernel_object{own_kind}, entry(entry_), argument(argument_) {}

    // Waits for the thread's end and joins it. Any number of threads may call it. Returns
    // the results of `WaitForSingleObject`; `WAIT_FAILED` in a forked process, and if the
    // system refuses to join, for example a thread that would join itself.
    DWORD wait(DWORD milliseconds);

    // Drops the handle's hold.
    void close();

    // Drops one hold.
    void leave();

    // The process that started the thread. The thread does not exist in its forks.
    unsigned int const process = process_generation();
    unsigned int (*const entry)(void*);
    void* const argument;
    atomic<std::uint32_t> identifier = 0;  // of the thread, once it runs
    atomic<std::uint32_t> ended = 0;       // 1 once `entry` has returned
    atomic<unsigned int> holds = 2;

    pthread_t thread = {};  // written by its creator before the handle is known
    pthread_mutex_t join_lock = PTHREAD_MUTEX_INITIALIZER;  // guards joined
    bool joined = false;                                    // under join_lock

private:
    bool _wait_for_return(deadline const& until);
    DWORD _join();
    bool _try_join();
};

}  // namespace ovel::detail

#endif
