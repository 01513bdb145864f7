// SPDX-License-Identifier: Apache-2.0
// ovel-net --store: real nets, run by one process and by three.
#include "../../tests/ovel_net_program.h"
#include "ovel_durable_server.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using ovel_durable_test::server;

namespace {

class ovel_durable_tool_test : public ovel_net_test,
                               public testing::WithParamInterface<char const*> {
protected:
    static void TearDownTestSuite() {
        _server.reset();
    }
    // In its own database or file, since the name of a net is its file's.
    void SetUp() override {
        ovel_net_test::SetUp();
        if (GetParam() == std::string("postgresql")) {
            if (_server == nullptr)
                _server = std::make_unique<server>("fsync = off\n");
            static int number = 0;
            std::string const name = "d" + std::to_string(++number);
            _server->run("CREATE DATABASE " + name);
            _url = "postgresql://ovel@/" + name + "?host=" + _server->socket_folder();
        } else {
            _url = "sqlite:store";
        }
    }

    std::string store() const {
        return " --store '" + _url + '\'';
    }

    // What the shell's words print as JSON, of several such processes at once.
    std::vector<json> run_members(int members, std::string const& arguments) {
        std::string const script = path("script").string();
        write("script",
              std::string("#!/bin/sh\nset -e\nfor i in $(seq ") + std::to_string(members) +
                  "); do\n'" OVEL_NET_PROGRAM "' " + arguments + store() +
                  " --seconds 100 --json >out$i 2>err$i & eval p$i=$!\ndone\nfor i in $(seq " +
                  std::to_string(members) + "); do eval wait \\$p$i; done\n");
        std::string const command =
            "cd '" + path(".").string() + "' && sh '" + script + "' 2>>all.err";
        EXPECT_EQ(std::system(command.c_str()), 0);
        std::vector<json> made;
        for (int i = 1; i <= members; ++i) {
            std::string const name = std::to_string(i);
            EXPECT_EQ(read(("err" + name).c_str()), "");
            made.push_back(json::parse(read(("out" + name).c_str())));
        }
        return made;
    }

    static std::unique_ptr<server> _server;
    std::string _url;
};
std::unique_ptr<server> ovel_durable_tool_test::_server;

INSTANTIATE_TEST_SUITE_P(stores, ovel_durable_tool_test, testing::Values("sqlite", "postgresql"),
                         [](auto const& chosen) { return std::string(chosen.param); });

// The final marking of a net, by the places' identifiers.
std::map<std::string, int> marking(json const& made) {
    std::map<std::string, int> tokens;
    for (json const& place : made["places"])
        tokens[place["id"]] = place["final"];
    return tokens;
}

std::map<std::string, int> firings(json const& made) {
    std::map<std::string, int> fired;
    for (json const& transition : made["transitions"])
        fired[transition["id"]] = transition["firings"];
    return fired;
}

// That the marking follows from the firings the program proves itself: its status is 70
// otherwise. These nets come to rest in one marking, after the same firings however they are
// shared out. The last process finds them at rest.
TEST_P(ovel_durable_tool_test, one_file_has_one_answer) {
    for (std::string const& net : {own("bounded_buffer.pnml"), own("bicycles.pnml")}) {
        json const alone = run_json(net);
        for (int const members : {3, 1})
            for (json const& made : run_members(members, net)) {
                EXPECT_EQ(made["outcome"], "dead");
                EXPECT_EQ(marking(made), marking(alone));
                EXPECT_EQ(firings(made), firings(alone));
            }
    }
    run(store());
    EXPECT_EQ(status, 0);
    EXPECT_NE(out.find("No claim is open."), out.npos) << out;
}

// Coins are changed one by one or two at a time: which of the three markings is reached depends
// on the order, and there is no other.
TEST_P(ovel_durable_tool_test, dead_markings_are_those_that_are_known) {
    write("change.pnml", R"(<pnml xmlns="http://www.pnml.org/version-2009/grammar/pnml">
<net id="change" type="http://www.pnml.org/version-2009/grammar/ptnet"><page id="all">
<place id="coins"><initialMarking><text>5</text></initialMarking></place>
<place id="ones"/><place id="twos"/><transition id="one"/><transition id="two"/>
<arc id="a1" source="coins" target="one"/><arc id="a2" source="one" target="ones"/>
<arc id="a3" source="coins" target="two"><inscription><text>2</text></inscription></arc>
<arc id="a4" source="two" target="twos"/>
</page></net></pnml>)");
    for (int const members : {3, 1})
        for (json const& made : run_members(members, "change.pnml")) {
            EXPECT_EQ(made["outcome"], "dead");
            auto const reached = marking(made);
            EXPECT_EQ(reached.at("coins"), 0);
            EXPECT_EQ(reached.at("ones") + 2 * reached.at("twos"), 5);
        }
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
    run("--store mysql:x");
    expect_refused(2, "a store is sqlite:FILE or postgresql://..., not \"mysql:x\"");
    if (_url == "sqlite:store") {
        run(store());
        expect_refused(2, "the store store: unable to open database file");
        EXPECT_FALSE(std::filesystem::exists(path("store")));
    }
    run(store() + " --json");
    expect_refused(64, "no net given, whose run could be shown (see --help)");
    run(own("bicycles.pnml") + store() + " --json");
    ASSERT_EQ(status, 0) << err;
    run(own("bicycles.pnml") + store() + " --capacity 2000");
    EXPECT_EQ(status, 2);
    EXPECT_NE(err.find("in the store is another one: place "), err.npos) << err;
}

}  // namespace
