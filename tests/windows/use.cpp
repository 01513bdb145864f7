// SPDX-License-Identifier: Apache-2.0
// Uses the library and leaves its threads running, for a program that is not linked to it.

#include "ovel.h"
#include "ovel_work.h"

#include <cstdint>
#include <new>

namespace {

// One module throws the exception and another catches it.
void use_what_needs_no_thread() {
    ovel::recursive_mutex lock;
    lock.acquire();
    lock.release();
    ovel_free(ovel_realloc(ovel_calloc(3, 5), 10'000));
    try {
        ovel::allocator_support::allocate(SIZE_MAX);
        assure(("not refused", 0));
    } catch (std::bad_alloc const&) {}
    ovel::any const token = 7;
    assure(ovel::any_cast<int>(token) == 7);
}

// The threads of the recycler and of the clock go on, and the pool keeps those of the group.
void use_threads() {
    ovel::time::now();
    ovel::allocator_recycler::global()->release(3600.0);
    ovel::work function([] { ovel_free(ovel_malloc(10)); });
    ovel::thread_group group(2);
    group.schedule(function, 1, 0);
    group.release();
    group.conclude();
    group.acquire();
}

}  // namespace

// Uses everything that needs no thread and, with `threads`, the rest. An error fails a check.
extern "C" __declspec(dllexport) void use(bool threads) {
    use_what_needs_no_thread();
    if (threads)
        use_threads();
}
