// SPDX-License-Identifier: Apache-2.0
// What a scenario calls while it runs, and what it arranges for the services.

#include "dispatch.h"
#include "heap.h"
#include "run.h"
#include "world.h"

#include <bit>
#include <cstdarg>
#include <cstdio>
#include <utility>

namespace ovel::simulation {

void balance() {
    now->handles_at_balance = open_handles();
    now->blocks_at_balance = heap::blocks();
}

void begin() {
    now->state = phase::exploring;
}

void settle() {
    phase const before = std::exchange(now->state, phase::settling);
    wait_for_rest();
    now->state = before;
}

unsigned int pick(unsigned int bound) {
    return now->input.below(bound);
}

bool walks() {
    return now->when.how == strategy::choices;
}

void fail(char const* format, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    fail_run(text);
}

void expect_failure(char const* expression) {
    for (char const*& each : now->expected)
        if (each == nullptr) {
            each = expression;
            return;
        }
    fail("too many expected failures");
}

// The machine.

machine& current_machine() {
    // While the library is loaded.
    static constinit machine outside;
    return running() ? now->computer : outside;
}

void set_processors(unsigned int count, DWORD_PTR process_mask) {
    now->computer.processors = count;
    now->computer.process_mask = process_mask;
    current().affinity = process_mask;
}

void restrict_threads(DWORD_PTR process_mask) {
    // Like the system: a mask that covered the whole process grows with the process's
    // mask.
    auto const restrict = [process_mask](thread_state& each) {
        if ((each.affinity & ~process_mask) != 0 ||
            (current_machine().process_mask & ~each.affinity) == 0)
            each.affinity = process_mask;
    };
    if (!running()) {
        restrict(current());
        return;
    }
    for (unsigned int slot = 0; slot != slot_count; ++slot)
        if ((now->alive >> slot & 1) != 0)
            restrict(now->threads[slot].state);
}

DWORD_PTR counter_mask() {
    return now->computer.counter_mask;
}

void set_clock_rate(unsigned int megahertz) {
    now->computer.megahertz = megahertz;
}

// The clock. It stands still while the library is loaded.

std::uint64_t nanoseconds() {
    return running() ? now->clock : 0;
}

void end_waits_late(unsigned int milliseconds) {
    now->late_by = milliseconds;
}

std::uint64_t deadline_after(DWORD milliseconds) {
    if (milliseconds == INFINITE)
        return never;
    std::uint64_t const late = now->late_by == 0 ? 0 : now->input.below(now->late_by * 1000 + 1);
    return now->clock + milliseconds * std::uint64_t{1'000'000} + late * 1000;
}

// Requests, and what the services count.

void refuse_memory(unsigned int first, unsigned int count) {
    now->memory.refuse(first, count);
}

void refuse_blocks(unsigned int first, unsigned int count) {
    now->blocks.refuse(first, count);
}

void refuse_objects(unsigned int first, unsigned int count) {
    now->objects.refuse(first, count);
}

unsigned int refused() {
    return now->memory.refused() + now->blocks.refused() + now->objects.refused();
}

bool count_memory_request() {
    return running() && now->memory.count();
}

bool count_block_request() {
    return running() && now->blocks.count();
}

bool count_object_request() {
    return running() && now->objects.count();
}

void count_kernel_call() {
    if (running())
        ++now->kernel_calls;
}

unsigned int kernel_calls() {
    return now->kernel_calls;
}

unsigned int heap_blocks() {
    return heap::blocks();
}

unsigned int pauses() {
    return current().pauses;
}

unsigned int stack_size() {
    return current().stack_bytes;
}

unsigned int threads() {
    return static_cast<unsigned int>(std::popcount(now->alive));
}

// Threads.

unsigned int worker::_entry(void* self) {
    auto const me = static_cast<worker*>(self);
    me->_call(me->_body);
    return 0;
}

void worker::_start() {
    _thread = reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, _entry, this, 0, nullptr));
    if (_thread == nullptr)
        fail("a thread of the scenario was refused");
}

void worker::join() {
    if (_thread == nullptr)
        return;
    WaitForSingleObject(_thread, INFINITE);
    CloseHandle(_thread);
    _thread = nullptr;
    _delete(_body);
}

}  // namespace ovel::simulation
