// SPDX-License-Identifier: Apache-2.0
#include "ovel_allocator_recycler.h"
#include "ovel_allocator_support.h"
#include "ovel_assure.h"
#include "ovel_kernel.h"
#include "ovel_malloc.h"
#include "ovel_test.h"
#include "ovel_thread.h"
#include "ovel_thread_function.h"
#include "ovel_thread_support.h"
#include "ovel_time.h"
#include "ovel_work.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>

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
    auto const fail_always = [] {
        assure(("unexpected exception", 0));
    };
    EXPECT_CHECK(fail_always(), "(\"unexpected exception\", 0)", "tests/ovel_library_test.cpp");
}

TEST(library_test, threads_spin_where_another_processor_may_release_them) {
    bool const one = ovel::thread_support::available_processors() == 1;
    EXPECT_EQ(ovel::default_spin, one ? 0u : 1024u);
}

// Prints when its thread ends. A thread that is still idle when the process is gone prints
// nothing.
struct farewell : ovel::thread_function {
    struct on_thread_end {
        ~on_thread_end() {
            std::fputs("the thread ended\n", stderr);
        }
    };
    void operator()() override {
        thread_local on_thread_end last;
        static_cast<void>(&last);
    }
};

// A recycler that is not stopped would delay the exit by an hour.
TEST(library_death_test, the_end_of_the_process_ends_idle_threads_and_the_recycler) {
    auto const use_everything = [] {
        farewell work;
        ovel::thread pooled;
        pooled.schedule(work);
        pooled.release();
        pooled.acquire();
        ovel::time::now();
        ovel::allocator_recycler::global()->release(3600.0);
        std::exit(0);
    };
    EXPECT_EXIT(use_everything(), testing::ExitedWithCode(0), last_words);
    EXPECT_EXIT(std::exit(0), testing::ExitedWithCode(0), "^$");
}

void run_pooled() {
    work nothing([] {});
    ovel::thread pooled;
    pooled.schedule(nothing);
    pooled.release();
    pooled.acquire();
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
        run_pooled,
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
