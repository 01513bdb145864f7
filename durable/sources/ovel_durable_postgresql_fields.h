// SPDX-License-Identifier: Apache-2.0
// Parameters and fields of PostgreSQL, in its binary form.
#ifndef OVEL_DURABLE_POSTGRESQL_FIELDS_H
#define OVEL_DURABLE_POSTGRESQL_FIELDS_H

#include "ovel_durable_sql.h"

#include <libpq-fe.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace ovel::durable::detail {

// Fields are in the binary form of PostgreSQL: numbers with the highest byte first.
enum type : Oid {
    binary = 17,
    integer_8 = 20,
    integer_4 = 23,
    characters = 25,
    floating_8 = 701,
    binaries = 1001,
    integers_8 = 1016
};

template <class Number>
void write(std::string& to, Number number) {
    for (int shift = 8 * static_cast<int>(sizeof number) - 8; shift >= 0; shift -= 8)
        to += static_cast<char>(static_cast<std::uint64_t>(number) >> shift);
}

// Reads a field, or what is left of one.
class reader {
public:
    reader(char const* from, std::size_t size) : _from(from), _left(size) {}

    template <class Number>
    Number number() {
        std::uint64_t made = 0;
        for (char const each : bytes(sizeof(Number)))
            made = made << 8 | static_cast<unsigned char>(each);
        return static_cast<Number>(made);
    }
    std::string bytes(std::size_t size) {
        if (size > _left)
            throw error("the store sent what is no field");
        std::string made(_from, size);
        _from += size;
        _left -= size;
        return made;
    }

    // An array of one dimension, by what reads an element of a size.
    template <class Element>
    auto array(Element const& element) {
        std::vector<decltype(element(std::size_t{0}))> made;
        auto const dimensions = number<std::int32_t>();
        bytes(8);  // whether there are nulls, and the type
        if (dimensions == 0)
            return made;
        auto const size = number<std::int32_t>();
        bytes(4);  // the first index
        for (std::int32_t i = 0; i < size; ++i)
            made.push_back(element(static_cast<std::size_t>(number<std::int32_t>())));
        return made;
    }

private:
    char const* _from;
    std::size_t _left;
};

template <class Elements, class Write>
std::string array_of(Elements const& elements, type of, Write const& write_element) {
    std::string made;
    write<std::int32_t>(made, elements.empty() ? 0 : 1);
    write<std::int32_t>(made, 0);
    write<std::int32_t>(made, static_cast<std::int32_t>(of));
    if (!elements.empty()) {
        write<std::int32_t>(made, static_cast<std::int32_t>(elements.size()));
        write<std::int32_t>(made, 1);
    }
    for (auto const& each : elements)
        write_element(made, each);
    return made;
}

// Parameters as they are sent.
class parameters {
public:
    explicit parameters(row const& from) {
        _held.reserve(from.size());
        for (value const& each : from)
            std::visit([this](auto const& is) { _add(is); }, each);
        for (std::string const& each : _held) {
            values.push_back(each.data());
            lengths.push_back(static_cast<int>(each.size()));
            formats.push_back(1);
        }
    }

    std::vector<Oid> types;
    std::vector<char const*> values;
    std::vector<int> lengths;
    std::vector<int> formats;

private:
    void _add(type of, std::string bytes) {
        types.push_back(of);
        _held.push_back(std::move(bytes));
    }
    void _add(std::monostate) {
        throw error("a parameter without a value");
    }
    void _add(std::int64_t number) {
        std::string bytes;
        write(bytes, number);
        _add(integer_8, bytes);
    }
    void _add(double number) {
        std::string bytes;
        write(bytes, std::bit_cast<std::int64_t>(number));
        _add(floating_8, bytes);
    }
    void _add(std::string const& text) {
        _add(characters, text);
    }
    void _add(blob const& bytes) {
        _add(binary, bytes.bytes);
    }
    void _add(std::string const* bytes) {
        _add(binary, *bytes);
    }
    void _add(std::vector<std::int64_t> const& numbers) {
        _add(integers_8, array_of(numbers, integer_8, [](std::string& to, std::int64_t number) {
                 write<std::int32_t>(to, 8);
                 write(to, number);
             }));
    }
    void _add(std::vector<blob> const& blobs) {
        _add(binaries, array_of(blobs, binary, [](std::string& to, blob const& each) {
                 write<std::int32_t>(to, static_cast<std::int32_t>(each.bytes.size()));
                 to += each.bytes;
             }));
    }

    std::vector<std::string> _held;
};

inline value field(PGresult* from, int row_number, int column) {
    if (PQgetisnull(from, row_number, column) != 0)
        return {};
    reader read(PQgetvalue(from, row_number, column),
                static_cast<std::size_t>(PQgetlength(from, row_number, column)));
    auto const size = static_cast<std::size_t>(PQgetlength(from, row_number, column));
    switch (PQftype(from, column)) {
        case integer_8:
            return read.number<std::int64_t>();
        case integer_4:
            return std::int64_t{read.number<std::int32_t>()};
        case floating_8:
            return std::bit_cast<double>(read.number<std::int64_t>());
        case binary:
            return blob{read.bytes(size)};
        case integers_8:
            return read.array([&](std::size_t) { return read.number<std::int64_t>(); });
        case binaries:
            return read.array([&](std::size_t length) { return blob{read.bytes(length)}; });
        default:
            return read.bytes(size);
    }
}

}  // namespace ovel::durable::detail

#endif
