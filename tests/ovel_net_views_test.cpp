// SPDX-License-Identifier: Apache-2.0
// What ovel-net shows besides its report of a run, on the project's nets.
#include "ovel_net_program.h"

namespace {

TEST_F(ovel_net_test, check_finds_place_invariants_and_the_capacities_that_follow) {
    EXPECT_EQ(run(own("bicycles.pnml") + " --check --json --capacity 20"), 0);
    json const result = json::parse(out);
    EXPECT_EQ(result["invariants"], json::parse(R"([
{"sum": 1, "places": [{"id": "saw", "weight": 1}]},
{"sum": 2, "places": [{"id": "welders", "weight": 1}]},
{"sum": 5, "places": [{"id": "crates", "weight": 1}, {"id": "shipped", "weight": 1}]},
{"sum": 30, "places": [{"id": "rims", "weight": 1}, {"id": "wheels", "weight": 1},
                       {"id": "bicycles-ready", "weight": 2}, {"id": "shipped", "weight": 8}]},
{"sum": 1200, "places": [{"id": "spokes", "weight": 1}, {"id": "wheels", "weight": 32},
                         {"id": "bicycles-ready", "weight": 64}, {"id": "shipped", "weight": 256}]},
{"sum": 120, "places": [{"id": "tubes", "weight": 6}, {"id": "pieces", "weight": 1},
                        {"id": "frames", "weight": 9}, {"id": "bicycles-ready", "weight": 9},
                        {"id": "shipped", "weight": 36}]}])"));
    EXPECT_TRUE(contains(out, R"("capacity": 20, "bound": 30, "needed": 30})"));
    EXPECT_TRUE(contains(
        out, R"("name": "full crates", "initial": 0, "capacity": 20, "bound": 3, "needed": 3})"));
    // One welder is taken and put back.
    EXPECT_TRUE(contains(
        out, R"("name": "free welders", "initial": 2, "capacity": 20, "bound": 2, "needed": 3})"));
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
    json missing;
    for (json const& each : result["transitions"])
        missing[each["id"]] = each["missing"];
    EXPECT_EQ(missing, json::parse(R"({"produce": [{"place": "producers", "tokens": 1}],
                                       "put": [{"place": "slots", "tokens": 1}],
                                       "take": [{"place": "consumers", "tokens": 1}],
                                       "consume": [{"place": "consumed", "slots": 1}]})"));

    run(own("bounded_buffer.pnml") + " --firings 1 --explain");
    EXPECT_TRUE(contains(out, "\n  produce: nothing, it is enabled\n"));
}

TEST_F(ovel_net_test, a_trace_has_each_firing_by_its_name) {
    EXPECT_EQ(run(own("bicycles.pnml") + " --threads 2 --work 10 --trace trace"), 0) << err;
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
