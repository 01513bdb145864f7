// SPDX-License-Identifier: Apache-2.0
// The command line.
#ifndef OVEL_NET_OPTIONS_H
#define OVEL_NET_OPTIONS_H

#include <cstdint>
#include <string>

namespace ovel_net {

// More firings than any run can make.
constexpr std::uint64_t endless = std::uint64_t{1} << 62;

struct options {
    std::string file;  // the net
    double seconds = 10;
    std::uint64_t firings = endless;
    unsigned int threads = 0;  // 0: one for each processor
    unsigned int capacity = 1024;
    unsigned int work = 0;  // microseconds that each firing computes
    bool sequential = false;
    bool check = false;  // the net's structure, without a run
    bool explain = false;
    bool json = false;
    bool help = false;  // print help and nothing else; `file` may be empty
    std::string dot;    // file for the drawing; empty: no drawing
    std::string svg;
    std::string trace;  // file for the recorded trace; empty: none
    std::string report;
    std::string store;  // the store of a durable net; empty: the net runs in memory
};

// Throws a `failure` if an argument is unknown, ambiguous or missing.
options parse_options(int argc, char const* const* argv);

// The text that --help prints.
extern char const usage[];

}  // namespace ovel_net

#endif
