// SPDX-License-Identifier: Apache-2.0
// What ovel-net asks of this library, which it loads at run time: both are of one version.
#ifndef OVEL_DURABLE_TOOL_H
#define OVEL_DURABLE_TOOL_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace ovel::durable::tool {

struct place {
    std::string name;
    std::uint64_t capacity;
    std::uint64_t initial;  // tokens, each unlike all others
};
struct arc {
    std::size_t place;
    bool input;
    std::uint64_t weight;
};
struct transition {
    std::string name;
    std::vector<arc> arcs;
};

struct plan {
    std::string store;
    std::string net;
    std::vector<place> places;
    std::vector<transition> transitions;
    unsigned int threads;
    std::uint64_t firings;        // the most that this member fires
    std::function<void()> work;   // done by each firing
    std::function<bool()> go_on;  // asked several times a second
    std::function<void(std::string const&)> report;
};

// The sums over all members.
struct result {
    std::vector<std::uint64_t> tokens;
    std::vector<std::uint64_t> fired;
    bool rests;     // or else the run was stopped
    bool repeated;  // some token is there twice
};

struct entry {
    char const* version;

    // Takes part in a net until that rests or `go_on` says no. Throws std::runtime_error.
    result (*run)(plan const& asked);

    // What the nets in the store are doing, as text.
    std::string (*show)(std::string const& store);
};

// The name of the function that returns it.
inline constexpr char entry_name[] = "ovel_durable_tool_entry";

}  // namespace ovel::durable::tool

extern "C" ovel::durable::tool::entry const* ovel_durable_tool_entry();

#endif
