// SPDX-License-Identifier: Apache-2.0
// Runs ovel-net as a user does: in a directory of its own, from a shell.
#ifndef OVEL_NET_PROGRAM_H
#define OVEL_NET_PROGRAM_H

#include "ovel_posix.h"
#include "ovel_test.h"

#include <nlohmann/json.hpp>

using json = nlohmann::json;

class ovel_net_test : public testing::Test {
protected:
    // Runs the program with these arguments, as the shell reads them: the exit status.
    int run(std::string const& arguments, std::string const& environment = "") {
        // The environment may name another program, such as that for Windows.
        char const* const named = std::getenv("OVEL_NET_PROGRAM");
        std::string const program = named != nullptr ? named : OVEL_NET_PROGRAM;
        std::string const command = "cd '" + _folder.path() + "' && " + environment + " '" +
                                    program + "' " + arguments + " >.out 2>.err";
        int const ended = std::system(command.c_str());
        out = read(".out");
        err = read(".err");
        return WIFEXITED(ended) ? WEXITSTATUS(ended) : -1;
    }

    // Runs the program, and expects that it ends with this status and prints one line, the reason.
    void expect_refused(std::string const& arguments, int status, std::string const& says,
                        std::string const& environment = "") {
        EXPECT_EQ(run(arguments, environment), status) << says;
        EXPECT_EQ(err, "ovel-net: " + says + '\n');
        EXPECT_EQ(out, "");
    }

    json run_json(std::string const& arguments) {
        EXPECT_EQ(run(arguments + " --json"), 0) << err;
        EXPECT_EQ(err, "");
        return json::parse(out);
    }

    void write(char const* name, std::string const& text) {
        std::ofstream(path(name), std::ios::binary) << text;
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

    // How many files are in the directory, with two for the program's output.
    auto files() const {
        return std::distance(fs::directory_iterator(_folder.path()), fs::directory_iterator());
    }

    fs::path path(char const* name) const {
        return _folder / name;
    }
    std::string read(char const* name) const {
        return content(path(name));
    }

    static std::string own(std::string const& name) {
        return std::string("'") + OVEL_NETS + '/' + name + '\'';
    }

    std::string out;
    std::string err;

private:
    folder _folder;
};

#endif
