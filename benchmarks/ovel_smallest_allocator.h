// SPDX-License-Identifier: Apache-2.0
// The bound of the library's allocator: the smallest one that does what its contract demands. A
// header in front of each block names the block's chunk, blocks have the library's sizes and
// alignment, chunks and threads count their bytes in use, and blocks return to the thread that
// made them, 256 KiB at a time. It has no rings of chunks, gives no memory back, limits no
// request, and knows two threads that exchange blocks.
#ifndef OVEL_SMALLEST_ALLOCATOR_H
#define OVEL_SMALLEST_ALLOCATOR_H

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <mutex>
#include <new>
#include <vector>

namespace ovel_benchmark {

namespace smallest {

inline constexpr std::size_t sizes[] = {16,  24,  32,  48,   64,   96,   128,  192, 256,
                                        384, 512, 768, 1024, 1536, 2048, 3072, 4096};
inline constexpr std::size_t classes = sizeof sizes / sizeof sizes[0];

struct class_table {
    unsigned char of[4096 / 8 + 1] = {};
    constexpr class_table() {
        for (std::size_t index = 1, k = 0; index != sizeof of; ++index) {
            k += index * 8 > sizes[k];
            of[index] = static_cast<unsigned char>(k);
        }
    }
};
inline constexpr class_table classes_of_sizes;

}  // namespace smallest

class smallest_allocator {
    struct heap;

public:
    // While it exists, its thread can use the allocator.
    class owner {
    public:
        owner() {
            std::lock_guard const hold(_idle_lock);
            if (_idle.empty())
                _idle.push_back(new heap);
            _own = _idle.back();
            _idle.pop_back();
        }
        ~owner() {
            std::lock_guard const hold(_idle_lock);
            _idle.push_back(_own);
        }
        owner(owner const&) = delete;
        owner& operator=(owner const&) = delete;
    };

    // `bytes` is at most 4080. Not inline: the library's functions are not either.
    [[gnu::noinline]] static void* allocate(std::size_t bytes) {
        heap& own = *_own;
        std::size_t const k = smallest::classes_of_sizes.of[(bytes + sizeof(header) + 7) / 8];
        if (own.pending_size.load(std::memory_order_relaxed) >= batch) [[unlikely]]
            _collect(own);
        if (own.free[k] == nullptr) [[unlikely]] {
            if (header* const reused = own.waiting[k].head) {
                own.waiting[k].head = reused->next;
                own.waiting_size -= sizes[k];
                return reused + 1;
            }
            _lay_out(own, k);
        }
        header* const taken = own.free[k];
        own.free[k] = taken->next;
        __builtin_prefetch(taken->next);
        taken->home->used += sizes[k];
        own.used += sizes[k];
        return taken + 1;
    }

    [[gnu::noinline]] static void deallocate(void* memory) {
        heap& own = *_own;
        header* const freed = static_cast<header*>(memory) - 1;
        chunk const& home = *freed->home;
        if (home.maker == &own)
            return _put_back(own, freed);
        if (own.waiting_size >= batch) [[unlikely]]
            _hand_over(own, *home.maker);
        chain& waiting = own.waiting[home.k];
        freed->next = waiting.head;
        if (waiting.head == nullptr)
            waiting.tail = freed;
        waiting.head = freed;
        own.waiting_size += sizes[home.k];
    }

private:
    static constexpr std::size_t classes = smallest::classes;
    static constexpr auto& sizes = smallest::sizes;

    struct chunk {
        heap* maker;
        std::size_t k;
        alignas(64) std::size_t used;
    };
    struct header {
        chunk* home;
        header* next;
    };
    struct chain {
        header* head = nullptr;
        header* tail = nullptr;
    };

    static constexpr std::size_t batch = 262144;
    static constexpr std::size_t chunk_length = 65536;

    struct heap {
        std::size_t used = 0;
        header* free[classes] = {};
        chain waiting[classes];  // blocks of the other thread
        std::size_t waiting_size = 0;
        alignas(128) std::mutex lock;  // for what follows; the owner reads the size without
        std::atomic<std::size_t> pending_size = 0;
        chain pending[classes];
    };

    static void _put_back(heap& own, header* freed) {
        chunk& home = *freed->home;
        freed->next = own.free[home.k];
        own.free[home.k] = freed;
        home.used -= sizes[home.k];
        own.used -= sizes[home.k];
    }

    [[gnu::noinline]] static void _hand_over(heap& own, heap& to) {
        std::lock_guard const hold(to.lock);
        for (std::size_t k = 0; k != classes; ++k) {
            chain& from = own.waiting[k];
            if (from.head == nullptr)
                continue;
            from.tail->next = to.pending[k].head;
            to.pending[k] = from;
            from = {};
        }
        to.pending_size.store(to.pending_size.load(std::memory_order_relaxed) + own.waiting_size,
                              std::memory_order_relaxed);
        own.waiting_size = 0;
    }

    // Follows the chains of all classes in turn, so that their cache misses overlap.
    [[gnu::noinline]] static void _collect(heap& own) {
        header* next[classes];
        std::size_t left = 0;
        {
            std::lock_guard const hold(own.lock);
            for (chain& each : own.pending) {
                if (each.head != nullptr)
                    next[left++] = each.head;
                each = {};
            }
            own.pending_size.store(0, std::memory_order_relaxed);
        }
        while (left != 0) {
            for (std::size_t i = 0; i < left; ++i) {
                header* const freed = next[i];
                next[i] = freed->next;
                __builtin_prefetch(next[i], 1);
                _put_back(own, freed);
                if (next[i] == nullptr)
                    next[i] = next[--left];
            }
        }
    }

    [[gnu::noinline]] static void _lay_out(heap& own, std::size_t k) {
        auto const region = static_cast<char*>(std::aligned_alloc(64, chunk_length));
        if (region == nullptr)
            throw std::bad_alloc();
        auto const home = new (region) chunk{&own, k, 0};
        std::size_t const size = sizes[k];
        std::size_t const alignment = (size & -size) < 128 ? size & -size : 128;
        auto const earliest = reinterpret_cast<std::size_t>(home + 1) + sizeof(header);
        char* at = reinterpret_cast<char*>(home + 1) + (-earliest & (alignment - 1));
        for (; at + size + 128 <= region + chunk_length; at += size)
            own.free[k] = new (at) header{home, own.free[k]};
    }

    inline static thread_local heap* _own = nullptr;
    inline static std::mutex _idle_lock;
    inline static std::vector<heap*> _idle;
};

}  // namespace ovel_benchmark

#endif
