// Where the fields of the classes lie: clients that were compiled against an earlier
// header rely on it, and the busy fields on being a cache line apart.
#include "ovel_allocator.h"
#include "ovel_allocator_group.h"
#include "ovel_allocator_recycler.h"
#include "ovel_any.h"
#include "ovel_barrier.h"
#include "ovel_channel.h"
#include "ovel_condition.h"
#include "ovel_list.h"
#include "ovel_mutex.h"
#include "ovel_petri_net.h"
#include "ovel_semaphore.h"
#include "ovel_skip_list.h"
#include "ovel_thread.h"
#include "ovel_thread_base.h"
#include "ovel_thread_function.h"
#include "ovel_thread_group.h"
#include "ovel_thread_specific_ptr.h"
#include "ovel_time.h"
#include "ovel_time_server.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>

// Many of the classes have a base or virtual functions; compilers that warn about
// `offsetof` of such lay them out as they do all others.
#pragma GCC diagnostic ignored "-Winvalid-offsetof"

namespace {

struct wide_field {
    char before;
    double value;
};

// A number of the layout: for words of 4 bytes; of 8; and of 4 where it differs
// because doubles and 64-bit integers are aligned to 8 all the same.
constexpr std::size_t number(std::size_t narrow, std::size_t wide, std::size_t aligned = 0) {
    if (sizeof(void*) == 8)
        return wide;
    return aligned != 0 && offsetof(wide_field, value) == 8 ? aligned : narrow;
}

}  // namespace

#define AT(type, field, ...) \
    static_assert(offsetof(type, field) == number(__VA_ARGS__), #type "::" #field)
#define SIZE(type, ...) static_assert(sizeof(type) == number(__VA_ARGS__), #type)

struct ovel::detail::inspector {
    AT(block, _chunk, 0, 0);
    AT(block, _next, 4, 8);
    SIZE(block, 8, 16);

    AT(chunk, _allocator, 128, 128);
    AT(chunk, _free, 132, 136);
    AT(chunk, _length, 136, 144);
    AT(chunk, _block_size, 140, 152);
    AT(chunk, _block_alignment, 144, 160);
    AT(chunk, _next, 148, 168);
    AT(chunk, _previous, 152, 176);
    AT(chunk, _size, 156, 184);
    AT(chunk, _capacity, 160, 192);
    SIZE(chunk, 164, 200);

    AT(remote, owner, 0, 0);
    AT(remote, head, 4, 8);
    AT(remote, tail, 8, 16);
    AT(remote, size, 12, 24);
    SIZE(remote, 16, 32);

    AT(allocator, _lock, 0, 0);
    AT(allocator, _parent, 396, 400);
    AT(allocator, _next, 400, 408);
    AT(allocator, _next_released, 404, 416);
    AT(allocator, _size, 408, 424);
    AT(allocator, _capacity, 412, 432);
    AT(allocator, _minimum_capacity, 416, 440);
    AT(allocator, _activated, 420, 448);
    AT(allocator, _pending, 424, 456);
    AT(allocator, _pending_size, 428, 464);
    AT(allocator, _remote, 432, 472);
    AT(allocator, _full, 496, 600);
    AT(allocator, _partial, 3448, 4200);
    AT(allocator, _empty, 6400, 7800);
    AT(allocator, _after, 6564, 8000);
    SIZE(allocator, 6692, 8128);

    AT(allocator_group, _specific, 128, 128);
    AT(allocator_group, _default, 132, 136);
    AT(allocator_group, _after, 136, 144);
    SIZE(allocator_group, 264, 272);

    AT(allocator_recycler, _stop, 128, 128);
    AT(allocator_recycler, _period, 136, 136);
    AT(allocator_recycler, _function, 144, 144);
    AT(allocator_recycler::recycler_function, _stop, 132, 136);
    AT(allocator_recycler::recycler_function, _period, 136, 144);
    SIZE(allocator_recycler::recycler_function, 144, 152);

    AT(time, _count, 0, 0);
    SIZE(time, 8, 8);

    AT(thread_specific_ptr<int>, index, 0, 0);
    SIZE(thread_specific_ptr<int>, 4, 4);

    AT(semaphore, _before, 0, 0);
    AT(semaphore, _value, 128, 128);
    AT(semaphore, _between, 132, 132);
    AT(semaphore, _spin, 260, 260);
    AT(semaphore, _semaphore, 264, 264);
    AT(semaphore, _after, 268, 272);
    SIZE(semaphore, 396, 400);

    AT(timed_semaphore, _before, 0, 0);
    AT(timed_semaphore, _semaphore, 128, 128);
    AT(timed_semaphore, _after, 132, 136);
    SIZE(timed_semaphore, 260, 264);

    AT(mutex, _semaphore, 0, 0);
    SIZE(mutex, 396, 400);

    AT(timed_mutex, _semaphore, 0, 0);
    SIZE(timed_mutex, 260, 264);

    AT(recursive_mutex, _before, 0, 0);
    AT(recursive_mutex, _owner, 128, 128);
    AT(recursive_mutex, _between, 132, 136);
    AT(recursive_mutex, _depth, 260, 264);
    AT(recursive_mutex, _semaphore, 264, 272);
    SIZE(recursive_mutex, 660, 672);

    AT(timed_recursive_mutex, _before, 0, 0);
    AT(timed_recursive_mutex, _owner, 128, 128);
    AT(timed_recursive_mutex, _between, 132, 136);
    AT(timed_recursive_mutex, _depth, 260, 264);
    AT(timed_recursive_mutex, _semaphore, 264, 272);
    SIZE(timed_recursive_mutex, 524, 536);

    AT(timed_mutex::state, underlying, 0, 0);
    SIZE(timed_mutex::state, 4, 8);

    AT(recursive_mutex::state, underlying, 0, 0);
    AT(recursive_mutex::state, depth, 4, 8);
    SIZE(recursive_mutex::state, 8, 16);

    AT(timed_recursive_mutex::state, underlying, 0, 0);
    AT(timed_recursive_mutex::state, depth, 4, 8);
    SIZE(timed_recursive_mutex::state, 8, 16);

    AT(condition, _lock, 0, 0);
    AT(condition, _queued, 396, 400);
    AT(condition, _between, 400, 404);
    AT(condition, _released, 528, 532);
    AT(condition, _gate, 532, 536);
    AT(condition, _wait, 928, 936);
    SIZE(condition, 1324, 1336);

    AT(timed_condition, _lock, 0, 0);
    AT(timed_condition, _queued, 396, 400);
    AT(timed_condition, _between, 400, 404);
    AT(timed_condition, _released, 528, 532);
    AT(timed_condition, _gate, 532, 536);
    AT(timed_condition, _wait, 928, 936);
    SIZE(timed_condition, 1188, 1200);

    AT(barrier, _lock, 0, 0);
    AT(barrier, _capacity, 396, 400);
    AT(barrier, _count, 400, 404);
    AT(barrier, _complete, 404, 408);
    AT(barrier, _wait, 408, 416);
    SIZE(barrier, 804, 816);

    AT(timed_barrier, _lock, 0, 0);
    AT(timed_barrier, _entry, 396, 400);
    AT(timed_barrier, _capacity, 656, 664);
    AT(timed_barrier, _count, 660, 668);
    AT(timed_barrier, _complete, 664, 672);
    AT(timed_barrier, _wait, 668, 680);
    AT(timed_barrier, _released, 928, 944);
    SIZE(timed_barrier, 932, 952);

    AT(thread_function, _before, 4, 8);
    SIZE(thread_function, 132, 136);

    AT(thread_base, _before, 0, 0);
    AT(thread_base, _stack_size, 128, 128);
    AT(thread_base, _thread, 132, 136);
    AT(thread_base, _function, 136, 144);
    AT(thread_base, _after, 140, 152);
    SIZE(thread_base, 268, 280);

    AT(time_server, _thread, 132, 136);
    AT(time_server, _lock, 400, 416);
    AT(time_server, _request, 796, 816);
    AT(time_server, _reply, 1192, 1216);
    AT(time_server, _reading, 1588, 1616, 1592);
    SIZE(time_server, 1596, 1624, 1600);

    AT(thread_function_base, _start, 132, 136);
    AT(thread_function_base, _function, 528, 536);
    AT(thread_function_base, _terminate, 532, 544);
    AT(thread_function_base, _finish, 536, 552);
    SIZE(thread_function_base, 796, 816);

    AT(thread_element, _function, 0, 0);
    AT(thread_element, _thread_base, 796, 816);
    SIZE(thread_element, 1064, 1096);

    AT(skip_list<int*>, _size, 0, 0);
    AT(skip_list<int*>, _head, 4, 8);
    AT(skip_list<int*>, _end, 8, 16);
    AT(skip_list<int*>, _seed, 12, 24);
    SIZE(skip_list<int*>, 16, 32);

    AT(list<int*>, _next, 0, 0);
    AT(list<int*>, _previous, 4, 8);
    AT(list<int*>, _size, 8, 16);
    SIZE(list<int*>, 12, 24);

    AT(thread_element_group, _lock, 0, 0);
    AT(thread_element_group, _elements, 396, 400);
    SIZE(thread_element_group, 412, 432);

    AT(thread_group, _mutex, 0, 0);
    AT(thread_group, _threads, 396, 400);
    AT(thread_group, _stack_size, 400, 404);
    AT(thread_group, _acquired, 404, 408);
    AT(thread_group, _space, 408, 416);
    AT(thread_group, _concluded, 416, 424);
    AT(thread_group, _queue, 420, 432);
    AT(thread_group, _function, 436, 464);
    AT(thread_group, _thread, 440, 472);
    AT(thread_group, _thread_acquired, 444, 480);
    AT(thread_group, _condition, 448, 488);
    AT(thread_group, _budget, 1772, 1824, 1776);
    AT(thread_group, _occupants, 1780, 1832, 1784);
    SIZE(thread_group, 1784, 1840, 1792);

    AT(thread_group_function_base, _occupants, 152, 176);
    AT(thread_group_function_base, _budget, 156, 184, 160);
    SIZE(thread_group_function_base, 164, 192, 168);

    AT(ovel::thread, _before, 0, 0);
    AT(ovel::thread, _stack_size, 128, 128);
    AT(ovel::thread, _acquired, 132, 132);
    AT(ovel::thread, _function, 136, 136);
    AT(ovel::thread, _element, 140, 144);
    AT(ovel::thread, _after, 144, 152);
    SIZE(ovel::thread, 272, 280);

    AT(any, _content, 0, 0);
    SIZE(any, 4, 8);

    AT(channel, _capacity, 0, 0);
    AT(channel, _size, 4, 4);
    AT(channel, _begin, 8, 8);
    AT(channel, _end, 12, 16);
    AT(channel, _back, 16, 24);
    AT(channel, _front, 20, 32);
    SIZE(channel, 24, 40);

    AT(petri_place, _before, 0, 0);
    AT(petri_place, _channel, 128, 128);
    AT(petri_place, _between, 152, 168);
    AT(petri_place, _size, 280, 296);
    AT(petri_place, _receive_size, 284, 300);
    AT(petri_place, _send_size, 288, 304);
    AT(petri_place, _receive_skip, 292, 308);
    AT(petri_place, _send_skip, 296, 312);
    AT(petri_place, _arcs, 300, 320);
    AT(petri_place, _mutex, 312, 344);
    SIZE(petri_place, 708, 744);

    AT(petri_arc, _input, 0, 0);
    AT(petri_arc, _place, 4, 8);
    AT(petri_arc, _transition, 8, 16);
    AT(petri_arc, _size, 16, 32);
    SIZE(petri_arc, 20, 40);

    AT(petri_connector, _input, 0, 0);
    AT(petri_connector, _transition, 4, 8);
    AT(petri_connector, _size, 12, 24);
    AT(petri_connector, _capacity, 16, 28);
    SIZE(petri_connector, 20, 32);

    AT(petri_function, _transition, 132, 136);
    SIZE(petri_function, 136, 144);

    AT(petri_transition, _before, 132, 136);
    AT(petri_transition, _reentrant, 264, 272);
    AT(petri_transition, _time, 268, 280, 272);
    AT(petri_transition, _space, 276, 288, 280);
    AT(petri_transition, _group, 284, 296, 288);
    AT(petri_transition, _net, 288, 304, 292);
    AT(petri_transition, _activated, 292, 312, 296);
    AT(petri_transition, _firing, 296, 316, 300);
    AT(petri_transition, _random, 300, 320, 304);
    AT(petri_transition, _arcs, 304, 328, 308);
    AT(petri_transition, _iterator, 316, 352, 320);
    AT(petri_transition, _after, 320, 360, 324);
    SIZE(petri_transition, 448, 488, 456);

    AT(petri_queue_function, _before, 132, 136);
    AT(petri_queue_function, _net, 260, 264);
    AT(petri_queue_function, _after, 264, 272);
    SIZE(petri_queue_function, 392, 400);

    AT(petri_net, _mutex, 0, 0);
    AT(petri_net, _groups, 396, 400);
    AT(petri_net, _firings, 400, 404);
    AT(petri_net, _acquired, 404, 408);
    AT(petri_net, _random, 408, 412);
    AT(petri_net, _queue_thread_acquired, 412, 416);
    AT(petri_net, _thread_group_acquireds, 416, 420);
    AT(petri_net, _thread_group_acquired, 420, 424);
    AT(petri_net, _queue_function, 424, 432);
    AT(petri_net, _queue_thread, 816, 832);
    AT(petri_net, _thread_groups, 1088, 1112);
    AT(petri_net, _places, 1092, 1120);
    AT(petri_net, _transitions, 1104, 1144);
    AT(petri_net, _arcs, 1116, 1168);
    AT(petri_net, _queue, 1128, 1192);
    AT(petri_net, _condition, 1144, 1224);
    SIZE(petri_net, 2468, 2560);

    static_assert(sizeof(list<int*>::iterator) == sizeof(void*));
    static_assert(sizeof(skip_list<int*>::iterator) == sizeof(void*));

    // The slot of a virtual member: a pointer to it holds 1 more than the slot's offset.
    template <class Member>
    static std::ptrdiff_t slot(Member member) {
        struct {
            std::ptrdiff_t offset;
            std::ptrdiff_t adjustment;
        } pointer;
        static_assert(sizeof pointer == sizeof member);
        std::memcpy(&pointer, &member, sizeof pointer);
        return (pointer.offset - 1) / static_cast<std::ptrdiff_t>(sizeof(void*));
    }
    static std::ptrdiff_t slot_of_type() {
        return slot(&any::holder::type);
    }
    static std::ptrdiff_t slot_of_clone() {
        return slot(&any::holder::clone);
    }
};

namespace {

using ovel::detail::inspector;

// The destructor has two, one of them to delete as well.
TEST(layout_test, virtual_members_follow_the_destructor_in_their_order) {
    EXPECT_EQ(inspector::slot(&ovel::thread_function::operator()), 2);
    EXPECT_EQ(inspector::slot_of_type(), 2);
    EXPECT_EQ(inspector::slot_of_clone(), 3);
}

}  // namespace
