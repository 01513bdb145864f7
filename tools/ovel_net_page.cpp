// SPDX-License-Identifier: Apache-2.0
// The page carries what was recorded as numbers, and its script draws them. Runs may
// have millions of firings, and a page of some megabytes is as much as a browser
// likes: of many firings it gets sums over slices of the time, and of the tokens of
// a place no more points than a screen shows.
//
// The order in which firings ended is one in which they could have happened one
// after the other, for what a firing takes was put by one that ended before it
// began. So the markings in between follow from it, up to the first firing that was
// not recorded: there the page's time ends.
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
constexpr std::size_t most_points = 200'000;  // of all places

struct fired {
    nanoseconds begin;
    nanoseconds end;
    std::size_t transition;
    unsigned int thread;
};

struct recording {
    nanoseconds length = 0;  // of the run, as far as all firings were recorded
    std::vector<fired> firings;
};

// With times from the start of the run.
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
    // Threads that lost events are those with as many as a thread may have.
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

// One thread's firings: each as begin, length and transition.
std::string single_firings(std::vector<fired> const& firings) {
    list spans;
    for (fired const& each : firings)
        spans.add(each.begin, each.end - each.begin, each.transition);
    return spans.text();
}

// One thread's firings in slices of the time: the slice, the thousandth parts of it
// that were busy, how many firings ended there, and the transition that took most.
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

// How the tokens of one place change, with as many points as make the same picture:
// the least, the most and the last of each step in time.
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

// For each place its points as times and tokens; null where nothing changes.
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

// What the script works on.
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

// `text` with each `from` replaced.
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
    // A name must not look like the end of the script, or like a tag.
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
