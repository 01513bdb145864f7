// SPDX-License-Identifier: Apache-2.0
// The simulated kernel's objects and the services on them.
//
// A semaphore's unit goes to the first thread that takes it. A post makes every sleeper
// ready, the scheduler chooses one of them or a newcomer, and threads that find no unit
// sleep again. That covers every order of waking, and of stealing, that the contract
// allows. A sleeper whose time has passed is also ready, and takes a unit if there is one
// when it is chosen.
//
// A violation of the contract fails the run at once: using an unknown or closed handle,
// or closing a handle while a thread waits.

#include "kernel.h"
#include "lasting.h"
#include "scheduler.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

namespace ovel::simulation {

namespace {

enum class kind : unsigned char { semaphore, mutex, thread };

struct object {
    kind what;
    bool ended;          // thread
    LONG count;          // semaphore: units; mutex: how often its owner holds it
    LONG maximum;        // semaphore
    unsigned int owner;  // mutex: number of the thread, 0 if free
    unsigned int handles;
    threads_mask waiters;
    char name[96];  // mutex
};

// A handle's value is its position, from 1, times 4. Neither positions nor objects are
// reused in a run, so a stale handle is detected.
struct handle {
    unsigned int object;
    bool open;
};

struct object_table {
    std::vector<object> objects;
    std::vector<handle> handles;
    unsigned int open = 0;
};

constinit lasting<object_table> now_, kept_;
object_table& now = now_.value;
object_table& kept = kept_.value;

HANDLE open_handle(unsigned int number) {
    now.handles.push_back({number, true});
    ++now.objects[number].handles;
    ++now.open;
    return reinterpret_cast<HANDLE>(now.handles.size() * 4);
}

handle& handle_of(HANDLE value) {
    auto const place = reinterpret_cast<std::uintptr_t>(value);
    if (place == 0 || place % 4 != 0 || place / 4 > now.handles.size())
        fail("%p is not a handle", value);
    handle& found = now.handles[place / 4 - 1];
    if (!found.open)
        fail("handle of object %u used after it was closed", found.object);
    return found;
}

bool available(object const& each) {
    switch (each.what) {
        case kind::semaphore:
            return each.count > 0;
        case kind::mutex:
            return each.owner == 0 || each.owner == current().number;
        case kind::thread:
            return each.ended;
    }
    return false;
}

void take(object& each) {
    if (each.what == kind::thread)
        return;
    if (each.what == kind::mutex) {
        each.owner = current().number;
        ++each.count;
        make_unready(each.waiters);
    } else if (--each.count == 0) {
        make_unready(each.waiters);
    }
}

}  // namespace

void keep_objects() {
    kept = now;
}

void restore_objects() {
    now = kept;
}

void describe_object(unsigned int number, char* text, std::size_t size) {
    object const& each = now.objects[number];
    switch (each.what) {
        case kind::semaphore:
            std::snprintf(text, size, "semaphore #%u with %d units", number, each.count);
            break;
        case kind::mutex:
            std::snprintf(text, size, "mutex #%u of thread %u", number, each.owner);
            break;
        case kind::thread:
            std::snprintf(text, size, "thread object #%u%s", number, each.ended ? ", ended" : "");
            break;
    }
}

unsigned int open_handles() {
    return now.open;
}

void end_thread(unsigned int number) {
    for (object const& each : now.objects)
        if (each.what == kind::mutex && each.owner == current().number && each.handles != 0)
            fail("thread %u ends and still owns a mutex", current().number);
    now.objects[number].ended = true;
    make_ready(now.objects[number].waiters);
}

}  // namespace ovel::simulation

namespace ovel {

inline namespace kernel {

using namespace simulation;

HANDLE CreateSemaphoreA(void*, LONG count, LONG maximum, char const*) {
    point(operation::create_semaphore, nullptr, __builtin_return_address(0));
    if (count_object_request() || count < 0 || maximum <= 0 || count > maximum)
        return nullptr;
    now.objects.push_back(object{kind::semaphore, false, count, maximum, 0, 0, 0, ""});
    return open_handle(static_cast<unsigned int>(now.objects.size() - 1));
}

HANDLE CreateMutexA(void*, BOOL, char const* name) {
    point(operation::create_mutex, nullptr, __builtin_return_address(0));
    if (count_object_request())
        return nullptr;
    if (std::strlen(name) >= sizeof object::name)
        fail("mutex name too long");
    for (unsigned int number = 0; number != now.objects.size(); ++number) {
        object const& each = now.objects[number];
        if (each.what == kind::mutex && each.handles != 0 && std::strcmp(each.name, name) == 0)
            return open_handle(number);
    }
    object made{kind::mutex, false, 0, 0, 0, 0, 0, ""};
    std::strcpy(made.name, name);
    now.objects.push_back(made);
    return open_handle(static_cast<unsigned int>(now.objects.size() - 1));
}

BOOL ReleaseSemaphore(HANDLE semaphore, LONG count, LONG*) {
    unsigned int const number = handle_of(semaphore).object;
    point(operation::post, number, __builtin_return_address(0));
    handle_of(semaphore);  // it may have been closed meanwhile
    count_kernel_call();
    object& each = now.objects[number];
    if (each.what != kind::semaphore || count <= 0 || count > each.maximum - each.count)
        return 0;
    each.count += count;
    note(static_cast<std::uint64_t>(each.count - count), static_cast<std::uint64_t>(each.count));
    make_ready(each.waiters);
    return 1;
}

BOOL ReleaseMutex(HANDLE mutex) {
    unsigned int const number = handle_of(mutex).object;
    point(operation::release_mutex, number, __builtin_return_address(0));
    object& each = now.objects[number];
    if (each.what != kind::mutex || each.owner != current().number)
        return 0;
    if (--each.count == 0) {
        each.owner = 0;
        make_ready(each.waiters);
    }
    return 1;
}

DWORD WaitForSingleObject(HANDLE value, DWORD milliseconds) {
    if (value == nullptr)
        return WAIT_FAILED;
    unsigned int const number = handle_of(value).object;
    void* const caller = __builtin_return_address(0);
    point(operation::wait, number, caller);
    handle_of(value);
    count_kernel_call();
    // The table may grow and move its objects while the thread sleeps.
    auto const each = [number]() -> object& {
        return now.objects[number];
    };
    if (!available(each())) {
        if (milliseconds == 0)
            return WAIT_TIMEOUT;
        threads_mask const self = calling_thread();
        each().waiters |= self;
        bool late = false;
        std::uint64_t const deadline = deadline_after(milliseconds);
        do {
            late = block(deadline);
        } while (!available(each()) && !late);
        each().waiters &= ~self;
        note(0, static_cast<std::uint64_t>(each().count));
        if (!available(each()))
            return WAIT_TIMEOUT;
    }
    take(each());
    return WAIT_OBJECT_0;
}

BOOL CloseHandle(HANDLE value) {
    if (value == nullptr)
        return 0;
    unsigned int const number = handle_of(value).object;
    point(operation::close, number, __builtin_return_address(0));
    handle_of(value).open = false;
    --now.open;
    object& each = now.objects[number];
    if (--each.handles == 0 && each.waiters != 0)
        fail("the last handle of object %u closed while a thread waits for it", number);
    return 1;
}

std::uintptr_t _beginthreadex(void*, unsigned int stack, unsigned int (*entry)(void*),
                              void* argument, unsigned int, unsigned int* identifier) {
    point(operation::create_thread, nullptr, __builtin_return_address(0));
    if (count_object_request())
        return 0;
    now.objects.push_back(object{kind::thread, false, 0, 0, 0, 0, 0, ""});
    thread_state state{};
    state.object = static_cast<unsigned int>(now.objects.size() - 1);
    state.stack_bytes = stack;
    state.affinity = current_machine().process_mask;
    state.entry = entry;
    state.argument = argument;
    if (!start_thread(state))
        fail("more than %u threads", slot_count);
    if (identifier != nullptr)
        *identifier = state.object;
    return reinterpret_cast<std::uintptr_t>(open_handle(state.object));
}

}  // namespace kernel

}  // namespace ovel
