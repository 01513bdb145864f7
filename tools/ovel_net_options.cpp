// SPDX-License-Identifier: Apache-2.0
#include "ovel_net_options.h"
#include "ovel_net_failure.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <limits>
#include <string_view>

namespace ovel_net {

char const usage[] =
    R"(ovel-net NET.pnml [options]
ovel-net --store URL

Fires a place/transition net concurrently until it comes to rest, and reports
where it did.

  --seconds S     stop a net that still runs after S seconds (default 10); so does an
                  interrupt (Ctrl-C)
  --firings N     stop it after exactly N firings, unless it rests before
  --threads N     fire on N threads, up to 1024 (default: one for each processor)
  --capacity N    room for N tokens in each place (default 1024); a place has at
                  least twice its initial tokens plus twice its largest weight
  --work M        let each firing compute for M microseconds
  --sequential    let no transition fire again before its last firing has ended
  --dot FILE      draw the net with its final marking and firing counts, as text
                  for Graphviz
  --svg FILE      the same as a picture; needs Graphviz's dot
  --trace FILE    write the firings of each thread for a trace viewer such as
                  Perfetto; at most the first million of each
  --report FILE   write a page for a browser: the net with its marking, firings of
                  threads and tokens of places over time, at most as many as
                  --trace; needs Graphviz's dot
  --explain       say for each transition which tokens or slots it lacks at the end
  --check         do not run the net: print the place invariants (sums of tokens that
                  no firing changes) and the bounds that they imply, and warn
                  about capacities below them
  --store URL     run the net in a database, together with all other processes that run
                  it there, until all are at rest: sqlite:FILE or postgresql://...; it
                  prints the sums over all of them. Without a net: show the nets in
                  the database. Needs libovel_durable
  --json          print the result as one JSON object
  --help          print this

Exit status: 0 when the net was run, however it ended, or checked; 2 when a file is
wrong or cannot be read or written, or a store fails; 64 for bad options; 70 when
the result contradicts the net; 71 when out of memory.
)";

namespace {

// One option: its name, the value that it takes (null: none), and a function that sets
// it, which returns false for an invalid value.
struct rule {
    std::string_view name;
    char const* wants;
    bool (*set)(options& chosen, std::string const& value);
};

// Parses all of `text` as a number in the range. NaN is in no range.
template <class Number>
bool parse(std::string const& text, Number& number, Number least,
           Number greatest = std::numeric_limits<Number>::max()) {
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() && number >= least &&
           number <= greatest;
}

bool parse(std::string const& text, std::string& file) {
    file = text;
    return !file.empty();
}

bool set(bool& flag) {
    flag = true;
    return true;
}

using text = std::string const&;

constexpr rule rules[] = {
    {"--seconds", "a positive number of seconds",
     [](options& o, text v) {
         return parse(v, o.seconds, std::numeric_limits<double>::min());
     }},
    {"--firings", "a whole number from 1 to 4611686018427387904",
     [](options& o, text v) {
         return parse<std::uint64_t>(v, o.firings, 1, endless);
     }},
    {"--threads", "a whole number from 1 to 1024",
     [](options& o, text v) {
         return parse(v, o.threads, 1U, 1024U);
     }},
    {"--capacity", "a whole number from 1 to 4294967295",
     [](options& o, text v) {
         return parse(v, o.capacity, 1U);
     }},
    {"--work", "a whole number of microseconds up to 4294967295",
     [](options& o, text v) {
         return parse(v, o.work, 0U);
     }},
    {"--dot", "a file name",
     [](options& o, text v) {
         return parse(v, o.dot);
     }},
    {"--svg", "a file name",
     [](options& o, text v) {
         return parse(v, o.svg);
     }},
    {"--trace", "a file name",
     [](options& o, text v) {
         return parse(v, o.trace);
     }},
    {"--report", "a file name",
     [](options& o, text v) {
         return parse(v, o.report);
     }},
    {"--store", "the URL of a database",
     [](options& o, text v) {
         return parse(v, o.store);
     }},
    {"--sequential", nullptr,
     [](options& o, text) {
         return set(o.sequential);
     }},
    {"--check", nullptr,
     [](options& o, text) {
         return set(o.check);
     }},
    {"--explain", nullptr,
     [](options& o, text) {
         return set(o.explain);
     }},
    {"--json", nullptr,
     [](options& o, text) {
         return set(o.json);
     }},
    {"--help", nullptr,
     [](options& o, text) {
         return set(o.help);
     }},
};

[[noreturn]] void refuse(rule const& broken, std::string const& given) {
    throw bad_option(std::string(broken.name) + " takes " + broken.wants + ", not " + given);
}

}  // namespace

options parse_options(int argc, char const* const* argv) {
    options chosen;
    for (int i = 1; i < argc; ++i) {
        std::string const argument = argv[i];
        if (!argument.starts_with('-')) {
            if (!chosen.file.empty())
                throw bad_option("one net at a time, not also \"" + argument + '"');
            chosen.file = argument;
            continue;
        }
        std::size_t const equals = argument.find('=');
        std::string const name = argument.substr(0, equals);
        auto const* const known = std::find_if(std::begin(rules), std::end(rules),
                                               [&](rule const& each) { return each.name == name; });
        if (known == std::end(rules) || (known->wants == nullptr && equals != argument.npos))
            throw bad_option("unknown option \"" + argument + '"');
        bool const separate = known->wants != nullptr && equals == argument.npos;
        if (separate && ++i == argc)
            refuse(*known, "none");
        // A flag ignores this value.
        std::string const value = separate ? argv[i] : argument.substr(equals + 1);
        if (!known->set(chosen, value))
            refuse(*known, '"' + value + '"');
    }
    if (chosen.file.empty() && chosen.store.empty() && !chosen.help)
        throw bad_option("no net given");
    if (!chosen.store.empty() &&
        (chosen.sequential || chosen.check || !chosen.trace.empty() || !chosen.report.empty()))
        throw bad_option("--store goes with none of --sequential, --check, --trace and --report");
    if (chosen.file.empty() &&
        (chosen.json || chosen.explain || !chosen.dot.empty() || !chosen.svg.empty()) &&
        !chosen.help)
        throw bad_option("no net given, whose run could be shown");
    std::string const outputs = chosen.dot + chosen.svg + chosen.trace + chosen.report;
    if (chosen.check && (chosen.explain || !outputs.empty()))
        throw bad_option("--check runs nothing, so there is no run to show or to explain");
    return chosen;
}

}  // namespace ovel_net
