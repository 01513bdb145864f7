// SPDX-License-Identifier: Apache-2.0
// The reader walks through the document twice: first through the nodes on all pages,
// which may contain forward references, then through the arcs. It counts lines only for a
// message, from the offset that the XML parser stores for each element.
#include "ovel_net_pnml.h"
#include "ovel_net_failure.h"

#include <pugixml.hpp>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace ovel_net {

namespace {

using pugi::xml_node;

constexpr char place_transition_net[] = "http://www.pnml.org/version-2009/grammar/ptnet";
constexpr std::uint64_t largest = std::numeric_limits<unsigned int>::max();

// The element's name without a namespace prefix.
std::string_view kind_of(xml_node node) {
    std::string_view const name = node.name();
    return name.substr(name.find(':') + 1);
}

bool is_reference(xml_node node) {
    return kind_of(node) == "referencePlace" || kind_of(node) == "referenceTransition";
}

// "place" or "transition" for nodes of the net and references to them, otherwise empty.
std::string_view stands_for(xml_node node) {
    std::string_view const kind = kind_of(node);
    return kind == "place" || kind == "referencePlace"             ? "place"
           : kind == "transition" || kind == "referenceTransition" ? "transition"
                                                                   : "";
}

xml_node child(xml_node parent, std::string_view kind) {
    return parent.find_child([&](xml_node node) { return kind_of(node) == kind; });
}

// The length in bytes of the UTF-8 character that `text` begins with. 0 if it begins with
// none, or with a control character that XML excludes. The narrowed second byte excludes
// surrogates and overlong forms, which pass the lead byte's test.
std::size_t character_length(std::string_view text) {
    auto const byte = [&](std::size_t i) {
        return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
    };
    unsigned int const lead = byte(0);
    std::size_t const length = lead < 0x80 ? 1 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
    if (length == 1 ? lead < ' ' && lead != '\t' && lead != '\n' && lead != '\r'
                    : lead < 0xc2 || lead > 0xf4)
        return 0;
    unsigned int const low = lead == 0xe0 ? 0xa0 : lead == 0xf0 ? 0x90 : 0x80;
    unsigned int const high = lead == 0xed ? 0x9f : lead == 0xf4 ? 0x8f : 0xbf;
    if (length > 1 && (byte(1) < low || byte(1) > high))
        return 0;
    if ((length > 2 && (byte(2) & 0xc0) != 0x80) || (length > 3 && (byte(3) & 0xc0) != 0x80))
        return 0;
    return length;
}

// The position of the first invalid character; the size of `text` if there is none.
std::size_t valid_length(std::string_view text) {
    std::size_t at = 0;
    while (at < text.size()) {
        std::size_t const length = character_length(text.substr(at));
        if (length == 0)
            break;
        at += length;
    }
    return at;
}

// The words of the text, separated by single spaces. Control characters and invalid
// characters, which character references can contain, separate words like white space. So
// a name never breaks a line of output or controls a terminal.
std::string words(std::string_view text) {
    std::string joined;
    bool gap = false;
    while (!text.empty()) {
        std::size_t const length = character_length(text);
        std::string_view const character = text.substr(0, std::max<std::size_t>(length, 1));
        text.remove_prefix(character.size());
        bool const printing = length != 0 && character > " " && character != "\x7f" &&
                              !(character >= "\xc2\x80" && character <= "\xc2\x9f");
        if (printing && gap && !joined.empty())
            joined += ' ';
        if (printing)
            joined += character;
        gap = !printing;
    }
    return joined;
}

std::string quoted(std::string const& text) {
    return '"' + text + '"';
}

// The content of a label's <text>: `<name><text>idle</text></name>`. Comments and CDATA
// sections may split it.
std::string label(xml_node label) {
    std::string whole;
    for (xml_node const part : child(label, "text").children())
        whole += part.value();
    return words(whole);
}

std::string attribute(xml_node node, char const* name) {
    return words(node.attribute(name).value());
}

// The element as messages name it: `arc "a1"`.
std::string title(xml_node node) {
    return std::string(kind_of(node)) + ' ' + quoted(attribute(node, "id"));
}

std::string name_or_id(xml_node node) {
    std::string name = label(child(node, "name"));
    return name.empty() ? attribute(node, "id") : name;
}

std::string utf8_of_latin1(std::string_view text) {
    std::string converted;
    for (char const c : text) {
        auto const code = static_cast<unsigned char>(c);
        if (code < 0x80) {
            converted += c;
        } else {
            converted += static_cast<char>(0xc0 | code >> 6);
            converted += static_cast<char>(0x80 | (code & 0x3f));
        }
    }
    return converted;
}

class reader {
public:
    reader(std::string const& file, std::ostream& warnings) : _file(file), _warnings(warnings) {}

    net read();

private:
    // What an id refers to. Places and transitions are given by their index in the net.
    struct entry {
        xml_node node;
        std::size_t index = 0;
    };

    std::string _content() const;
    xml_node _parse();
    void _take_node(xml_node node);
    void _take_arc(xml_node node);
    entry& _enter(xml_node node);
    entry const& _find(xml_node from, char const* reference) const;
    entry const& _resolve(xml_node from, char const* reference) const;
    unsigned int _number(xml_node label, char const* what, unsigned int least) const;
    void _size_places();
    void _leave_out_unconnected();

    unsigned int _line(std::size_t offset) const;
    unsigned int _line(xml_node node) const;
    [[noreturn]] void _fail(xml_node node, std::string const& what) const;
    void _warn(xml_node node, std::string const& what) const;

    std::string const& _file;
    std::ostream& _warnings;
    std::string _text;  // UTF-8; the offsets in `_document` refer to it
    pugi::xml_document _document;
    net _net;
    std::unordered_map<std::string, entry> _ids;
    std::vector<xml_node> _place_nodes;       // of `_net.places`, by index
    std::vector<xml_node> _transition_nodes;  // of `_net.transitions`, by index
    std::vector<xml_node> _reference_nodes;
    std::vector<xml_node> _arc_nodes;
};

net reader::read() {
    xml_node const root = _parse();
    _enter(root);
    _net.name = name_or_id(root);

    // In document order, through pages nested to any depth.
    xml_node node = root.first_child();
    while (node) {
        _take_node(node);
        if (kind_of(node) == "page" && node.first_child()) {
            node = node.first_child();
            continue;
        }
        while (node != root && !node.next_sibling())
            node = node.parent();
        node = node == root ? xml_node() : node.next_sibling();
    }

    for (xml_node const each : _reference_nodes)
        _resolve(each, "ref");
    for (xml_node const each : _arc_nodes)
        _take_arc(each);
    _size_places();
    _leave_out_unconnected();
    return std::move(_net);
}

std::string reader::_content() const {
    errno = 0;
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> const in(std::fopen(_file.c_str(), "rb"),
                                                             &std::fclose);
    std::string content;
    char buffer[65536];
    while (in != nullptr && !std::feof(in.get()) && !std::ferror(in.get()))
        content.append(buffer, std::fread(buffer, 1, sizeof buffer, in.get()));
    if (in == nullptr || std::ferror(in.get()))
        throw bad_file(_file, 1, std::string("cannot be read: ") + std::strerror(errno));
    return content;
}

// The document's first net. The parser tolerates content around the document's root
// element, so fragments get this far and are rejected here.
xml_node reader::_parse() {
    constexpr unsigned int flags = pugi::parse_default | pugi::parse_fragment;
    _text = _content();
    pugi::xml_parse_result result = _document.load_buffer(_text.data(), _text.size(), flags);
    if (result.encoding == pugi::encoding_latin1) {
        _text = utf8_of_latin1(_text);
        result = _document.load_buffer(_text.data(), _text.size(), flags, pugi::encoding_utf8);
    }
    std::size_t const valid = valid_length(_text);
    if (valid != _text.size())
        throw bad_file(_file, _line(valid), "not XML: neither UTF-8 nor declared as Latin-1");
    if (!result)
        throw bad_file(_file, _line(static_cast<std::size_t>(result.offset)),
                       std::string("not XML: ") + result.description());

    xml_node root;
    for (xml_node const node : _document.children()) {
        if (node.type() != pugi::node_element)
            _fail(node, "not XML: text outside the document's element");
        if (root)
            _fail(node, "not XML: a second element beside the document's");
        root = node;
    }
    if (!root)
        throw bad_file(_file, 1, "not XML: no element");
    if (kind_of(root) != "pnml")
        _fail(root, "not PNML: the document is a <" + words(root.name()) + '>');

    xml_node const first = child(root, "net");
    if (!first)
        _fail(root, "no <net> in the document");
    std::string const type = attribute(first, "type");
    if (type != place_transition_net)
        _fail(first, "net type " + quoted(type) + " is not " + quoted(place_transition_net));
    for (xml_node const node : root.children())
        if (kind_of(node) == "net" && node != first)
            _warn(node, "only the first net of the document is read");
    return first;
}

void reader::_take_node(xml_node node) {
    std::string_view const kind = kind_of(node);
    if (kind == "place") {
        _enter(node).index = _net.places.size();
        place& taken = _net.places.emplace_back();
        taken.id = attribute(node, "id");
        taken.name = name_or_id(node);
        if (xml_node const marking = child(node, "initialMarking"))
            taken.initial = _number(marking, "initial marking", 0);
        _place_nodes.push_back(node);
    } else if (kind == "transition") {
        _enter(node).index = _net.transitions.size();
        transition& taken = _net.transitions.emplace_back();
        taken.id = attribute(node, "id");
        taken.name = name_or_id(node);
        _transition_nodes.push_back(node);
    } else if (kind == "arc") {
        _enter(node);
        _arc_nodes.push_back(node);
    } else if (is_reference(node)) {
        _enter(node);
        _reference_nodes.push_back(node);
    } else if (kind == "page") {
        _enter(node);
    }
}

void reader::_take_arc(xml_node node) {
    entry const& source = _resolve(node, "source");
    entry const& target = _resolve(node, "target");
    std::string_view const from = kind_of(source.node);
    if (from == kind_of(target.node))
        _fail(node, title(node) + " joins two " + std::string(from) + 's');
    // Several tools write these types for arcs with other meanings than the net's.
    for (std::string const& type :
         {attribute(node, "type"), attribute(child(node, "type"), "value"),
          label(child(node, "arctype"))})
        if (!type.empty() && type != "normal")
            _fail(node, title(node) + " is of type " + quoted(type) + ", not \"normal\"");
    xml_node const inscription = child(node, "inscription");
    std::uint64_t const weight = inscription ? _number(inscription, "weight", 1) : 1;

    bool const input = from == "place";
    transition& joined = _net.transitions[(input ? target : source).index];
    std::size_t const place = (input ? source : target).index;
    std::vector<arc>& arcs = input ? joined.inputs : joined.outputs;
    auto const known = std::find_if(arcs.begin(), arcs.end(),
                                    [&](arc const& each) { return each.place == place; });
    if (known == arcs.end())
        arcs.push_back({place, static_cast<unsigned int>(weight)});
    else if (known->weight + weight > largest)
        _fail(node, "the weights from " + title(source.node) + " to " + title(target.node) +
                        " add up to " + std::to_string(known->weight + weight) +
                        ", beyond 32 bits");
    else
        known->weight += static_cast<unsigned int>(weight);
}

// Registers the node under its id, which must be unique in the whole document.
reader::entry& reader::_enter(xml_node node) {
    std::string const id = attribute(node, "id");
    if (id.empty())
        _fail(node, '<' + std::string(kind_of(node)) + "> without an id");
    auto const [at, fresh] = _ids.try_emplace(id, entry{node});
    if (!fresh)
        _fail(node, "id " + quoted(id) + " is already taken in line " +
                        std::to_string(_line(at->second.node)));
    return at->second;
}

// The node that the attribute refers to, which may be a reference node.
reader::entry const& reader::_find(xml_node from, char const* reference) const {
    std::string const id = attribute(from, reference);
    if (id.empty())
        _fail(from, title(from) + " has no " + reference);
    auto const found = _ids.find(id);
    if (found == _ids.end())
        _fail(from, title(from) + " has the unknown " + reference + ' ' + quoted(id));
    xml_node const node = found->second.node;
    if (stands_for(node).empty())
        _fail(from, title(from) + " has the " + reference + ' ' + quoted(id) +
                        ", which is neither a place nor a transition");
    return found->second;
}

// The place or transition that the attribute refers to, through any chain of reference
// nodes. A chain with more links than there are ids is a cycle.
reader::entry const& reader::_resolve(xml_node from, char const* reference) const {
    entry const* found = &_find(from, reference);
    std::string_view const wanted = stands_for(from);
    for (std::size_t links = 0; is_reference(found->node); ++links) {
        if (links == _ids.size())
            _fail(from, title(from) + " leads to no node, only to other references");
        found = &_find(found->node, "ref");
    }
    if (!wanted.empty() && kind_of(found->node) != wanted)
        _fail(from, title(from) + " refers to " + title(found->node));
    return *found;
}

unsigned int reader::_number(xml_node label_node, char const* what, unsigned int least) const {
    std::string const digits = label(label_node);
    unsigned int number = 0;
    auto const [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    if (error != std::errc() || end != digits.data() + digits.size() || number < least) {
        xml_node const text = child(label_node, "text");
        _fail(text ? text : label_node, std::string(what) + ' ' + quoted(digits) +
                                            " is not a number from " + std::to_string(least) +
                                            " to " + std::to_string(largest));
    }
    return number;
}

// A firing reserves its output slots while its input tokens still occupy theirs. So a
// place that it takes from and puts into needs room for both. Here it
// gets twice that.
void reader::_size_places() {
    std::vector<std::uint64_t> weights(_net.places.size(), 0);
    for (transition const& each : _net.transitions)
        for (auto const* arcs : {&each.inputs, &each.outputs})
            for (arc const& end : *arcs)
                weights[end.place] = std::max<std::uint64_t>(weights[end.place], end.weight);
    for (std::size_t i = 0; i < weights.size(); ++i) {
        place& each = _net.places[i];
        std::uint64_t const room = 2 * (each.initial + weights[i]);
        if (room > largest)
            _fail(_place_nodes[i], title(_place_nodes[i]) + " needs room for " +
                                       std::to_string(room) + " tokens, beyond 32 bits");
        each.least_room = static_cast<unsigned int>(room);
    }
}

void reader::_leave_out_unconnected() {
    std::vector<transition> connected;
    for (std::size_t i = 0; i < _net.transitions.size(); ++i) {
        transition& each = _net.transitions[i];
        if (each.inputs.empty() && each.outputs.empty())
            _warn(_transition_nodes[i],
                  "transition " + quoted(each.name) + " has no arcs and is left out");
        else
            connected.push_back(std::move(each));
    }
    _net.transitions = std::move(connected);
}

unsigned int reader::_line(std::size_t offset) const {
    auto const begin = _text.begin();
    auto const end = begin + static_cast<std::ptrdiff_t>(std::min(offset, _text.size()));
    return 1 + static_cast<unsigned int>(std::count(begin, end, '\n'));
}

unsigned int reader::_line(xml_node node) const {
    return _line(static_cast<std::size_t>(node.offset_debug()));
}

void reader::_fail(xml_node node, std::string const& what) const {
    throw bad_file(_file, _line(node), what);
}

void reader::_warn(xml_node node, std::string const& what) const {
    _warnings << "ovel-net: " << _file << ':' << _line(node) << ": warning: " << what << '\n';
}

}  // namespace

net read_pnml(std::string const& file, std::ostream& warnings) {
    return reader(file, warnings).read();
}

}  // namespace ovel_net
