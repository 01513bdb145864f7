// SPDX-License-Identifier: Apache-2.0
// Counting semaphores, built on the kernel's.

#include "ovel_semaphore.h"

#include "kernel.h"
#include "ovel_spin_wait.h"

#include <algorithm>
#include <limits>

namespace ovel {

namespace {

constexpr LONG maximum = std::numeric_limits<LONG>::max();

// The inline members are also part of the binary interface, for callers whose compiler
// does not inline them. Taking their addresses makes the compiler emit them.
[[gnu::used]] void (semaphore::*const exported[])() = {&semaphore::acquire, &semaphore::release};
[[gnu::used]] bool (semaphore::*const exported_try)() = &semaphore::try_acquire;

}  // namespace

HANDLE semaphore::_create() {
    return CreateSemaphoreA(nullptr, 0, maximum, nullptr);
}

semaphore::semaphore(int value, unsigned int spin) : semaphore(value, spin, _create()) {}

semaphore::semaphore(int value, unsigned int spin, HANDLE created)
    : _value(value), _spin(spin), _semaphore(created) {
    assure(_value >= 0);
    assure(_semaphore != 0);
}

semaphore::~semaphore() {
    assure(CloseHandle(_semaphore) != 0);
}

// Spins until a unit is available or the spin count is used up. Does not take the unit.
void semaphore::_poll() {
    YieldProcessor();
    if (_spin == 0 || !_memory.should_spin())
        return;
    for (detail::spin_wait wait(_spin, detail::pace_for_unit); !wait.is_over(); wait.pause())
        // Relaxed: the value is only a hint, the decrement decides.
        if (_value.load(std::memory_order_relaxed) > 0)
            return _memory.has_succeeded();
    _memory.has_failed();
}

// Spins for the only unit and backs off. A thread that sees the unit and loses it to
// another keeps spinning, because the new owner returns it soon. With three sleepers it
// does not spin: each would have to wake up and take the unit before it became visible.
void semaphore::_acquire_contended() {
    constexpr int many = 3;
    // Relaxed, here and below: only a hint that the exchange may succeed.
    if (_spin != 0 && _value.load(std::memory_order_relaxed) > -many && _memory.should_spin()) {
        for (detail::spin_wait wait(_spin, detail::pace_for_mutex); !wait.is_over();) {
            wait.pause();
            int one = 1;
            if (_value.load(std::memory_order_relaxed) > 0 &&
                _value.compare_exchange_strong(one, 0))
                return _memory.has_succeeded();
        }
        _memory.has_failed();
    }
    _take();
}

void semaphore::_release(int count) {
    int const asleep = -_value.fetch_add(count);
    count = std::min(count, asleep);
    if (count > 0)
        assure(ReleaseSemaphore(_semaphore, count, 0) != 0);
}

timed_semaphore::timed_semaphore(int value, unsigned int)
    : _semaphore(value >= 0 ? CreateSemaphoreA(nullptr, value, maximum, nullptr) : nullptr) {
    assure(value >= 0);
    assure(_semaphore != 0);
}

timed_semaphore::~timed_semaphore() {
    assure(CloseHandle(_semaphore) != 0);
}

void timed_semaphore::acquire() {
    assure(WaitForSingleObject(_semaphore, INFINITE) == WAIT_OBJECT_0);
}

bool timed_semaphore::try_acquire() {
    return _acquire_within(0);
}

bool timed_semaphore::timed_acquire(time const& deadline) {
    return _acquire_within(detail::milliseconds_between(time::now(), deadline));
}

bool timed_semaphore::timed_acquire(unsigned int milliseconds) {
    return _acquire_within(std::min<DWORD>(milliseconds, detail::longest_wait));
}

bool timed_semaphore::_acquire_within(DWORD milliseconds) {
    DWORD const result = WaitForSingleObject(_semaphore, milliseconds);
    if (result == WAIT_TIMEOUT)
        return false;
    assure(result == WAIT_OBJECT_0);
    return true;
}

void timed_semaphore::release() {
    assure(ReleaseSemaphore(_semaphore, 1, 0) != 0);
}

void timed_semaphore::_release(int count) {
    assure(ReleaseSemaphore(_semaphore, count, 0) != 0);
}

}  // namespace ovel
