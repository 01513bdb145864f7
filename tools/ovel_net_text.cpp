// SPDX-License-Identifier: Apache-2.0
#include "ovel_net_text.h"

#include <cstdio>

namespace ovel_net {

std::string grouped(std::uint64_t number) {
    std::string digits = std::to_string(number);
    for (std::size_t at = digits.size(); at > 3;) {
        at -= 3;
        digits.insert(at, 1, ',');
    }
    return digits;
}

std::string counted(std::uint64_t number, std::string const& what) {
    return grouped(number) + ' ' + what + (number == 1 ? "" : "s");
}

std::string decimals(double number, int places) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", places, number);
    return text;
}

std::string right_aligned(std::string const& text, std::size_t width) {
    return std::string(text.size() < width ? width - text.size() : 0, ' ') + text;
}

std::string escaped(std::string_view text) {
    std::string safe;
    for (char const c : text) {
        if (c == '"' || c == '\\')
            safe += '\\';
        safe += c;
    }
    return safe;
}

std::string json_string(std::string_view text) {
    return '"' + escaped(text) + '"';
}

std::string json_net(net const& model) {
    return "\"net\": {\"name\": " + json_string(model.name) +
           ", \"places\": " + std::to_string(model.places.size()) +
           ", \"transitions\": " + std::to_string(model.transitions.size()) +
           ", \"arcs\": " + std::to_string(model.arcs()) + '}';
}

std::string title(net const& model) {
    return model.name + ": " + counted(model.places.size(), "place") + ", " +
           counted(model.transitions.size(), "transition") + ", " + counted(model.arcs(), "arc") +
           '\n';
}

}  // namespace ovel_net
