// SPDX-License-Identifier: Apache-2.0
// ovel-net --store: real nets, run by one process and by three.
#include "../../tests/ovel_net_program.h"
#include "ovel_durable_server.h"

using ovel_durable_test::server;

namespace {

class ovel_durable_tool_test : public ovel_net_test,
                               public testing::WithParamInterface<char const*> {
protected:
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

    // A store of its own for each test, since the name of a net is its file's.
    std::optional<server> _server;
    std::string _url =
        GetParam() == std::string("sqlite") ? "sqlite:store" : _server.emplace().url();
};

INSTANTIATE_TEST_SUITE_P(stores, ovel_durable_tool_test, testing::Values("sqlite", "postgresql"),
                         [](auto const& chosen) { return std::string(chosen.param); });

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
        EXPECT_EQ(alone["outcome"], "dead");
        for (std::size_t const members : {3U, 1U})
            for (json made : run_members(members, net)) {
                made["seconds"] = alone["seconds"];
                EXPECT_EQ(made, alone);
            }
    }
    EXPECT_EQ(run(store()), 0);
    EXPECT_TRUE(contains(out, "No claim is open."));
}

// As where only the tool is installed: what the loader finds first is no library.
TEST_P(ovel_durable_tool_test, without_the_component_one_line_names_its_package) {
    write("libovel_durable.so.1", "");
    for (std::string const& net : {std::string(), own("bicycles.pnml")}) {
        expect_refused(net + store(), 2,
                       "--store needs the library libovel_durable.so.1: install the package "
                       "libovel-durable1",
                       "LD_LIBRARY_PATH=.");
    }
}

TEST_P(ovel_durable_tool_test, what_cannot_be_run_in_a_store_is_refused) {
    expect_refused(own("bicycles.pnml") + store() + " --check", 64,
                   "--store goes with none of --sequential, --check, --trace and --report (see "
                   "--help)");
    if (_url == "sqlite:store") {
        expect_refused(store(), 2, "the store store: unable to open database file");
    }
    expect_refused(store() + " --json", 64, "no net given, whose run could be shown (see --help)");
    ASSERT_EQ(run(own("bicycles.pnml") + store() + " --json"), 0) << err;
    EXPECT_EQ(run(own("bicycles.pnml") + store() + " --capacity 2000"), 2);
    EXPECT_TRUE(contains(err, "in the store is another one: place "));
}

}  // namespace
