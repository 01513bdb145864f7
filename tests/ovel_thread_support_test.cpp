#include "ovel_thread_support.h"

#include "ovel_kernel.h"
#include "ovel_once.h"
#include "ovel_test.h"
#include "ovel_thread_specific_ptr.h"
#include "ovel_time.h"

#include <atomic>
#include <bit>
#include <memory>
#include <stdexcept>

using ovel::call_once;
using ovel::thread_specific_ptr;
using ovel::thread_support;

struct ovel::detail::inspector {
    template <class T>
    static void free_slot(thread_specific_ptr<T> const& pointer) {
        TlsFree(pointer.index);
    }
    // A pointer with an index that no slot has.
    static void set_nowhere() {
        DWORD index = 0x7fffffff;
        reinterpret_cast<thread_specific_ptr<int>&>(index).set(nullptr);
    }
};

namespace {

using ovel::detail::inspector;

constexpr char function_file[] = "sources/ovel_thread_function.cpp";

// Gives the process and the spin count back as they were.
struct thread_support_test : testing::Test {
    ~thread_support_test() override {
        thread_support::process_affinity(all);
        ovel::default_spin = spin;
    }
    unsigned int const all = thread_support::process_affinity();
    unsigned int const lowest = all & -all;
    unsigned int const spin = ovel::default_spin;
};
using thread_support_death_test = thread_support_test;

// Masks are cut to the processors of the system, of which bit 31 is hardly one.
TEST_F(thread_support_test, processors_available_are_the_bits_of_the_process_mask) {
    EXPECT_EQ(thread_support::available_processors(), unsigned(std::popcount(all)));
    EXPECT_LE(thread_support::available_processors(), thread_support::processors());
    thread_support::process_affinity(lowest | 1u << 31);
    EXPECT_EQ(thread_support::process_affinity() & ~(1u << 31), lowest);
}

// A reading that forgot to put the mask back shows as the process's in the second.
TEST_F(thread_support_test, reading_the_thread_mask_leaves_it_as_it_was) {
    thread_support::thread_affinity(lowest);
    EXPECT_EQ(thread_support::thread_affinity(), lowest);
    EXPECT_EQ(thread_support::thread_affinity(), lowest);
    EXPECT_EQ(thread_support::process_affinity(), all);
    thread_support::thread_affinity(all);
}

TEST_F(thread_support_death_test, a_mask_without_a_processor_fails_the_check_of_its_service) {
    EXPECT_CHECK(thread_support::process_affinity(0),
                 "SetProcessAffinityMask(GetCurrentProcess(), affinity) != 0", function_file);
    auto const leave_the_process = [&] {
        thread_support::process_affinity(lowest);
        thread_support::thread_affinity(~lowest);
    };
    EXPECT_CHECK(leave_the_process(), "SetThreadAffinityMask(GetCurrentThread(), affinity) != 0",
                 function_file);
}

TEST_F(thread_support_test, a_process_with_one_processor_does_not_spin) {
    EXPECT_EQ(ovel::estimate_default_spin(), 1024u);
    ovel::set_default_spin(500);
    EXPECT_EQ(ovel::default_spin, all == lowest ? 0u : 500u);
    thread_support::process_affinity(lowest);
    ovel::set_default_spin(500);
    EXPECT_EQ(ovel::default_spin, 0u);
}

int runs;  // both without a lock or an atomic: `call_once` orders them
int built;

TEST(call_once_test, threads_that_race_run_the_function_once_and_see_what_it_did) {
    constexpr int racers = 3;
    for (int round = 0; round < 100; ++round) {
        unsigned int volatile flag = 0;
        runs = 0;
        built = 0;
        std::atomic<int> missing = racers;  // at the start; some systems' std::latch hangs
        auto const build = [] {
            ++runs;
            std::this_thread::yield();
            built = 1;
        };
        auto const threads = crew(racers, [&](int) {
            --missing;
            until([&] { return missing == 0; });
            call_once(build, flag);
            EXPECT_EQ(built * runs, 1) << round;
        });
    }
}

TEST(call_once_death_test, an_exception_from_the_function_is_fatal) {
    unsigned int volatile flag = 0;
    EXPECT_CHECK(call_once([] { throw std::runtime_error("no"); }, flag),
                 "(\"unexpected exception\", 0)", "sources/ovel_once.cpp");
}

constexpr char pointer_file[] = "includes/ovel_thread_specific_ptr.h";

TEST(thread_specific_ptr_death_test, slots_that_are_not_there_fail_the_checks) {
    auto const free_twice = [] {
        thread_specific_ptr<int> pointer;
        inspector::free_slot(pointer);
    };
    EXPECT_CHECK(free_twice(), "TlsFree(index) != 0", pointer_file);
    EXPECT_CHECK(inspector::set_nowhere(), "TlsSetValue(index, value) != 0", pointer_file);
    auto const take_all = [] {
        std::vector<std::unique_ptr<thread_specific_ptr<int>>> all;
        for (;;)
            all.push_back(std::make_unique<thread_specific_ptr<int>>());
    };
    EXPECT_CHECK(take_all(), "index != 0xffffffff", pointer_file);
}

}  // namespace
