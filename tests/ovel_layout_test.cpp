// SPDX-License-Identifier: Apache-2.0
// The sizes of the classes whose objects clients lay out, or that keep contended fields a cache
// line apart, for every target; without those that others contain. The recorded interface has the
// fields as well, for Linux on x86-64.
#include "ovel.h"
#include "ovel_allocator.h"
#include "ovel_thread_base.h"
#include "ovel_time_server.h"

#include <cstddef>

namespace {

struct wide_field {
    char before;
    double value;
};

// The size with words of 4 bytes; of 8; and of 4 where it differs because doubles and 64-bit
// integers are aligned to 8 all the same.
constexpr std::size_t size(std::size_t narrow, std::size_t wide, std::size_t aligned = 0) {
    if (sizeof(void*) == 8)
        return wide;
    return aligned != 0 && offsetof(wide_field, value) == 8 ? aligned : narrow;
}

}  // namespace

#define SIZE(type, ...) static_assert(sizeof(type) == size(__VA_ARGS__))

struct ovel::detail::inspector {
    SIZE(block, 8, 16);
    SIZE(chunk, 164, 200);
    SIZE(allocator, 7120, 8856);
    SIZE(allocator_group, 264, 272);
    SIZE(allocator_recycler, 288, 296);
    SIZE(time, 8, 8);
    SIZE(thread_specific_ptr<int>, 4, 4);
    SIZE(timed_mutex, 260, 264);
    SIZE(recursive_mutex, 660, 672);
    SIZE(timed_recursive_mutex, 524, 536);
    SIZE(timed_mutex::state, 4, 8);
    SIZE(recursive_mutex::state, 8, 16);
    SIZE(timed_recursive_mutex::state, 8, 16);
    SIZE(timed_condition, 1188, 1200);
    SIZE(barrier, 1204, 1224);
    SIZE(timed_barrier, 1196, 1216);
    SIZE(time_server, 1596, 1624, 1600);
    SIZE(thread_element, 1068, 1104);
    SIZE(thread_element_group, 412, 432);
    SIZE(thread_group, 1808, 1864, 1816);
    SIZE(thread_group_function_base, 160, 192);
    SIZE(any, 4, 8);
    SIZE(petri_place, 808, 888);
    SIZE(petri_arc, 20, 40);
    SIZE(petri_connector, 20, 32);
    SIZE(petri_function, 136, 144);
    SIZE(petri_transition, 484, 536, 496);
    SIZE(petri_net, 2476, 2576);

    static_assert(sizeof(list<int*>::iterator) == sizeof(void*));
    static_assert(sizeof(skip_list<int*>::iterator) == sizeof(void*));
};
