// SPDX-License-Identifier: Apache-2.0
// The time server.

#include "ovel_time_server.h"

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
    _thread.release();
}

std::int64_t time_server::reading() {
    detail::guard const hold(_lock);
    _request.release();
    _reply.acquire();
    return _reading;
}

time time::now() {
    return time(time_server::global().reading());
}

void time_server::operator()() {
    // The lowest processor of the process: processor 0, but where the process
    // may not use it.
    unsigned int const processors = thread_support::process_affinity();
    thread_support::thread_affinity(processors & -processors);
    for (;;) {
        _request.acquire();
        _reading = time_support::time_now();
        _reply.release();
    }
}

}  // namespace ovel
