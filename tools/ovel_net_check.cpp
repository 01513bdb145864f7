// SPDX-License-Identifier: Apache-2.0
// Finds invariants by elimination. It starts with one row per place: the weight 1 for
// that place, and the effect of each transition on it. It then eliminates one transition
// after another. Rows on which the transition has no effect stay. Each row that it adds
// to is combined with each row that it takes from, with the smallest multiples that
// cancel. The remaining rows have no effect from any transition: they are invariants, and
// every invariant is a sum of such rows. A row whose places include all places of another
// row adds no information. It is dropped at once; otherwise there would soon be too many.
#include "ovel_net_check.h"
#include "ovel_net_text.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <iterator>
#include <limits>
#include <numeric>
#include <utility>

namespace ovel_net {

namespace {

// The number of rows at a time. A transition of a large net may double it.
constexpr std::size_t most_rows = 3000;

struct entry {
    std::size_t index;
    std::int64_t value;  // never 0
};

using sparse = std::vector<entry>;  // in the order of the indices

struct row_of_net {
    sparse effects;                       // by transition
    sparse weights;                       // by place; positive
    std::vector<std::uint64_t> includes;  // one bit per place with a weight
};

std::int64_t value_at(sparse const& values, std::size_t index) {
    auto const found =
        std::lower_bound(values.begin(), values.end(), index,
                         [](entry const& each, std::size_t wanted) { return each.index < wanted; });
    return found != values.end() && found->index == index ? found->value : 0;
}

// left * by_left + right * by_right; false if that or its negative does not fit.
bool combine(sparse const& left, std::int64_t by_left, sparse const& right, std::int64_t by_right,
             sparse& sum) {
    auto l = left.begin();
    auto r = right.begin();
    while (l != left.end() || r != right.end()) {
        bool const has_left = l != left.end() && (r == right.end() || l->index <= r->index);
        bool const has_right = r != right.end() && (l == left.end() || r->index <= l->index);
        std::size_t const index = has_left ? l->index : r->index;
        std::int64_t from_left = 0;
        std::int64_t from_right = 0;
        std::int64_t value = 0;
        if ((has_left && __builtin_mul_overflow(l++->value, by_left, &from_left)) ||
            (has_right && __builtin_mul_overflow(r++->value, by_right, &from_right)) ||
            __builtin_add_overflow(from_left, from_right, &value) ||
            value == std::numeric_limits<std::int64_t>::min())
            return false;
        if (value != 0)
            sum.push_back({index, value});
    }
    return true;
}

void reduce(row_of_net& row) {
    std::int64_t divisor = 0;
    for (sparse const* const values : {&row.effects, &row.weights})
        for (entry const& each : *values)
            divisor = std::gcd(divisor, each.value);
    for (sparse* const values : {&row.effects, &row.weights})
        for (entry& each : *values)
            each.value /= divisor;
}

// Whether each place of `part` is one of `whole`.
bool is_included(row_of_net const& part, row_of_net const& whole) {
    for (std::size_t i = 0; i < part.includes.size(); ++i)
        if ((part.includes[i] & ~whole.includes[i]) != 0)
            return false;
    return true;
}

bool has_fewer_places(row_of_net const& left, row_of_net const& right) {
    return left.weights.size() < right.weights.size();
}

class elimination {
public:
    explicit elimination(net const& model);

    std::vector<row_of_net> run();

    bool complete() const {
        return _complete;
    }

private:
    std::size_t _next_transition() const;
    void _eliminate(std::size_t transition);
    void _add_sum(row_of_net const& one, row_of_net const& other, std::size_t transition);
    void _keep_minimal(std::size_t old);

    std::size_t const _transitions;
    std::vector<row_of_net> _rows;
    bool _complete = true;
};

elimination::elimination(net const& model)
    : _transitions(model.transitions.size()), _rows(model.places.size()) {
    constexpr std::size_t bits = 64;
    for (std::size_t i = 0; i < _rows.size(); ++i) {
        _rows[i].weights = {{i, 1}};
        _rows[i].includes.resize((_rows.size() + bits - 1) / bits);
        _rows[i].includes[i / bits] |= std::uint64_t{1} << (i % bits);
    }
    for (std::size_t i = 0; i < _transitions; ++i) {
        auto const add = [&](arc const& each, std::int64_t tokens) {
            sparse& effects = _rows[each.place].effects;
            if (!effects.empty() && effects.back().index == i) {
                effects.back().value += tokens;
                if (effects.back().value == 0)
                    effects.pop_back();
            } else {
                effects.push_back({i, tokens});
            }
        };
        for (arc const& each : model.transitions[i].inputs)
            add(each, -std::int64_t{each.weight});
        for (arc const& each : model.transitions[i].outputs)
            add(each, each.weight);
    }
}

std::vector<row_of_net> elimination::run() {
    for (std::size_t next = _next_transition(); next != _transitions; next = _next_transition())
        _eliminate(next);
    std::stable_sort(_rows.begin(), _rows.end(), has_fewer_places);
    return _rows;
}

// Returns the transition whose elimination leaves the fewest rows, or the number of
// transitions if none is left.
std::size_t elimination::_next_transition() const {
    std::vector<std::int64_t> adding(_transitions);
    std::vector<std::int64_t> taking(_transitions);
    for (row_of_net const& row : _rows)
        for (entry const& each : row.effects)
            ++(each.value > 0 ? adding : taking)[each.index];
    std::size_t best = _transitions;
    std::int64_t least = std::numeric_limits<std::int64_t>::max();
    for (std::size_t i = 0; i < _transitions; ++i) {
        std::int64_t const growth = adding[i] * taking[i] - adding[i] - taking[i];
        if (adding[i] + taking[i] != 0 && growth < least) {
            best = i;
            least = growth;
        }
    }
    return best;
}

void elimination::_eliminate(std::size_t transition) {
    std::vector<row_of_net> rest;
    std::vector<row_of_net> adding;
    std::vector<row_of_net> taking;
    for (row_of_net& row : _rows) {
        std::int64_t const effect = value_at(row.effects, transition);
        (effect == 0 ? rest : effect > 0 ? adding : taking).push_back(std::move(row));
    }
    _rows = std::move(rest);
    std::size_t const old = _rows.size();
    std::vector<row_of_net> const& more = adding.size() < taking.size() ? taking : adding;
    std::vector<row_of_net> const& fewer = adding.size() < taking.size() ? adding : taking;

    // If there are too many pairs, every row is still part of one.
    std::size_t const room = most_rows - std::min(most_rows, _rows.size());
    std::size_t left = std::max(room, more.size());
    _complete = _complete && more.size() * fewer.size() <= left;
    for (std::size_t shift = 0; shift < fewer.size(); ++shift)
        for (std::size_t i = 0; i < more.size() && left != 0; ++i, --left)
            _add_sum(more[i], fewer[(i + shift) % fewer.size()], transition);
    _keep_minimal(old);
}

// Adds the combination of two rows on which the transition has opposite effects.
void elimination::_add_sum(row_of_net const& one, row_of_net const& other, std::size_t transition) {
    std::int64_t const effect_on_one = std::abs(value_at(one.effects, transition));
    std::int64_t const effect_on_other = std::abs(value_at(other.effects, transition));
    std::int64_t const common = std::gcd(effect_on_one, effect_on_other);
    row_of_net sum;
    if (!combine(one.effects, effect_on_other / common, other.effects, effect_on_one / common,
                 sum.effects) ||
        !combine(one.weights, effect_on_other / common, other.weights, effect_on_one / common,
                 sum.weights)) {
        _complete = false;
        return;
    }
    for (std::size_t i = 0; i < one.includes.size(); ++i)
        sum.includes.push_back(one.includes[i] | other.includes[i]);
    reduce(sum);
    _rows.push_back(std::move(sum));
}

// None of the first `old` rows includes another one of them, so only the later rows are
// compared with all.
void elimination::_keep_minimal(std::size_t old) {
    std::vector<row_of_net> added(
        std::make_move_iterator(_rows.begin() + static_cast<std::ptrdiff_t>(old)),
        std::make_move_iterator(_rows.end()));
    _rows.resize(old);
    std::stable_sort(added.begin(), added.end(), has_fewer_places);
    for (row_of_net& row : added) {
        if (std::any_of(_rows.begin(), _rows.end(),
                        [&](row_of_net const& each) { return is_included(each, row); }))
            continue;
        std::erase_if(_rows, [&](row_of_net const& each) { return is_included(row, each); });
        _rows.push_back(std::move(row));
    }
}

// Tells whether an invariant is a combination of others, calculating modulo a prime. An
// invariant that is independent modulo the prime is independent. (The converse can fail:
// a member of a basis is not chosen if the prime divides a determinant.)
class basis {
public:
    explicit basis(std::size_t places) : _pivots(places) {}

    // Returns whether the invariant is independent of those in the basis, and then adds
    // it.
    bool insert(sparse const& weights) {
        std::vector<std::uint64_t> rest(_pivots.size());
        for (entry const& each : weights)
            rest[each.index] = static_cast<std::uint64_t>(each.value) % _prime;
        for (std::size_t i = 0; i < rest.size(); ++i) {
            if (rest[i] == 0)
                continue;
            if (_pivots[i].empty()) {
                std::uint64_t const scale = _inverse(rest[i]);
                for (std::uint64_t& each : rest)
                    each = each * scale % _prime;
                _pivots[i] = std::move(rest);
                return true;
            }
            std::uint64_t const times = _prime - rest[i];
            for (std::size_t k = i; k < rest.size(); ++k)
                rest[k] = (rest[k] + times * _pivots[i][k]) % _prime;
        }
        return false;
    }

private:
    static constexpr std::uint64_t _prime = 2147483647;

    static std::uint64_t _inverse(std::uint64_t number) {
        std::uint64_t power = 1;
        for (std::uint64_t exponent = _prime - 2; exponent != 0; exponent /= 2) {
            if (exponent % 2 != 0)
                power = power * number % _prime;
            number = number * number % _prime;
        }
        return power;
    }

    // Indexed by the place of the first weight, which is 1.
    std::vector<std::vector<std::uint64_t>> _pivots;
};

// The weighted sum of the initial marking; nothing if it does not fit.
std::optional<std::uint64_t> initial_sum(net const& model, sparse const& weights) {
    std::uint64_t sum = 0;
    for (entry const& each : weights) {
        std::uint64_t part = 0;
        if (__builtin_mul_overflow(static_cast<std::uint64_t>(each.value),
                                   std::uint64_t{model.places[each.index].initial}, &part) ||
            __builtin_add_overflow(sum, part, &sum))
            return std::nullopt;
    }
    return sum;
}

// For each place, the most tokens that a transition takes from it while also putting some
// into it.
std::vector<unsigned int> taken_and_put(net const& model) {
    std::vector<unsigned int> most(model.places.size());
    for (transition const& each : model.transitions)
        for (arc const& output : each.outputs)
            for (arc const& input : each.inputs)
                if (input.place == output.place)
                    most[input.place] = std::max(most[input.place], input.weight);
    return most;
}

// Separates two members of a list.
char const* separator(bool first) {
    return first ? "\n" : ",\n";
}

unsigned int run_capacity(place const& place, unsigned int capacity) {
    return std::max(capacity, place.least_room);
}

}  // namespace

analysis analyse(net const& model) {
    analysis made;
    elimination rows(model);
    std::vector<invariant> all;
    basis independent(model.places.size());
    std::vector<bool> shown;
    for (row_of_net const& row : rows.run()) {
        std::optional<std::uint64_t> const sum = initial_sum(model, row.weights);
        if (!sum) {
            made.complete = false;
            continue;
        }
        invariant& added = all.emplace_back();
        for (entry const& each : row.weights)
            added.terms.push_back({each.index, each.value});
        added.sum = *sum;
        shown.push_back(independent.insert(row.weights));
    }
    made.found = all.size();
    made.complete = made.complete && rows.complete();

    // The bound of each place, and the first invariant that gives it.
    std::vector<std::optional<std::pair<std::uint64_t, std::size_t>>> bounds(model.places.size());
    for (std::size_t i = 0; i < all.size(); ++i)
        for (invariant::term const& each : all[i].terms) {
            std::uint64_t const bound = all[i].sum / static_cast<std::uint64_t>(each.weight);
            if (!bounds[each.place] || bound < bounds[each.place]->first)
                bounds[each.place] = {bound, i};
        }
    std::vector<unsigned int> const loops = taken_and_put(model);
    made.limits.resize(bounds.size());
    for (std::size_t i = 0; i < bounds.size(); ++i)
        if (bounds[i]) {
            shown[bounds[i]->second] = true;
            made.limits[i] = {bounds[i]->first, bounds[i]->first + loops[i]};
        }
    for (std::size_t i = 0; i < all.size(); ++i)
        if (shown[i])
            made.invariants.push_back(std::move(all[i]));
    return made;
}

std::string check_report(net const& model, analysis const& made, unsigned int capacity) {
    std::string text = title(model);
    if (made.invariants.empty())
        text += "\nNo weighted sum of tokens stays the same.\n";
    else
        text += "\nWhat stays the same whatever fires";
    if (made.found > made.invariants.size())
        text += " (" + grouped(made.invariants.size()) + " of " + grouped(made.found) +
                " invariants, from which the others follow)";
    if (!made.invariants.empty())
        text += ":\n";
    for (invariant const& each : made.invariants) {
        std::string sum;
        for (invariant::term const& term : each.terms) {
            sum += sum.empty() ? "  " : " + ";
            if (term.weight != 1)
                sum += std::to_string(term.weight) + ' ';
            sum += model.places[term.place].name;
        }
        text += sum + " = " + grouped(each.sum) + '\n';
    }
    if (!made.complete)
        text += "\nThere may be more: the net has too many to find them all.\n";

    bool first = true;
    for (std::size_t i = 0; i < model.places.size(); ++i)
        if (made.limits[i]) {
            if (first)
                text += "\n    Most tokens    Room needed      Capacity  Place\n";
            first = false;
            text += right_aligned(grouped(made.limits[i]->bound), 15) +
                    right_aligned(grouped(made.limits[i]->capacity), 15) +
                    right_aligned(grouped(run_capacity(model.places[i], capacity)), 14) + "  " +
                    full_name(model.places[i]) + '\n';
        }
    first = true;
    for (std::size_t i = 0; i < model.places.size(); ++i)
        if (!made.limits[i]) {
            if (first)
                text += "\nBounded by no invariant:\n";
            first = false;
            text += "  " + full_name(model.places[i]) + '\n';
        }
    return text;
}

std::string check_json(net const& model, analysis const& made, unsigned int capacity) {
    std::string text = "{\n  " + json_net(model) +
                       ",\n  \"invariants_found\": " + std::to_string(made.found) +
                       ",\n  \"invariants_complete\": " + (made.complete ? "true" : "false") +
                       ",\n  \"invariants\": [";
    for (invariant const& each : made.invariants) {
        text += separator(&each == &made.invariants.front());
        text += "    {\"sum\": " + std::to_string(each.sum) + ", \"places\": [";
        for (invariant::term const& term : each.terms)
            text += std::string(&term == &each.terms.front() ? "" : ", ") +
                    "{\"id\": " + json_string(model.places[term.place].id) +
                    ", \"weight\": " + std::to_string(term.weight) + '}';
        text += "]}";
    }
    text += "\n  ],\n  \"places\": [";
    for (std::size_t i = 0; i < model.places.size(); ++i) {
        place const& each = model.places[i];
        text += separator(i == 0);
        text += "    {\"id\": " + json_string(each.id) + ", \"name\": " + json_string(each.name) +
                ", \"initial\": " + std::to_string(each.initial) +
                ", \"capacity\": " + std::to_string(run_capacity(each, capacity));
        if (made.limits[i])
            text += ", \"bound\": " + std::to_string(made.limits[i]->bound) +
                    ", \"needed\": " + std::to_string(made.limits[i]->capacity);
        text += '}';
    }
    return text + "\n  ]\n}\n";
}

void warn_of_capacities(std::string const& file, net const& model, analysis const& made,
                        unsigned int capacity, std::ostream& warnings) {
    for (std::size_t i = 0; i < model.places.size(); ++i) {
        unsigned int const room = run_capacity(model.places[i], capacity);
        if (made.limits[i] && room < made.limits[i]->capacity)
            warnings << "ovel-net: " << file << ":1: warning: place \"" << model.places[i].name
                     << "\" may need room for " << made.limits[i]->capacity
                     << " tokens and has it for " << room << '\n';
    }
}

}  // namespace ovel_net
