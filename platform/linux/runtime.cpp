// SPDX-License-Identifier: Apache-2.0
// Services of the C runtime on Windows: integers as text, the size of a block of the
// heap, and regions.

#include "kernel.h"
#include "linux/fork.h"
#include "linux/pthread_guard.h"

#include <malloc.h>
#include <sys/mman.h>

#include <new>

// Part of a leak checker, if there is one: memory that this memory points to is not leaked.
extern "C" [[gnu::weak]] void __lsan_register_root_region(void const* begin, std::size_t size);
extern "C" [[gnu::weak]] void __lsan_unregister_root_region(void const* begin, std::size_t size);

namespace ovel {

namespace {

constexpr std::size_t page = 4096;  // of x86

// Regions are cut from mappings. Each begins one cache line further into its pages than the
// one before. Otherwise the busy lines of all regions would compete for the same few cache
// sets. So neighbours share a page. Freeing a region returns the pages that no other region
// in use shares. Freeing the last region of a mapping returns the mapping.
struct mapping {
    static constexpr std::size_t length = 1 << 20;  // and its alignment
    static constexpr std::size_t step = region_length + sizeof(cacheline);
    static constexpr unsigned int regions = 15;
    static constexpr unsigned int all = (1u << regions) - 1;

    mapping* next;       // in the list of mappings with a free region
    mapping** previous;  // what points to this
    unsigned int taken;  // bit i: region i
};

// The largest offset of region 0 in a mapping.
constexpr std::size_t most_before = 2 * sizeof(cacheline);
static_assert(sizeof(mapping) <= sizeof(cacheline));
static_assert(most_before + mapping::regions * mapping::step <= mapping::length);

mapping* with_free = nullptr;  // under regions_lock, like all mappings

void link(mapping& one) {
    one.next = with_free;
    one.previous = &with_free;
    if (with_free != nullptr)
        with_free->previous = &one.next;
    with_free = &one;
}

void unlink(mapping& one) {
    *one.previous = one.next;
    if (one.next != nullptr)
        one.next->previous = one.previous;
}

// Maps memory, only at `where` if that is not null. Null when the system has none.
char* map_memory(std::size_t length, char* where = nullptr) {
    int const flags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE;
    void* const memory = mmap(where, length, PROT_READ | PROT_WRITE,
                              flags | (where != nullptr ? MAP_FIXED_NOREPLACE : 0), -1, 0);
    if (memory == MAP_FAILED)
        return nullptr;
    // A kernel that does not know the flag may map it elsewhere.
    if (where == nullptr || memory == where)
        return static_cast<char*>(memory);
    munmap(memory, length);
    return nullptr;
}

// The distance from an address to the next possible start of a mapping.
std::size_t to_boundary(char const* address) {
    return -reinterpret_cast<std::size_t>(address) & (mapping::length - 1);
}

// Memory for a mapping; null when the system has none.
char* map_aligned() {
    if (char* const wide = map_memory(2 * mapping::length)) {
        std::size_t const before = to_boundary(wide);
        if (before != 0)
            munmap(wide, before);
        munmap(wide + before + mapping::length, mapping::length - before);
        return wide + before;
    }
    // The address space may have room for only one, at the end of a gap or inside it.
    char* const exact = map_memory(mapping::length);
    if (exact == nullptr)
        return nullptr;
    std::size_t const beyond = to_boundary(exact);
    if (beyond == 0)
        return exact;
    munmap(exact, mapping::length);
    char* const next = exact + beyond;
    char* const aligned = map_memory(mapping::length, next - mapping::length);
    return aligned != nullptr ? aligned : map_memory(mapping::length, next);
}

// A new mapping without regions, linked; null when the system has none.
mapping* map() {
    char* const begin = map_aligned();
    if (begin == nullptr)
        return nullptr;
    auto const made = new (begin) mapping{nullptr, nullptr, 0};
    link(*made);
    return made;
}

}  // namespace

pthread_mutex_t detail::regions_lock = PTHREAD_MUTEX_INITIALIZER;

char* kernel::_ui64toa(std::uint64_t value, char* text, int radix) {
    auto const base = static_cast<std::uint64_t>(radix);
    char* end = text + 1;
    for (std::uint64_t left = value / base; left != 0; left /= base)
        ++end;
    *end = '\0';
    do {
        *--end = "0123456789abcdef"[value % base];
        value /= base;
    } while (end != text);
    return text;
}

char* kernel::_ultoa(unsigned long value, char* text, int radix) {
    return _ui64toa(value, text, radix);
}

std::size_t kernel::_msize(void* memory) {
    return malloc_usable_size(memory);
}

void* kernel::malloc_region(std::size_t busy) {
    detail::pthread_guard const hold(detail::regions_lock, forking());
    mapping* const home = with_free != nullptr ? with_free : map();
    if (home == nullptr)
        return nullptr;
    auto const place = static_cast<unsigned int>(__builtin_ctz(~home->taken));
    home->taken |= 1u << place;
    if (home->taken == mapping::all)
        unlink(*home);
    char* const region = reinterpret_cast<char*>(home) + sizeof(cacheline) +
                         (-busy & (sizeof(cacheline) - 1)) + place * mapping::step;
    if (__lsan_register_root_region != nullptr)
        __lsan_register_root_region(region, region_length);
    return region;
}

void kernel::free_region(void* region) {
    detail::pthread_guard const hold(detail::regions_lock, forking());
    if (__lsan_unregister_root_region != nullptr)
        __lsan_unregister_root_region(region, region_length);
    auto const address = reinterpret_cast<std::size_t>(region);
    std::size_t const offset = address & (mapping::length - 1);
    auto const begin = static_cast<char*>(region) - offset;
    auto& home = *reinterpret_cast<mapping*>(begin);
    auto const place = static_cast<unsigned int>(offset / mapping::step);
    if (home.taken == mapping::all)
        link(home);
    home.taken &= ~(1u << place);
    if (home.taken == 0) {
        unlink(home);
        munmap(begin, mapping::length);
        return;
    }
    // Page 0 contains the fields of the mapping.
    bool const alone_before = place != 0 && (home.taken & 1u << (place - 1)) == 0;
    bool const alone_behind = (home.taken & 1u << (place + 1)) == 0;
    std::size_t const first = (offset + (alone_before ? 0 : page - 1)) / page * page;
    std::size_t const last = (offset + mapping::step + (alone_behind ? page - 1 : 0)) / page * page;
    madvise(begin + first, last - first, MADV_DONTNEED);
}

}  // namespace ovel
