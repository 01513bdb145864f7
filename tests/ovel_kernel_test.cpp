// SPDX-License-Identifier: Apache-2.0
// The kernel services on this platform: what the library's sources rely on. They
// are not visible in the library, so this test is compiled together with them.
#include "kernel.h"
#include "linux/processors.h"
#include "ovel_posix.h"
#include "ovel_test.h"

#include <alloca.h>
#include <malloc.h>
#include <sys/mman.h>
#include <sys/resource.h>

namespace {

using namespace ovel::kernel;
using ovel::detail::processor_set;
using clock_type = std::chrono::steady_clock;

constexpr LONG most = 2147483647;

HANDLE make_semaphore(LONG count) {
    return CreateSemaphoreA(nullptr, count, most, nullptr);
}

// Whether `object` can be acquired within `timeout` milliseconds.
bool take(HANDLE object, DWORD timeout = 0) {
    return WaitForSingleObject(object, timeout) == WAIT_OBJECT_0;
}

HANDLE start(unsigned int (*entry)(void*), void* argument, unsigned int stack = 65536) {
    return reinterpret_cast<HANDLE>(_beginthreadex(nullptr, stack, entry, argument, 0, nullptr));
}

void join(HANDLE thread) {
    ASSERT_TRUE(take(thread, INFINITE));
    ASSERT_NE(CloseHandle(thread), 0);
}

// The processors of the process, and the lowest of them.
DWORD_PTR process_mask() {
    DWORD_PTR process, system;
    return GetProcessAffinityMask(GetCurrentProcess(), &process, &system) != 0 ? process : 0;
}
DWORD_PTR const all = process_mask(), one = all & (~all + 1);

// A deadline that wraps lies in the past, so the wait would end at once.
TEST(semaphore_test, a_wait_ends_with_the_unit_or_not_before_its_time) {
    HANDLE const semaphore = make_semaphore(0);
    {
        auto const waiters = crew(2, [=](int waiter) {
            EXPECT_TRUE(take(semaphore, waiter == 0 ? 2147483647u : 0xfffffffeu));
        });
        for (DWORD const timeout : {1u, 3u, 39u}) {
            auto const begin = clock_type::now();
            EXPECT_EQ(WaitForSingleObject(semaphore, timeout), WAIT_TIMEOUT);
            Sleep(timeout);
            EXPECT_GE(clock_type::now() - begin, std::chrono::milliseconds(2 * timeout));
        }
        ReleaseSemaphore(semaphore, 2, nullptr);
    }
    CloseHandle(semaphore);
}

// Beside the thread's own storage, which stands there too.
TEST(thread_test, has_the_stack_that_was_asked_for) {
    static thread_local char volatile storage[300'000];
    for (unsigned int const stack : {4096u, 65536u, 524288u, 0u}) {
        std::size_t used = stack != 0 ? stack - 512 : 524288;  // without its own frames
        auto const fill = [](void* size) {
            auto const bytes = *static_cast<std::size_t*>(size);
            auto const memory = static_cast<char volatile*>(alloca(bytes));
            for (std::size_t at = bytes; at-- > 0;)  // downwards, as frames grow
                memory[at] = 1;
            return static_cast<unsigned int>(storage[0]);
        };
        join(start(fill, &used, stack));
    }
}

// Destructors of thread-local objects, which the C library calls, belong to the thread. They may
// wait for the very thread that waits for this one's end, so that wait keeps its deadline.
TEST(thread_test, has_ended_once_its_thread_local_objects_are_destroyed) {
    static HANDLE const proceed = make_semaphore(0);
    static HANDLE const destroying = make_semaphore(0);
    static std::atomic<bool> gone = false;
    struct trace {
        ~trace() {
            ReleaseSemaphore(destroying, 1, nullptr);
            take(proceed, INFINITE);
            Sleep(2);
            gone = true;
        }
    };
    auto const entry = [](void*) {
        static thread_local trace left;
        static_cast<void>(&left);
        return 0u;
    };
    HANDLE const thread = start(entry, nullptr);
    ASSERT_TRUE(take(destroying, INFINITE));
    EXPECT_EQ(WaitForSingleObject(thread, 0), WAIT_TIMEOUT);
    auto const begin = clock_type::now();
    EXPECT_EQ(WaitForSingleObject(thread, 20), WAIT_TIMEOUT);
    EXPECT_GE(clock_type::now() - begin, std::chrono::milliseconds(20));
    {
        auto const waiters = crew(4, [=](int waiter) {
            EXPECT_TRUE(take(thread, waiter % 2 == 0 ? INFINITE : 600'000u));
            EXPECT_TRUE(gone);
        });
        ReleaseSemaphore(proceed, 1, nullptr);
    }
    join(thread);
}

TEST(fork_test, a_child_has_an_identity_of_its_own_and_its_copies_of_handles) {
    // As the library does when it is loaded.
    ASSERT_TRUE(at_fork({[] {}, [] {},
                         [] {
                         }}));
    GetCurrentThreadId();  // which is kept
    HANDLE const owned = CreateMutexA(nullptr, 0, "owned by the thread that forks");
    ASSERT_TRUE(take(owned));
    EXPECT_TRUE(in_fork([&] {
        bool const fresh = GetCurrentThreadId() == static_cast<unsigned long>(gettid()) &&
                           process_generation() == 1 && ReleaseMutex(owned) != 0 &&
                           CloseHandle(owned) != 0;
        if (!fresh)
            _exit(1);
    }));
    EXPECT_EQ(process_generation(), 0u);
    // Without a handle it is gone, and the name means a new one.
    CloseHandle(owned);
    HANDLE const unowned = CreateMutexA(nullptr, 0, "owned by the thread that forks");
    EXPECT_TRUE(elsewhere([=] { return take(unowned) && ReleaseMutex(unowned) != 0; }));
    CloseHandle(unowned);
}

// Slots in the thread's own table and beyond it. The thread that reads had set a value under
// the earlier index.
TEST(slot_test, a_slot_handed_out_again_reads_null) {
    int value = 0;
    std::set<DWORD> others;
    for (std::size_t const taken : {0u, 100u, 1000u}) {
        while (others.size() < taken)
            ASSERT_TRUE(others.insert(TlsAlloc()).second);
        DWORD former = TLS_OUT_OF_INDEXES;
        for (int round = 0; round < 20; ++round) {
            DWORD const index = TlsAlloc();
            EXPECT_EQ(TlsGetValue(index), nullptr);
            EXPECT_NE(TlsSetValue(index, &value), 0);
            // A freed index neither reads nor overwrites the new value.
            EXPECT_EQ(TlsGetValue(former), nullptr);
            EXPECT_EQ(TlsSetValue(former, &others), 0);
            EXPECT_EQ(TlsGetValue(index), &value);
            EXPECT_TRUE(elsewhere(
                [=] { return TlsGetValue(index) == nullptr && TlsSetValue(index, nullptr) != 0; }));
            EXPECT_NE(TlsFree(index), 0);
            former = index;
        }
    }
    // So does a destructor of the thread that runs after those of its slots.
    static DWORD const last = TlsAlloc();
    static bool reads_null = false;
    pthread_key_t late;
    pthread_key_create(&late, [](void*) { reads_null = TlsGetValue(last) == nullptr; });
    std::jthread([&] {
        TlsSetValue(last, &value);
        pthread_setspecific(late, &value);
    }).join();
    EXPECT_TRUE(reads_null);
    pthread_key_delete(late);
    others.insert(last);
    for (DWORD const index : others)
        TlsFree(index);
}

// A thread's mask binds neither other threads nor those that it starts. The process's mask binds
// its thread, and one that starts meanwhile until the mask is wider.
TEST(processor_test, a_mask_binds_a_thread_or_all_of_the_process) {
    static HANDLE const go = make_semaphore(1);
    static std::atomic<int> begun;
    begun = 0;
    auto const entry = [](void* processors) {
        ++begun;
        take(go, INFINITE);
        static_cast<processor_set*>(processors)->read(0);
        return 0u;
    };
    processor_set every, own, here, free;
    ASSERT_TRUE(every.read(0));
    EXPECT_EQ(SetThreadAffinityMask(GetCurrentThread(), one), all);
    ASSERT_TRUE(own.read(0));
    here.add(sched_getcpu());
    EXPECT_TRUE(own.within(here) && here.within(own));
    join(start(entry, &free));
    EXPECT_TRUE(every.within(free));

    EXPECT_NE(SetProcessAffinityMask(GetCurrentProcess(), one), 0);
    EXPECT_EQ(process_mask(), one);
    // The program itself may move a thread out of the process's mask.
    processor_set others;
    for (int processor = 0; processor < processor_set::limit; ++processor)
        if (every.has(processor) && !here.has(processor))
            others.add(processor);
    if (others.apply(0)) {
        EXPECT_EQ(SetThreadAffinityMask(GetCurrentThread(), one), one);
    }
    HANDLE const widened = start(entry, &free);
    until([] { return begun == 2; });
    EXPECT_NE(SetProcessAffinityMask(GetCurrentProcess(), all), 0);
    ReleaseSemaphore(go, 1, nullptr);
    join(widened);
    EXPECT_TRUE(every.within(free));
    EXPECT_EQ(SetThreadAffinityMask(GetCurrentThread(), all), all);
}

// A thread that sets its own mask, and one that starts, while the process is restricted.
TEST(processor_test, no_thread_escapes_a_new_mask_of_the_process) {
    static std::atomic<bool> restricted;
    static std::atomic<int> escaped = 0;
    auto const check = [](void* allowed) {
        until([] { return restricted.load(); });
        processor_set own;
        escaped += !own.read(0) || !own.within(*static_cast<processor_set*>(allowed));
        return 0u;
    };
    for (int round = 0; round != 50; ++round) {
        processor_set first;
        restricted = false;
        std::atomic<int> sets = 0;
        auto threads = crew(4, [&](int member) {
            if (member == 0)
                return join(start(check, &first));
            for (; !restricted; ++sets)
                SetThreadAffinityMask(GetCurrentThread(), all);
            check(&first);
        });
        until([&] { return sets > 100; });
        EXPECT_NE(SetProcessAffinityMask(GetCurrentProcess(), one), 0);
        EXPECT_TRUE(first.read(0));
        restricted = true;
        threads.clear();
        EXPECT_NE(SetProcessAffinityMask(GetCurrentProcess(), all), 0);
    }
    EXPECT_EQ(escaped, 0);
}

TEST(processor_test, bits_are_processors_unless_none_of_the_first_32_is_allowed) {
    ovel::detail::processor_bits bits;
    processor_set some, high;
    for (int const processor : {2, 31, 40})
        some.add(processor);
    bits.assign(some);
    EXPECT_EQ(bits.mask_of(some), 0x80000004u);
    EXPECT_TRUE(bits.set_of(0x80000004u).within(some));
    for (int const processor : {40, 43, 8191})
        high.add(processor);
    bits.assign(high);
    EXPECT_EQ(bits.mask_of(high), 7u);
    EXPECT_TRUE(bits.set_of(2).has(43));
    EXPECT_TRUE(high.within(bits.set_of(7)));
}

TEST(runtime_test, numbers_are_written_in_any_base) {
    char text[65];
    EXPECT_STREQ(_ultoa(0, text, 16), "0");
    EXPECT_STREQ(_ultoa(16, text, 16), "10");
    EXPECT_STREQ(_ui64toa(0xfedcba9876543210, text, 16), "fedcba9876543210");
    EXPECT_STREQ(_ui64toa(5, text, 2), "101");
}

// In bytes.
std::size_t address_space() {
    std::size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    return 4096 * pages;
}

// Freeing a region leaves its neighbours unchanged and returns its inner pages to the system.
// Freeing all returns the pages that they share, too.
TEST(region_test, freeing_a_region_returns_only_its_own_memory) {
    constexpr std::size_t busy = 136;
    constexpr std::size_t used = region_length - sizeof(ovel::cacheline);
    constexpr int count = 60;  // four mappings of 1 MB
    auto const present = [](char const* byte) {
        auto const page = reinterpret_cast<std::size_t>(byte) / 4096 * 4096;
        unsigned char resident = 0;
        return mincore(reinterpret_cast<void*>(page), 1, &resident) == 0 && resident % 2 != 0;
    };
    for (int first : {0, 1}) {
        char* regions[count];
        std::size_t const before = address_space();
        for (int each = 0; each != count; ++each) {
            regions[each] = static_cast<char*>(malloc_region(busy));
            EXPECT_TRUE(aligned(regions[each] + busy, 128));
            std::memset(regions[each], each, used);
        }
        EXPECT_LT(address_space(), before + 0x440000);
        std::set<void*> freed;
        for (int each = first; each < count; each += 2) {
            free_region(regions[each]);
            EXPECT_FALSE(present(regions[each] + 4096) || present(regions[each] + 60000));
            freed.insert(regions[each]);
        }
        // Every mapping with a free region is found again.
        for (int each = first; each < count; each += 2) {
            regions[each] = static_cast<char*>(malloc_region(busy));
            EXPECT_EQ(freed.erase(regions[each]), 1u);
        }
        // So that the mapping at the end of the list is the first without a region.
        for (int each = count - 2 + first; each >= 0; each -= 2)
            free_region(regions[each]);
        for (int each = 1 - first; each < count; each += 2) {
            EXPECT_EQ(regions[each][0], each);
            EXPECT_EQ(std::memcmp(regions[each], regions[each] + 1, used - 1), 0);
            free_region(regions[each]);
        }
        for (char const* each : regions)
            EXPECT_FALSE(present(each) || present(each + used));
    }
}

// With address space for only one more mapping of regions.
TEST(region_test, regions_fit_into_scarce_address_space) {
    rlimit former;
    ASSERT_EQ(getrlimit(RLIMIT_AS, &former), 0);
    // Nothing remains of a thread whose stack does not fit: of a thousand, less than 64 bytes
    // each. The thread that sends signals has a folder open now and then.
    rlimit const ample = {address_space() + (64u << 20), former.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_AS, &ample), 0);
    std::size_t const held = mallinfo2().uordblks;
    for (int i = 0; i != 1000; ++i)
        EXPECT_EQ(_beginthreadex(nullptr, 1u << 30, nullptr, nullptr, 0, nullptr), 0u);
    EXPECT_LT(mallinfo2().uordblks, held + 64'000);
    std::vector<void*> regions;
    regions.reserve(20);
    rlimit const scarce = {address_space() + (3u << 19), former.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_AS, &scarce), 0);
    // The mapping that other tests have left may serve some.
    for (int i = 0; i != 20; ++i)
        regions.push_back(malloc_region(0));
    EXPECT_EQ(setrlimit(RLIMIT_AS, &former), 0);
    EXPECT_GE(std::count_if(regions.begin(), regions.end(), [](void* each) { return each; }), 15);
    for (void* const each : regions)
        if (each != nullptr)
            free_region(each);
}

}  // namespace
