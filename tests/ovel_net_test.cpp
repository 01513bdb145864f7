// SPDX-License-Identifier: Apache-2.0
// Runs ovel-net as a user does, on the project's nets and on nets written here.
#include "ovel_net_program.h"

namespace {

using counts = std::map<std::string, std::uint64_t>;

// One number of each place or transition, by id; the zeros only where `all` is set.
counts column(json const& nodes, char const* name, bool all = false) {
    counts numbers;
    for (json const& node : nodes)
        if (all || node[name].get<std::uint64_t>() != 0)
            numbers[node["id"]] = node[name].get<std::uint64_t>();
    return numbers;
}

TEST_F(ovel_net_test, nets_conserve_tokens_and_come_to_their_known_ends) {
    for (std::string const options :
         {"--threads 1", "--threads 3 --sequential", "--threads 4 --work 50"}) {
        SCOPED_TRACE(options);
        auto const ends = [&](std::string const& net, char const* outcome) {
            json result = run_json(own(net) + " --firings 2000 --seconds 200 " + options);
            EXPECT_EQ(result["outcome"], outcome) << net;
            return result;
        };
        json const philosophers = ends("philosophers.pnml", "dead");
        EXPECT_EQ(column(philosophers["places"], "final").size(), 5U) << "each has a fork";
        json const buffer = ends("bounded_buffer.pnml", "dead");
        EXPECT_EQ(column(buffer["places"], "final"),
                  (counts{{"producers", 2}, {"slots", 4}, {"consumers", 2}, {"consumed", 200}}));

        json const bicycles = ends("bicycles.pnml", "dead");
        EXPECT_EQ(bicycles["net"]["arcs"], 17U) << "the two from the wheels are one";
        EXPECT_EQ(bicycles["threads"].dump(), options.substr(10, 1));
        EXPECT_EQ(bicycles["firings"], 79U);
        EXPECT_EQ(column(bicycles["transitions"], "firings"),
                  (counts{{"cut", 20}, {"weld", 13}, {"lace", 30}, {"assemble", 13}, {"pack", 3}}));
        counts const rest{{"saw", 1},    {"pieces", 3},         {"welders", 2}, {"spokes", 240},
                          {"wheels", 4}, {"bicycles-ready", 1}, {"crates", 2},  {"shipped", 3}};
        EXPECT_EQ(column(bicycles["places"], "final"), rest);
        EXPECT_EQ(column(bicycles["places"], "capacity").at("spokes"), 2 * (1200U + 32U));

        // Firings still under way when the limit was reached don't count.
        json const readers = ends("readers_writers.pnml", "stopped");
        EXPECT_EQ(readers["firings"], 2000U);
        counts left = column(readers["places"], "final", true);
        counts fired = column(readers["transitions"], "firings", true);
        EXPECT_EQ(left["permits"] + left["reading"] + 8 * left["writing"], 8U);
        EXPECT_EQ(fired["begin-read"], fired["end-read"] + left["reading"]);
    }
}

TEST_F(ovel_net_test, a_net_ends_full_when_only_slots_are_missing) {
    json const buffer = run_json(own("bounded_buffer.pnml") + " --capacity 100");
    EXPECT_EQ(buffer["outcome"], "full");
    EXPECT_EQ(buffer["firings"], 416U);

    // A transition without inputs fires as long as there are slots.
    write_net(R"(<place id="heap"/><transition id="source"/>
<arc id="a" source="source" target="heap"><inscription><text>3</text></inscription></arc>)");
    EXPECT_EQ(run("net.pnml --capacity 10"), 0);
    EXPECT_TRUE(contains(out, "\n3 firings in "));
    EXPECT_TRUE(contains(out, "only room was missing"));
    EXPECT_TRUE(contains(out, "Tokens:\n             9  heap\n"));
    EXPECT_TRUE(contains(out, "Full places, by capacity:\n            10  heap\n"));
}

TEST_F(ovel_net_test, a_time_limit_drops_the_firings_that_have_not_begun) {
    // All hundred are dispatched at once, to one thread that needs 10 s for each.
    write_net(
        "<place id='done'/>" +
        repeated(100, R"(<place id='p#'><initialMarking><text>1</text></initialMarking></place>
<transition id='t#'/><arc id='a#' source='p#' target='t#'/><arc id='b#' source='t#' target='done'/>
)"));
    json const result = run_json("net.pnml --threads 1 --work 10000000 --seconds 0.2");
    EXPECT_EQ(result["outcome"], "stopped");
    EXPECT_GE(result["seconds"].get<double>(), 0.15);
    EXPECT_LT(result["seconds"].get<double>(), 5) << "the work of the first is cut short";
    EXPECT_LT(result["firings"].get<double>(), 100U);
    EXPECT_EQ(column(result["places"], "final").at("done"), result["firings"].get<double>());
    EXPECT_EQ(column(result["places"], "final").size(), 101 - result["firings"].get<double>());
}

TEST_F(ovel_net_test, a_sequential_transition_fires_once_at_a_time) {
    write_net(R"(<place id="p"><initialMarking><text>20</text></initialMarking></place>
<transition id="t"/><arc id="a" source="p" target="t"/>)");
    json const result = run_json("net.pnml --threads 4 --sequential --work 10000");
    EXPECT_EQ(result["firings"], 20U);
    EXPECT_GE(result["seconds"].get<double>(), 0.15);
}

TEST_F(ovel_net_test, nets_are_read_across_pages_references_prefixes_and_encodings) {
    write("net.pnml", R"(<?xml version="1.0" encoding="ISO-8859-1"?>
<!DOCTYPE pnml>
<x:pnml xmlns:x="http://www.pnml.org/version-2009/grammar/pnml">
 <x:net id="n" type="http://www.pnml.org/version-2009/grammar/ptnet">
  <x:page id="outer">
   <x:toolspecific tool="t" version="1"><place id="a"/></x:toolspecific>
   <x:arc id="1" source="far" target="t"/>
   <x:page id="inner">
    <x:page id="empty"/>
    <x:referencePlace id="far" ref="near"/>
    <x:referencePlace id="near" ref="a"/>
    <x:referenceTransition id="rt" ref="t"/>
   </x:page>
   <x:place id="a"><x:name><x:text> "caf)"
                      "\xe9"
                      R"(" \ &amp;
     &lt;bar&#27;&#x110000;&gt; </x:text></x:name>
    <x:initialMarking><x:graphics/><x:text> 0<!-- -->7 </x:text></x:initialMarking></x:place>
   <x:place id="b"/>
  </x:page>
  <x:page id="last">
   <x:arc id="2" source="a" target="rt"><x:inscription><x:text>2</x:text></x:inscription></x:arc>
   <x:arc id="3" source="rt" target="b"/>
   <x:transition id="t"/>
   <x:transition id="idle"><x:name><x:text>idle one</x:text></x:name></x:transition>
  </x:page>
 </x:net>
 <x:net id="other" type="of another"/>
</x:pnml>)");
    EXPECT_EQ(run("net.pnml --json --dot drawing"), 0);
    EXPECT_EQ(
        err,
        "ovel-net: net.pnml:26: warning: only the first net of the document is read\n"
        "ovel-net: net.pnml:23: warning: transition \"idle one\" has no arcs and is left out\n");
    json const result = json::parse(out);
    EXPECT_EQ(result["net"]["name"], "n");
    EXPECT_EQ(result["net"]["arcs"], 2U) << "1 and 2 join the same pair";
    EXPECT_EQ(result["places"][0]["name"], "\"caf\xc3\xa9\" \\ & <bar >");
    EXPECT_EQ(column(result["transitions"], "firings", true), (counts{{"t", 2}}));
    EXPECT_EQ(column(result["places"], "final"), (counts{{"a", 1}, {"b", 2}}));

    // The drawing shows names, tokens, firings and weights.
    std::string const drawing = read("drawing");
    EXPECT_TRUE(contains(drawing, "label=\"\\\"caf\xc3\xa9\\\" \\\\ &amp; <bar >\\n1\"]"));
    EXPECT_TRUE(contains(drawing, "label=\"t\\n2\"]"));
    EXPECT_TRUE(contains(drawing, "p0 -> t0 [label=\"3\"];\n  t0 -> p1;\n"));
}

TEST_F(ovel_net_test, an_error_in_a_net_is_one_line_with_its_position_and_writes_nothing) {
    std::pair<std::string, char const*> const faults[] = {
        {net_of("<place id='a'><initialMarking>\n<text>-1</text></initialMarking></place>"),
         "4: initial marking \"-1\" is not a number from 0 to 4294967295"},
        {net_of("<place id='a'><initialMarking><text>2147483648</text></initialMarking></place>"),
         "3: place \"a\" needs room for 4294967296 tokens, beyond 32 bits"},
        {net_of("<place id='a'/><transition id='t'/>\n<arc id='x' source='a' target='t'>\n"
                "<inscription><text>two</text></inscription></arc>"),
         "5: weight \"two\" is not a number from 1 to 4294967295"},
        {net_of(
             "<place id='a'/><transition id='t'/><arc id='x' source='a' target='t'/>\n<arc id='y' "
             "source='a' target='t'><inscription><text>4294967295</text></inscription></arc>"),
         "4: the weights from place \"a\" to transition \"t\" add up to 4294967296, beyond 32 "
         "bits"},
        {net_of("<place id='a'/>\n<place id='b'/>\n<arc id='x' source='a' target='b'/>"),
         "5: arc \"x\" joins two places"},
        {net_of("<place id='a'/><transition id='t'/>\n<arc id='x' source='a' target='t'>"
                "<type value='inhibitor'/></arc>"),
         "4: arc \"x\" is of type \"inhibitor\", not \"normal\""},
        {net_of("<place id='a'/>\n\n<arc id='x' source='a' target='t'/>"),
         "5: arc \"x\" has the unknown target \"t\""},
        {net_of("<arc id='x' source='page' target='page'/>"),
         "3: arc \"x\" has the source \"page\", which is neither a place nor a transition"},
        {net_of("<transition id='t'/>\n<referencePlace id='r' ref='t'/>"),
         "4: referencePlace \"r\" refers to transition \"t\""},
        {net_of("<referencePlace id='r' ref='s'/>\n<referencePlace id='s' ref='r'/>"),
         "3: referencePlace \"r\" leads to no node, only to other references"},
        {net_of("<place id='a'/>\n<transition id='a'/>"), "4: id \"a\" is already taken in line 3"},
        {net_of("\n\n<place id='a'>"), "6: not XML: Start-end tags mismatch"},
        {net_of("<name><text>\n\xff</text></name>"),
         "4: not XML: neither UTF-8 nor declared as Latin-1"},
        {"<pnml/>\n<pnml/>", "2: not XML: a second element beside the document's"},
        {"<!-- -->\n<svg/>", "2: not PNML: the document is a <svg>"},
        {"<pnml>\n</pnml>", "1: no <net> in the document"},
        {"<pnml>\n<net id='n' "
         "type='http://www.pnml.org/version-2009/grammar/symmetricnet'/></pnml>",
         "2: net type \"http://www.pnml.org/version-2009/grammar/symmetricnet\" is not "
         "\"http://www.pnml.org/version-2009/grammar/ptnet\""},
    };
    for (auto const& [text, says] : faults) {
        write("net.pnml", text);
        expect_refused("net.pnml --dot d --svg s --json", 2, std::string("net.pnml:") + says);
        EXPECT_EQ(files(), 3) << "only the net beside the output";
    }
}

TEST_F(ovel_net_test, a_file_that_cannot_be_read_or_written_is_reported_before_the_run) {
    std::string const net = own("readers_writers.pnml");
    std::pair<std::string, char const*> const faults[] = {
        {"none.pnml", "none.pnml:1: cannot be read: No such file or directory"},
        {"..", "..:1: cannot be read: Is a directory"},
        {net + " --dot none/d", "none/d:1: cannot be written: No such file or directory"},
        {net + " --trace none/t", "none/t:1: cannot be written: No such file or directory"},
        {net + " --svg .", ".:1: cannot be written: Is a directory"},
    };
    for (auto const& [arguments, says] : faults) {
        expect_refused(arguments, 2, says);
    }
    expect_refused(net + " --firings 1 --svg s", 2,
                   "s:1: cannot be drawn: Graphviz's dot does not run: No such file or directory",
                   "PATH=/none");
    EXPECT_EQ(files(), 2);
}

TEST_F(ovel_net_test, drawings_replace_their_files_only_when_they_are_whole) {
    // Replaces Graphviz: a program that wraps its input, or fails.
    write("dot",
          "#!/bin/sh\n[ $1 = -V ] && exit\n[ $1 = -Tsvg ] && echo '<svg>' && cat\n"
          "exit `cat result`\n");
    fs::permissions(path("dot"), fs::perms::owner_all);
    write("picture", "before");
    fs::create_symlink("picture", path("link"));
    std::string const arguments = own("bicycles.pnml") + " --svg link --dot drawing";

    write("result", "3");
    EXPECT_EQ(run(arguments, "PATH=.:$PATH"), 2);
    EXPECT_EQ(err, "ovel-net: link:1: cannot be drawn: Graphviz's dot failed\n");
    EXPECT_EQ(read("picture"), "before");
    EXPECT_EQ(files(), 6) << "dot, result, link and picture";

    write("result", "0");
    EXPECT_EQ(run(arguments, "PATH=.:$PATH"), 0) << err;
    EXPECT_TRUE(read("drawing").starts_with("digraph {\n  label=\"bicycle factory\""));
    EXPECT_EQ(read("picture"), "<svg>\n" + read("drawing"));
    EXPECT_EQ(files(), 7) << "dot, result, link, picture and drawing";

    run(own("bicycles.pnml") + " --dot /dev/stdout");
    EXPECT_TRUE(out.starts_with("bicycle factory: "));
    EXPECT_TRUE(out.ends_with('\n' + read("drawing"))) << "a stream is added to, not replaced";
}

TEST_F(ovel_net_test, bad_options_are_one_line_and_status_64) {
    std::pair<char const*, std::string> const faults[] = {
        {"", "no net given"},
        {"a b", "one net at a time, not also \"b\""},
        {"a --fast", "unknown option \"--fast\""},
        {"a --seconds", "--seconds takes a positive number of seconds, not none"},
        {"a --seconds nan", "--seconds takes a positive number of seconds, not \"nan\""},
        {"a --threads=1025", "--threads takes a whole number from 1 to 1024, not \"1025\""},
        {"a --firings -1",
         "--firings takes a whole number from 1 to 4611686018427387904, not \"-1\""},
        {"a --capacity 4294967296",
         "--capacity takes a whole number from 1 to 4294967295, not \"4294967296\""},
        {"a --work 1s", "--work takes a whole number of microseconds up to 4294967295, not \"1s\""},
        {"a --svg ''", "--svg takes a file name, not \"\""},
        {"a --check --report page",
         "--check runs nothing, so there is no run to show or to explain"},
    };
    for (auto const& [arguments, says] : faults) {
        expect_refused(arguments, 64, says + " (see --help)");
    }
    EXPECT_EQ(run("--help"), 0);
    EXPECT_TRUE(out.starts_with("ovel-net NET.pnml"));
}

TEST_F(ovel_net_test, the_generator_prints_philosophers_in_any_number) {
    auto const generate = [&](std::string const& number) {
        std::string const to = " > '" + path("copy").string() + "' 2>&1";
        return std::system(("sh " + own("philosophers.sh") + ' ' + number + to).c_str());
    };
    ASSERT_EQ(generate("5"), 0);
    EXPECT_EQ(read("copy"), content(fs::path(OVEL_NETS) / "philosophers.pnml"));
    ASSERT_EQ(generate("12"), 0);
    EXPECT_EQ(run_json("copy --firings 3")["net"]["places"], 60U);
    EXPECT_NE(generate("one"), 0);
}

}  // namespace
