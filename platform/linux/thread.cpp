// SPDX-License-Identifier: Apache-2.0
// Threads: their start, their end and their identity.

#include "linux/thread.h"

#include "linux/fork.h"
#include "linux/futex_word.h"
#include "linux/processors.h"
#include "linux/pthread_guard.h"

#include <algorithm>
#include <cstddef>

#include <link.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define OVEL_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define OVEL_SANITIZED 1
#endif
#endif

namespace ovel {

// Held while a thread reads the list of modules. The C library's own lock of that list stays
// locked in the child of a process that forks meanwhile.
pthread_mutex_t detail::modules_lock = PTHREAD_MUTEX_INITIALIZER;

namespace {

int add_thread_local_storage(dl_phdr_info* module, std::size_t, void* sum) {
    for (int i = 0; i < module->dlpi_phnum; ++i) {
        auto const& header = module->dlpi_phdr[i];
        if (header.p_type == PT_TLS)
            *static_cast<std::size_t*>(sum) += header.p_memsz + header.p_align;
    }
    return 0;
}

// How much of a stack the C library, and in sanitizer builds the sanitizer, use before
// the thread's own frames.
std::size_t stack_overhead(std::size_t stack) {
    // The stack holds the thread-local storage of the modules. The least size that the C
    // library accepts covers what it puts there itself and leaves room for the frame of a
    // signal handler.
    std::size_t overhead = static_cast<std::size_t>(sysconf(_SC_THREAD_STACK_MIN));
    {
        detail::pthread_guard const hold(detail::modules_lock, forking());
        dl_iterate_phdr(add_thread_local_storage, &overhead);
    }
#if defined(OVEL_SANITIZED)
    overhead += 262144 + 3 * stack;  // red zones, and stack slots that variables do not share
#else
    static_cast<void>(stack);
#endif
    return overhead;
}

// Sets the size so that the thread's own frames have `stack` bytes; 0 keeps the default.
// Returns false if there is no such size.
bool set_stack(pthread_attr_t& attributes, std::size_t stack) {
    if (stack == 0)
        return true;
    auto const page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    std::size_t guard = 0;
    pthread_attr_getguardsize(&attributes, &guard);
    std::size_t const size = (stack + stack_overhead(stack) + guard + page - 1) / page * page;
    return size > stack && pthread_attr_setstacksize(&attributes, size) == 0;
}

void* run(void* argument) {
    auto& thread = *static_cast<detail::kernel_thread*>(argument);
    // Relaxed: it publishes nothing else.
    thread.identifier.store(static_cast<std::uint32_t>(GetCurrentThreadId()),
                            std::memory_order_relaxed);
    detail::futex_wake(&thread.identifier, 1);
    detail::use_processors_of_process();
    thread.entry(thread.argument);
    // Release: a thread that reads 1 sees what the work wrote. This thread's own hold
    // keeps the word alive until it has sent the wake-up.
    thread.ended.store(1, std::memory_order_release);
    detail::futex_wake(&thread.ended, INT32_MAX);
    thread.leave();
    return nullptr;
}

}  // namespace

// Waits until `entry` has returned. Returns false if `until` passes first. Acquire: pairs
// with the release in `run`.
bool detail::kernel_thread::_wait_for_return(deadline const& until) {
    bool in_time = true;
    while (ended.load(std::memory_order_acquire) == 0) {
        if (!in_time)
            return false;
        in_time = futex_wait(&ended, 0, until);
    }
    return true;
}

DWORD detail::kernel_thread::_join() {
    pthread_guard const hold(join_lock);
    joined = joined || pthread_join(thread, nullptr) == 0;
    return joined ? WAIT_OBJECT_0 : WAIT_FAILED;
}

// Joins the thread if it is gone. Returns false if it is not, or if another thread is
// joining it.
bool detail::kernel_thread::_try_join() {
    if (pthread_mutex_trylock(&join_lock) != 0)
        return false;
    joined = joined || pthread_tryjoin_np(thread, nullptr) == 0;
    bool const done = joined;
    pthread_mutex_unlock(&join_lock);
    return done;
}

// After `entry` the thread destroys its thread-local objects, which may take long or wait
// for the caller, and then leaves the C library. A join waits for that too: it frees the
// stack, and tells race and leak checkers that the thread is gone.
DWORD detail::kernel_thread::wait(DWORD milliseconds) {
    if (process != process_generation())
        return WAIT_FAILED;
    if (milliseconds == 0) {
        // Acquire: as in `_wait_for_return`.
        bool const returned = ended.load(std::memory_order_acquire) != 0;
        return returned && _try_join() ? WAIT_OBJECT_0 : WAIT_TIMEOUT;
    }
    deadline const until(milliseconds);
    if (!_wait_for_return(until))
        return WAIT_TIMEOUT;
    if (until.never())
        return _join();
    // Polls, because the race checkers in use do not know the C library's newer join with
    // a deadline on the monotonic clock. Polls soon at first, since most threads are gone
    // within microseconds.
    long pause = 20000;  // nanoseconds
    constexpr long longest_pause = 1000000;
    while (!_try_join()) {
        if (until.passed())
            return WAIT_TIMEOUT;
        timespec const span = {0, pause};
        clock_nanosleep(CLOCK_MONOTONIC, 0, &span, nullptr);
        pause = std::min(2 * pause, longest_pause);
    }
    return WAIT_OBJECT_0;
}

void detail::kernel_thread::close() {
    // Needs no lock: no thread waits any more.
    if (!joined && process == process_generation())
        pthread_detach(thread);
    leave();
}

void detail::kernel_thread::leave() {
    // Acquire-release: the last to leave frees what the other has used.
    if (holds.fetch_sub(1, std::memory_order_acq_rel) == 1)
        free(this);
}

std::uintptr_t kernel::_beginthreadex(void*, unsigned int stack, unsigned int (*entry)(void*),
                                      void* argument, unsigned int, unsigned int* identifier) {
    auto* const thread = detail::make_object<detail::kernel_thread>(entry, argument);
    if (!thread)
        return 0;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    bool const started = set_stack(attributes, stack) &&
                         pthread_create(&thread->thread, &attributes, run, thread) == 0;
    pthread_attr_destroy(&attributes);
    if (!started) {
        free(thread);
        return 0;
    }
    if (identifier) {
        // Only the thread itself can ask for its identifier. Relaxed: it publishes
        // nothing else.
        detail::deadline const never(INFINITE);
        while ((*identifier = thread->identifier.load(std::memory_order_relaxed)) == 0)
            detail::futex_wait(&thread->identifier, 0, never);
    }
    return reinterpret_cast<std::uintptr_t>(thread);
}

constinit thread_local unsigned int kernel::current_thread_id = 0;

unsigned int kernel::find_current_thread_id() {
    return current_thread_id = static_cast<unsigned int>(gettid());
}

void kernel::set_thread_name(char const* name) {
    prctl(PR_SET_NAME, name);
}

unsigned long kernel::GetCurrentProcessId() {
    return static_cast<unsigned long>(getpid());
}

}  // namespace ovel
