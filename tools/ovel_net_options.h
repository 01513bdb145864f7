// SPDX-License-Identifier: Apache-2.0
// The command line.
#ifndef OVEL_NET_OPTIONS_H
#define OVEL_NET_OPTIONS_H

#include <cstdint>
#include <string>

namespace ovel_net {

// More firings than any run lives to see.
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
    bool help = false;  // nothing else is asked for; `file` may be empty
    std::string dot;    // where to draw to; empty: no drawing
    std::string svg;
    std::string trace;  // where to write what was recorded to; empty: nowhere
    std::string report;
    std::string store;  // of durable nets, in which it runs; empty: in memory
};

// Throws a `failure` when an argument is unknown, doubtful or missing.
options parse_options(int argc, char const* const* argv);

// What --help prints.
extern char const usage[];

}  // namespace ovel_net

#endif
