// SPDX-License-Identifier: Apache-2.0
// Calls of clients that take tokens from the places of a net and put tokens there.
#ifndef OVEL_PETRI_CALL_H
#define OVEL_PETRI_CALL_H

#include "ovel_petri_net.h"

#include "kernel.h"
#include "ovel_assure.h"
#include "ovel_atomic.h"
#include "ovel_kernel.h"
#include "ovel_spin_memory.h"
#include "ovel_spin_wait.h"

#include <exception>
#include <utility>

namespace ovel::detail {

// One call of a client at a place. It is on the stack of the calling thread, which polls the second
// cache line while another thread works with the first.
//
//     state        what ends it
//     open         its own thread carries it out under the net's mutex; or publishes it, and a
//                  thread that holds the mutex carries it out
//     waiting      a thread that holds the mutex carries it out when the place has what the
//                  call needs, ends it without that, or is its own thread and withdraws it
//     asleep       the same; a thread other than its own then posts the call's unit
//     ended        -
//
// Once a call that is not asleep has ended, its thread may return at any time, so the thread
// that ends it does not touch it again. A thread that is asleep returns after it has taken the
// unit.
//
// A thread of the net that finds the mutex taken publishes such a call as well, when it has run a
// firing, or has arrived. It is open or asleep until its thread is needed, or has the mutex. The
// thread that ends it is its own, or has taken it out of its crew's list.
struct alignas(64) petri_call {
    static constexpr unsigned int longest_doze = 1;  // milliseconds

    enum class kind : unsigned char {
        peek,
        try_peek,
        receive,
        try_receive,
        take,
        try_take,
        send,
        try_send,
        put,
        try_put
    };
    enum class state : unsigned char { open, waiting, asleep, ended };

    petri_call(kind what, petri_place* place, any* token, petri_patience const* patience = nullptr)
        : what(what), place(place), token(token), patience(patience) {}
    petri_call(kind what, petri_place* place, void (*make)(any&, void*), void* from,
               petri_patience const* patience = nullptr)
        : what(what), place(place), make(make), from(from), patience(patience) {}
    // Of a thread that `work`, a `firing_work`, runs on: it has run the firing, or has arrived.
    petri_call(thread_function& work, petri_transition* firing)
        : what(kind::peek),
          place(nullptr),
          patience(nullptr),
          work(&work),
          firing(firing),
          unit(nullptr) {}
    petri_call(petri_call const&) = delete;
    petri_call& operator=(petri_call const&) = delete;

    // Whether it takes or copies a token; otherwise it puts one.
    bool receives() const {
        return what <= kind::try_take;
    }
    // Whether it never waits for what it needs: the odd kinds.
    bool is_try() const {
        return (static_cast<unsigned char>(what) & 1) != 0;
    }
    bool may_wait() const {
        return !is_try() && (patience == nullptr || patience->milliseconds != 0);
    }

    kind const what;
    bool is_standing = false;  // in its crew's list, which guards it
    // Whether it may be left asleep for `longest_doze` although it could be carried out. Written
    // under the net's mutex. Relaxed: its own thread reads a hint.
    atomic<bool> dozes{false};
    petri_place* const place;
    any* const token = nullptr;                 // what a send copies
    void (*const make)(any&, void*) = nullptr;  // for a put; makes a token of `from`
    void* const from = nullptr;
    petri_patience const* const patience;   // null if only a token or a slot ends the wait
    thread_function* const work = nullptr;  // null for the calls of clients
    petri_call* next;                       // in the list that it is in
    // Written before the call ends; `elapsed` until then.
    alignas(64) petri_outcome outcome = petri_outcome::elapsed;
    atomic<state> now{state::open};
    petri_transition* const firing = nullptr;
    std::exception_ptr failure{};  // what the call throws
    HANDLE unit;                   // of a call asleep
};

// Blocks until a call that is no longer open has ended. When its time is over, calls `withdraw`,
// which ends it, or returns false if it has ended already. Polls at most `spin` times. A call that
// dozes has slept long enough when `hasten` is called.
template <class Hasten, class Withdraw>
void await(petri_call& call, unsigned int spin, spin_memory& memory, Hasten const& hasten,
           Withdraw const& withdraw) {
    using state = petri_call::state;
    if (call.now.load() == state::ended)
        return;
    if (!call.dozes.load(std::memory_order_relaxed) && memory.should_spin()) {
        for (spin_wait wait(spin, pace_for_unit); !wait.is_over(); wait.pause())
            if (call.now.load() == state::ended) {
                memory.has_succeeded();
                return;
            }
        memory.has_failed();
    }
    unsigned int left = call.patience != nullptr ? call.patience->milliseconds : INFINITE;
    call.unit = CreateSemaphoreA(nullptr, 0, 1, nullptr);
    if (call.unit == nullptr) {
        // Out of memory, but the call must not fail.
        for (; call.now.load() != state::ended; left -= left != INFINITE) {
            if (left == 0 && withdraw())
                return;
            Sleep(1);
            if (call.dozes.load(std::memory_order_relaxed))
                hasten();
        }
        return;
    }
    state expected = state::waiting;
    // If the call has ended just before it is withdrawn, its unit is on the way.
    bool is_over = !call.now.compare_exchange_strong(expected, state::asleep);
    if (!is_over && call.dozes.load(std::memory_order_relaxed)) {
        is_over = WaitForSingleObject(call.unit, petri_call::longest_doze) == WAIT_OBJECT_0;
        if (!is_over)
            hasten();
        if (left != INFINITE)
            left -= petri_call::longest_doze;
    }
    if (!is_over && WaitForSingleObject(call.unit, left) != WAIT_OBJECT_0 && !withdraw())
        assure(WaitForSingleObject(call.unit, INFINITE) == WAIT_OBJECT_0);
    CloseHandle(call.unit);
}

}  // namespace ovel::detail

#endif
