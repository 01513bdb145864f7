// JSON as programs read it: a parser that takes nothing else.
#ifndef OVEL_JSON_H
#define OVEL_JSON_H

#include <algorithm>
#include <charconv>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

struct json {
    std::map<std::string, json> members;  // of an object
    std::vector<json> items;              // of an array
    std::string text;                     // of a string; or a number or literal as written

    json const& operator[](std::string const& name) const {
        return members.at(name);
    }
    double number() const {
        return std::stod(text);
    }

    // Throws std::invalid_argument with what follows where it is no JSON.
    static json parse(std::string_view text) {
        json value = _value(text);
        _require(text, _next(text) == '\0' && text.empty());
        return value;
    }

private:
    static void _require(std::string_view rest, bool holds) {
        if (!holds)
            throw std::invalid_argument(std::string(rest.substr(0, 80)));
    }
    static char _next(std::string_view& rest) {
        rest.remove_prefix(std::min(rest.find_first_not_of(" \n"), rest.size()));
        return rest.empty() ? '\0' : rest[0];
    }
    static bool _takes(std::string_view& rest, char wanted) {
        bool const there = _next(rest) == wanted;
        if (there)
            rest.remove_prefix(1);
        return there;
    }
    static std::string _string(std::string_view& rest) {
        std::string text;
        _require(rest, _takes(rest, '"'));
        while (!rest.starts_with('"')) {
            rest.remove_prefix(rest.starts_with("\\\"") || rest.starts_with("\\\\") ? 1 : 0);
            _require(rest, !rest.empty() && static_cast<unsigned char>(rest[0]) >= ' ');
            text += rest[0];
            rest.remove_prefix(1);
        }
        rest.remove_prefix(1);
        return text;
    }
    static json _value(std::string_view& rest) {
        json value;
        char const first = _next(rest);
        if (first == '{' || first == '[') {
            char const end = first == '{' ? '}' : ']';
            rest.remove_prefix(1);
            if (_takes(rest, end))
                return value;
            do {
                if (first == '[') {
                    value.items.push_back(_value(rest));
                    continue;
                }
                std::string const name = _string(rest);
                _require(rest, _takes(rest, ':'));
                _require(rest, value.members.emplace(name, _value(rest)).second);
            } while (_takes(rest, ','));
            _require(rest, _takes(rest, end));
        } else if (first == '"') {
            value.text = _string(rest);
        } else {
            value.text = rest.substr(0, rest.find_first_of(",]} \n"));
            double number = 0;
            char const* const end = value.text.data() + value.text.size();
            _require(rest, value.text == "true" || value.text == "false" || value.text == "null" ||
                               std::from_chars(value.text.data(), end, number).ptr == end);
            rest.remove_prefix(value.text.size());
        }
        return value;
    }
};

#endif
