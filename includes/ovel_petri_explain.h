// SPDX-License-Identifier: Apache-2.0
// What `net::explain` of `ovel_petri.h`, which includes it, returns.
#ifndef OVEL_PETRI_EXPLAIN_H
#define OVEL_PETRI_EXPLAIN_H

#include <cstddef>
#include <string>
#include <vector>

namespace ovel {

// The state of a net at one moment: what its places hold, and what keeps each transition from
// firing. It is a plain value, which the net does not change any more.
//
//     std::fputs(net.explain().text().c_str(), stderr);
struct explanation {
    // A place, with numbers of tokens.
    struct place_state {
        std::string name;       // given when it was inserted
        unsigned int tokens;    // that no firing takes
        unsigned int taken;     // reserved by firings that take them
        unsigned int expected;  // slots reserved by firings that fill them
        unsigned int capacity;  // tokens and free slots together
        bool closed;            // accepts no more tokens
        bool ended;             // closed, and its last token has left
        unsigned int readers;   // firings that read: one of `tokens` can't be taken meanwhile
    };

    // An arc of a transition. One of `unless` needs as many slots as its place has.
    struct arc_state {
        std::size_t place;       // the index in `places`
        bool input;              // whether it takes tokens, or puts them
        unsigned int needed;     // tokens, or slots
        unsigned int available;  // tokens, or slots, that no firing has reserved, but to read
        bool closed;             // whether it puts into a closed place
        bool inhibits;           // whether it is one of `unless`
        bool reads;              // whether it is one of `reads`

        // Whether this arc keeps the transition from firing.
        bool lacks() const {
            return available < needed || closed;
        }
    };

    // A transition.
    struct transition_state {
        std::string name;             // given when it was inserted
        bool active;                  // whether it may fire, as `activate` has it
        bool ended;                   // whether it never fires again, since its places have ended
        bool flushes;                 // whether all that is left is its body's call at the end
        bool waits;                   // whether it is enabled, and its delay runs
        bool at_limit;                // whether no more of its firings may run at once
        unsigned int firings;         // reserved or running
        std::vector<arc_state> arcs;  // in the order of `from`, `to`, `unless`; if it flushes, `to`
    };

    bool running = false;  // the net was started, and has not been stopped since
    bool halted = false;   // it was halted or has failed: nothing fires until its next start
    std::vector<place_state> places;            // in the order of insertion
    std::vector<transition_state> transitions;  // in the order of insertion

    // A line for each place and each transition, behind one that tells if nothing fires at all.
    inline std::string text() const;

    // A drawing in the language of Graphviz: what keeps a transition from firing is red.
    inline std::string dot() const;

private:
    bool _fires() const {
        return running && !halted;
    }
    static std::string _quoted(std::string const& name) {
        std::string made = "\"";
        for (char const letter : name) {
            if (letter == '"' || letter == '\\')
                made += '\\';
            made += letter;
        }
        return made += '"';
    }
    static std::string _number(unsigned int number, char const* one, char const* many) {
        return std::to_string(number) + (number == 1 ? one : many);
    }
};

inline std::string explanation::text() const {
    std::string made = _fires() ? "" : "no transition fires until the next start\n";
    for (place_state const& each : places) {
        made += "place " + each.name + ": " +
                _number(each.tokens + each.taken, " token of ", " tokens of ") +
                std::to_string(each.capacity);
        if (each.taken != 0)
            made += ", " + std::to_string(each.taken) + " taken by firings";
        if (each.expected != 0)
            made += ", " + std::to_string(each.expected) + " expected from firings";
        if (each.readers != 0)
            made += ", read by " + _number(each.readers, " firing", " firings");
        made += each.ended ? ", ended\n" : each.closed ? ", closed\n" : "\n";
    }
    for (transition_state const& each : transitions) {
        made += "transition " + each.name + ": ";
        if (each.firings != 0)
            made += _number(each.firings, " firing, ", " firings, ");
        if (each.ended) {
            made += "ended\n";
            continue;
        }
        if (!each.active)
            made += "not active, ";
        if (each.flushes)
            made += "at its end, ";
        std::string lacking;
        for (arc_state const& arc : each.arcs)
            if (arc.lacks()) {
                lacking += lacking.empty() ? "lacks " : " and ";
                unsigned int const lacks = arc.needed - arc.available;
                lacking += arc.inhibits ? std::string("an empty ")
                           : arc.input  ? _number(lacks, " token of ", " tokens of ")
                           : arc.closed ? std::string("an open ")
                                        : _number(lacks, " slot of ", " slots of ");
                lacking += places[arc.place].name;
            }
        if (lacking.empty())
            lacking = each.waits      ? "waits for its delay"
                      : each.at_limit ? "as many as may run at once"
                                      : "lacks nothing";
        made += lacking + '\n';
    }
    return made;
}

inline std::string explanation::dot() const {
    std::string made = "digraph net {\n";
    for (std::size_t i = 0; i != places.size(); ++i)
        made += "    p" + std::to_string(i) + " [shape=ellipse, label=" +
                _quoted(places[i].name + " " + std::to_string(places[i].tokens + places[i].taken) +
                        "/" + std::to_string(places[i].capacity)) +
                (places[i].closed ? ", style=dashed];\n" : "];\n");
    for (std::size_t i = 0; i != transitions.size(); ++i) {
        transition_state const& each = transitions[i];
        std::string const name = "t" + std::to_string(i);
        made += "    " + name + " [shape=box, label=" + _quoted(each.name) +
                (each.ended || !each.active || !_fires() ? ", style=dashed];\n" : "];\n");
        for (arc_state const& arc : each.arcs) {
            std::string const place = "p" + std::to_string(arc.place);
            made += "    " +
                    (arc.input || arc.inhibits ? place + " -> " + name : name + " -> " + place);
            made += " [arrowhead=";
            made += arc.inhibits ? "odot" : arc.reads ? "none" : "normal";
            made += ", label=\"";
            made += arc.needed == 1 || arc.inhibits ? std::string() : std::to_string(arc.needed);
            made += arc.lacks() && !each.ended ? "\", color=red];\n" : "\"];\n";
        }
    }
    return made + "}\n";
}

}  // namespace ovel

#endif
