// SPDX-License-Identifier: Apache-2.0
// The simulated kernel services that do not concern kernel objects.

#include "heap.h"
#include "kernel.h"
#include "scheduler.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace ovel {

inline namespace kernel {

using namespace simulation;

namespace {

// The slots of the process. A slot's generation is odd while it is allocated, and makes
// its index differ from those of earlier holders.
struct local_slots {
    unsigned int generations[tls_count];
    void (*callbacks[fls_count])(void*);  // null: not allocated
};
local_slots slots, kept_slots;

DWORD index_of(unsigned int slot) {
    return slots.generations[slot] * tls_count + slot;
}

bool in_use(DWORD index) {
    return index_of(index % tls_count) == index && (slots.generations[index % tls_count] & 1) != 0;
}

}  // namespace

}  // namespace kernel

}  // namespace ovel

namespace ovel::simulation {

void keep_slots() {
    kernel::kept_slots = kernel::slots;
}

void restore_slots() {
    kernel::slots = kernel::kept_slots;
}

// Calls in rounds, because a callback may set a slot again; only a few, like other
// systems.
void call_fiber_local() {
    thread_state& self = current();
    for (unsigned int round = 0; round != 3; ++round)
        for (unsigned int slot = 0; slot != fls_count; ++slot)
            if (self.fls[slot] != nullptr)
                kernel::slots.callbacks[slot](self.fls[slot]);
}

}  // namespace ovel::simulation

namespace ovel {

inline namespace kernel {

DWORD TlsAlloc() {
    for (unsigned int slot = 0; slot != tls_count; ++slot)
        if ((slots.generations[slot] & 1) == 0) {
            ++slots.generations[slot];
            return index_of(slot);
        }
    return TLS_OUT_OF_INDEXES;
}

BOOL TlsFree(DWORD index) {
    if (!in_use(index))
        return 0;
    ++slots.generations[index % tls_count];
    return 1;
}

// Not a scheduling point: only the calling thread sees the value.
void* TlsGetValue(DWORD index) {
    tls_entry const& entry = current().tls[index % tls_count];
    return entry.index == index && in_use(index) ? entry.value : nullptr;
}

BOOL TlsSetValue(DWORD index, void* value) {
    if (!in_use(index))
        return 0;
    current().tls[index % tls_count] = {index, value};
    return 1;
}

DWORD FlsAlloc(void (*callback)(void*)) {
    for (unsigned int slot = 0; slot != fls_count; ++slot)
        if (slots.callbacks[slot] == nullptr) {
            slots.callbacks[slot] = callback;
            return slot;
        }
    return FLS_OUT_OF_INDEXES;
}

void* FlsGetValue(DWORD index) {
    return index < fls_count ? current().fls[index] : nullptr;
}

BOOL FlsSetValue(DWORD index, void* value) {
    if (index >= fls_count || (value != nullptr && count_memory_request()))
        return 0;
    current().fls[index] = value;
    return 1;
}

void YieldProcessor() {
    ++current().pauses;
    point(operation::pause, nullptr, __builtin_return_address(0), true);
}

unsigned long GetCurrentThreadId() {
    return current().number * 4UL;
}

unsigned long GetCurrentProcessId() {
    return 4242;
}

HANDLE GetCurrentThread() {
    return reinterpret_cast<HANDLE>(std::uintptr_t{0} - 2);
}

HANDLE GetCurrentProcess() {
    return reinterpret_cast<HANDLE>(std::uintptr_t{0} - 1);
}

void Sleep(DWORD milliseconds) {
    point(operation::sleep, nullptr, __builtin_return_address(0), true);
    note(milliseconds, 0);
    if (milliseconds != 0)
        while (!block(deadline_after(milliseconds))) {}
}

void GetSystemInfo(SYSTEM_INFO* information) {
    information->dwNumberOfProcessors = current_machine().processors;
}

namespace {

DWORD_PTR system_mask() {
    return (DWORD_PTR{1} << current_machine().processors) - 1;
}

}  // namespace

BOOL GetProcessAffinityMask(HANDLE process, DWORD_PTR* process_mask, DWORD_PTR* all) {
    if (process != GetCurrentProcess())
        return 0;
    *process_mask = current_machine().process_mask;
    *all = system_mask();
    return 1;
}

BOOL SetProcessAffinityMask(HANDLE process, DWORD_PTR mask) {
    point(operation::affinity, nullptr, __builtin_return_address(0));
    if (process != GetCurrentProcess() || mask == 0 || (mask & ~system_mask()) != 0)
        return 0;
    restrict_threads(mask);
    current_machine().process_mask = mask;
    return 1;
}

DWORD_PTR SetThreadAffinityMask(HANDLE thread, DWORD_PTR mask) {
    if (thread != GetCurrentThread() || mask == 0 || (mask & ~current_machine().process_mask) != 0)
        return 0;
    return std::exchange(current().affinity, mask);
}

// The registry holds one value.

LONG RegOpenKeyExA(HKEY, char const* key, DWORD, DWORD, HKEY* result) {
    if (current_machine().megahertz == 0 ||
        std::strcmp(key, "HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0") != 0)
        return 2;
    *result = reinterpret_cast<HKEY>(std::uintptr_t{8});
    return ERROR_SUCCESS;
}

LONG RegQueryValueExA(HKEY, char const* value, DWORD*, DWORD*, unsigned char* data, DWORD* size) {
    if (std::strcmp(value, "~MHz") != 0 || *size < sizeof(DWORD))
        return 2;
    std::memcpy(data, &current_machine().megahertz, sizeof(DWORD));
    *size = sizeof(DWORD);
    return ERROR_SUCCESS;
}

LONG RegCloseKey(HKEY) {
    return ERROR_SUCCESS;
}

char* _ui64toa(std::uint64_t value, char* text, int radix) {
    auto const base = static_cast<unsigned int>(radix);
    char* end = text;
    do {
        *end++ = "0123456789abcdef"[value % base];
        value /= base;
    } while (value != 0);
    *end = '\0';
    std::reverse(text, end);
    return text;
}

char* _ultoa(unsigned long value, char* text, int radix) {
    return _ui64toa(value, text, radix);
}

void* malloc(std::size_t size) {
    point(operation::allocate, nullptr, __builtin_return_address(0));
    note(size, 0);
    return count_memory_request() ? nullptr : heap::allocate(size);
}

void* calloc(std::size_t count, std::size_t size) {
    void* const memory = malloc(count * size);
    if (memory != nullptr)
        std::memset(memory, 0, count * size);
    return memory;
}

// Always moves the block.
void* realloc(void* memory, std::size_t size) {
    void* const moved = malloc(size);
    if (moved == nullptr)
        return nullptr;
    std::memcpy(moved, memory, std::min(_msize(memory), size));
    free(memory);
    return moved;
}

void free(void* memory) {
    point(operation::deallocate, memory, __builtin_return_address(0));
    if (memory == nullptr)
        return;
    if (char const* const fault = heap::deallocate(memory))
        fail("%s (%p)", fault, memory);
}

std::size_t _msize(void* memory) {
    std::size_t const* const size = heap::size(memory);
    if (size == nullptr)
        fail("_msize of what is not a block in use (%p)", memory);
    return *size;
}

std::uint64_t __rdtsc() {
    point(operation::read_clock, nullptr, __builtin_return_address(0));
    current_machine().counter_mask = current().affinity;
    unsigned int const megahertz = current_machine().megahertz;
    return nanoseconds() * (megahertz == 0 ? 2000 : megahertz) / 1000;
}

}  // namespace kernel

}  // namespace ovel
