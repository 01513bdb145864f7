// SPDX-License-Identifier: Apache-2.0
#include "ovel_test.h"

#include <bit>

using namespace ovel;

namespace {

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

// Reading the thread's mask changes it for a moment: the second reading sees whether it was
// restored. Masks are cut to the processors of the system, and bit 31 is hardly one. With one
// processor nothing spins.
TEST_F(thread_support_test, masks_are_read_as_they_were_set) {
    EXPECT_EQ(thread_support::available_processors(), unsigned(std::popcount(all)));
    EXPECT_LE(thread_support::available_processors(), thread_support::processors());
    thread_support::thread_affinity(lowest);
    EXPECT_EQ(thread_support::thread_affinity(), lowest);
    EXPECT_EQ(thread_support::thread_affinity(), lowest);
    EXPECT_EQ(thread_support::process_affinity(), all);
    thread_support::thread_affinity(all);
    EXPECT_EQ(spin, all == lowest ? 0u : 1024u);  // as the library was loaded
    ovel::set_default_spin(ovel::estimate_default_spin());
    EXPECT_EQ(ovel::default_spin, all == lowest ? 0u : 1024u);

    thread_support::process_affinity(lowest | 1u << 31);
    EXPECT_EQ(thread_support::process_affinity() & ~(1u << 31), lowest);
    ovel::set_default_spin(500);
    EXPECT_EQ(ovel::default_spin, 0u);
}

// To read its mask, a thread sets it twice. Changes of the process's mask come before,
// between and after.
TEST_F(thread_support_test, reading_a_mask_does_not_undo_a_change_of_the_process) {
    std::atomic<int> reads = 0;
    std::atomic<bool> done = false;
    auto const readers = crew(2, [&](int) {
        for (; !done; ++reads)
            thread_support::thread_affinity();
        EXPECT_EQ(thread_support::thread_affinity(), all);
    });
    for (int change = 0; change != 1000; ++change) {
        thread_support::process_affinity(lowest);
        thread_support::process_affinity(all);
    }
    until([&] { return reads > 100; });
    done = true;
}

TEST_F(thread_support_test, a_mask_without_a_processor_fails_the_check_of_its_service) {
    EXPECT_CHECK(thread_support::process_affinity(0),
                 "SetProcessAffinityMask(GetCurrentProcess(), affinity) != 0", function_file);
    thread_support::process_affinity(lowest);
    EXPECT_CHECK(thread_support::thread_affinity(~lowest),
                 "SetThreadAffinityMask(GetCurrentThread(), affinity) != 0", function_file);
}

TEST(call_once_death_test, an_exception_from_the_function_is_fatal) {
    unsigned int volatile flag = 0;
    EXPECT_CHECK(call_once([] { throw std::runtime_error("no"); }, flag),
                 "(\"unexpected exception\", 0)", "sources/ovel_once.cpp");
}

// Their functions wait for each other.
TEST(call_once_test, calls_for_two_flags_run_at_once) {
    static latch both(2);
    unsigned int volatile flags[2] = {};
    crew(2, [&](int each) { call_once([] { both.arrive_and_wait(); }, flags[each]); }).clear();
}

// More pointers than there are slots, but one at a time; then too many.
TEST(thread_specific_ptr_death_test, slots_are_given_back_until_none_is_left) {
    for (int number = 0; number < 5000; ++number) {
        thread_specific_ptr<int> pointer;
        pointer.set(&number);
        ASSERT_EQ(pointer.get(), &number);
    }
    auto const take_all = [] {
        std::vector<std::unique_ptr<thread_specific_ptr<int>>> all;
        for (;;)
            all.push_back(std::make_unique<thread_specific_ptr<int>>());
    };
    EXPECT_CHECK(take_all(), "index != 0xffffffff", "includes/ovel_thread_specific_ptr.h");
}

}  // namespace
