// SPDX-License-Identifier: Apache-2.0
// What ovel-net shows besides its report of a run, on the project's nets.
#include "ovel_net_program.h"

namespace {

using weights = std::map<std::string, double>;

TEST_F(ovel_net_test, check_finds_place_invariants_and_the_capacities_that_follow) {
    run(own("bicycles.pnml") + " --check --json --capacity 20");
    EXPECT_EQ(status, 0);
    json const result = json::parse(out);
    std::map<weights, double> sums;
    for (json const& each : result["invariants"]) {
        weights places;
        for (json const& place : each["places"])
            places[place["id"]] = place["weight"].get<double>();
        sums[places] = each["sum"].get<double>();
    }
    std::map<weights, double> const expected{
        {{{"saw", 1}}, 1},
        {{{"welders", 1}}, 2},
        {{{"crates", 1}, {"shipped", 1}}, 5},
        {{{"rims", 1}, {"wheels", 1}, {"bicycles-ready", 2}, {"shipped", 8}}, 30},
        {{{"spokes", 1}, {"wheels", 32}, {"bicycles-ready", 64}, {"shipped", 256}}, 1200},
        {{{"tubes", 6}, {"pieces", 1}, {"frames", 9}, {"bicycles-ready", 9}, {"shipped", 36}},
         120}};
    EXPECT_EQ(sums, expected);
    std::map<std::string, std::pair<double, double>> limits;
    for (json const& each : result["places"])
        limits[each["id"]] = {each["bound"].get<double>(), each["needed"].get<double>()};
    EXPECT_EQ(limits.at("wheels"), std::pair(30.0, 30.0));
    EXPECT_EQ(limits.at("shipped"), std::pair(3.0, 3.0));
    EXPECT_EQ(limits.at("welders"), std::pair(2.0, 3.0)) << "one is taken and put back";
    std::string const place = "ovel-net: " OVEL_NETS "/bicycles.pnml:1: warning: place ";
    EXPECT_EQ(err, place + "\"cut pieces\" may need room for 120 tokens and has it for 20\n" +
                       place + "\"wheels\" may need room for 30 tokens and has it for 20\n");
}

// Each of the 2^40 paths is an invariant.
TEST_F(ovel_net_test, check_leaves_out_what_is_too_much) {
    write_net(
        "<place id='a0'><initialMarking><text>3</text></initialMarking></place><place id='b0'/>" +
        repeated(40, R"(<transition id='t#'/><place id='a@'/><place id='b@'/>
<arc id='w#' source='a#' target='t#'/><arc id='x#' source='b#' target='t#'/>
<arc id='y#' source='t#' target='a@'/><arc id='z#' source='t#' target='b@'/>)"));
    json const result = run_json("net.pnml --check");
    EXPECT_EQ(result["invariants_complete"], false);
    ASSERT_FALSE(result["invariants"].empty());
    for (json const& each : result["invariants"]) {
        EXPECT_EQ(each["places"].size(), 41U);
        EXPECT_EQ(each["sum"], each["places"][0]["id"] == "a0" ? 3 : 0);
    }

    // The only one has the weights 2^60, 2^30 and 1, and its sum is 2^64.
    write_net(R"(<place id="a"><initialMarking><text>16</text></initialMarking></place>
<place id="b"/><place id="c"/><transition id="t"/><transition id="u"/>
<arc id="1" source="a" target="t"/><arc id="3" source="b" target="u"/>
<arc id="2" source="t" target="b"><inscription><text>1073741824</text></inscription></arc>
<arc id="4" source="u" target="c"><inscription><text>1073741824</text></inscription></arc>)");
    json const beyond = run_json("net.pnml --check");
    EXPECT_EQ(beyond["invariants_complete"], false);
    EXPECT_TRUE(beyond["invariants"].empty());
}

TEST_F(ovel_net_test, explain_names_the_tokens_and_slots_that_each_transition_lacks) {
    json const result = run_json(own("bounded_buffer.pnml") + " --capacity 100 --explain");
    std::string told;
    for (json const& each : result["transitions"])
        for (json const& missing : each["missing"])
            for (auto const& [kind, value] : missing.items())
                told += each["id"].get<std::string>() + ' ' + kind + ' ' + value.dump() + '\n';
    EXPECT_EQ(told,
              "produce place \"producers\"\nproduce tokens 1\n"
              "put place \"slots\"\nput tokens 1\n"
              "take place \"consumers\"\ntake tokens 1\n"
              "consume place \"consumed\"\nconsume slots 1\n");

    run(own("bounded_buffer.pnml") + " --firings 1 --explain");
    EXPECT_TRUE(contains(out, "\n  produce: nothing, it is enabled\n"));
}

TEST_F(ovel_net_test, a_trace_has_each_firing_by_its_name) {
    run(own("bicycles.pnml") + " --threads 2 --work 10 --trace trace");
    EXPECT_EQ(status, 0) << err;
    json const all = json::parse(read("trace"));
    std::map<std::string, int> names;
    for (json const& each : all["traceEvents"])
        if (each["ph"] == "X")
            ++names[each["name"]];
    std::map<std::string, int> const expected{
        {"lace a wheel", 30},          {"cut a tube", 20},  {"weld a frame", 13},
        {"assemble a bicycle", 13},    {"pack a crate", 3}, {"compute", 79},
        {"run until the net rests", 1}};
    EXPECT_EQ(names, expected);
}

}  // namespace
