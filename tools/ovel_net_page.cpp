// SPDX-License-Identifier: Apache-2.0
// The page carries the recording as numbers, and its script draws them. Runs may have
// millions of firings, but a browser copes with only a few megabytes. So many firings are
// summed up over time slices, and the tokens of a place get only as many points as a
// screen can show.
//
// Firings could have happened one after another in the order in which they ended, because
// a firing that ended before another began had put the tokens that the other took. So the
// intermediate markings follow from this order, up to the first firing that was not
// recorded. The page's time ends there.
#include "ovel_net_page.h"
#include "ovel_net_report.h"
#include "ovel_net_text.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <map>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace ovel_net {

namespace {

using nanoseconds = std::int64_t;

constexpr std::size_t most_single_firings = 50'000;
constexpr nanoseconds slices = 4096;
constexpr std::size_t most_points = 200'000;  // for all places together

struct fired {
    nanoseconds begin;
    nanoseconds end;
    std::size_t transition;
    unsigned int thread;
};

struct recording {
    nanoseconds length = 0;  // of the run, up to the first unrecorded firing
    std::vector<fired> firings;
};

// Times are relative to the start of the run.
recording read(net const& model, ovel::trace::recorder const& recorded) {
    std::unordered_map<char const*, std::size_t> transitions;
    for (std::size_t i = 0; i < model.transitions.size(); ++i)
        transitions[model.transitions[i].name.c_str()] = i;
    recording all;
    nanoseconds start = 0;
    struct kept {
        std::size_t events = 0;
        nanoseconds last = 0;
    };
    std::map<unsigned int, kept> threads;
    recorded.each([&](unsigned int thread, ovel::trace::event const& each) {
        kept& here = threads[thread];
        ++here.events;
        here.last = std::max(here.last, each.end);
        if (each.what == ovel::trace::firing) {
            all.firings.push_back({each.begin, each.end, transitions.at(each.name), thread});
        } else if (each.what == ovel::trace::wait) {
            start = each.begin;
            all.length = each.end - each.begin;
        }
    });
    // Threads that lost events are those that have the maximum number.
    std::size_t most = 0;
    for (auto const& [thread, here] : threads)
        most = std::max(most, here.events);
    if (recorded.dropped() != 0)
        for (auto const& [thread, here] : threads)
            if (here.events == most)
                all.length = std::min(all.length, here.last - start);
    std::erase_if(all.firings, [&](fired const& each) { return each.end - start > all.length; });
    for (fired& each : all.firings) {
        each.begin -= start;
        each.end -= start;
    }
    return all;
}

// A list of JSON values.
class list {
public:
    template <class... Numbers>
    void add(Numbers... numbers) {
        (add_text(std::to_string(numbers)), ...);
    }
    void add_text(std::string const& value) {
        _text += (_text.empty() ? "" : ",") + value;
    }
    std::string text() const {
        return '[' + _text + ']';
    }

private:
    std::string _text;
};

// The firings of one thread, each with its begin, length and transition.
std::string single_firings(std::vector<fired> const& firings) {
    list spans;
    for (fired const& each : firings)
        spans.add(each.begin, each.end - each.begin, each.transition);
    return spans.text();
}

// The firings of one thread in time slices. Each has the slice's number, how many
// thousandths of it were busy, how many firings ended in it, and the transition that took
// most of it.
std::string sliced_firings(std::vector<fired> const& firings, nanoseconds slice) {
    struct sum {
        nanoseconds busy = 0;
        std::size_t ended = 0;
        std::map<std::size_t, nanoseconds> by_transition;
    };
    std::map<nanoseconds, sum> sums;
    for (fired const& each : firings) {
        for (nanoseconds at = each.begin / slice; at <= each.end / slice; ++at) {
            nanoseconds const begin = std::max(each.begin, at * slice);
            nanoseconds const part = std::min(each.end, (at + 1) * slice) - begin;
            sums[at].busy += part;
            sums[at].by_transition[each.transition] += part;
        }
        ++sums[each.end / slice].ended;
    }
    list parts;
    for (auto const& [at, here] : sums) {
        auto const most =
            std::max_element(here.by_transition.begin(), here.by_transition.end(),
                             [](auto const& l, auto const& r) { return l.second < r.second; });
        parts.add(at, here.busy * 1000 / slice, here.ended, most->first);
    }
    return parts.text();
}

std::string lanes(recording const& all, nanoseconds slice) {
    bool const single = all.firings.size() <= most_single_firings;
    std::map<unsigned int, std::vector<fired>> threads;
    for (fired const& each : all.firings)
        threads[each.thread].push_back(each);
    list text;
    for (auto const& [thread, firings] : threads)
        text.add_text(std::string(single ? "{\"spans\":" : "{\"slices\":") +
                      (single ? single_firings(firings) : sliced_firings(firings, slice)) + '}');
    return text.text();
}

// How the tokens of one place change, with just enough points for the same picture: the
// lowest, the highest and the last value of each step in time.
class series {
public:
    series(std::uint64_t tokens, nanoseconds step) : _step(step), _tokens(tokens) {
        _points.add(nanoseconds{0}, tokens);
    }

    void change(nanoseconds time, std::int64_t by) {
        if (time / _step != _last.first / _step)
            _flush();
        _tokens += static_cast<std::uint64_t>(by);
        _last = {time, _tokens};
        if (!_open || _tokens < _least.second)
            _least = _last;
        if (!_open || _tokens > _most.second)
            _most = _last;
        _open = true;
        _changed = true;
    }

    bool changed() const {
        return _changed;
    }
    std::string text() {
        _flush();
        return _points.text();
    }

private:
    using point = std::pair<nanoseconds, std::uint64_t>;

    void _flush() {
        if (!_open)
            return;
        _open = false;
        point const first = std::min(_least, _most);
        point const second = std::max(_least, _most);
        _points.add(first.first, first.second);
        if (second != first)
            _points.add(second.first, second.second);
        if (_last != second)
            _points.add(_last.first, _last.second);
    }

    nanoseconds const _step;
    std::uint64_t _tokens;
    bool _open = false;  // whether there are changes since the last flush
    bool _changed = false;
    point _least;
    point _most;
    point _last;
    list _points;
};

// The points of each place, as times and tokens; null if its tokens never change.
std::string tokens(net const& model, recording& all) {
    std::size_t const points = std::clamp<std::size_t>(
        most_points / std::max<std::size_t>(model.places.size(), 1), 100, 2000);
    nanoseconds const step = all.length / static_cast<nanoseconds>(points) + 1;
    std::vector<series> places;
    for (place const& each : model.places)
        places.emplace_back(each.initial, step);
    std::sort(all.firings.begin(), all.firings.end(), [](fired const& left, fired const& right) {
        return std::pair(left.end, left.begin) < std::pair(right.end, right.begin);
    });
    std::vector<std::map<std::size_t, std::int64_t>> effects;
    for (transition const& each : model.transitions) {
        auto& effect = effects.emplace_back();
        for (arc const& input : each.inputs)
            effect[input.place] -= input.weight;
        for (arc const& output : each.outputs)
            effect[output.place] += output.weight;
        std::erase_if(effect, [](auto const& of) { return of.second == 0; });
    }
    for (fired const& each : all.firings)
        for (auto const& [place, by] : effects[each.transition])
            places[place].change(each.end, by);
    list text;
    for (series& each : places)
        text.add_text(each.changed() ? each.text() : "null");
    return text.text();
}

// The script's input.
std::string data(net const& model, result const& made, ovel::trace::recorder const& recorded) {
    recording all = read(model, recorded);
    nanoseconds const slice = all.length / slices + 1;
    std::vector<nanoseconds> busy(model.transitions.size());
    std::vector<std::size_t> timed(model.transitions.size());
    for (fired const& each : all.firings) {
        busy[each.transition] += each.end - each.begin;
        ++timed[each.transition];
    }
    std::vector<bool> const full = full_places(model, made);
    list places;
    for (std::size_t i = 0; i < model.places.size(); ++i) {
        place const& each = model.places[i];
        places.add_text("{\"id\":" + json_string(each.id) + ",\"name\":" + json_string(each.name) +
                        ",\"initial\":" + std::to_string(each.initial) +
                        ",\"final\":" + std::to_string(made.marking[i]) +
                        ",\"capacity\":" + std::to_string(made.capacities[i]) +
                        ",\"full\":" + (full[i] ? "true" : "false") + '}');
    }
    list transitions;
    for (std::size_t i = 0; i < model.transitions.size(); ++i) {
        transition const& each = model.transitions[i];
        transitions.add_text("{\"id\":" + json_string(each.id) +
                             ",\"name\":" + json_string(each.name) +
                             ",\"firings\":" + std::to_string(made.firings[i]) +
                             ",\"timed\":" + std::to_string(timed[i]) +
                             ",\"busy\":" + std::to_string(busy[i]) + '}');
    }
    std::string text = '{' + json_net(model) + ",\"outcome\":\"" + name_of(made.end) +
                       "\",\"threads\":" + std::to_string(made.threads) +
                       ",\"firings\":" + std::to_string(made.total_firings()) +
                       ",\"recorded\":" + std::to_string(all.firings.size()) +
                       ",\"seconds\":" + decimals(made.seconds, 6) +
                       ",\"length\":" + std::to_string(all.length) +
                       ",\"slice\":" + std::to_string(slice) + ",\n\"places\":" + places.text() +
                       ",\n\"transitions\":" + transitions.text();
    text += ",\n\"lanes\":" + lanes(all, slice);
    text += ",\n\"tokens\":" + tokens(model, all);
    return text + '}';
}

// `text` with every `from` replaced by `to`.
std::string replaced(std::string_view text, std::string_view from, std::string_view to) {
    std::string made;
    for (std::size_t at = 0; (at = text.find(from)) != text.npos;
         text.remove_prefix(at + from.size()))
        made.append(text.substr(0, at)).append(to);
    return made.append(text);
}

}  // namespace

std::string page(net const& model, result const& made, ovel::trace::recorder const& recorded,
                 std::string const& picture) {
    // A name must not look like a tag, such as the end of the script.
    std::string const values = replaced(data(model, made, recorded), "<", "\\u003c");
    std::string const title = replaced(replaced(model.name, "&", "&amp;"), "<", "&lt;");
    std::size_t const svg = picture.find("<svg");
    std::pair<std::string_view, std::string_view> const parts[] = {
        {"@title@", title},
        {"@style@", page_css},
        {"@picture@", std::string_view(picture).substr(std::min(svg, picture.size()))},
        {"@data@", values},
        {"@script@", page_js}};
    std::string text;
    std::string_view rest = page_html;
    for (auto const& [mark, part] : parts) {
        std::size_t const at = rest.find(mark);
        text.append(rest.substr(0, at)).append(part);
        rest.remove_prefix(at + mark.size());
    }
    return text.append(rest);
}

}  // namespace ovel_net
