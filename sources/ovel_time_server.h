// SPDX-License-Identifier: Apache-2.0
// The thread whose processor's counter is the clock of the process.
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

// The counters of different processors may disagree. So all readings that are compared
// come from this thread, which stays on one processor. It runs from the first reading to
// the end of the process.
class time_server : public thread_function {
public:
    // The first call in the process builds the server and starts its thread.
    static time_server& global();

    // Returns one reading of the counter. Any thread may call it. Callers take turns and
    // wait for the server's reply.
    std::int64_t reading();

    // The server's loop.
    void operator()() override;

    // Call it when the processors of the process have changed. Before its next reading,
    // the server pins itself again: to its own processor if that is still available,
    // otherwise to the lowest one.
    static void follow_processors();

private:
    friend struct detail::inspector;
    friend struct detail::process_hooks;

    time_server();
    static void _create();

    static time_server* _global;                   // set under _created
    static unsigned int volatile _created;         // once-flag
    static detail::atomic<unsigned int> _changes;  // counts changes of the process's mask

    thread_base _thread;
    semaphore _lock;            // guards one exchange of request and reply
    semaphore _request;         // a unit for each reading that a client wants
    semaphore _reply;           // a unit for each reading that the server has stored
    std::int64_t _reading = 0;  // written by the server between a request and its reply
};

}  // namespace ovel

#endif
