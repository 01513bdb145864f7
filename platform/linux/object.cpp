// SPDX-License-Identifier: Apache-2.0
// Semaphores, named mutexes, and the services that take a handle of any kind.

#include "linux/object.h"

#include "linux/fork.h"
#include "linux/pthread_guard.h"
#include "linux/thread.h"
#include "linux/units.h"
#include "ovel_atomic.h"

#include <cstddef>
#include <cstring>

namespace ovel {

namespace {

using detail::kernel_object;
using detail::kernel_thread;
using detail::object_kind;
using detail::object_of;

struct kernel_semaphore : kernel_object {
    static constexpr object_kind own_kind = object_kind::semaphore;

    kernel_semaphore(LONG count, LONG maximum_)
        : kernel_object{own_kind}, maximum(maximum_), available(count) {}

    LONG const maximum;
    detail::units available;
};

// One object per name that has handles. Each handle of the name is its address.
struct kernel_mutex : kernel_object {
    static constexpr object_kind own_kind = object_kind::mutex;

    explicit kernel_mutex(char* name_) : kernel_object{own_kind}, name(name_) {}

    bool wait(DWORD milliseconds);
    bool release();

    detail::units available{1};
    // 0 if the mutex has no owner. Relaxed: a thread only needs to recognise itself, and
    // it reads its own writes.
    detail::atomic<unsigned long> owner = 0;
    unsigned int depth = 0;  // how often the owner has yet to release; owner only

    char* const name;
    // In a fork the name means a new mutex, because the owner of this one may not exist
    // there.
    unsigned int const process = process_generation();
    unsigned int handles = 0;      // under named_mutexes_lock
    kernel_mutex* next = nullptr;  // under named_mutexes_lock
};

// The named mutexes of the process. A thread holds the lock at most for one search.
kernel_mutex* table;  // under named_mutexes_lock

bool kernel_mutex::wait(DWORD milliseconds) {
    unsigned long const self = GetCurrentThreadId();
    if (owner.load(std::memory_order_relaxed) != self) {
        if (!available.take(milliseconds))
            return false;
        owner.store(self, std::memory_order_relaxed);
    }
    ++depth;
    return true;
}

bool kernel_mutex::release() {
    if (owner.load(std::memory_order_relaxed) != GetCurrentThreadId())
        return false;
    if (--depth == 0) {
        owner.store(0, std::memory_order_relaxed);
        available.post(1, 1);
    }
    return true;
}

kernel_mutex* make_mutex(char const* name) {
    std::size_t const size = std::strlen(name) + 1;
    auto* const copy = static_cast<char*>(malloc(size));
    if (!copy)
        return nullptr;
    std::memcpy(copy, name, size);
    auto* const mutex = detail::make_object<kernel_mutex>(copy);
    if (!mutex)
        free(copy);
    return mutex;
}

void close(kernel_mutex& mutex) {
    {
        detail::pthread_guard const hold(detail::named_mutexes_lock, forking());
        if (--mutex.handles != 0)
            return;
        kernel_mutex** link = &table;
        while (*link != &mutex)
            link = &(*link)->next;
        *link = mutex.next;
    }
    free(mutex.name);
    free(&mutex);
}

}  // namespace

pthread_mutex_t detail::named_mutexes_lock = PTHREAD_MUTEX_INITIALIZER;

void detail::inherit_named_mutexes(unsigned long former, unsigned long now) {
    for (kernel_mutex* each = table; each; each = each->next) {
        if (each->owner.load(std::memory_order_relaxed) == former)
            each->owner.store(now, std::memory_order_relaxed);
    }
}

HANDLE kernel::CreateSemaphoreA(void*, LONG count, LONG maximum, char const*) {
    if (count < 0 || maximum < 1 || count > maximum)
        return nullptr;
    return detail::make_object<kernel_semaphore>(count, maximum);
}

BOOL kernel::ReleaseSemaphore(HANDLE semaphore, LONG count, LONG*) {
    auto* const object = object_of<kernel_semaphore>(semaphore);
    return object && count > 0 && object->available.post(count, object->maximum);
}

HANDLE kernel::CreateMutexA(void*, BOOL, char const* name) {
    if (!name)
        return nullptr;
    detail::pthread_guard const hold(detail::named_mutexes_lock, forking());
    kernel_mutex* mutex = table;
    while (mutex &&
           !(mutex->process == process_generation() && std::strcmp(mutex->name, name) == 0))
        mutex = mutex->next;
    if (!mutex) {
        mutex = make_mutex(name);
        if (!mutex)
            return nullptr;
        mutex->next = table;
        table = mutex;
    }
    ++mutex->handles;
    return mutex;
}

BOOL kernel::ReleaseMutex(HANDLE mutex) {
    auto* const object = object_of<kernel_mutex>(mutex);
    return object && object->release();
}

DWORD kernel::WaitForSingleObject(HANDLE object, DWORD milliseconds) {
    bool acquired;
    if (auto* const semaphore = object_of<kernel_semaphore>(object))
        acquired = semaphore->available.take(milliseconds);
    else if (auto* const mutex = object_of<kernel_mutex>(object))
        acquired = mutex->wait(milliseconds);
    else if (auto* const thread = object_of<kernel_thread>(object))
        return thread->wait(milliseconds);
    else
        return WAIT_FAILED;
    return acquired ? WAIT_OBJECT_0 : WAIT_TIMEOUT;
}

BOOL kernel::CloseHandle(HANDLE object) {
    if (auto* const semaphore = object_of<kernel_semaphore>(object))
        free(semaphore);
    else if (auto* const thread = object_of<kernel_thread>(object))
        thread->close();
    else if (auto* const mutex = object_of<kernel_mutex>(object))
        close(*mutex);
    else
        return 0;
    return 1;
}

}  // namespace ovel
