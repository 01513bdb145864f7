// SPDX-License-Identifier: Apache-2.0
// ovel-net --store: real nets, run by one process and by three.
#include "../../tests/ovel_net_program.h"
#include "ovel_durable_server.h"

using ovel_durable_test::server;

namespace {

class ovel_durable_tool_test : public ovel_net_test,
                               public testing::WithParamInterface<char const*> {
protected:
    // In its own store, since the name of a net is its file's.
    void SetUp() override {
        ovel_net_test::SetUp();
        if (GetParam() == std::string("postgresql"))
            _url = _server.emplace().url();
    }

    std::string store() const {
        return " --store '" + _url + '\'';
    }

    // What several processes print that run a net together.
    std::vector<json> run_members(std::size_t members, std::string const& net) {
        std::string command = "cd '" + path(".").string() + '\'';
        for (std::size_t i = 0; i < members; ++i) {
            std::string const to = "out" + std::to_string(i);
            command += "\n('" OVEL_NET_PROGRAM "' " + net + store() + " --seconds 100 --json >" +
                       to + " 2>&1 || echo failed >>" + to + ") &";
        }
        EXPECT_EQ(std::system((command + "\nwait").c_str()), 0);
        std::vector<json> made;
        for (std::size_t i = 0; i < members; ++i)
            made.push_back(json::parse(read(("out" + std::to_string(i)).c_str())));
        return made;
    }

    std::optional<server> _server;
    std::string _url = "sqlite:store";
};

INSTANTIATE_TEST_SUITE_P(stores, ovel_durable_tool_test, testing::Values("sqlite", "postgresql"),
                         [](auto const& chosen) { return std::string(chosen.param); });

// The final marking of a net and its firings, by identifiers.
std::map<std::string, int> final_state(json const& made) {
    std::map<std::string, int> numbers;
    for (json const& place : made["places"])
        numbers[place["id"]] = place["final"];
    for (json const& transition : made["transitions"])
        numbers[transition["id"]] = transition["firings"];
    return numbers;
}

// That the marking follows from the firings the program proves itself: it fails
// otherwise. These nets come to rest in one marking, after the same firings however they are
// shared out. The last process finds them at rest.
TEST_P(ovel_durable_tool_test, one_file_has_one_answer) {
    write("change.pnml", net_of(R"(<place id="coins"><initialMarking><text>7</text></initialMarking>
</place><place id="notes"/><transition id="change"/><arc id="a1" source="coins" target="change">
<inscription><text>2</text></inscription></arc><arc id="a2" source="change" target="notes"/>)"));
    for (std::string const& net :
         {own("bounded_buffer.pnml"), own("bicycles.pnml"), std::string("change.pnml")}) {
        json const alone = run_json(net);
        for (std::size_t const members : {3U, 1U})
            for (json const& made : run_members(members, net)) {
                EXPECT_EQ(made["outcome"], "dead");
                EXPECT_EQ(final_state(made), final_state(alone));
            }
    }
    run(store());
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(contains(out, "No claim is open."));
}

// As where only the tool is installed: what the loader finds first is no library.
TEST_P(ovel_durable_tool_test, without_the_component_one_line_names_its_package) {
    write("libovel_durable.so.1", "");
    for (std::string const& net : {std::string(), own("bicycles.pnml")}) {
        run(net + store(), "LD_LIBRARY_PATH=.");
        expect_refused(2,
                       "--store needs the library libovel_durable.so.1: install the package "
                       "libovel-durable1");
    }
}

TEST_P(ovel_durable_tool_test, what_cannot_be_run_in_a_store_is_refused) {
    run(own("bicycles.pnml") + store() + " --check");
    expect_refused(64,
                   "--store goes with none of --sequential, --check, --trace and --report (see "
                   "--help)");
    if (_url == "sqlite:store") {
        run(store());
        expect_refused(2, "the store store: unable to open database file");
    }
    run(store() + " --json");
    expect_refused(64, "no net given, whose run could be shown (see --help)");
    run(own("bicycles.pnml") + store() + " --json");
    ASSERT_EQ(status, 0) << err;
    run(own("bicycles.pnml") + store() + " --capacity 2000");
    EXPECT_EQ(status, 2);
    EXPECT_TRUE(contains(err, "in the store is another one: place "));
}

}  // namespace
