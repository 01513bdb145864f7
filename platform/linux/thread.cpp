// Threads: their start, their end and their identity.

#include "linux/thread.h"

#include "linux/futex_word.h"
#include "linux/processors.h"
#include "linux/pthread_guard.h"

#include <cstddef>

#include <link.h>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define OVEL_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define OVEL_SANITIZED 1
#endif
#endif

namespace ovel {

namespace {

int add_thread_local_storage(dl_phdr_info* module, std::size_t, void* sum) {
    for (int i = 0; i < module->dlpi_phnum; ++i) {
        auto const& header = module->dlpi_phdr[i];
        if (header.p_type == PT_TLS)
            *static_cast<std::size_t*>(sum) += header.p_memsz + header.p_align;
    }
    return 0;
}

// How much of a stack the C library and the checks of a sanitizer build use before the
// thread's own frames.
std::size_t stack_overhead(std::size_t stack) {
    // The thread-local storage of the modules lies on the stack. The least size that the
    // C library accepts covers what it puts there itself, and leaves room for the frame
    // of a signal handler.
    std::size_t overhead = static_cast<std::size_t>(sysconf(_SC_THREAD_STACK_MIN));
    dl_iterate_phdr(add_thread_local_storage, &overhead);
#if defined(OVEL_SANITIZED)
    overhead += 262144 + 3 * stack;  // red zones, and unshared stack slots
#else
    static_cast<void>(stack);
#endif
    return overhead;
}

// Sets the stack's size so that the thread's own frames have `stack` bytes; 0 leaves
// the default. False when there is no such stack.
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
    // Relaxed: it publishes nothing but itself.
    thread.identifier.store(static_cast<std::uint32_t>(GetCurrentThreadId()),
                            std::memory_order_relaxed);
    detail::futex_wake(&thread.identifier, 1);
    detail::use_processors_of_process();
    thread.entry(thread.argument);
    // Release: a thread that reads 1 sees what this one wrote. This thread's own hold
    // keeps the word alive until the wake-up is sent.
    thread.ended.store(1, std::memory_order_release);
    detail::futex_wake(&thread.ended, INT32_MAX);
    thread.leave();
    return nullptr;
}

}  // namespace

bool detail::kernel_thread::wait(DWORD milliseconds) {
    if (ended.load(std::memory_order_acquire) == 0) {
        if (milliseconds == 0)
            return false;
        deadline const until(milliseconds);
        bool in_time = true;
        while (ended.load(std::memory_order_acquire) == 0) {
            if (!in_time)
                return false;
            in_time = futex_wait(&ended, 0, until);
        }
    }
    // The thread has only to leave the C library. Waiting for that too frees its stack,
    // and tells race and leak checkers that it has ended.
    pthread_guard const hold(join_lock);
    if (!joined)
        pthread_join(thread, nullptr);
    joined = true;
    return true;
}

void detail::kernel_thread::close() {
    if (!joined)  // no lock: no thread waits any more
        pthread_detach(thread);
    leave();
}

void detail::kernel_thread::leave() {
    // Acquire and release: the last to leave frees what the other has used.
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
        // Only the thread itself can ask for its identifier.
        detail::deadline const never(INFINITE);
        while ((*identifier = thread->identifier.load(std::memory_order_relaxed)) == 0)
            detail::futex_wait(&thread->identifier, 0, never);
    }
    return reinterpret_cast<std::uintptr_t>(thread);
}

constinit thread_local unsigned int kernel::current_thread_id = 0;

unsigned int kernel::find_current_thread_id() {
    // The only thread of a forked child is another one than that which forked.
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, [] { pthread_atfork(nullptr, nullptr, [] { current_thread_id = 0; }); });
    return current_thread_id = static_cast<unsigned int>(gettid());
}

unsigned long kernel::GetCurrentProcessId() {
    return static_cast<unsigned long>(getpid());
}

}  // namespace ovel
