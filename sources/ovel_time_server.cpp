// SPDX-License-Identifier: Apache-2.0
// The time server.

#include "ovel_time_server.h"

#include "kernel.h"
#include "ovel_allocator.h"
#include "ovel_guard.h"
#include "ovel_once.h"
#include "ovel_thread_support.h"
#include "ovel_time.h"

namespace ovel {

time_server& time_server::global() {
    call_once(_create, _created);
    return *_global;
}

void time_server::_create() {
    _global = new time_server;
}

time_server::time_server()
    : _thread(16384),
      _lock(1, detail::current_spin()),
      _request(0, detail::current_spin()),
      _reply(0, detail::current_spin()) {
    _thread.schedule(*this);
    blocked_signals const meanwhile;  // the stack has no room for their handlers
    _thread.release();
}

std::int64_t time_server::reading() {
    // The server's thread then no longer runs, and a thread that held the lock may have ended.
    if (other_threads_have_ended())
        return time_support::time_now();
    detail::guard const hold(_lock);
    _request.release();
    _reply.acquire();
    return _reading;
}

time time::now() {
    return time(time_server::global().reading());
}

constinit detail::atomic<unsigned int> time_server::_changes{0};

void time_server::follow_processors() {
    ++_changes;
}

void time_server::operator()() {
    set_thread_name("ovel-clock");
    // When the process gets other processors, the system lets every thread use all of
    // them.
    unsigned int changes = _changes;
    // Starts on the lowest processor of the process: processor 0 if the process may use
    // it.
    unsigned int processor = detail::stay_on(1);
    detail::retire_current_allocator();
    for (;;) {
        _request.acquire();
        // Acquire: makes the counted change of the mask visible.
        unsigned int const latest = _changes.load(std::memory_order_acquire);
        if (changes != latest) {
            changes = latest;
            processor = detail::stay_on(processor);
        }
        _reading = time_support::time_now();
        _reply.release();
    }
}

}  // namespace ovel
