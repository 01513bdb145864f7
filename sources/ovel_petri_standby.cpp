// SPDX-License-Identifier: Apache-2.0
// The threads of a net that find its mutex taken.
//
// They never sleep for the mutex if they need not: it is handed over to a thread that sleeps for
// it, and all others would wait until that one is scheduled. What such a thread has done is
// published, and the thread with the mutex commits it. From then on it stands by, and nothing
// depends on it as long as others fire. Only a thread that is needed sleeps for the mutex.

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
    // A thread that looks again after a while compares the rate over some more time.
    constexpr detail::spin_pace pace_for_standby = {64, 64};
    constexpr std::int64_t most_spinning = 1 << 15;  // ticks, of some hundred firings
    _push(call);
    bool has_mutex = _enter_spinning(call, detail::pace_for_net, most_spinning);
    while (!has_mutex && call.now.load() != state::ended) {
        _stand_by(call);
        has_mutex = _enter_spinning(call, pace_for_standby, 0);
    }
    if (!has_mutex)
        _net._mutex.acquire();
    // If neither, the next dispatch commits it.
    if (call.now.exchange(state::ended) == state::ended)
        of._crew.arrive();
    else if (call.is_standing)
        of._crew.resume(call);
}

// Tries to get the mutex, at least once unless other threads end firings faster than it, and the
// cache lines that it guards, could be handed over: one more thread would only slow them down. If
// that goes on for more than `patience` ticks it gives up.
bool petri_net::engine::_enter_spinning(detail::petri_call const& call, detail::spin_pace pace,
                                        std::int64_t patience) {
    // Approximate ticks for another processor to fetch the mutex, the counts of a few
    // places, and what else a firing thread touches: some ten cache misses.
    constexpr std::int64_t handover = 1024;
    std::int64_t now = time_support::time_now();
    std::int64_t const begun = now;
    detail::spin_wait wait(_spin, pace);
    do {
        unsigned int const before = ended();
        std::int64_t const start = now;
        wait.pause();
        unsigned int const passed = ended() - before;
        now = time_support::time_now();
        if (passed <= 1 || passed * handover <= now - start ||
            call.now.load(std::memory_order_relaxed) == state::ended) {
            if (_net._mutex.try_acquire())
                return true;
        } else if (now - begun < patience) {
            wait.extend(_spin);
        } else {
            return false;
        }
    } while (!wait.is_over());
    return false;
}

// Sleeps until the thread is needed, or for a millisecond: a thread that fires may be busy with a
// long firing meanwhile, while others are ready. Or it had the mutex for all the time, and has not
// seen what was published.
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
