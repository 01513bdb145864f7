// SPDX-License-Identifier: Apache-2.0
// The threads of a net that find its mutex taken, or nothing to fire.
//
// They never sleep for the mutex if they need not: it is handed over to a thread that sleeps for
// it, and all others would wait until that one is scheduled. What such a thread has done is
// published, and the thread with the mutex commits it. It stands by for at most a millisecond then,
// and only a thread that is needed, or has done so, sleeps for the mutex.
//
// A thread that finds no firing has left its crew. One such thread of the net may poll before it
// returns to its group: it takes over calls that are published, and if its crew needs a thread it
// is called, which saves a way through the group.

#include "ovel_assure.h"
#include "ovel_kernel.h"
#include "ovel_petri_call.h"
#include "ovel_petri_engine.h"
#include "ovel_spin_wait.h"
#include "ovel_time.h"

#include <algorithm>
#include <cstdint>
#include <utility>

namespace ovel {

using state = detail::petri_call::state;

void petri_net::engine::enter_contended(firing_work& of, detail::petri_call& call) {
    _push(call);
    attempt const spun = _enter_spinning(of, call);
    if (spun != attempt::succeeded) {
        // A thread that has just been called is needed. If its own group is slow, the threads of
        // others have the mutex, and take over nothing. Without spinning nobody knows.
        if (call.firing != nullptr && call.now.load() != state::ended &&
            (spun == attempt::outpaced || (_net._groups == 1 && _spin != 0)))
            _stand_by(call);
        _net._mutex.acquire();
    }
    // If neither, the next dispatch commits it.
    if (call.now.exchange(state::ended) == state::ended)
        of._crew.arrive();
    else if (call.is_standing)
        of._crew.resume(call);
}

// Tries to get the mutex until the spin count is used up. While other threads of the crew end
// firings faster than the mutex, and the cache lines that it guards, could be handed over, the
// thread does not even try: one more would only slow them down. If that goes on it gives up.
petri_net::engine::attempt petri_net::engine::_enter_spinning(firing_work const& of,
                                                              detail::petri_call const& call) {
    // Approximate ticks for another processor to fetch the mutex, the counts of a few
    // places, and what else a firing thread touches: some ten cache misses.
    constexpr std::int64_t handover = 1024;
    constexpr std::int64_t patience = 1 << 15;  // ticks, of some hundred firings
    std::int64_t now = time_support::time_now();
    std::int64_t const begun = now;
    for (detail::spin_wait wait(_spin, detail::pace_for_net); !wait.is_over();) {
        unsigned int const before = of._ended.load(std::memory_order_relaxed);
        std::int64_t const start = now;
        wait.pause();
        unsigned int const passed = of._ended.load(std::memory_order_relaxed) - before;
        now = time_support::time_now();
        if (passed <= 1 || passed * handover <= now - start ||
            call.now.load(std::memory_order_relaxed) == state::ended) {
            if (_net._mutex.try_acquire())
                return attempt::succeeded;
        } else if (now - begun < patience) {
            wait.extend(_spin);
        } else {
            return attempt::outpaced;
        }
    }
    return attempt::failed;
}

// Sleeps until the thread is needed, or for a millisecond: what is ready may wait behind a long
// firing of another thread. Or the thread with the mutex has had it all the time, and has not seen
// what was published.
void petri_net::engine::_stand_by(detail::petri_call& call) {
    constexpr unsigned int longest = 1;
    if (call.unit == nullptr)
        call.unit = CreateSemaphoreA(nullptr, 0, 1, nullptr);
    if (call.unit == nullptr) {
        Sleep(longest);  // out of memory
        return;
    }
    state expected = state::open;
    if (!call.now.compare_exchange_strong(expected, state::asleep) ||
        WaitForSingleObject(call.unit, longest) == WAIT_OBJECT_0)
        return;
    expected = state::asleep;
    // If it was needed just before, the unit is on the way.
    if (!call.now.compare_exchange_strong(expected, state::open))
        assure(WaitForSingleObject(call.unit, INFINITE) == WAIT_OBJECT_0);
}

// Nothing fires and the net stops: calls the threads that stand by, so that they leave. One of each
// crew; it calls the next one.
void petri_net::engine::_send_home() {
    for (unsigned int i = 0; i != _net._groups; ++i)
        if (_works[i]->_crew.has_standing())
            _end(_works[i]->_crew.call_standing());
}

petri_transition* petri_net::engine::poll(firing_work& of) {
    petri_transition* found;
    do {
        _net._leave();
        _enter_polling(of);
        _net._dispatch();
        found = next(of);
    } while (found == nullptr && begin_poll(of));
    _net._leave();
    return found;
}

// Polls until the thread is called, or until it takes the mutex because a call is published, or for
// a few microseconds. Takes the mutex, and counts the thread as one that has arrived.
void petri_net::engine::_enter_polling(firing_work& of) {
    bool has_mutex = false;
    bool is_needed = false;
    for (detail::spin_wait wait(std::min(_spin, detail::petri_port::most_pauses),
                                detail::pace_for_unit);
         !wait.is_over(); wait.pause()) {
        has_mutex =
            _published.load(std::memory_order_relaxed) != nullptr && _net._mutex.try_acquire();
        is_needed = has_mutex || _is_poller_called.load(std::memory_order_relaxed);
        if (is_needed)
            break;
    }
    if (is_attended() != is_needed)
        _is_attended.store(is_needed, std::memory_order_relaxed);
    if (!has_mutex)
        detail::acquire_patiently(_net._mutex, _spin, detail::pace_for_net);
    if (_is_poller_called.load(std::memory_order_relaxed)) {
        of._crew.arrive();
    } else {
        of._crew.come_back();
        ++_called;
    }
    _poller = nullptr;
    // After a failure the thread does not poll again.
    is_needed ? _poll_memory.has_succeeded() : _poll_memory.has_failed();
}

void petri_net::engine::release_with_news(wake_ups const& wakes) {
    bool const delay_has_begun = (_news & detail::for_clock) != 0;
    _forget(detail::for_clock | detail::for_sleepers);
    detail::petri_call* sleepers = std::exchange(_sleepers, nullptr);
    _net._mutex.release();
    call(wakes.called);
    // A caller that is awake may be gone.
    while (sleepers != nullptr)
        assure(ReleaseSemaphore(std::exchange(sleepers, sleepers->next)->unit, 1, 0) != 0);
    if (wakes.queue_thread || delay_has_begun)
        release_queue_thread();
}

}  // namespace ovel
