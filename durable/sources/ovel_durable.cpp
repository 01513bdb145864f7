// SPDX-License-Identifier: Apache-2.0
// Connects to a store by its URL, and describes the nets in it as text.
#include "ovel_durable_store.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace ovel::durable::detail {

namespace {

std::string counted(std::uint64_t number, std::string const& what) {
    return std::to_string(number) + ' ' + what + (number == 1 ? "" : "s");
}

std::string seconds(double number) {
    char digits[64];
    std::snprintf(digits, sizeof digits, "%.1f s", number);
    return digits;
}

}  // namespace

connector connect_to(std::string const& url) {
    static constexpr char file[] = "sqlite:";
    if (url.starts_with(file) && url != file)
        return [name = url.substr(sizeof file - 1)] {
            return connect_sqlite(name);
        };
    if (url.starts_with("postgresql://") || url.starts_with("postgres://"))
        return [url] {
            return connect_postgresql(url);
        };
    throw error("a store is sqlite:FILE or postgresql://..., not \"" + url + '"');
}

std::vector<std::string> nets_of(connector const& connect) {
    return connect()->nets();
}

state state_of(connector const& connect, std::string const& net) {
    return connect()->look(net);
}

bool repeats_values(connector const& connect, std::string const& net) {
    return connect()->repeats(net);
}

std::string explanation(state const& seen) {
    std::string text = seen.name + ": " + counted(seen.places.size(), "place") + ", " +
                       counted(seen.transitions.size(), "transition") + ", " +
                       counted(seen.members.size(), "live member") + '\n';
    if (!seen.failure.empty())
        text += "\nFailed: " + seen.failure + '\n';

    text += "\nPlaces:\n";
    for (place_state const& each : seen.places) {
        text += "  " + each.name + ": " + counted(each.tokens, "token") + " of " +
                std::to_string(each.capacity);
        if (each.claimed != 0)
            text += ", " + std::to_string(each.claimed) + " claimed";
        if (std::uint64_t const awaited = each.capacity - each.tokens - each.free; awaited != 0)
            text += ", " + counted(awaited, "slot") + " reserved";
        text += '\n';
    }
    text += "\nTransitions:\n";
    for (transition_state const& each : seen.transitions)
        text += "  " + each.name + ": " + counted(each.fired, "firing") +
                (each.enabled ? ", enabled" : "") + (each.runs ? "" : ", no member runs it") + '\n';
    text += seen.claims.empty() ? "\nNo claim is open.\n" : "\nOpen claims:\n";
    for (claim_state const& each : seen.claims)
        text += "  " + counted(each.firings, "firing") + " of " + each.transition + " by " +
                (each.member.empty() ? "nobody" : each.member) + ", " +
                (each.lease < 0 || each.member.empty() ? "to be taken over"
                                                       : "leased for " + seconds(each.lease)) +
                '\n';
    if (!seen.members.empty()) {
        text += "\nMembers:\n";
        for (std::string const& each : seen.members)
            text += "  " + each + '\n';
    }
    return text;
}

}  // namespace ovel::durable::detail
