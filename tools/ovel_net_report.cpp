// SPDX-License-Identifier: Apache-2.0
#include "ovel_net_report.h"
#include "ovel_net_text.h"

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <string_view>
#include <vector>

namespace ovel_net {

namespace {

// Why a transition is not enabled: what one of its arcs lacks.
struct lack {
    bool tokens;  // otherwise slots
    arc const& end;
    unsigned int there;  // tokens, or free slots

    unsigned int missing() const {
        return end.weight - there;
    }
    std::string what() const {
        return tokens ? "token" : "slot";
    }
};

std::vector<lack> lacks_of(transition const& which, result const& made) {
    std::vector<lack> lacks;
    for (arc const& input : which.inputs)
        if (made.marking[input.place] < input.weight)
            lacks.push_back({true, input, made.marking[input.place]});
    for (arc const& output : which.outputs)
        if (made.refuses(output))
            lacks.push_back(
                {false, output, made.capacities[output.place] - made.marking[output.place]});
    return lacks;
}

std::string explanation(net const& model, result const& made) {
    std::string text = "\nWhat each transition waits for:\n";
    for (transition const& each : model.transitions) {
        std::vector<lack> const lacks = lacks_of(each, made);
        text += "  " + full_name(each) + (lacks.empty() ? ": nothing, it is enabled\n" : "\n");
        for (lack const& lacking : lacks)
            text += "      " + counted(lacking.missing(), lacking.what()) + " in " +
                    full_name(model.places[lacking.end.place]) + ": it has " +
                    grouped(lacking.there) + " of " + grouped(lacking.end.weight) + '\n';
    }
    return text;
}

std::string json_lacks(net const& model, std::vector<lack> const& lacks) {
    std::string text = ", \"missing\": [";
    for (lack const& each : lacks)
        text += std::string(&each == &lacks.front() ? "" : ", ") +
                "{\"place\": " + json_string(model.places[each.end.place].id) + ", \"" +
                each.what() + "s\": " + std::to_string(each.missing()) + '}';
    return text + ']';
}

// Escapes text for a label. Graphviz would read an ampersand as the start of an entity.
std::string label(std::string_view text) {
    std::string safe;
    for (char const c : escaped(text)) {
        safe += c;
        if (c == '&')
            safe += "amp;";
    }
    return safe;
}

}  // namespace

std::vector<bool> full_places(net const& model, result const& made) {
    std::vector<bool> full(model.places.size(), false);
    for (transition const& each : model.transitions)
        for (arc const& output : each.outputs)
            if (made.refuses(output))
                full[output.place] = true;
    return full;
}

std::string report(net const& model, result const& made, bool explain) {
    std::uint64_t const fired = made.total_firings();
    std::string text = title(model);
    std::uint64_t const own = made.own.value_or(fired);
    text += counted(fired, "firing");
    if (made.own)
        text += " of all members ever, " + grouped(own) + " of this one";
    text += " in " + decimals(made.seconds, 3) + " s on " + counted(made.threads, "thread");
    if (made.seconds > 0)
        text += ", " +
                grouped(static_cast<std::uint64_t>(static_cast<double>(own) / made.seconds)) +
                " a second";
    text += '\n';

    constexpr std::size_t shown = 10;
    std::vector<std::size_t> order(model.transitions.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::stable_sort(order.begin(), order.end(), [&](std::size_t left, std::size_t right) {
        return made.firings[left] > made.firings[right];
    });
    order.resize(std::min(order.size(), shown));
    if (fired != 0)
        text += "\nFired most:\n";
    for (std::size_t const i : order)
        if (made.firings[i] != 0)
            text += row(made.firings[i], model.transitions[i]);

    switch (made.end) {
        case outcome::dead:
            text +=
                "\nCame to rest in a dead marking: no transition would be enabled even with "
                "unlimited room.\n";
            break;
        case outcome::full:
            text += "\nCame to rest because only room was missing: places are full.\n";
            break;
        case outcome::stopped:
            text += "\nStopped before it rested: transitions are still enabled.\n";
            break;
    }

    bool const empty = std::all_of(made.marking.begin(), made.marking.end(),
                                   [](unsigned int tokens) { return tokens == 0; });
    text += empty ? "\nNo tokens are left.\n" : "\nTokens:\n";
    for (std::size_t i = 0; i < model.places.size(); ++i)
        if (made.marking[i] != 0)
            text += row(made.marking[i], model.places[i]);
    std::vector<bool> const full = full_places(model, made);
    if (std::find(full.begin(), full.end(), true) != full.end())
        text += "\nFull places, by capacity:\n";
    for (std::size_t i = 0; i < model.places.size(); ++i)
        if (full[i])
            text += row(made.capacities[i], model.places[i]);
    if (explain)
        text += explanation(model, made);
    return text;
}

std::string json(net const& model, result const& made, bool explain) {
    std::string text = "{\n  " + json_net(model) + ",\n";
    text += "  \"threads\": " + std::to_string(made.threads) + ",\n";
    text += "  \"firings\": " + std::to_string(made.total_firings()) + ",\n";
    text += "  \"seconds\": " + decimals(made.seconds, 6) + ",\n";
    text += std::string("  \"outcome\": \"") + name_of(made.end) + "\",\n";

    auto const open = [&](auto const& node, std::size_t i) {
        text += (i == 0 ? "\n" : ",\n");
        text += "    {\"id\": " + json_string(node.id) + ", \"name\": " + json_string(node.name);
    };
    text += "  \"places\": [";
    for (std::size_t i = 0; i < model.places.size(); ++i) {
        open(model.places[i], i);
        text += ", \"capacity\": " + std::to_string(made.capacities[i]) +
                ", \"initial\": " + std::to_string(model.places[i].initial) +
                ", \"final\": " + std::to_string(made.marking[i]) + '}';
    }
    text += "\n  ],\n  \"transitions\": [";
    for (std::size_t i = 0; i < model.transitions.size(); ++i) {
        open(model.transitions[i], i);
        text += ", \"firings\": " + std::to_string(made.firings[i]);
        if (explain)
            text += json_lacks(model, lacks_of(model.transitions[i], made));
        text += '}';
    }
    text += "\n  ]\n}\n";
    return text;
}

// Places are circles with their tokens, yellow if they have any and red if they are full.
// Transitions are boxes with their firings, grey if they have none.
std::string drawing(net const& model, result const& made) {
    // A layered drawing shows the flow, but takes minutes for a large net. nslimit bounds
    // the search for smaller ones.
    constexpr std::size_t most_in_layers = 400;
    char const* const layout =
        model.arcs() <= most_in_layers ? "nslimit=2" : "layout=sfdp; overlap=prism";
    std::vector<bool> const full = full_places(model, made);
    std::string text = "digraph {\n  label=\"" + label(model.name) + "\"; labelloc=t; " + layout +
                       ";\n  node [fontname=\"sans-serif\", style=filled];\n";
    for (std::size_t i = 0; i < model.places.size(); ++i)
        text += "  p" + std::to_string(i) + " [shape=ellipse, fillcolor=\"" +
                (full[i]                ? "salmon"
                 : made.marking[i] != 0 ? "khaki"
                                        : "white") +
                "\", label=\"" + label(model.places[i].name) + "\\n" + grouped(made.marking[i]) +
                "\"];\n";
    for (std::size_t i = 0; i < model.transitions.size(); ++i)
        text += "  t" + std::to_string(i) + " [shape=box, fillcolor=\"" +
                (made.firings[i] != 0 ? "lightblue" : "lightgrey") + "\", label=\"" +
                label(model.transitions[i].name) + "\\n" + grouped(made.firings[i]) + "\"];\n";

    auto const edge = [&](std::string const& from, std::string const& to, unsigned int weight) {
        text += "  " + from + " -> " + to;
        if (weight > 1)
            text += " [label=\"" + std::to_string(weight) + "\"]";
        text += ";\n";
    };
    for (std::size_t i = 0; i < model.transitions.size(); ++i) {
        std::string const middle = 't' + std::to_string(i);
        for (arc const& each : model.transitions[i].inputs)
            edge('p' + std::to_string(each.place), middle, each.weight);
        for (arc const& each : model.transitions[i].outputs)
            edge(middle, 'p' + std::to_string(each.place), each.weight);
    }
    return text + "}\n";
}

}  // namespace ovel_net
