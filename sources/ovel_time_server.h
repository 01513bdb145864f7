// SPDX-License-Identifier: Apache-2.0
// The one thread whose processor's counter is the clock of the process.
#ifndef OVEL_TIME_SERVER_H
#define OVEL_TIME_SERVER_H

#include "ovel_atomic.h"
#include "ovel_semaphore.h"
#include "ovel_thread_base.h"
#include "ovel_thread_function.h"

#include <cstdint>

namespace ovel {

namespace detail {

struct process_hooks;

}  // namespace detail

// Counters of different processors need not agree, so readings that are to be
// compared come from this thread alone, which stays on one processor. It runs from
// the first reading to the end of the process.
class time_server : public thread_function {
public:
    // Built, with its thread, on the first call in the process.
    static time_server& global();

    // One reading of the counter. Any thread may ask; they take turns, and wait
    // for the server's answer.
    std::int64_t reading();

    // The server's loop.
    void operator()() override;

    // The processors of the process have changed. The server stays on its own if that is
    // among them, and otherwise moves to the lowest, before it reads the counter again.
    static void follow_processors();

private:
    friend struct detail::inspector;
    friend struct detail::process_hooks;

    time_server();
    static void _create();

    static time_server* _global;                   // set under _created
    static unsigned int volatile _created;         // once-flag
    static detail::atomic<unsigned int> _changes;  // of the process's processors

    thread_base _thread;
    semaphore _lock;            // one client at a time
    semaphore _request;         // a client asks
    semaphore _reply;           // the server has answered
    std::int64_t _reading = 0;  // written by the server between a request and its reply
};

}  // namespace ovel

#endif
