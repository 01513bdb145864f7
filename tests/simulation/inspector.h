// What scenarios look at inside the library's objects, for all of them: they are
// one program.
#ifndef OVEL_TESTS_SIMULATION_INSPECTOR_H
#define OVEL_TESTS_SIMULATION_INSPECTOR_H

#include "ovel_allocator.h"
#include "ovel_allocator_group.h"
#include "ovel_allocator_recycler.h"
#include "ovel_assure.h"
#include "ovel_barrier.h"
#include "ovel_condition.h"
#include "ovel_petri_net.h"
#include "ovel_thread.h"
#include "ovel_thread_group.h"

#include <cstddef>
#include <memory>

struct ovel::detail::inspector {
    // No batch, nobody queued, the gate open.
    template <class Condition>
    static bool is_at_rest(Condition& condition) {
        return condition._queued == 0 && condition._released == 0 &&
               condition._gate.try_acquire() && !condition._wait.try_acquire();
    }

    template <class Barrier>
    static bool is_open(Barrier& gate) {
        if constexpr (requires { gate._entry; })
            if (gate._released || !gate._entry.try_acquire())
                return false;
        return gate._count == 0 && !gate._complete && gate._lock.try_acquire() &&
               !gate._wait.try_acquire();
    }

    struct memory {
        std::size_t allocators = 0;
        std::size_t chunks = 0;
        std::size_t in_use = 0;   // bytes of blocks, headers included, ...
        std::size_t on_way = 0;   // ... and of those that are freed and not yet home
        std::size_t reserve = 0;  // capacity of the global allocator
    };

    // Everything that must hold of all allocators while none is in use.
    static memory check_allocators() {
        memory all;
        for (allocator* each = allocator::_allocators; each != nullptr; each = each->_next)
            _check(*each, all);
        return all;
    }

    static void stop_recycler() {
        allocator_recycler::global()->_acquire();
    }

    // Ends the pool's threads, as the unloading of the library does.
    static void empty_pool() {
        std::destroy_at(&thread_element_group::_global);
    }

    // Everybody being at rest, nothing waits that fits while a thread is free.
    static void expect_busy(thread_group& group) {
        if (group._condition._queued == 0)
            return;
        for (auto each = group._queue.begin(); each != group._queue.end(); ++each)
            assure((*each).third > group._space);
    }

    // A net whose threads have come to rest: nothing is reserved, nothing fires, and
    // what waits in the queue, or could, is what `may_be_enabled` says.
    template <class MayBeEnabled>
    static void expect_at_rest(petri_net& net, MayBeEnabled const& may_be_enabled) {
        assure(net._firings == 0);
        for (petri_place* each : net._places) {
            assure(each->_size == each->_channel._size);
            assure(each->_receive_size == 0 && each->_send_size == 0);
            assure(each->_receive_skip == 0 && each->_send_skip == 0);
        }
        for (petri_transition* each : net._transitions) {
            assure(each->_firing == 0);
            assure(!each->queued() || each->enabled());
            assure(!each->enabled() || may_be_enabled(each));
        }
    }

    static unsigned int tokens(petri_place& place) {
        return place._size;
    }

private:
    static void _check(allocator& each, memory& all) {
        std::size_t size = 0, capacity = 0;
        // Returns how many chunks of the ring hold no block in use.
        auto const check_ring = [&](chunk& ring, std::size_t block_size, bool full) {
            unsigned int spare = 0;
            for (chunk* one = ring._next; one != &ring; one = one->_next) {
                // The global allocator's chunks keep the layout they had.
                assure(one->_allocator == &each);
                assure(one->_next->_previous == one);
                assure(block_size == 0 || one->_block_size == block_size);
                std::size_t free_bytes = 0;
                for (block* unused = one->_free; unused != nullptr; unused = unused->_next) {
                    assure(unused->_chunk == one);
                    free_bytes += one->_block_size;
                }
                assure(one->_size + free_bytes == one->_capacity && full == (free_bytes == 0));
                spare += one->_size == 0;
                ++all.chunks;
                size += one->_size;
                capacity += one->_capacity;
            }
            return spare;
        };
        for (std::size_t k = 0; k != classes; ++k) {
            check_ring(each._full[k], block_sizes[k], true);
            assure(check_ring(each._partial[k], block_sizes[k], false) <= 1);
            // What serves the class is in its ring, or the ring itself if that is empty.
            chunk const* serving = &each._partial[k];
            do
                serving = serving->_next;
            while (serving != each._serving[k] && serving != &each._partial[k]);
            assure(serving == each._serving[k]);
            assure(serving != &each._partial[k] || !serving->has_chunk());
        }
        std::size_t const before = size;
        check_ring(each._empty, 0, false);
        assure(size == before);
        assure(each._size == size);
        assure(each._capacity == capacity);
        assure(each._minimum_capacity <= capacity);

        std::size_t pending = 0;
        for (block* one = each._pending; one != nullptr; one = one->_next) {
            assure(one->_chunk->_allocator == &each);
            pending += one->_chunk->_block_size;
        }
        assure(each._pending_size == pending);
        std::size_t waiting = 0;
        for (remote const& entry : each._remote) {
            std::size_t bytes = 0;
            block* last = nullptr;
            for (block* one = entry.head; one != nullptr; one = one->_next) {
                assure(one->_chunk->_allocator == entry.owner);
                bytes += one->_chunk->_block_size;
                last = one;
            }
            assure(entry.size == bytes && entry.tail == last);
            assure((entry.owner == nullptr) == (last == nullptr));
            waiting += bytes;
        }
        if (each._parent == nullptr) {
            assure(size == 0);
            all.reserve = capacity;
        }
        ++all.allocators;
        all.in_use += size;
        all.on_way += pending + waiting;
    }
};

#endif
