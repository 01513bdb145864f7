// SPDX-License-Identifier: Apache-2.0
// Each token carries a serial number, its identity. A firing passes tokens from its input
// places to its output places in the order of its arcs. If it puts more than it takes, it
// creates new ones; if it takes more, the surplus ends. At the end the marking must
// follow from the firings, and no identity may occur twice.
//
// Firings run on the net's threads, several firings of one transition at a time. They
// share only atomic variables. The net's own lock, and stopping the net, order everything
// else.
#include "ovel_net_run.h"
#include "ovel_net_failure.h"
#include "ovel_petri_net.h"
#include "ovel_thread_support.h"
#include "ovel_trace.h"

#include <algorithm>
#include <atomic>
#include <deque>
#include <numeric>

namespace ovel_net {

namespace {

using serial = std::uint64_t;

constexpr unsigned int stack_size = 524288;

// The limit on firings, for runs that do not come to rest. Firings ask to be admitted.
// Those that were dispatched before the limit was reached but are not admitted leave
// their tokens where they are. So a run meets the limit exactly.
class limit {
public:
    explicit limit(std::uint64_t firings) : _left(static_cast<std::int64_t>(firings)) {}

    // Relaxed: the counter publishes nothing else.
    bool admit() {
        std::int64_t const left = _left.fetch_sub(1, std::memory_order_relaxed);
        if (left == 1)
            _deactivate();
        return left > 0;
    }

    // Sets the limit to what has been reached. Any thread may call it while the net runs.
    void close() {
        _closed.store(true, std::memory_order_relaxed);
        _left.store(0, std::memory_order_relaxed);
        _deactivate();
    }

    bool reached() const {
        return _left.load(std::memory_order_relaxed) <= 0;
    }
    bool closed() const {
        return _closed.load(std::memory_order_relaxed);
    }

    // Call it while the net is stopped.
    void apply_to(ovel::petri_transition* transition) {
        _transitions.push_back(transition);
    }

private:
    void _deactivate() {
        for (ovel::petri_transition* const each : _transitions)
            each->deactivate();
    }

    std::atomic<std::int64_t> _left;  // firings that may still begin; none if 0 or less
    std::atomic<bool> _closed = false;
    std::vector<ovel::petri_transition*> _transitions;
};

// What a transition does when it fires.
class firing : public ovel::petri_function {
public:
    firing(ovel_net::transition const& model, ovel::time_base work, limit& until,
           std::atomic<serial>& next)
        : _name(model.name.c_str()), _work(work), _limit(until), _next(next) {
        for (arc const& each : model.inputs)
            _inputs.push_back({nullptr, each.weight});
        for (arc const& each : model.outputs)
            _outputs.push_back({nullptr, each.weight});
    }

    // Makes the arcs. `places` are the net's, in the model's order.
    void connect(ovel::petri_net& net, ovel_net::transition const& model,
                 std::vector<ovel::petri_place*> const& places) {
        for (std::size_t i = 0; i < _inputs.size(); ++i)
            net.insert_input_arc(places[model.inputs[i].place],
                                 transition()->input(_inputs[i].place).size(_inputs[i].weight));
        for (std::size_t i = 0; i < _outputs.size(); ++i)
            net.insert_output_arc(transition()->output(_outputs[i].place).size(_outputs[i].weight),
                                  places[model.outputs[i].place]);
    }

    void operator()() override {
        if (!_limit.admit())
            return _skip();
        ovel::trace::scope const here(_name, ovel::trace::firing);
        if (_work != ovel::time_base())
            _compute();
        _pass();
        _count.fetch_add(1, std::memory_order_relaxed);
    }

    std::uint64_t count() const {
        return _count.load(std::memory_order_relaxed);
    }

private:
    struct end {
        ovel::petri_place* place;  // set by the net, which stores the arc's address
        unsigned int weight;
    };

    // Computes for the requested time, but not beyond the end of the run.
    void _compute() const {
        ovel::trace::scope const here("compute");
        ovel::time_base const end = ovel::time_base::now() + _work;
        while (ovel::time_base::now() < end && !_limit.closed()) {}
    }

    void _pass() {
        ovel::any token;
        auto take = [&, input = _inputs.begin(), taken = 0U]() mutable {
            if (input != _inputs.end() && taken == input->weight) {
                ++input;
                taken = 0;
            }
            if (input == _inputs.end())
                return false;
            input->place->receive(token);
            ++taken;
            return true;
        };
        for (end const& output : _outputs)
            for (unsigned int i = 0; i < output.weight; ++i) {
                if (!take())
                    token = _next.fetch_add(1, std::memory_order_relaxed);
                output.place->send(token);
            }
        while (take()) {}
    }

    void _skip() {
        for (end const& input : _inputs)
            for (unsigned int i = 0; i < input.weight; ++i)
                input.place->receive_skip();
        for (end const& output : _outputs)
            for (unsigned int i = 0; i < output.weight; ++i)
                output.place->send_skip();
    }

    char const* const _name;   // the model's
    std::vector<end> _inputs;  // not resized once arcs exist
    std::vector<end> _outputs;
    ovel::time_base const _work;
    limit& _limit;
    std::atomic<serial>& _next;
    std::atomic<std::uint64_t> _count = 0;
};

class machine {
public:
    machine(net const& model, options const& chosen);

    result run(observer const& observe);

private:
    void _mark();
    double _fire(observer const& observe);
    std::vector<serial> _collect(std::vector<unsigned int>& marking);
    void _verify(result const& made, std::vector<serial> tokens) const;
    std::uint64_t _fired() const;

    net const& _model;
    double const _seconds;  // the time limit
    unsigned int const _threads;
    std::atomic<serial> _next = 0;
    limit _limit;
    std::deque<firing> _firings;
    ovel::petri_net _net;
    std::vector<ovel::petri_place*> _places;
};

machine::machine(net const& model, options const& chosen)
    : _model(model),
      _seconds(chosen.seconds),
      _threads(chosen.threads != 0 ? chosen.threads : ovel::thread_support::available_processors()),
      _limit(chosen.firings),
      _net(_threads, 0.0, stack_size) {
    for (place const& each : model.places)
        _places.push_back(_net.insert_place(std::max(chosen.capacity, each.least_room)));
    ovel::time_base const work = ovel::time_base::seconds(chosen.work * 1e-6);
    for (transition const& each : model.transitions) {
        firing& code = _firings.emplace_back(each, work, _limit, _next);
        auto* const inserted = _net.insert_transition(code, !chosen.sequential, 1.0, 0.0, 0);
        // Each thread finds the next firing ready; a source never has more of them waiting.
        _net.limit(inserted, 2 * _threads);
        _limit.apply_to(inserted);
        code.connect(_net, each, _places);
    }
}

result machine::run(observer const& observe) {
    result made;
    made.threads = _threads;
    _mark();
    made.seconds = _fire(observe);
    for (firing const& each : _firings)
        made.firings.push_back(each.count());
    for (ovel::petri_place const* const each : _places)
        made.capacities.push_back(each->capacity());
    _verify(made, _collect(made.marking));
    made.end = judge(_model, made, _limit.reached());
    return made;
}

// Puts the initial marking while the net is stopped.
void machine::_mark() {
    for (std::size_t i = 0; i < _places.size(); ++i)
        for (unsigned int sent = 0; sent < _model.places[i].initial; ++sent)
            _net.send(_places[i], _next.fetch_add(1, std::memory_order_relaxed));
}

// Starts the net. Stops it when it comes to rest, when its time is up, or when the
// observer ends it; the limit on firings works by itself. Returns how long the net ran.
double machine::_fire(observer const& observe) {
    constexpr double look = 0.1;  // seconds between two looks at the net
    ovel::trace::name_thread("main");
    ovel::time const start = ovel::time::now();
    ovel::trace::scope const here("run until the net rests", ovel::trace::wait);
    auto const elapsed = [&] {
        return (ovel::time::now() - start).seconds();
    };
    _net.release();
    while (!_net.timed_acquire(ovel::time::then(std::min(look, _seconds - elapsed())))) {
        if (observe(elapsed(), _fired()) && elapsed() < _seconds)
            continue;
        _limit.close();
        _net.acquire();
        break;
    }
    return elapsed();
}

// Takes out all tokens and counts them, place by place.
std::vector<serial> machine::_collect(std::vector<unsigned int>& marking) {
    std::vector<serial> tokens;
    ovel::any token;
    for (ovel::petri_place* const each : _places) {
        std::size_t const before = tokens.size();
        while (_net.try_receive(each, token))
            tokens.push_back(ovel::any_cast<serial>(token));
        marking.push_back(static_cast<unsigned int>(tokens.size() - before));
    }
    return tokens;
}

// Each token must have been created, and exists only once.
void machine::_verify(result const& made, std::vector<serial> tokens) const {
    verify_marking(_model, made);
    std::sort(tokens.begin(), tokens.end());
    if (std::adjacent_find(tokens.begin(), tokens.end()) != tokens.end() ||
        (!tokens.empty() && tokens.back() >= _next.load(std::memory_order_relaxed)))
        throw internal_error("a token is in the net twice or was never made");
}

std::uint64_t machine::_fired() const {
    std::uint64_t sum = 0;
    for (firing const& each : _firings)
        sum += each.count();
    return sum;
}

}  // namespace

char const* name_of(outcome end) {
    return end == outcome::dead ? "dead" : end == outcome::full ? "full" : "stopped";
}

std::uint64_t result::total_firings() const {
    return std::accumulate(firings.begin(), firings.end(), std::uint64_t{0});
}

// Sums wrap modulo 2^64, beyond any marking.
void verify_marking(net const& model, result const& made) {
    std::vector<std::uint64_t> expected;
    for (place const& each : model.places)
        expected.push_back(each.initial);
    for (std::size_t i = 0; i < model.transitions.size(); ++i) {
        for (arc const& input : model.transitions[i].inputs)
            expected[input.place] -= made.firings[i] * input.weight;
        for (arc const& output : model.transitions[i].outputs)
            expected[output.place] += made.firings[i] * output.weight;
    }
    for (std::size_t i = 0; i < expected.size(); ++i)
        if (made.marking[i] != expected[i])
            throw internal_error("place \"" + model.places[i].id + "\" holds " +
                                 std::to_string(made.marking[i]) + " tokens, its firings leave " +
                                 std::to_string(expected[i]));
}

// A limit reached just as the net came to rest did not stop it.
outcome judge(net const& model, result const& made, bool limited) {
    outcome end = outcome::dead;
    for (transition const& each : model.transitions) {
        auto const lacks = [&](arc const& input) {
            return made.marking[input.place] < input.weight;
        };
        auto const refuses = [&](arc const& output) {
            return made.refuses(output);
        };
        if (std::any_of(each.inputs.begin(), each.inputs.end(), lacks))
            continue;
        if (std::any_of(each.outputs.begin(), each.outputs.end(), refuses))
            end = outcome::full;
        else if (limited)
            return outcome::stopped;
        else
            throw internal_error("at rest although transition \"" + each.id + "\" is enabled");
    }
    return end;
}

result run(net const& model, options const& chosen, observer const& observe) {
    return machine(model, chosen).run(observe);
}

}  // namespace ovel_net
