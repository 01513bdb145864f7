// SPDX-License-Identifier: Apache-2.0
// The threads of a net that find its mutex taken.
//
// They never sleep for the mutex if they need not: it is handed over to a thread that sleeps for
// it, and all others would wait until that one is scheduled. What such a thread has done is
// published, and the thread with the mutex commits it. It stands by for at most a millisecond then,
// and only a thread that is needed, or has done so, sleeps for the mutex.

#include "ovel_assure.h"
#include "ovel_kernel.h"
#include "ovel_petri_call.h"
#include "ovel_petri_engine.h"
#include "ovel_spin_wait.h"
#include "ovel_time.h"

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
