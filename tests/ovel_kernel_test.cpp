// The kernel services on this platform: what the library's sources rely on. They
// are not visible in the library, so this test is compiled together with them.

#include "kernel.h"
#include "linux/processors.h"
#include "ovel_test.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <set>
#include <thread>

#include <alloca.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

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

HANDLE start(unsigned int (*entry)(void*), void* argument, unsigned int stack = 65536,
             unsigned int* identifier = nullptr) {
    return reinterpret_cast<HANDLE>(_beginthreadex(nullptr, stack, entry, argument, 0, identifier));
}

void join(HANDLE thread) {
    ASSERT_TRUE(take(thread, INFINITE));
    ASSERT_NE(CloseHandle(thread), 0);
}

DWORD_PTR process_mask() {
    DWORD_PTR process, system;
    return GetProcessAffinityMask(GetCurrentProcess(), &process, &system) != 0 ? process : 0;
}

TEST(handle_test, every_service_refuses_what_it_does_not_serve) {
    HANDLE const semaphore = make_semaphore(1);
    for (HANDLE const wrong : {HANDLE(), GetCurrentThread()})
        EXPECT_EQ(WaitForSingleObject(wrong, 0), WAIT_FAILED);
    for (HANDLE const wrong : {HANDLE(), GetCurrentProcess()})
        EXPECT_EQ(ReleaseSemaphore(wrong, 1, nullptr), 0);
    for (HANDLE const wrong : {HANDLE(), semaphore}) {
        EXPECT_EQ(ReleaseMutex(wrong), 0);
        EXPECT_EQ(SetProcessAffinityMask(wrong, process_mask()), 0);
        EXPECT_EQ(SetThreadAffinityMask(wrong, process_mask()), 0u);
    }
    EXPECT_EQ(CloseHandle(nullptr), 0);
    EXPECT_NE(CloseHandle(semaphore), 0);
}

TEST(semaphore_test, holds_no_more_than_its_maximum_and_no_less_than_nothing) {
    for (auto const& [count, maximum] : {std::pair(-1, 1), {2, 1}, {0, 0}})
        EXPECT_EQ(CreateSemaphoreA(nullptr, count, maximum, nullptr), nullptr);
    HANDLE const small = CreateSemaphoreA(nullptr, 1, 3, nullptr);
    for (LONG const units : {0, 3, int(most)})
        EXPECT_EQ(ReleaseSemaphore(small, units, nullptr), 0);
    EXPECT_NE(ReleaseSemaphore(small, 2, nullptr), 0);
    EXPECT_TRUE(take(small) && take(small) && take(small));
    EXPECT_FALSE(take(small));
    CloseHandle(small);
}

// Threads that wait in every way race for units that are posted one at a time and
// in bunches. A unit lost leaves the last takers asleep; one made up is left over.
TEST(semaphore_test, every_unit_posted_is_taken_once) {
    constexpr int units = 5'000;  // for each taker
    HANDLE const semaphore = make_semaphore(0);
    {
        auto const takers = crew(4, [=](int) {
            for (int taken = 0; taken < units;)
                taken += take(semaphore, taken % 3 == 0 ? INFINITE : DWORD(taken % 3 - 1));
        });
        auto const posters = crew(2, [=](int) {
            for (int left = 2 * units; left > 0;) {
                int const bunch = left % 7 == 0 && left >= 3 ? 3 : 1;
                EXPECT_NE(ReleaseSemaphore(semaphore, bunch, nullptr), 0);
                left -= bunch;
                if (left % 64 == 0)
                    Sleep(0);
            }
        });
    }
    EXPECT_FALSE(take(semaphore));
    CloseHandle(semaphore);
}

// A deadline that wraps lies in the past, and the wait would give up at once.
TEST(semaphore_test, a_wait_ends_with_the_unit_or_not_before_its_time) {
    HANDLE const semaphore = make_semaphore(0);
    {
        auto const waiters = crew(2, [=](int waiter) {
            EXPECT_TRUE(take(semaphore, waiter == 0 ? 2147483647u : 0xfffffffeu));
        });
        HANDLE const never = make_semaphore(0);
        for (DWORD const timeout : {1u, 3u, 39u}) {
            auto const begin = clock_type::now();
            EXPECT_EQ(WaitForSingleObject(never, timeout), WAIT_TIMEOUT);
            Sleep(timeout);
            EXPECT_GE(clock_type::now() - begin, std::chrono::milliseconds(2 * timeout));
        }
        EXPECT_NE(ReleaseSemaphore(never, 1, nullptr), 0);
        EXPECT_TRUE(take(never));  // who gave up has left nothing behind
        CloseHandle(never);
        ReleaseSemaphore(semaphore, 2, nullptr);
    }
    CloseHandle(semaphore);
}

TEST(mutex_test, belongs_to_its_owner_who_may_take_it_again_and_ends_with_its_last_handle) {
    HANDLE const mutex = CreateMutexA(nullptr, 0, "owned");
    HANDLE const same = CreateMutexA(nullptr, 0, "owned");
    HANDLE const other = CreateMutexA(nullptr, 0, "owned too");
    EXPECT_TRUE(take(mutex) && take(same));
    EXPECT_TRUE(elsewhere([=] { return !take(same, 2) && ReleaseMutex(mutex) == 0; }));
    EXPECT_TRUE(elsewhere([=] { return take(other) && ReleaseMutex(other) != 0; }));
    EXPECT_NE(ReleaseMutex(same), 0);
    EXPECT_FALSE(elsewhere([=] { return take(mutex); }));

    // Taken still when its last handles are closed.
    for (HANDLE const handle : {mutex, same, other})
        EXPECT_NE(CloseHandle(handle), 0);
    HANDLE const anew = CreateMutexA(nullptr, 0, "owned");
    EXPECT_TRUE(elsewhere([=] { return take(anew) && ReleaseMutex(anew) != 0; }));
    EXPECT_NE(CloseHandle(anew), 0);
}

TEST(thread_test, has_the_stack_it_was_promised) {
    for (unsigned int const stack : {4096u, 65536u, 524288u, 0u}) {
        std::size_t used = stack != 0 ? stack - 512 : 524288;  // without its own frames
        auto const fill = [](void* size) {
            auto const bytes = *static_cast<std::size_t*>(size);
            auto const memory = static_cast<char volatile*>(alloca(bytes));
            for (std::size_t at = bytes; at-- > 0;)  // downwards, as frames grow
                memory[at] = 1;
            return 0u;
        };
        join(start(fill, &used, stack));
    }
}

// What a thread wrote is seen by those who wait for its end, many and again; what
// it leaves to the C library's way out is over as well.
TEST(thread_test, is_gone_when_its_end_has_been_taken) {
    struct record {
        HANDLE go;
        unsigned long identifier;
    } written = {make_semaphore(0), 0};
    static std::atomic<bool> gone = false;
    struct trace {
        ~trace() {
            Sleep(2);
            gone = true;
        }
    };
    auto const entry = [](void* argument) {
        static thread_local trace left;
        static_cast<void>(&left);
        take(static_cast<record*>(argument)->go, INFINITE);
        static_cast<record*>(argument)->identifier = GetCurrentThreadId();
        return 0u;
    };
    unsigned int told = 0;
    HANDLE const thread = start(entry, &written, 65536, &told);
    EXPECT_EQ(WaitForSingleObject(thread, 5), WAIT_TIMEOUT);
    {
        auto const waiters = crew(3, [&](int waiter) {
            DWORD const timeouts[] = {INFINITE, 100'000u, 2147483647u};
            EXPECT_TRUE(take(thread, timeouts[waiter]));
            EXPECT_TRUE(gone);
            EXPECT_EQ(written.identifier, told);
        });
        ReleaseSemaphore(written.go, 1, nullptr);
    }
    join(thread);
    EXPECT_NE(GetCurrentThreadId(), told);
    CloseHandle(written.go);
}

TEST(thread_test, a_forked_process_has_an_identity_of_its_own) {
    unsigned long const parent = GetCurrentThreadId();
    pid_t const child = fork();
    if (child == 0) {
        unsigned long const own = GetCurrentThreadId();
        _exit(own == static_cast<unsigned long>(gettid()) && own != parent ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

// Both the near and the far slots, seen from the thread that had set a value under
// the earlier index and could still have it.
TEST(slot_test, a_slot_handed_out_again_reads_null) {
    int value = 0;
    std::set<DWORD> others;
    for (std::size_t const taken : {0u, 100u, 1000u}) {
        while (others.size() < taken)
            ASSERT_TRUE(others.insert(TlsAlloc()).second);
        DWORD former = TLS_OUT_OF_INDEXES;
        for (int round = 0; round < 20; ++round) {
            DWORD const index = TlsAlloc();
            EXPECT_NE(index, former);
            EXPECT_EQ(TlsGetValue(index), nullptr);
            EXPECT_NE(TlsSetValue(index, &value), 0);
            // The index that is over neither reads nor overwrites the new value.
            EXPECT_EQ(TlsGetValue(former), nullptr);
            EXPECT_EQ(TlsSetValue(former, &others), 0);
            EXPECT_EQ(TlsGetValue(index), &value);
            EXPECT_TRUE(elsewhere([=] { return TlsGetValue(index) == nullptr; }));
            EXPECT_NE(TlsFree(index), 0);
            EXPECT_EQ(TlsFree(index), 0);
            former = index;
        }
    }
    for (DWORD const index : others)
        TlsFree(index);
}

TEST(processor_test, a_thread_stays_on_its_mask_and_those_it_starts_do_not) {
    DWORD_PTR const all = process_mask();
    DWORD_PTR const one = all & (~all + 1);
    EXPECT_EQ(SetThreadAffinityMask(GetCurrentThread(), one), all);
    for (DWORD_PTR const refused : {DWORD_PTR(0), ~all, ~DWORD_PTR(0)})
        EXPECT_EQ(SetThreadAffinityMask(GetCurrentThread(), refused), 0u);
    processor_set own, here;
    ASSERT_TRUE(own.read(0));
    here.add(sched_getcpu());
    EXPECT_TRUE(own.within(here) && here.within(own));
    DWORD_PTR inherited = 0;
    auto const read = [](void* result) {
        *static_cast<DWORD_PTR*>(result) =
            SetThreadAffinityMask(GetCurrentThread(), process_mask());
        return 0u;
    };
    join(start(read, &inherited));
    EXPECT_EQ(inherited, all);
    EXPECT_EQ(SetThreadAffinityMask(GetCurrentThread(), all), one);
}

TEST(processor_test, the_process_mask_binds_every_thread_there_is_and_will_be) {
    DWORD_PTR const all = process_mask();
    DWORD_PTR const one = all & (~all + 1);
    DWORD_PTR process, system;
    GetProcessAffinityMask(GetCurrentProcess(), &process, &system);
    EXPECT_EQ(process & ~system, 0u);
    for (DWORD_PTR const refused : {DWORD_PTR(0), ~system})
        EXPECT_EQ(SetProcessAffinityMask(GetCurrentProcess(), refused), 0);
    EXPECT_EQ(process_mask(), all);

    static HANDLE const go = make_semaphore(0);
    auto const entry = [](void* processors) {
        take(go, INFINITE);
        static_cast<processor_set*>(processors)->read(0);
        return 0u;
    };
    processor_set before, after, own;
    HANDLE const old_thread = start(entry, &before);
    EXPECT_NE(SetProcessAffinityMask(GetCurrentProcess(), one), 0);
    EXPECT_EQ(process_mask(), one);
    HANDLE const new_thread = start(entry, &after);
    ReleaseSemaphore(go, 2, nullptr);
    join(old_thread);
    join(new_thread);
    ASSERT_TRUE(own.read(0));
    EXPECT_TRUE(before.within(own) && after.within(own));
    EXPECT_EQ(SetThreadAffinityMask(GetCurrentThread(), all & ~one), 0u);

    EXPECT_NE(SetProcessAffinityMask(GetCurrentProcess(), all), 0);
    EXPECT_EQ(SetThreadAffinityMask(GetCurrentThread(), all), all);
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

// A region that is freed leaves its neighbours as they are, its inner pages are gone,
// and with all of them the pages that they shared.
TEST(region_test, gives_its_memory_back_and_nobody_elses) {
    constexpr std::size_t busy = 136;
    constexpr std::size_t used = region_length - sizeof(ovel::cacheline);
    constexpr int count = 60;  // several mappings
    auto const present = [](char const* byte) {
        auto const page = reinterpret_cast<std::size_t>(byte) / 4096 * 4096;
        unsigned char resident = 0;
        return mincore(reinterpret_cast<void*>(page), 1, &resident) == 0 && resident % 2 != 0;
    };
    for (int first : {0, 1}) {
        char* regions[count];
        for (int each = 0; each != count; ++each) {
            regions[each] = static_cast<char*>(malloc_region(busy));
            ASSERT_NE(regions[each], nullptr);
            EXPECT_EQ(reinterpret_cast<std::size_t>(regions[each] + busy) % 128, 0u);
            std::memset(regions[each], each, used);
        }
        for (int each = first; each < count; each += 2) {
            free_region(regions[each]);
            EXPECT_FALSE(present(regions[each] + 4096) || present(regions[each] + 60000));
        }
        for (int each = 1 - first; each < count; each += 2) {
            EXPECT_EQ(regions[each][0], each);
            EXPECT_EQ(std::memcmp(regions[each], regions[each] + 1, used - 1), 0);
            free_region(regions[each]);
        }
        for (char const* each : regions)
            EXPECT_FALSE(present(each) || present(each + used));
    }
}

TEST(text_test, integers_are_written_without_leading_zeros) {
    char text[65];
    EXPECT_STREQ(_ultoa(0, text, 16), "0");
    EXPECT_STREQ(_ultoa(4294967295ul, text, 16), "ffffffff");
    EXPECT_STREQ(_ui64toa(18446744073709551615u, text, 10), "18446744073709551615");
}

}  // namespace
