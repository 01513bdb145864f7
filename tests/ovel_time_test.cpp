// SPDX-License-Identifier: Apache-2.0
#include "ovel_test.h"

using ovel::time_base;
using ovel::time_support;

struct ovel::detail::inspector {
    template <class Time>
    static Time make(std::int64_t count) {
        return Time(count);
    }
};

namespace {

constexpr std::int64_t least = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();

template <class Time>
struct time_test : testing::Test {
    static Time of(std::int64_t count) {
        return ovel::detail::inspector::make<Time>(count);
    }
};
using time_types = testing::Types<ovel::time, time_base>;
TYPED_TEST_SUITE(time_test, time_types);

TYPED_TEST(time_test, arithmetic_wraps_and_comparison_is_signed) {
    constexpr std::int64_t counts[] = {least, -5, 0, 7, most};
    for (std::int64_t const a : counts) {
        for (std::int64_t const b : counts) {
            SCOPED_TRACE(testing::Message() << a << ' ' << b);
            TypeParam const left = this->of(a), right = this->of(b);
            auto const sum = static_cast<std::int64_t>(std::uint64_t(a) + std::uint64_t(b));
            TypeParam changed = left;
            EXPECT_EQ((left + right).value(), sum);
            EXPECT_EQ(changed += right, left + right);
            EXPECT_EQ((changed - right).value(), a);
            EXPECT_EQ(changed -= right, left);
            EXPECT_EQ(left - right, left + -right);
            EXPECT_EQ(left == right, a == b);
            EXPECT_EQ(left < right, a < b);
            EXPECT_EQ(left >= right, a >= b);
        }
    }
}

TYPED_TEST(time_test, seconds_become_ticks_toward_zero_and_saturate_at_half_of_the_range) {
    double const unit = time_support::time_unit();
    constexpr std::int64_t half = most / 2 + 1;
    struct {
        double seconds;
        std::int64_t ticks;
    } const cases[] = {
        {0.9 * unit, 0},
        {-0.9 * unit, 0},
        {1.6 * unit, 1},
        {-1.6 * unit, -1},
        {1e300, half},
        {-INFINITY, -half},
        {this->of(most).seconds(), half},  // a double rounds the count up
        {this->of(3 * (half / 2)).seconds(), half},
        {this->of(half / 2).seconds(), half / 2},
        {NAN, 0},
    };
    for (auto const& each : cases)
        EXPECT_EQ(TypeParam::seconds(each.seconds).value(), each.ticks) << each.seconds;
    EXPECT_NEAR(TypeParam::seconds(1.0).seconds(), 1.0, unit);
    EXPECT_NEAR(TypeParam::seconds(-0.5).seconds(), -0.5, unit);
}

// The clock starts with the machine, so these deadlines are centuries ahead. A sum that
// wraps would lie in the past.
TYPED_TEST(time_test, the_longest_spans_end_in_the_future) {
    for (double const span : {1e10, 1e300, double(INFINITY)}) {
        EXPECT_GT(TypeParam::then(span) - TypeParam::now(), TypeParam::seconds(1e9)) << span;
        EXPECT_LT(TypeParam::then(-span), TypeParam::now()) << span;
    }
}

// Catches a rate that is wrong by a factor, or inverted. Readings of the system's clock, inside
// and outside of the library's two, bound the time between those.
TEST(time_now_test, a_second_agrees_with_the_system_clock) {
    using clock = std::chrono::steady_clock;
    clock::time_point const first = clock::now();
    ovel::time const start = ovel::time::now();
    clock::time_point const second = clock::now();
    until([&] { return clock::now() - second > std::chrono::milliseconds(50); });
    clock::time_point const third = clock::now();
    double const passed = (ovel::time::now() - start).seconds();
    clock::time_point const fourth = clock::now();
    EXPECT_NEAR((ovel::time::then(3600.0) - start).seconds(), 3600.0, 60.0);
    EXPECT_NEAR((time_base::then(-3600.0) - time_base::now()).seconds(), -3600.0, 60.0);
    EXPECT_GT(passed, std::chrono::duration<double>(third - second).count() * 0.99);
    EXPECT_LT(passed, std::chrono::duration<double>(fourth - first).count() * 1.01);
}

}  // namespace
