// The kernel services on this platform: what the library's sources rely on. They
// are not visible in the library, so this test is compiled together with them.

#include "kernel.h"
#include "linux/processors.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <chrono>
#include <cmath>
#include <set>
#include <thread>
#include <vector>

#include <alloca.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace ovel::kernel;
using clock_type = std::chrono::steady_clock;

constexpr LONG most = 2147483647;

HANDLE make_semaphore(LONG count) {
    return CreateSemaphoreA(nullptr, count, most, nullptr);
}

// Whether `object` can be acquired at once.
bool take(HANDLE object) {
    return WaitForSingleObject(object, 0) == WAIT_OBJECT_0;
}

HANDLE start(unsigned int (*entry)(void*), void* argument, unsigned int stack = 65536,
             unsigned int* identifier = nullptr) {
    return reinterpret_cast<HANDLE>(_beginthreadex(nullptr, stack, entry, argument, 0, identifier));
}

void join(HANDLE thread) {
    ASSERT_EQ(WaitForSingleObject(thread, INFINITE), WAIT_OBJECT_0);
    ASSERT_NE(CloseHandle(thread), 0);
}

// A thread's entry that waits for a unit of the semaphore it is given.
unsigned int wait_for_unit(void* semaphore) {
    return WaitForSingleObject(semaphore, INFINITE) == WAIT_OBJECT_0 ? 0 : 1;
}

unsigned int return_at_once(void*) {
    return 0;
}

DWORD_PTR process_mask() {
    DWORD_PTR process, system;
    return GetProcessAffinityMask(GetCurrentProcess(), &process, &system) != 0 ? process : 0;
}

DWORD_PTR lowest_bit(DWORD_PTR mask) {
    return mask & (~mask + 1);
}

TEST(handle_test, every_service_refuses_null_and_handles_of_another_kind) {
    HANDLE const semaphore = make_semaphore(1);
    HANDLE const mutex = CreateMutexA(nullptr, 0, "refused");
    EXPECT_EQ(WaitForSingleObject(nullptr, 0), WAIT_FAILED);
    EXPECT_EQ(WaitForSingleObject(GetCurrentThread(), 0), WAIT_FAILED);
    for (HANDLE const wrong : {HANDLE(), mutex, GetCurrentProcess()})
        EXPECT_EQ(ReleaseSemaphore(wrong, 1, nullptr), 0);
    for (HANDLE const wrong : {HANDLE(), semaphore})
        EXPECT_EQ(ReleaseMutex(wrong), 0);
    for (HANDLE const wrong : {HANDLE(), semaphore, GetCurrentThread()})
        EXPECT_EQ(SetProcessAffinityMask(wrong, process_mask()), 0);
    for (HANDLE const wrong : {HANDLE(), semaphore, GetCurrentProcess()})
        EXPECT_EQ(SetThreadAffinityMask(wrong, process_mask()), 0u);
    EXPECT_EQ(CloseHandle(nullptr), 0);
    EXPECT_NE(CloseHandle(mutex), 0);
    EXPECT_NE(CloseHandle(semaphore), 0);
}

TEST(semaphore_test, holds_no_more_than_its_maximum_and_no_less_than_nothing) {
    EXPECT_EQ(CreateSemaphoreA(nullptr, -1, 1, nullptr), nullptr);
    EXPECT_EQ(CreateSemaphoreA(nullptr, 2, 1, nullptr), nullptr);
    EXPECT_EQ(CreateSemaphoreA(nullptr, 0, 0, nullptr), nullptr);

    HANDLE const small = CreateSemaphoreA(nullptr, 1, 3, nullptr);
    EXPECT_EQ(ReleaseSemaphore(small, 0, nullptr), 0);
    EXPECT_EQ(ReleaseSemaphore(small, 3, nullptr), 0);
    EXPECT_EQ(ReleaseSemaphore(small, most, nullptr), 0);
    EXPECT_NE(ReleaseSemaphore(small, 2, nullptr), 0);
    for (int unit = 0; unit < 3; ++unit)
        EXPECT_TRUE(take(small));
    EXPECT_FALSE(take(small));
    CloseHandle(small);

    HANDLE const full = make_semaphore(most);
    EXPECT_EQ(ReleaseSemaphore(full, 1, nullptr), 0);
    EXPECT_TRUE(take(full));
    EXPECT_NE(ReleaseSemaphore(full, 1, nullptr), 0);
    CloseHandle(full);
}

// Threads that wait in every way race for units that are posted one at a time and
// in bunches. A unit lost leaves the last takers asleep; one made up is left over.
TEST(semaphore_test, every_unit_posted_is_taken_once) {
    constexpr int takers = 4;
    constexpr int units_each = 5'000;
    HANDLE const semaphore = make_semaphore(0);
    std::vector<std::jthread> threads;
    for (int taker = 0; taker < takers; ++taker) {
        threads.emplace_back([=] {
            for (int taken = 0; taken < units_each;) {
                DWORD const timeout = taken % 3 == 0 ? INFINITE : static_cast<DWORD>(taken % 3 - 1);
                taken += WaitForSingleObject(semaphore, timeout) == WAIT_OBJECT_0;
            }
        });
    }
    for (int poster = 0; poster < 2; ++poster) {
        threads.emplace_back([=] {
            for (int left = takers * units_each / 2; left > 0;) {
                int const bunch = left % 7 == 0 && left >= 3 ? 3 : 1;
                EXPECT_NE(ReleaseSemaphore(semaphore, bunch, nullptr), 0);
                left -= bunch;
                if (left % 64 == 0)
                    Sleep(0);
            }
        });
    }
    threads.clear();
    EXPECT_FALSE(take(semaphore));
    CloseHandle(semaphore);
}

TEST(semaphore_test, a_bunch_of_units_wakes_as_many_sleepers) {
    constexpr int sleepers = 5;
    for (int round = 0; round < 50; ++round) {
        HANDLE const semaphore = make_semaphore(0);
        HANDLE threads[sleepers];
        for (HANDLE& thread : threads)
            thread = start(wait_for_unit, semaphore);
        EXPECT_NE(ReleaseSemaphore(semaphore, sleepers, nullptr), 0);
        for (HANDLE const thread : threads)
            join(thread);
        CloseHandle(semaphore);
    }
}

// The poster's last act on a semaphore is to make the unit visible. A look at the
// object afterwards, which the race checker sees, is one at freed memory.
TEST(semaphore_test, may_be_closed_by_the_thread_that_took_the_unit) {
    constexpr int rounds = 5'000;
    HANDLE const handed_over = make_semaphore(0);
    std::atomic<HANDLE> current;
    std::jthread poster([&] {
        for (int round = 0; round < rounds; ++round) {
            WaitForSingleObject(handed_over, INFINITE);
            ReleaseSemaphore(current.load(), 1, nullptr);
        }
    });
    for (int round = 0; round < rounds; ++round) {
        HANDLE const semaphore = make_semaphore(0);
        current = semaphore;
        ReleaseSemaphore(handed_over, 1, nullptr);
        EXPECT_EQ(WaitForSingleObject(semaphore, round % 2 != 0 ? INFINITE : 100'000u),
                  WAIT_OBJECT_0);
        EXPECT_NE(CloseHandle(semaphore), 0);
    }
    poster.join();
    CloseHandle(handed_over);
}

TEST(semaphore_test, a_wait_ends_with_the_unit_or_not_before_its_time) {
    HANDLE const semaphore = make_semaphore(0);
    for (DWORD const timeout : {1u, 3u, 10u, 39u}) {
        auto const begin = clock_type::now();
        EXPECT_EQ(WaitForSingleObject(semaphore, timeout), WAIT_TIMEOUT);
        EXPECT_GE(clock_type::now() - begin, std::chrono::milliseconds(timeout));
    }
    EXPECT_NE(ReleaseSemaphore(semaphore, 1, nullptr), 0);
    EXPECT_TRUE(take(semaphore));  // who gave up has left nothing behind
    EXPECT_FALSE(take(semaphore));
    CloseHandle(semaphore);
}

// A deadline that wraps lies in the past, and the wait would give up at once.
TEST(semaphore_test, the_longest_timeouts_do_not_overflow) {
    for (DWORD const timeout : {2147483647u, 0xfffffffeu}) {
        HANDLE const semaphore = make_semaphore(0);
        std::atomic<DWORD> result = WAIT_FAILED;
        std::jthread waiter([&] { result = WaitForSingleObject(semaphore, timeout); });
        HANDLE const never = make_semaphore(0);
        WaitForSingleObject(never, 20);
        CloseHandle(never);
        ReleaseSemaphore(semaphore, 1, nullptr);
        waiter.join();
        EXPECT_EQ(result, WAIT_OBJECT_0);
        CloseHandle(semaphore);
    }
}

TEST(mutex_test, belongs_to_its_owner_who_may_take_it_again) {
    HANDLE const mutex = CreateMutexA(nullptr, 0, "owned");
    HANDLE const same = CreateMutexA(nullptr, 0, "owned");
    HANDLE const other = CreateMutexA(nullptr, 0, "owned too");
    EXPECT_EQ(ReleaseMutex(mutex), 0);
    EXPECT_TRUE(take(mutex));
    EXPECT_TRUE(take(same));
    auto const in_another_thread = [](auto const& check) {
        std::jthread{check};
    };
    in_another_thread([=] {
        EXPECT_EQ(WaitForSingleObject(same, 2), WAIT_TIMEOUT);
        EXPECT_EQ(ReleaseMutex(mutex), 0);
        EXPECT_TRUE(take(other));
        EXPECT_NE(ReleaseMutex(other), 0);
    });
    EXPECT_NE(ReleaseMutex(same), 0);
    in_another_thread([=] { EXPECT_FALSE(take(mutex)); });
    EXPECT_NE(ReleaseMutex(mutex), 0);
    EXPECT_EQ(ReleaseMutex(mutex), 0);
    in_another_thread([=] {
        EXPECT_TRUE(take(same));
        EXPECT_NE(ReleaseMutex(same), 0);
    });
    for (HANDLE const handle : {mutex, same, other})
        EXPECT_NE(CloseHandle(handle), 0);
}

TEST(mutex_test, ends_with_its_last_handle) {
    HANDLE const first = CreateMutexA(nullptr, 0, "ends");
    HANDLE const second = CreateMutexA(nullptr, 0, "ends");
    EXPECT_TRUE(take(first));
    EXPECT_NE(CloseHandle(first), 0);
    EXPECT_NE(ReleaseMutex(second), 0);  // not yet
    EXPECT_TRUE(take(second));
    EXPECT_NE(CloseHandle(second), 0);
    HANDLE const anew = CreateMutexA(nullptr, 0, "ends");
    std::jthread([=] {
        EXPECT_TRUE(take(anew));
        EXPECT_NE(ReleaseMutex(anew), 0);
    }).join();
    CloseHandle(anew);
}

// As once-only initialisation does it: open by name, take, look, release, close.
TEST(mutex_test, excludes_threads_that_open_and_close_it_each_time) {
    constexpr int threads = 4;
    constexpr int rounds = 2'000;
    int sums[2] = {};  // each under the mutex of its name
    {
        std::vector<std::jthread> all;
        for (int thread = 0; thread < threads; ++thread) {
            all.emplace_back([&sums] {
                for (int round = 0; round < rounds; ++round) {
                    HANDLE const mutex = CreateMutexA(nullptr, 0, round % 2 == 0 ? "even" : "odd");
                    ASSERT_EQ(WaitForSingleObject(mutex, INFINITE), WAIT_OBJECT_0);
                    ++sums[round % 2];
                    ASSERT_NE(ReleaseMutex(mutex), 0);
                    ASSERT_NE(CloseHandle(mutex), 0);
                }
            });
        }
    }
    EXPECT_EQ(sums[0], threads * rounds / 2);
    EXPECT_EQ(sums[1], threads * rounds / 2);
}

unsigned int fill_stack(void* size) {
    auto const bytes = *static_cast<std::size_t*>(size);
    auto* const memory = static_cast<char*>(alloca(bytes));
    // Downwards, as frames grow, and seen by nobody as dead stores.
    for (std::size_t at = bytes; at-- > 0;)
        static_cast<char volatile*>(memory)[at] = 1;
    return 0;
}

TEST(thread_test, has_the_stack_it_was_promised) {
    for (unsigned int const stack : {4096u, 16384u, 65536u, 524288u, 0u}) {
        std::size_t used = stack != 0 ? stack - 512 : 524288;  // without its own frames
        HANDLE const thread = start(fill_stack, &used, stack);
        ASSERT_NE(thread, nullptr);
        join(thread);
    }
}

TEST(thread_test, tells_its_identifier_and_leaves_what_it_wrote_to_who_joins_it) {
    struct record {
        unsigned long identifier;
    } written = {};
    unsigned int told = 0;
    HANDLE const thread = start(
        [](void* argument) {
            static_cast<record*>(argument)->identifier = GetCurrentThreadId();
            return 0u;
        },
        &written, 65536, &told);
    join(thread);
    EXPECT_NE(told, 0u);
    EXPECT_EQ(written.identifier, told);
    EXPECT_NE(GetCurrentThreadId(), 0u);
    EXPECT_NE(GetCurrentThreadId(), told);
    EXPECT_EQ(GetCurrentProcessId(), static_cast<unsigned long>(getpid()));
}

TEST(thread_test, its_end_can_be_waited_for_by_many_and_again) {
    HANDLE const go = make_semaphore(0);
    HANDLE const thread = start(wait_for_unit, go);
    EXPECT_EQ(WaitForSingleObject(thread, 0), WAIT_TIMEOUT);
    auto const begin = clock_type::now();
    EXPECT_EQ(WaitForSingleObject(thread, 5), WAIT_TIMEOUT);
    EXPECT_GE(clock_type::now() - begin, std::chrono::milliseconds(5));
    {
        std::vector<std::jthread> waiters;
        for (DWORD const timeout : {INFINITE, INFINITE, 100'000u, 2147483647u}) {
            waiters.emplace_back([=] {
                EXPECT_EQ(WaitForSingleObject(thread, timeout), WAIT_OBJECT_0);
                EXPECT_EQ(WaitForSingleObject(thread, 0), WAIT_OBJECT_0);
            });
        }
        ReleaseSemaphore(go, 1, nullptr);
    }
    join(thread);
    CloseHandle(go);
}

// What a thread leaves to the C library's way out is over as well.
TEST(thread_test, is_gone_when_its_end_has_been_taken) {
    static std::atomic<bool> gone;
    struct trace {
        ~trace() {
            Sleep(2);
            gone = true;
        }
    };
    for (DWORD const timeout : {INFINITE, 100'000u}) {
        gone = false;
        HANDLE const thread = start(
            [](void*) {
                static thread_local trace left;
                static_cast<void>(&left);
                return 0u;
            },
            nullptr);
        EXPECT_EQ(WaitForSingleObject(thread, timeout), WAIT_OBJECT_0);
        EXPECT_TRUE(gone);
        CloseHandle(thread);
    }
}

// Whether the thread or its handle lasts longer, both go: the leak checker watches.
TEST(thread_test, may_be_given_up_before_or_after_its_end) {
    HANDLE const go = make_semaphore(0);
    HANDLE const done = make_semaphore(0);
    struct semaphores {
        HANDLE go;
        HANDLE done;
    } both = {go, done};
    auto const entry = [](void* argument) {
        auto const [first, second] = *static_cast<semaphores*>(argument);
        WaitForSingleObject(first, INFINITE);
        ReleaseSemaphore(second, 1, nullptr);
        return 0u;
    };
    for (int round = 0; round < 200; ++round) {
        HANDLE const early = start(entry, &both);
        EXPECT_NE(CloseHandle(early), 0);
        ReleaseSemaphore(go, 1, nullptr);
        WaitForSingleObject(done, INFINITE);
        HANDLE const racing = start(return_at_once, nullptr);
        EXPECT_NE(CloseHandle(racing), 0);
    }
    CloseHandle(go);
    CloseHandle(done);
}

TEST(thread_test, a_forked_process_has_an_identity_of_its_own) {
    unsigned long const parent = GetCurrentThreadId();
    pid_t const child = fork();
    if (child == 0) {
        bool const right = GetCurrentThreadId() == static_cast<unsigned long>(gettid()) &&
                           GetCurrentThreadId() != parent;
        _exit(right ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST(slot_test, each_thread_has_its_own_value_in_each_slot) {
    constexpr std::size_t count = 200;  // more than the fast ones
    std::set<DWORD> indexes;
    while (indexes.size() < count)
        ASSERT_TRUE(indexes.insert(TlsAlloc()).second);
    auto const fill_and_check = [&](char* base) {
        for (DWORD const index : indexes)
            EXPECT_EQ(TlsGetValue(index), nullptr);
        char* value = base;
        for (DWORD const index : indexes)
            EXPECT_NE(TlsSetValue(index, value++), 0);
        value = base;
        for (DWORD const index : indexes)
            EXPECT_EQ(TlsGetValue(index), value++);
    };
    char values[3][count];
    fill_and_check(values[0]);
    {
        std::jthread first(fill_and_check, values[1]);
        std::jthread second(fill_and_check, values[2]);
    }
    char* value = values[0];
    for (DWORD const index : indexes)
        EXPECT_EQ(TlsGetValue(index), value++);
    for (DWORD const index : indexes)
        EXPECT_NE(TlsFree(index), 0);
}

TEST(slot_test, run_out_and_come_back) {
    std::vector<DWORD> indexes;
    for (DWORD index = TlsAlloc(); index != TLS_OUT_OF_INDEXES; index = TlsAlloc())
        indexes.push_back(index);
    EXPECT_GE(indexes.size(), 1000u);
    EXPECT_EQ(TlsSetValue(TLS_OUT_OF_INDEXES, &indexes), 0);
    EXPECT_EQ(TlsGetValue(TLS_OUT_OF_INDEXES), nullptr);
    EXPECT_EQ(TlsFree(TLS_OUT_OF_INDEXES), 0);
    EXPECT_NE(TlsSetValue(indexes.back(), &indexes), 0);
    EXPECT_EQ(TlsGetValue(indexes.back()), &indexes);
    for (DWORD const index : indexes)
        EXPECT_NE(TlsFree(index), 0);
    EXPECT_EQ(TlsFree(indexes.front()), 0);
    DWORD const again = TlsAlloc();
    EXPECT_NE(again, TLS_OUT_OF_INDEXES);
    TlsFree(again);
}

// Both the near and the far slots, seen from the thread that had set a value under
// the earlier index and could still have it.
TEST(slot_test, a_slot_handed_out_again_reads_null) {
    int value = 0;
    for (std::size_t const taken : {0u, 100u}) {
        std::vector<DWORD> others;
        while (others.size() < taken)
            others.push_back(TlsAlloc());
        DWORD const former = TlsAlloc();
        EXPECT_NE(TlsSetValue(former, &value), 0);
        EXPECT_NE(TlsFree(former), 0);
        std::set<DWORD> used{former};
        for (int round = 0; round < 20; ++round) {
            DWORD const index = TlsAlloc();
            EXPECT_TRUE(used.insert(index).second);
            EXPECT_EQ(TlsGetValue(index), nullptr);
            EXPECT_NE(TlsSetValue(index, &value), 0);
            // The index that is over neither reads nor overwrites the new value.
            EXPECT_EQ(TlsGetValue(former), nullptr);
            EXPECT_EQ(TlsSetValue(former, &used), 0);
            EXPECT_EQ(TlsGetValue(index), &value);
            EXPECT_NE(TlsFree(index), 0);
        }
        for (DWORD const index : others)
            TlsFree(index);
    }
}

TEST(processor_test, the_masks_agree_with_each_other) {
    SYSTEM_INFO information;
    GetSystemInfo(&information);
    DWORD_PTR process, system;
    ASSERT_NE(GetProcessAffinityMask(GetCurrentProcess(), &process, &system), 0);
    EXPECT_NE(process, 0u);
    EXPECT_EQ(process & ~system, 0u);
    EXPECT_EQ(system & ~DWORD_PTR(0xffffffff), 0u);
    EXPECT_GE(information.dwNumberOfProcessors, static_cast<DWORD>(std::popcount(process)));
    EXPECT_LE(information.dwNumberOfProcessors, 32u);
}

TEST(processor_test, a_thread_stays_on_its_mask_and_can_be_given_its_former_one) {
    DWORD_PTR const all = process_mask();
    DWORD_PTR const one = lowest_bit(all);
    EXPECT_EQ(SetThreadAffinityMask(GetCurrentThread(), one), all);
    EXPECT_EQ(SetThreadAffinityMask(GetCurrentThread(), 0), 0u);
    EXPECT_EQ(SetThreadAffinityMask(GetCurrentThread(), ~all), 0u);
    EXPECT_EQ(SetThreadAffinityMask(GetCurrentThread(), ~DWORD_PTR(0)), 0u);
    ovel::detail::processor_set own;
    ASSERT_TRUE(own.read(0));
    EXPECT_TRUE(own.has(sched_getcpu()));
    int held = 0;
    for (int processor = 0; processor < ovel::detail::processor_set::limit; ++processor)
        held += own.has(processor);
    EXPECT_EQ(held, 1);

    // A thread started here is not bound to its creator's processor.
    DWORD_PTR inherited = 0;
    join(start(
        [](void* argument) {
            *static_cast<DWORD_PTR*>(argument) =
                SetThreadAffinityMask(GetCurrentThread(), process_mask());
            return 0u;
        },
        &inherited));
    EXPECT_EQ(inherited, all);
    EXPECT_EQ(SetThreadAffinityMask(GetCurrentThread(), all), one);
}

TEST(processor_test, the_process_mask_binds_every_thread_there_is_and_will_be) {
    DWORD_PTR const all = process_mask();
    DWORD_PTR const one = lowest_bit(all);
    DWORD_PTR process, system;
    GetProcessAffinityMask(GetCurrentProcess(), &process, &system);
    EXPECT_EQ(SetProcessAffinityMask(GetCurrentProcess(), 0), 0);
    EXPECT_EQ(SetProcessAffinityMask(GetCurrentProcess(), ~system), 0);
    EXPECT_EQ(process_mask(), all);

    HANDLE const go = make_semaphore(0);
    struct record {
        HANDLE go;
        ovel::detail::processor_set processors;
    } before = {go, {}}, after = {go, {}};
    auto const entry = [](void* argument) {
        auto& own = *static_cast<record*>(argument);
        WaitForSingleObject(own.go, INFINITE);
        own.processors.read(0);
        return 0u;
    };
    HANDLE const old_thread = start(entry, &before);
    EXPECT_NE(SetProcessAffinityMask(GetCurrentProcess(), one), 0);
    EXPECT_EQ(process_mask(), one);
    HANDLE const new_thread = start(entry, &after);
    ReleaseSemaphore(go, 2, nullptr);
    join(old_thread);
    join(new_thread);
    ovel::detail::processor_set own;
    ASSERT_TRUE(own.read(0));
    EXPECT_TRUE(before.processors.within(own));
    EXPECT_TRUE(after.processors.within(own));
    EXPECT_EQ(SetThreadAffinityMask(GetCurrentThread(), all & ~one), 0u);

    EXPECT_NE(SetProcessAffinityMask(GetCurrentProcess(), all), 0);
    EXPECT_EQ(SetThreadAffinityMask(GetCurrentThread(), all), all);
    CloseHandle(go);
}

TEST(processor_test, bits_are_processors_unless_none_of_the_first_32_is_allowed) {
    ovel::detail::processor_bits bits;
    ovel::detail::processor_set some;
    some.add(2);
    some.add(31);
    some.add(40);
    bits.assign(some);
    EXPECT_TRUE(bits.direct());
    EXPECT_EQ(bits.mask_of(some), 0x80000004u);
    EXPECT_TRUE(bits.set_of(0x80000004u).within(some));

    ovel::detail::processor_set high;
    for (int const processor : {40, 43, 8191})
        high.add(processor);
    bits.assign(high);
    EXPECT_FALSE(bits.direct());
    EXPECT_EQ(bits.mask_of(high), 7u);
    EXPECT_TRUE(bits.set_of(2).has(43));
    EXPECT_TRUE(high.within(bits.set_of(7)));
}

DWORD megahertz() {
    HKEY key = nullptr;
    DWORD value = 0;
    DWORD size = sizeof value;
    EXPECT_EQ(
        RegOpenKeyExA(HKEY_LOCAL_MACHINE, "HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0", 0,
                      KEY_READ, &key),
        ERROR_SUCCESS);
    EXPECT_EQ(RegQueryValueExA(key, "~MHz", nullptr, nullptr,
                               reinterpret_cast<unsigned char*>(&value), &size),
              ERROR_SUCCESS);
    EXPECT_EQ(size, sizeof value);
    EXPECT_EQ(RegCloseKey(key), ERROR_SUCCESS);
    return value;
}

// A busy machine may come between the two clocks in one trial, hardly in all.
TEST(clock_test, the_rate_is_that_of_the_counter) {
    double const told = megahertz();
    double least_error = 1;
    for (int trial = 0; trial < 20 && least_error > 0.001; ++trial) {
        auto const start_time = clock_type::now();
        auto const start_ticks = __rdtsc();
        Sleep(20);
        auto const ticks = static_cast<double>(__rdtsc() - start_ticks);
        std::chrono::duration<double, std::micro> const passed = clock_type::now() - start_time;
        least_error = std::min(least_error, std::abs(ticks / passed.count() / told - 1));
    }
    EXPECT_LE(least_error, 0.001) << told << " MHz";
}

TEST(clock_test, sleep_does_not_end_early) {
    for (DWORD const milliseconds : {0u, 1u, 7u}) {
        auto const begin = clock_type::now();
        Sleep(milliseconds);
        EXPECT_GE(clock_type::now() - begin, std::chrono::milliseconds(milliseconds));
    }
}

TEST(text_test, integers_are_written_without_leading_zeros) {
    char text[65];
    EXPECT_STREQ(_ultoa(0, text, 16), "0");
    EXPECT_STREQ(_ultoa(4294967295ul, text, 16), "ffffffff");
    EXPECT_STREQ(_ultoa(1000, text, 10), "1000");
    EXPECT_STREQ(_ui64toa(0xffffffff80000010u, text, 16), "ffffffff80000010");
    EXPECT_STREQ(_ui64toa(18446744073709551615u, text, 10), "18446744073709551615");
}

}  // namespace
