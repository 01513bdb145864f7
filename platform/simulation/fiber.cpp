// SPDX-License-Identifier: Apache-2.0
// Fibers for x86-64. A switch saves the registers that a called function must preserve,
// and makes no system call. The unwinder never leaves a fiber: its entry function catches
// everything, and above it lies a null return address.

#include "fiber.h"

#include <sys/mman.h>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <cxxabi.h>

// clang-format off
asm(R"(
    .text
    .p2align 4
    .local  ovel_simulation_switch
    .type   ovel_simulation_switch, @function
ovel_simulation_switch:
    pushq   %rbp
    pushq   %rbx
    pushq   %r12
    pushq   %r13
    pushq   %r14
    pushq   %r15
    movq    %rsp, (%rdi)
    movq    %rsi, %rsp
    popq    %r15
    popq    %r14
    popq    %r13
    popq    %r12
    popq    %rbx
    popq    %rbp
    ret
    .size   ovel_simulation_switch, . - ovel_simulation_switch
)");
// clang-format on

extern "C" void ovel_simulation_switch(void** save, void* load);

namespace ovel::simulation {

namespace {

// The layout that the C++ ABI fixes for `__cxa_get_globals`.
struct exception_state {
    void* caught;
    unsigned int uncaught;
};

exception_state& exceptions() {
    static auto& state = *reinterpret_cast<exception_state*>(abi::__cxa_get_globals());
    return state;
}

}  // namespace

void map_stacks() {
    auto const at = reinterpret_cast<void*>(stacks_at);
    void* const stacks =
        mmap(at, stack_count * (stack_bytes + stack_guard_bytes), PROT_READ | PROT_WRITE,
             MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED_NOREPLACE, -1, 0);
    if (stacks != at) {
        std::perror("simulation: stacks");
        std::abort();
    }
    for (unsigned int each = 0; each != stack_count; ++each)
        mprotect(stack(each) - stack_guard_bytes, stack_guard_bytes, PROT_NONE);
}

void prepare(fiber& created, unsigned int stack_index, void (*entry)()) {
    auto const top = reinterpret_cast<void**>(stack(stack_index) + stack_bytes);
    // From the top: a null return address for the entry function, so that it finds the
    // stack as after a call; its address; and six registers.
    top[-1] = nullptr;
    std::memcpy(&top[-2], &entry, sizeof entry);
    std::memset(&top[-8], 0, 6 * sizeof(void*));
    created = fiber{&top[-8], nullptr, 0};
}

void switch_to(fiber& from, fiber& to) {
    exception_state& state = exceptions();
    from.caught_exceptions = state.caught;
    from.uncaught_exceptions = state.uncaught;
    state.caught = to.caught_exceptions;
    state.uncaught = to.uncaught_exceptions;
    ovel_simulation_switch(&from.stack_pointer, to.stack_pointer);
}

unsigned int calls_of(fiber const& suspended, unsigned int stack_index, void** calls,
                      unsigned int most) {
    auto const low = reinterpret_cast<std::uintptr_t>(stack(stack_index));
    auto const high = low + stack_bytes;
    auto const inside = [&](std::uintptr_t at) {
        return at >= low && at + 2 * sizeof(void*) <= high && at % sizeof(void*) == 0;
    };
    unsigned int count = 0;
    auto frame = reinterpret_cast<std::uintptr_t>(suspended.stack_pointer) + 5 * sizeof(void*);
    if (!inside(frame))
        return 0;
    calls[count++] = reinterpret_cast<void**>(frame)[1];
    frame = *reinterpret_cast<std::uintptr_t*>(frame);
    while (count != most && inside(frame)) {
        void* const call = reinterpret_cast<void**>(frame)[1];
        if (call == nullptr)
            break;
        calls[count++] = call;
        std::uintptr_t const outer = *reinterpret_cast<std::uintptr_t*>(frame);
        if (outer <= frame)
            break;
        frame = outer;
    }
    return count;
}

}  // namespace ovel::simulation
