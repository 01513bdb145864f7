// SPDX-License-Identifier: Apache-2.0
// The offsets of fields: clients compiled against an earlier header rely on them, and
// contended fields must be a cache line apart. The compiler checks them for every target.
#include "ovel.h"
#include "ovel_allocator.h"
#include "ovel_thread_base.h"
#include "ovel_time_server.h"

#include <cstddef>
#include <initializer_list>

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

struct field {
    std::size_t offset;
    std::size_t size;
    std::size_t alignment;
};

// Whether each field follows the one before as closely as its alignment lets it.
constexpr bool follow(std::size_t end, std::initializer_list<field> fields) {
    for (field const& each : fields) {
        end = (end + each.alignment - 1) / each.alignment * each.alignment;
        if (each.offset != end)
            return false;
        end += each.size;
    }
    return true;
}

}  // namespace

#define FIELD(type, name) \
    { offsetof(type, name), sizeof(type::name), alignof(decltype(type::name)) }

// FIELD of each of up to 26 names.
#define THRICE(...) AND(AND(AND(__VA_ARGS__)))
#define AND(...) AND_ONCE(AND_ONCE(AND_ONCE(__VA_ARGS__)))
#define AND_ONCE(...) JUST(JUST(JUST(__VA_ARGS__)))
#define JUST(...) __VA_ARGS__
#define PARENS ()
#define FIELDS(type, name, ...) FIELD(type, name), __VA_OPT__(MORE_FIELDS PARENS(type, __VA_ARGS__))
#define MORE_FIELDS() FIELDS

// The size of a class, where its own fields begin, and which they are in their order.
#define LAYOUT(type, size, begin, ...)                                                            \
    static_assert(                                                                                \
        sizeof(type) == number size && follow(number begin, {THRICE(FIELDS(type, __VA_ARGS__))}), \
        #type)

struct ovel::detail::inspector {
    LAYOUT(block, (8, 16), (0, 0), _chunk, _next);
    LAYOUT(chunk, (164, 200), (128, 128), _allocator, _free, _length, _block_size, _block_alignment,
           _next, _previous, _size, _capacity);
    LAYOUT(remote, (16, 32), (0, 0), owner, head, tail, size);
    LAYOUT(allocator, (7120, 8856), (0, 0), _lock, _parent, _next, _next_released, _size, _capacity,
           _minimum_capacity, _activated, _pending, _pending_size, _remote, _full, _partial, _empty,
           _after, _surplus_below, _serving, _waiting, _end, _parts);
    LAYOUT(allocator_group, (264, 272), (128, 128), _specific, _default, _after);
    LAYOUT(allocator_recycler, (288, 296), (128, 128), _stop, _period, _function);
    LAYOUT(allocator_recycler::recycler_function, (144, 152), (132, 136), _stop, _period);
    LAYOUT(time, (8, 8), (0, 0), _count);
    LAYOUT(thread_specific_ptr<int>, (4, 4), (0, 0), index);
    LAYOUT(semaphore, (396, 400), (0, 0), _before, _value, _between, _spin, _semaphore, _after);
    LAYOUT(timed_semaphore, (260, 264), (0, 0), _before, _semaphore, _after);
    LAYOUT(mutex, (396, 400), (0, 0), _semaphore);
    LAYOUT(timed_mutex, (260, 264), (0, 0), _semaphore);
    LAYOUT(recursive_mutex, (660, 672), (0, 0), _before, _owner, _between, _depth, _semaphore);
    LAYOUT(timed_recursive_mutex, (524, 536), (0, 0), _before, _owner, _between, _depth,
           _semaphore);
    LAYOUT(timed_mutex::state, (4, 8), (0, 0), underlying);
    LAYOUT(recursive_mutex::state, (8, 16), (0, 0), underlying, depth);
    LAYOUT(timed_recursive_mutex::state, (8, 16), (0, 0), underlying, depth);
    LAYOUT(condition, (1324, 1336), (0, 0), _lock, _queued, _between, _released, _gate, _wait);
    LAYOUT(timed_condition, (1188, 1200), (0, 0), _lock, _queued, _between, _released, _gate,
           _wait);
    LAYOUT(barrier, (1204, 1224), (0, 0), _lock, _capacity, _count, _complete, _wait, _next,
           _odd_wait);
    LAYOUT(timed_barrier, (1196, 1216), (0, 0), _lock, _entry, _capacity, _count, _complete, _wait,
           _released, _next, _odd_wait);
    LAYOUT(thread_function, (132, 136), (4, 8), _before);
    LAYOUT(thread_base, (268, 280), (0, 0), _before, _stack_size, _thread, _function, _after);
    LAYOUT(time_server, (1596, 1624, 1600), (132, 136), _thread, _lock, _request, _reply, _reading);
    LAYOUT(thread_function_base, (796, 816), (132, 136), _start, _function, _terminate, _finish);
    LAYOUT(thread_element, (1068, 1104), (0, 0), _function, _thread_base, _process);
    LAYOUT(skip_list<int*>, (16, 32), (0, 0), _size, _head, _end, _seed);
    LAYOUT(list<int*>, (12, 24), (0, 0), _next, _previous, _size);
    LAYOUT(thread_element_group, (412, 432), (0, 0), _lock, _elements);
    LAYOUT(thread_group, (1808, 1864, 1816), (0, 0), _mutex, _threads, _stack_size, _acquired,
           _space, _concluded, _queue, _function, _thread, _thread_acquired, _condition, _crew,
           _runner);
    LAYOUT(thread_group_function_base, (160, 192), (152, 176), _crew, _identifier);
    LAYOUT(ovel::thread, (272, 280), (0, 0), _before, _stack_size, _acquired, _function, _element,
           _after);
    LAYOUT(any, (4, 8), (0, 0), _content);
    LAYOUT(channel, (24, 40), (0, 0), _capacity, _size, _begin, _end, _back, _front);
    LAYOUT(petri_place, (804, 888), (0, 0), _before, _channel, _between, _size, _receive_size,
           _send_size, _receive_skip, _send_skip, _arcs, _mutex, _capacity, _consumers, _producers,
           _runner, _receivers, _senders, _next_offered, _is_offered, _closed, _closes, _is_listed,
           _next_closed, _port);
    // `offsetof` does not accept references: the fields behind one have a line of their own.
    LAYOUT(petri_arc, (20, 40), (0, 0), _input, _place, _transition);
    LAYOUT(petri_arc, (20, 40), (16, 32), _size);
    LAYOUT(petri_connector, (20, 32), (0, 0), _input, _transition);
    LAYOUT(petri_connector, (20, 32), (12, 24), _size, _capacity);
    LAYOUT(petri_function, (136, 144), (132, 136), _transition);
    LAYOUT(petri_transition, (484, 536, 496), (132, 136), _before);
    LAYOUT(petri_transition, (484, 536, 496), (264, 272), _reentrant, _time, _space, _group, _net,
           _activated, _firing, _random, _arcs, _iterator, _after, _accesses, _rank, _life, _at_end,
           _delay, _most_firings);
    LAYOUT(petri_queue_function, (392, 400), (132, 136), _before, _net, _after);
    LAYOUT(petri_net, (2476, 2576), (0, 0), _mutex, _groups, _firings, _acquired, _random,
           _queue_thread_acquired, _thread_group_acquireds, _thread_group_acquired, _queue_function,
           _queue_thread, _thread_groups, _places, _transitions, _arcs, _queue, _condition, _engine,
           _runner);

    static_assert(sizeof(list<int*>::iterator) == sizeof(void*));
    static_assert(sizeof(skip_list<int*>::iterator) == sizeof(void*));
};
