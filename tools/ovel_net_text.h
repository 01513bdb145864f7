// SPDX-License-Identifier: Apache-2.0
// How all outputs of the program write numbers and names.
#ifndef OVEL_NET_TEXT_H
#define OVEL_NET_TEXT_H

#include "ovel_net_model.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace ovel_net {

// 1234567 as "1,234,567".
std::string grouped(std::uint64_t number);

// As "1 place" or "2 places".
std::string counted(std::uint64_t number, std::string const& what);

std::string decimals(double number, int places);

// `text`, padded on the left to `width`.
std::string right_aligned(std::string const& text, std::size_t width);

// `text` with a backslash before each quotation mark and backslash.
std::string escaped(std::string_view text);

// A JSON string. The reader has already replaced control characters.
std::string json_string(std::string_view text);

// The member "net" of each JSON object that the program prints.
std::string json_net(net const& model);

// The first line of each report.
std::string title(net const& model);

// The name of a place or transition, followed by its id if that differs.
template <class Node>
std::string full_name(Node const& node) {
    return node.name + (node.name == node.id ? "" : " (" + node.id + ')');
}

// A row of a report's tables: the count before the node's name.
template <class Node>
std::string row(std::uint64_t number, Node const& node) {
    return right_aligned(grouped(number), 14) + "  " + full_name(node) + '\n';
}

}  // namespace ovel_net

#endif
