// SPDX-License-Identifier: Apache-2.0
// An arena at a fixed address from which blocks are cut in order, so that a schedule
// finds the same addresses in every run. A block lies between two guards. Fresh and freed
// memory is filled with patterns. A map outside the arena, where the program cannot damage
// it, says which granules are in use.

#include "heap.h"

#include "lasting.h"

#include <sys/mman.h>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace ovel::simulation::heap {

namespace {

constexpr std::size_t granule = 16;
constexpr unsigned char fresh = 0xcd;
constexpr unsigned char freed = 0xdd;
constexpr unsigned char guard = 0xfd;

// Lies before each block.
struct header {
    std::size_t size;
    std::size_t check;  // size ^ magic
};
constexpr std::size_t magic = 0x6f76656c68656170;
static_assert(sizeof(header) == granule);

// For each granule whether it is in use, and for each word the thread that accesses it.
// Null until the first allocation.
unsigned char* in_use;
unsigned char* owners;
constexpr std::size_t word = 8;
constexpr unsigned char shared = 255;

// Blocks of one size that were freed.
struct freed_size {
    std::size_t size;
    std::vector<char*> blocks;
};

struct counts {
    std::size_t used;  // bytes cut from the arena
    unsigned int blocks;
};

// Used until the last exit hook has run.
struct lists {
    std::vector<char> kept_contents;
    std::vector<unsigned char> kept_in_use;
    std::vector<freed_size> reusable;
    std::vector<header*> quarantine;  // freed and never handed out again
};

counts now, kept;
bool reuse_at_once;
char const* damaged;  // where memory was written between its free and its reuse
constinit lasting<lists> lists_;
char text[160];

void open() {
    auto const at = reinterpret_cast<void*>(arena_at);
    void* const base =
        mmap(at, arena_bytes, PROT_READ | PROT_WRITE,
             MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED_NOREPLACE, -1, 0);
    void* const maps =
        mmap(nullptr, arena_bytes / granule + arena_bytes / word, PROT_READ | PROT_WRITE,
             MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (base != at || maps == MAP_FAILED) {
        std::perror("simulation: heap");
        std::abort();
    }
    in_use = static_cast<unsigned char*>(maps);
    owners = in_use + arena_bytes / granule;
}

char* at(std::size_t offset) {
    return reinterpret_cast<char*>(arena_at + offset);
}

std::size_t offset(void const volatile* address) {
    return reinterpret_cast<std::uintptr_t>(address) - arena_at;
}

std::size_t rounded(std::size_t size) {
    return (size + granule - 1) / granule * granule;
}

// A block's granules are 1, except the first, which is 2.
void mark(char* block, std::size_t size, bool used) {
    std::size_t const granules = rounded(size) / granule;
    unsigned char* const map = &in_use[offset(block) / granule];
    std::memset(map, used ? 1 : 0, granules);
    if (used)
        map[0] = 2;
    std::memset(&owners[offset(block) / word], 0, granules * (granule / word));
}

header& header_of(char* block) {
    return *reinterpret_cast<header*>(block - sizeof(header));
}

bool filled(char const* from, char const* to, unsigned char pattern) {
    for (; from != to; ++from)
        if (static_cast<unsigned char>(*from) != pattern)
            return false;
    return true;
}

// Where freed memory was written, or null. Comparing the block with itself, shifted by
// one byte, is a fast comparison with a pattern.
char const* written(char const* block, std::size_t size) {
    std::size_t const length = rounded(size);
    if (static_cast<unsigned char>(*block) == freed &&
        std::memcmp(block, block + 1, length - 1) == 0)
        return nullptr;
    while (static_cast<unsigned char>(*block) == freed)
        ++block;
    return block;
}

char* end_of(char* block, std::size_t size) {
    return block + rounded(size) + granule;
}

}  // namespace

void* allocate(std::size_t size) {
    if (size > arena_bytes / 2)
        return nullptr;
    if (in_use == nullptr)
        open();
    std::size_t const wanted = size == 0 ? 1 : size;
    char* block = nullptr;
    if (reuse_at_once)
        for (freed_size& each : lists_.value.reusable)
            if (each.size == rounded(wanted) && !each.blocks.empty()) {
                block = each.blocks.back();
                each.blocks.pop_back();
                if (damaged == nullptr)
                    damaged = written(block, wanted);
                break;
            }
    if (block == nullptr) {
        std::size_t const cut = sizeof(header) + rounded(wanted) + granule;
        if (now.used + cut > arena_bytes)
            return nullptr;
        block = at(now.used) + sizeof(header);
        now.used += cut;
    }
    header_of(block) = header{wanted, wanted ^ magic};
    std::memset(block, fresh, wanted);
    std::memset(block + wanted, guard,
                static_cast<std::size_t>(end_of(block, wanted) - block) - wanted);
    mark(block, wanted, true);
    ++now.blocks;
    return block;
}

bool is_stray(void const volatile* address) {
    return contains(address) && in_use[offset(address) / granule] == 0;
}

bool note_access(void const* accessed, unsigned int thread) {
    auto const self = static_cast<unsigned char>(thread % (shared - 1) + 1);
    unsigned char& owner = owners[offset(accessed) / word];
    if (owner == 0)
        owner = self;
    else if (owner != self)
        owner = shared;
    return owner == shared;
}

std::size_t const* size(void* block) {
    if (!contains(block) || in_use[offset(block) / granule] != 2)
        return nullptr;
    return &header_of(static_cast<char*>(block)).size;
}

char const* deallocate(void* freed_memory) {
    auto const block = static_cast<char*>(freed_memory);
    if (!contains(block) || reinterpret_cast<std::uintptr_t>(block) % granule != 0)
        return "free of an address that is not of the heap";
    if (in_use[offset(block) / granule] != 2)
        return "free of what is not a block in use";
    header& about = header_of(block);
    if ((about.size ^ magic) != about.check)
        return "a block was written before its start";
    if (!filled(block + about.size, end_of(block, about.size), guard))
        return "a block was written beyond its end";
    --now.blocks;
    mark(block, about.size, false);
    std::memset(block, freed, rounded(about.size));
    if (!reuse_at_once) {
        lists_.value.quarantine.push_back(&about);
        return nullptr;
    }
    for (freed_size& each : lists_.value.reusable)
        if (each.size == rounded(about.size)) {
            each.blocks.push_back(block);
            return nullptr;
        }
    lists_.value.reusable.push_back({rounded(about.size), {block}});
    return nullptr;
}

unsigned int blocks() {
    return now.blocks;
}

void reuse(bool at_once) {
    reuse_at_once = at_once;
}

char const* damage() {
    for (header* const each : lists_.value.quarantine) {
        if ((each->size ^ magic) != each->check)
            return "a block was written before its start";
        if (damaged == nullptr)
            damaged = written(reinterpret_cast<char*>(each + 1), each->size);
    }
    if (damaged == nullptr)
        return nullptr;
    std::snprintf(text, sizeof text, "freed memory was written at %p",
                  static_cast<void const*>(damaged));
    return text;
}

void keep() {
    if (in_use == nullptr)
        open();
    kept = now;
    lists_.value.kept_contents.assign(at(0), at(now.used));
    lists_.value.kept_in_use.assign(in_use, in_use + now.used / granule);
}

void restore() {
    std::memset(in_use, 0, now.used / granule);
    std::memset(owners, 0, now.used / word);
    now = kept;
    damaged = nullptr;
    if (now.used != 0) {
        std::memcpy(at(0), lists_.value.kept_contents.data(), lists_.value.kept_contents.size());
        std::memcpy(in_use, lists_.value.kept_in_use.data(), lists_.value.kept_in_use.size());
    }
    lists_.value.reusable.clear();
    lists_.value.quarantine.clear();
}

}  // namespace ovel::simulation::heap
