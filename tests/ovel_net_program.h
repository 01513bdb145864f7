// SPDX-License-Identifier: Apache-2.0
// Runs ovel-net as a user does: in a directory of its own, from a shell.
#ifndef OVEL_NET_PROGRAM_H
#define OVEL_NET_PROGRAM_H

#include "ovel_test.h"

#include <sys/wait.h>
#include <nlohmann/json.hpp>

#include <filesystem>

namespace fs = std::filesystem;
using json = nlohmann::json;

inline std::string content(fs::path const& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

class ovel_net_test : public testing::Test {
protected:
    void SetUp() override {
        std::string name = (fs::temp_directory_path() / "ovel_net_test.XXXXXX").string();
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        _directory = name;
    }
    void TearDown() override {
        fs::remove_all(_directory);
    }

    // Runs the program with these arguments, as the shell reads them.
    void run(std::string const& arguments, std::string const& environment = "") {
        // The environment may name another program, such as that for Windows.
        char const* const named = std::getenv("OVEL_NET_PROGRAM");
        std::string const program = named != nullptr ? named : OVEL_NET_PROGRAM;
        std::string const command = "cd '" + _directory.string() + "' && " + environment + " '" +
                                    program + "' " + arguments + " >.out 2>.err";
        int const ended = std::system(command.c_str());
        status = WIFEXITED(ended) ? WEXITSTATUS(ended) : -1;
        out = content(_directory / ".out");
        err = content(_directory / ".err");
    }

    // Expects that the run ended with this status and printed one line, the reason.
    void expect_refused(int expected, std::string const& says) {
        EXPECT_EQ(status, expected) << says;
        EXPECT_EQ(err, "ovel-net: " + says + '\n');
        EXPECT_EQ(out, "");
    }

    json run_json(std::string const& arguments) {
        run(arguments + " --json");
        EXPECT_EQ(status, 0) << err;
        EXPECT_EQ(err, "");
        return json::parse(out);
    }

    void write(char const* name, std::string const& text) {
        std::ofstream(_directory / name, std::ios::binary) << text;
    }

    // A net with `elements` from its third line on.
    static std::string net_of(std::string const& elements) {
        return "<pnml xmlns=\"http://www.pnml.org/version-2009/grammar/pnml\"><net id=\"n\"\n"
               "type=\"http://www.pnml.org/version-2009/grammar/ptnet\"><page id=\"page\">\n" +
               elements + "\n</page></net></pnml>\n";
    }
    void write_net(std::string const& elements) {
        write("net.pnml", net_of(elements));
    }

    // Repeats `text`, with the numbers 0, 1, ... for # and the next number for @.
    static std::string repeated(int times, std::string const& text) {
        std::string all;
        for (int i = 0; i < times; ++i)
            for (char const each : text)
                all += each == '#'   ? std::to_string(i)
                       : each == '@' ? std::to_string(i + 1)
                                     : std::string(1, each);
        return all;
    }

    // The files in the directory, except the program's output and `net.pnml`.
    std::vector<std::string> files() const {
        std::vector<std::string> names;
        for (fs::directory_entry const& each : fs::directory_iterator(_directory)) {
            std::string const name = each.path().filename().string();
            if (name != ".out" && name != ".err" && name != "net.pnml")
                names.push_back(name);
        }
        return names;
    }

    fs::path path(char const* name) const {
        return _directory / name;
    }
    std::string read(char const* name) const {
        return content(path(name));
    }

    static std::string own(std::string const& name) {
        return std::string("'") + OVEL_NETS + '/' + name + '\'';
    }

    int status = 0;
    std::string out;
    std::string err;

private:
    fs::path _directory;
};

#endif
