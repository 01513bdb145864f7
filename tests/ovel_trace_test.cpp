// SPDX-License-Identifier: Apache-2.0
#include "ovel_test.h"

#include <nlohmann/json.hpp>

namespace trace = ovel::trace;
using json = nlohmann::json;

#if !defined(OVEL_SANITIZED)  // the tools have operators of their own
#include "ovel_own_operators.h"
#endif

namespace {

json written(trace::recorder const& recorded) {
    char const* const file = "ovel_trace_test.json";
    EXPECT_TRUE(recorded.save(file));
    json const read = json::parse(std::ifstream(file));
    std::remove(file);
    return read;
}

// Each thread fills more than one piece of its buffer while another reads.
TEST(trace_test, each_thread_keeps_its_scopes_in_order_while_others_read) {
    constexpr int scopes = 3000;
    constexpr int threads = 4;
    trace::recorder recorded;
    std::atomic<int> running = threads;
    auto const workers = crew(threads, [&](int) {
        trace::name_thread("worker");
        for (int i = 0; i < scopes; ++i) {
            trace::scope const outer("outer \"\\\n", trace::firing);
            trace::scope const inner("inner", trace::wait);
        }
        --running;
    });
    do
        recorded.each([](unsigned int, trace::event const& each) {
            ASSERT_LE(each.begin, each.end);
            ASSERT_NE(each.name, nullptr);
        });
    while (running != 0);

    std::map<std::string, int> kinds;
    std::map<int, double> inner_begin;
    json const all = written(recorded);
    for (json const& each : all["traceEvents"]) {
        std::string const name = each["name"];
        bool const names = each["ph"] == "M";
        ++kinds[name + ' ' + (names ? each["args"]["name"] : each["cat"]).get<std::string>()];
        if (names)
            continue;
        ASSERT_TRUE(each["pid"] == 1 && each["ph"] == "X" && each["dur"] >= 0) << each;
        double& begin = inner_begin[each["tid"]];
        if (name == "inner")
            begin = each["ts"];
        else
            ASSERT_LE(each["ts"], begin);
    }
    EXPECT_EQ(kinds, (std::map<std::string, int>{{"thread_name worker", threads},
                                                 {"inner wait", threads * scopes},
                                                 {"outer \"\\\n firing", threads * scopes}}));
    EXPECT_EQ(recorded.dropped(), 0U);
    EXPECT_FALSE(recorded.save("no_such_folder/trace.json"));
}

TEST(trace_test, a_recorder_keeps_the_first_scopes_that_began_while_it_recorded) {
    { trace::scope const before("before"); }
    for (int round = 0; round < 2; ++round) {
        trace::recorder recorded(3);
        for (char const* const name : {"1", "2", "3", "4", "5"})
            trace::scope const here(name);
        EXPECT_CHECK(trace::recorder(), "_active == 0", "includes/ovel_trace.h");
        recorded.stop();
        { trace::scope const after("after"); }
        std::string names;
        recorded.each([&](unsigned int thread, trace::event const& each) {
            EXPECT_EQ(thread, 0U);
            names += each.name;
        });
        EXPECT_EQ(names, "123") << "round " << round;
        EXPECT_EQ(recorded.dropped(), 2U);
    }
}

// A viewer rejects a file that is not UTF-8. The cases: characters of each length, bytes that
// begin none, a truncated and an overlong character, a surrogate, and a code point too high.
TEST(trace_test, invalid_bytes_in_names_are_replaced) {
    std::string const replaced = "\xef\xbf\xbd";
    std::pair<std::string, std::string> const cases[] = {
        {"a\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80", "a\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80"},
        {"x\xff\x80y", "x" + replaced + replaced + "y"},
        {"\xe2\x82", replaced + replaced},
        {"\xc0\xaf", replaced + replaced},
        {"\xed\xa0\x80", replaced + replaced + replaced},
        {"\xf4\x90\x80\x80", replaced + replaced + replaced + replaced},
    };
    for (auto const& [name, shown] : cases) {
        trace::recorder recorded;
        { trace::scope const here(name.c_str()); }
        EXPECT_EQ(written(recorded)["traceEvents"][1]["name"], shown) << name;
    }
}

#if !defined(OVEL_SANITIZED)
// Otherwise the recorder would have the text of a name that is gone.
TEST(trace_test, a_scope_whose_name_the_recorder_cannot_share_is_dropped) {
    trace::shared_name const name("name");
    trace::recorder recorded;
    own_operators::out_of_memory = true;
    { trace::scope const here(name, trace::wait); }
    own_operators::out_of_memory = false;
    EXPECT_EQ(recorded.dropped(), 1U);  // without an attempt to record it
}
#endif

}  // namespace
