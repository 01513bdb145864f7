// SPDX-License-Identifier: Apache-2.0
// What may interrupt a thread from outside: signals and cancellation.
#ifndef OVEL_LINUX_INTERRUPTION_H
#define OVEL_LINUX_INTERRUPTION_H

#include <pthread.h>
#include <signal.h>

#include <initializer_list>

namespace ovel {

inline namespace kernel {

class blocked_signals {
public:
    blocked_signals() {
        sigset_t blocked;
        sigfillset(&blocked);
        // A thread raises these itself, by a fault. If they were blocked, no handler could
        // report it.
        for (int const fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS})
            sigdelset(&blocked, fault);
        pthread_sigmask(SIG_BLOCK, &blocked, &_before);
    }
    ~blocked_signals() {
        pthread_sigmask(SIG_SETMASK, &_before, nullptr);
    }
    blocked_signals(blocked_signals const&) = delete;
    blocked_signals& operator=(blocked_signals const&) = delete;

private:
    sigset_t _before;
};

class deferred_cancellation {
public:
    deferred_cancellation() {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &_before);
    }
    ~deferred_cancellation() {
        pthread_setcancelstate(_before, nullptr);
    }
    deferred_cancellation(deferred_cancellation const&) = delete;
    deferred_cancellation& operator=(deferred_cancellation const&) = delete;

private:
    int _before;
};

}  // namespace kernel

}  // namespace ovel

#endif
