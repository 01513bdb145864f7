// SPDX-License-Identifier: Apache-2.0
// What only POSIX systems do to threads: signals and cancellation.
#include "ovel_test.h"

#include <pthread.h>
#include <unistd.h>

namespace {

// The process gets a signal while all threads but the library's own block it. It stays pending:
// had one of these taken it, its default action would have ended the process.
TEST(posix_test, the_clock_and_the_recycler_handle_no_signals) {
    ovel::time::now();
    ovel::allocator_recycler::global()->release(1.0);
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &blocked, nullptr), 0);
    kill(getpid(), SIGUSR1);
    timespec const patience = {60, 0};
    EXPECT_EQ(sigtimedwait(&blocked, nullptr, &patience), SIGUSR1);
    EXPECT_EQ(pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr), 0);
}

// A cancelled thread completes the call, although the function waits at a cancellation point.
// The first reading of the clock's rate does the same.
TEST(posix_test, no_thread_is_cancelled_inside_call_once) {
    static unsigned int volatile flag = 0;
    auto const work = [](void*) -> void* {
        pthread_cancel(pthread_self());
        ovel::call_once(pthread_testcancel, flag);
        pthread_testcancel();
        return nullptr;
    };
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, work, nullptr), 0);
    void* result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_EQ(flag, 1U);
}

}  // namespace
