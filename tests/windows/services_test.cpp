// SPDX-License-Identifier: Apache-2.0
// The system's own services: how the library uses them, and the checks of their results that
// fail for handles which the program has closed. The suites of the classes test the checks that
// misuse alone can fail, and scenarios on the simulated kernel refuse objects.

#include "ovel_test.h"

using ovel::call_once;
using ovel::semaphore;
using ovel::timed_semaphore;

struct ovel::detail::inspector {
    template <class Semaphore>
    static HANDLE handle(Semaphore const& subject) {
        return subject._semaphore;
    }
};

namespace {

using ovel::detail::inspector;

constexpr char once[] = "sources/ovel_once.cpp";
constexpr char file[] = "sources/ovel_semaphore.cpp";
constexpr char wait[] = "WaitForSingleObject(_semaphore, INFINITE) == WAIT_OBJECT_0";

// Closes the handle of the subject's kernel object. Starts the clock first, because its
// handles would reuse the closed one.
template <class Subject>
Subject& closed(Subject& subject) {
    ovel::time::now();
    CloseHandle(inspector::handle(subject));
    return subject;
}

unsigned int volatile named = 0;

// Processes that run the same program have their flags at the same addresses.
TEST(call_once_windows_test, the_mutex_is_named_by_the_process_and_the_flag) {
    call_once(
        [] {
            char name[100];
            std::snprintf(name, sizeof name, "%s%lx%x",
                          "6f76656c9d3c41e07ab25f18c6e43b0d71f8a29547de1c8bb36052f9ae847d13",
                          GetCurrentProcessId(), reinterpret_cast<std::uintptr_t>(&named));
            HANDLE const mutex = OpenMutexA(SYNCHRONIZE, FALSE, name);
            EXPECT_NE(mutex, nullptr) << name;
            CloseHandle(mutex);
        },
        named);
}

unsigned int volatile flag = 0;

// The thread ends while it owns the mutex.
DWORD WINAPI abandon(void*) {
    call_once([] { ExitThread(0); }, flag);
    return 0;
}

TEST(call_once_death_test, an_abandoned_mutex_fails_its_check) {
    auto const find_abandoned = [] {
        HANDLE const thread = CreateThread(nullptr, 0, abandon, nullptr, 0, nullptr);
        WaitForSingleObject(thread, INFINITE);
        call_once([] {}, flag);
    };
    EXPECT_CHECK(find_abandoned(), "WaitForSingleObject(mutex, INFINITE) == WAIT_OBJECT_0", once);
}

TEST(semaphore_death_test, a_failed_call_fails_its_check) {
    semaphore units(0, 0);
    timed_semaphore timed(0, 0);
    EXPECT_CHECK(closed(units).acquire(), wait, "includes/ovel_semaphore.h");
    EXPECT_CHECK(closed(timed).acquire(), wait, file);
    EXPECT_CHECK(closed(timed).try_acquire(), "result == WAIT_OBJECT_0", file);
    EXPECT_CHECK(closed(timed).timed_acquire(ovel::time()), "result == WAIT_OBJECT_0", file);
    EXPECT_CHECK(closed(timed).release(), "ReleaseSemaphore(_semaphore, 1, 0) != 0", file);
    EXPECT_CHECK(closed(*std::make_unique<semaphore>(0, 0)), "CloseHandle(_semaphore) != 0", file);
}

}  // namespace
