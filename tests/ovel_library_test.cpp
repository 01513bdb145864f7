// SPDX-License-Identifier: Apache-2.0
#include "ovel_traffic.h"

namespace {

using namespace ovel;

#if GTEST_OS_WINDOWS
testing::ExitedWithCode const aborted(3);
// There the system ends all other threads before it notifies a library.
constexpr char last_words[] = "^$";
#else
testing::KilledBySignal const aborted(SIGABRT);
constexpr char last_words[] = "^the thread ended\n$";
#endif

// The message quotes the expression as written, names of constants and commas included, the
// file relative to the root, and the line of the check.
TEST(assure_death_test, a_failed_check_prints_one_line_and_aborts) {
    EXPECT_EXIT(ovel::assure_failed("a %s b", "some/file.cpp", -7), aborted,
                "^ovel::assure_failed\\(a %s b, some/file\\.cpp, -7\\)\n$");
    // clang-format off
    int const line = __LINE__; auto const fail = [] { assure((1, 2) == INFINITE); };
    // clang-format on
    EXPECT_DEATH(fail(), "\\(\\(1, 2\\) == INFINITE, tests/ovel_library_test\\.cpp, " +
                             std::to_string(line) + "\\)\n$");
}

// A recycler that is not stopped would delay the exit by an hour. An idle thread that still is
// there when the process is gone prints nothing.
TEST(library_death_test, the_end_of_the_process_ends_idle_threads_and_the_recycler) {
    struct farewell {
        ~farewell() {
            std::fputs("the thread ended\n", stderr);
        }
    };
    auto const use_everything = [] {
        traffic::run_on<ovel::thread>([] {
            thread_local farewell last;
            static_cast<void>(&last);
        });
        ovel::time::now();
        allocator_recycler::global()->release(3600.0);
        std::exit(0);
    };
    EXPECT_EXIT(use_everything(), testing::ExitedWithCode(0), last_words);
    EXPECT_EXIT(std::exit(0), testing::ExitedWithCode(0), "^$");
}

// In a process of its own for each object that is built at its first use. ThreadSanitizer
// reports one that is published before it is built, and the exit code is then another one.
TEST(library_death_test, two_threads_may_meet_at_every_first_use) {
    constexpr void (*uses[])() = {
        [] { allocator_support::allocated_size(); },
        [] { ovel_free(ovel_malloc(24)); },
        [] { thread_allocator const own; },
        [] { allocator_recycler::global()->release(3600.0); },
        [] { ovel::time::now(); },
        [] { time_support::time_unit(); },
        [] { thread_support::thread_affinity(thread_support::process_affinity()); },
        [] { traffic::run_on<ovel::thread>([] {}); },
        [] { work_group(1).run([] {}); },
    };
    for (auto* const& use : uses) {
        auto const meet = [&] {
            std::atomic<int> missing = 2;
            crew(2, [&](int) {
                --missing;
                until([&] { return missing == 0; });
                use();
            }).clear();
            std::exit(0);
        };
        EXPECT_EXIT(meet(), testing::ExitedWithCode(0), "") << "use " << &use - uses;
    }
}

}  // namespace
