// SPDX-License-Identifier: Apache-2.0
// The group nets: work on tokens, on two processors.
#include "ovel_any.h"
#include "ovel_benchmark.h"
#include "ovel_benchmark_queue.h"
#include "ovel_mutex.h"
#include "ovel_petri_net.h"

#if defined(OVEL_PEER_TBB)
#include <tbb/flow_graph.h>
#endif

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>
#include <tuple>
#include <vector>

namespace {

using clock_type = std::chrono::steady_clock;
using ovel_benchmark::bounded_queue;
using ovel_benchmark::timed_contestant;

constexpr unsigned int processors = 2;
constexpr unsigned int stack_size = 65536;
constexpr unsigned int in_flight = 64;

double since(clock_type::time_point start) {
    return std::chrono::duration<double>(clock_type::now() - start).count();
}

// Computes. A turn takes the same time, whatever other threads run.
void compute(unsigned int turns) {
    std::uint32_t value = turns;
    for (unsigned int turn = 0; turn != turns; ++turn)
        benchmark::DoNotOptimize(value = value * 1664525 + 1013904223);
}

// The number of turns that take a microsecond when no other thread runs: the largest of
// several tries.
unsigned int turns_in_a_microsecond() {
    static unsigned int const turns = [] {
        constexpr unsigned int tried = 20'000;
        double least = 1.0;
        for (int i = 0; i < 50; ++i) {
            auto const start = clock_type::now();
            compute(tried);
            least = std::min(least, since(start));
        }
        return static_cast<unsigned int>(tried * 1e-6 / least);
    }();
    return turns;
}

// The work of every contestant in a row of chains. `in_flight` tokens go through the
// stages, each of which works on one token at a time. A token that leaves the last stage
// enters the first again, `laps` times.
struct chain {
    unsigned int stages;
    unsigned int microseconds;  // of work on a token at a stage
    unsigned int laps;

    unsigned int tokens() const {
        return in_flight * laps;
    }
    unsigned int turns() const {
        return microseconds * turns_in_a_microsecond();
    }
};

// Ours: a place before each transition; the place after the last transition is the first.
struct stage : ovel::petri_function {
    void operator()() override {
        ovel::any token;
        before->receive(token);
        compute(turns);
        if (!last)
            after->send(token);
        else if (int const laps = ovel::any_cast<int>(token); laps != 1)
            after->send(laps - 1);
        else
            after->send_skip();
    }

    ovel::petri_place* before = nullptr;
    ovel::petri_place* after = nullptr;
    unsigned int turns = 0;
    bool last = false;
};

double run_net(chain const& what) {
    std::deque<stage> stages(what.stages);
    ovel::petri_net net(processors, 0.0, stack_size);
    std::vector<ovel::petri_place*> places;
    for (unsigned int i = 0; i != what.stages; ++i)
        places.push_back(net.insert_place(2 * in_flight));
    for (unsigned int i = 0; i != what.stages; ++i) {
        stages[i].turns = what.turns();
        stages[i].last = i + 1 == what.stages;
        auto* const fires = net.insert_transition(stages[i], false, 1.0, 0.0, 0);
        net.insert_input_arc(places[i], fires->input(stages[i].before));
        net.insert_output_arc(fires->output(stages[i].after), places[(i + 1) % what.stages]);
    }
    for (unsigned int i = 0; i != in_flight; ++i)
        net.send(places[0], static_cast<int>(what.laps));
    auto const start = clock_type::now();
    net.release();
    net.acquire();
    return since(start);
}

double run_threads(chain const& what) {
    constexpr int end = 0;
    std::deque<bounded_queue<int, 2 * in_flight>> queues(what.stages);
    for (unsigned int i = 0; i != in_flight; ++i)
        queues[0].push(static_cast<int>(what.laps));
    auto const run = [&](unsigned int stage) {
        bool const last = stage + 1 == what.stages;
        auto& after = queues[(stage + 1) % what.stages];
        for (unsigned int ended = 0; ended != in_flight;) {
            int const laps = queues[stage].pop();
            compute(what.turns());
            if (!last)
                after.push(laps);
            else if (laps > 1)
                after.push(laps - 1);
            else if (++ended == in_flight)
                after.push(end);
            if (!last && laps == end)
                return;
        }
    };
    auto const start = clock_type::now();
    {
        std::vector<std::jthread> threads;
        for (unsigned int i = 0; i != what.stages; ++i)
            threads.emplace_back(run, i);
    }
    return since(start);
}

// The bound of a chain in a net: what is left if each firing only takes the lock of all counts
// once, to end the one before it and to reserve its token and slot, and transitions fire in the
// order in which they were enabled. Values are ints. No weights, ranks, spaces, closing, deadlines
// or failures, and a thread that finds nothing to fire polls.
class least_chain {
public:
    explicit least_chain(chain const& what)
        : _stages(what.stages), _turns(what.turns()), _places(what.stages), _left(in_flight) {
        for (unsigned int i = 0; i != in_flight; ++i)
            _places[0].values[_places[0].put++] = static_cast<int>(what.laps);
        _places[0].size = in_flight;
        _look_at(0);
    }

    void run() {
        std::vector<std::jthread> threads;
        for (unsigned int i = 0; i != processors; ++i)
            threads.emplace_back([this] { _fire(); });
    }

private:
    static constexpr unsigned int capacity = 2 * in_flight;
    static constexpr unsigned int none = ~0u;
    static constexpr unsigned int spin = 1024;  // pauses

    struct place {
        std::array<int, capacity> values;
        alignas(64) unsigned int put = 0;    // of the values, by the thread that puts
        alignas(64) unsigned int taken = 0;  // the same
        // Under the mutex.
        alignas(64) unsigned int size = 0;
        unsigned int reserved_tokens = 0;
        unsigned int reserved_slots = 0;
        bool is_busy = false;  // the transition behind the place is queued or fires
    };

    unsigned int _after(unsigned int stage) const {
        return stage + 1 == _stages ? 0 : stage + 1;
    }

    // With the mutex.

    void _look_at(unsigned int stage) {
        place& from = _places[stage];
        place& to = _places[_after(stage)];
        if (from.is_busy || from.size == from.reserved_tokens ||
            to.size + to.reserved_slots == capacity)
            return;
        from.is_busy = true;
        ++from.reserved_tokens;
        ++to.reserved_slots;
        _queue[_queued++ % _queue.size()] = stage;
    }
    void _end(unsigned int stage, bool has_put) {
        place& from = _places[stage];
        place& to = _places[_after(stage)];
        from.is_busy = false;
        --from.reserved_tokens;
        --from.size;
        --to.reserved_slots;
        to.size += has_put;
        _left -= !has_put;
        _look_at(stage == 0 ? _stages - 1 : stage - 1);
        _look_at(_after(stage));
        _look_at(stage);
    }

    // Without it.
    bool _move(unsigned int stage) {
        place& from = _places[stage];
        place& to = _places[_after(stage)];
        int const laps = from.values[from.taken++ % capacity] - (stage + 1 == _stages);
        compute(_turns);
        if (laps != 0)
            to.values[to.put++ % capacity] = laps;
        return laps != 0;
    }

    void _fire() {
        bool has_put = false;
        for (unsigned int stage = none;;) {
            _mutex.acquire();
            if (stage != none)
                _end(stage, has_put);
            stage = _taken != _queued ? _queue[_taken++ % _queue.size()] : none;
            bool const is_over = _left == 0;
            _mutex.release();
            if (is_over)
                return;
            if (stage != none)
                has_put = _move(stage);
        }
    }

    unsigned int const _stages;
    unsigned int const _turns;
    std::vector<place> _places;
    ovel::mutex _mutex{spin};
    // Under the mutex.
    std::array<unsigned int, 64> _queue;
    unsigned int _queued = 0;
    unsigned int _taken = 0;
    unsigned int _left;  // tokens with laps left
};

double run_least_chain(chain const& what) {
    least_chain bound(what);
    auto const start = clock_type::now();
    bound.run();
    return since(start);
}

#if defined(OVEL_PEER_TBB)
double run_flow(chain const& what) {
    tbb::flow::graph graph;
    using node = tbb::flow::function_node<int, int>;
    std::deque<node> nodes;
    for (unsigned int i = 0; i + 1 < what.stages; ++i)
        nodes.emplace_back(graph, tbb::flow::serial, [&](int laps) {
            compute(what.turns());
            return laps;
        });
    tbb::flow::multifunction_node<int, std::tuple<int>> last(
        graph, tbb::flow::serial, [&](int laps, auto& ports) {
            compute(what.turns());
            if (laps != 1)
                std::get<0>(ports).try_put(laps - 1);
        });
    for (unsigned int i = 0; i + 2 < what.stages; ++i)
        make_edge(nodes[i], nodes[i + 1]);
    tbb::flow::receiver<int>* first = &last;
    if (!nodes.empty()) {
        make_edge(nodes.back(), last);
        first = &nodes.front();
    }
    make_edge(tbb::flow::output_port<0>(last), *first);
    auto const start = clock_type::now();
    for (unsigned int i = 0; i != in_flight; ++i)
        first->try_put(static_cast<int>(what.laps));
    graph.wait_for_all();
    return since(start);
}

// The same with a source and a limit instead of a cycle.
double run_limited_flow(chain const& what) {
    tbb::flow::graph graph;
    int left = static_cast<int>(what.tokens());
    tbb::flow::input_node<int> source(graph, [&](tbb::flow_control& flow) {
        if (left == 0)
            flow.stop();
        else
            --left;
        return left;
    });
    tbb::flow::limiter_node<int> limit(graph, in_flight);
    std::deque<tbb::flow::function_node<int, int>> nodes;
    for (unsigned int i = 0; i != what.stages; ++i)
        nodes.emplace_back(graph, tbb::flow::serial, [&](int token) {
            compute(what.turns());
            return token;
        });
    tbb::flow::function_node<int, tbb::flow::continue_msg> sink(
        graph, tbb::flow::serial, [](int) { return tbb::flow::continue_msg(); });
    make_edge(source, limit);
    make_edge(limit, nodes.front());
    for (unsigned int i = 0; i + 1 != what.stages; ++i)
        make_edge(nodes[i], nodes[i + 1]);
    make_edge(nodes.back(), sink);
    make_edge(sink, limit.decrementer());
    auto const start = clock_type::now();
    source.activate();
    graph.wait_for_all();
    return since(start);
}
#endif

// Tokens per second, or the share of two processors that goes into the work on them.
enum class figure { rate, share };

void chain_contestant(std::string const& row, std::string const& name, chain const& what,
                      figure shown, double (*run)(chain const&)) {
    timed_contestant(row, name, [=](benchmark::State& state) {
        double share = 0.0;
        for (auto _ : state) {
            double const seconds = run(what);
            state.SetIterationTime(seconds);
            share += 1e-6 * what.microseconds * what.stages * what.tokens() / processors / seconds;
        }
        if (shown == figure::share)
            state.counters["share"] = share / static_cast<double>(state.iterations());
        else
            state.SetItemsProcessed(state.iterations() * what.tokens());
    });
}

void chain_row(std::string const& row, chain const& what, figure shown = figure::rate) {
    chain_contestant(row, "ovel", what, shown, run_net);
#if defined(OVEL_PEER_TBB)
    chain_contestant(row, "tbb::flow", what, shown, run_flow);
    chain_contestant(row, "tbb::flow, limited", what, shown, run_limited_flow);
#endif
    chain_contestant(row, "thread per stage", what, shown, run_threads);
    if (what.microseconds == 1 && what.stages != 1)
        chain_contestant(row, "ovel's bound: counts and a queue", what, shown, run_least_chain);
}

// Philosophers at a table. Each takes both forks at once, or waits until it can, and puts
// them back, as often as it is hungry. The figure is meals per second.

struct philosopher : ovel::petri_function {
    void operator()() override {
        ovel::any token;
        hunger->receive(token);
        left->receive(token);
        right->receive(token);
        left_again->send(token);
        right_again->send(token);
    }

    ovel::petri_place* hunger = nullptr;
    ovel::petri_place* left = nullptr;
    ovel::petri_place* right = nullptr;
    ovel::petri_place* left_again = nullptr;
    ovel::petri_place* right_again = nullptr;
};

constexpr unsigned int meals = 20'000;

void dine_in_net(benchmark::State& state, unsigned int guests) {
    std::deque<philosopher> philosophers(guests);
    ovel::petri_net net(processors, 0.0, stack_size);
    std::vector<ovel::petri_place*> forks;
    for (unsigned int i = 0; i != guests; ++i) {
        forks.push_back(net.insert_place(2));
        net.send(forks.back(), 0);
    }
    for (unsigned int i = 0; i != guests; ++i) {
        philosopher& guest = philosophers[i];
        auto* const left = forks[i];
        auto* const right = forks[(i + 1) % guests];
        auto* const eats = net.insert_transition(guest, false, 1.0, 0.0, 0);
        net.insert_input_arc(net.insert_place(meals / guests), eats->input(guest.hunger));
        net.insert_input_arc(left, eats->input(guest.left));
        net.insert_input_arc(right, eats->input(guest.right));
        net.insert_output_arc(eats->output(guest.left_again), left);
        net.insert_output_arc(eats->output(guest.right_again), right);
    }
    for (auto _ : state) {
        for (philosopher const& guest : philosophers)
            for (unsigned int i = 0; i != meals / guests; ++i)
                net.send(guest.hunger, 0);
        auto const start = clock_type::now();
        net.release();
        net.acquire();
        state.SetIterationTime(since(start));
    }
    state.SetItemsProcessed(state.iterations() * meals);
}

void dine_with_threads(benchmark::State& state, unsigned int guests) {
    for (auto _ : state) {
        std::deque<std::mutex> forks(guests);
        auto const start = clock_type::now();
        {
            std::vector<std::jthread> threads;
            for (unsigned int i = 0; i != guests; ++i)
                threads.emplace_back([&, i] {
                    for (unsigned int meal = 0; meal != meals / guests; ++meal)
                        std::scoped_lock const both(forks[i], forks[(i + 1) % guests]);
                });
        }
        state.SetIterationTime(since(start));
    }
    state.SetItemsProcessed(state.iterations() * meals);
}

#if defined(OVEL_PEER_TBB)
void dine_in_flow(benchmark::State& state, unsigned int guests) {
    using namespace tbb::flow;
    using plate = std::tuple<int, int, int>;
    for (auto _ : state) {
        graph dinner;
        std::deque<queue_node<int>> forks, hunger;
        std::deque<join_node<plate, reserving>> takes;
        std::deque<function_node<plate>> eats;
        for (unsigned int i = 0; i != guests; ++i) {
            forks.emplace_back(dinner);
            hunger.emplace_back(dinner);
            for (unsigned int meal = 0; meal != meals / guests; ++meal)
                hunger[i].try_put(0);
        }
        for (unsigned int i = 0; i != guests; ++i) {
            auto& left = forks[i];
            auto& right = forks[(i + 1) % guests];
            takes.emplace_back(dinner);
            eats.emplace_back(dinner, serial, [&left, &right](plate const&) {
                left.try_put(0);
                right.try_put(0);
            });
            make_edge(hunger[i], input_port<0>(takes[i]));
            make_edge(left, input_port<1>(takes[i]));
            make_edge(right, input_port<2>(takes[i]));
            make_edge(takes[i], eats[i]);
        }
        dinner.wait_for_all();
        auto const start = clock_type::now();
        for (auto& fork : forks)
            fork.try_put(0);
        dinner.wait_for_all();
        state.SetIterationTime(since(start));
    }
    state.SetItemsProcessed(state.iterations() * meals);
}
#endif

void philosophers_row(unsigned int guests) {
    std::string const row = "philosophers_" + std::to_string(guests);
    using run = void (*)(benchmark::State&, unsigned int);
    auto const add = [&](std::string const& name, run dine) {
        timed_contestant(row, name, [=](benchmark::State& state) { dine(state, guests); });
    };
    add("ovel", dine_in_net);
#if defined(OVEL_PEER_TBB)
    add("tbb::flow", dine_in_flow);
#endif
    add("thread each", dine_with_threads);
}

// The cost of one firing in an otherwise large net.

constexpr int firings = 20'000;

// Takes the tokens of its place, one by one.
struct drain : ovel::petri_function {
    void operator()() override {
        ovel::any token;
        place->receive(token);
    }

    ovel::petri_place* place = nullptr;
};

ovel::petri_place* insert_drain(ovel::petri_net& net, drain& function, unsigned int tokens) {
    auto* const place = net.insert_place(tokens);
    net.insert_input_arc(
        place, net.insert_transition(function, false, 1.0, 0.0, 0)->input(function.place));
    return place;
}

// Fires until `tokens` are gone from each of the places, and reports the seconds that a
// firing took.
void run_drains(benchmark::State& state, ovel::petri_net& net, std::deque<drain> const& drains,
                unsigned int tokens) {
    double seconds = 0.0;
    for (auto _ : state) {
        for (drain const& each : drains)
            for (unsigned int i = 0; i != tokens; ++i)
                net.send(each.place, 0);
        auto const start = clock_type::now();
        net.release();
        net.acquire();
        double const taken = since(start);
        state.SetIterationTime(taken);
        seconds += taken;
    }
    state.counters["seconds"] = seconds / static_cast<double>(state.iterations()) / tokens /
                                static_cast<double>(drains.size());
}

// One transition fires next to `places` that no arc leads to.
void fire_beside_places(benchmark::State& state, unsigned int places) {
    std::deque<drain> drains(1);
    ovel::petri_net net(processors, 0.0, stack_size);
    for (unsigned int i = 0; i != places; ++i)
        net.insert_place(1);
    insert_drain(net, drains[0], firings);
    run_drains(state, net, drains, firings);
}

// One transition fires next to `arcs` to and from transitions that cannot fire.
void fire_beside_arcs(benchmark::State& state, unsigned int arcs) {
    std::deque<drain> drains(1);
    std::deque<stage> idle(arcs / 2);
    ovel::petri_net net(processors, 0.0, stack_size);
    auto* from = net.insert_place(1);
    for (stage& each : idle) {
        auto* const into = net.insert_place(1);
        auto* const fires = net.insert_transition(each, false, 1.0, 0.0, 0);
        net.insert_input_arc(from, fires->input(each.before));
        net.insert_output_arc(fires->output(each.after), into);
        from = into;
    }
    insert_drain(net, drains[0], firings);
    run_drains(state, net, drains, firings);
}

// `transitions` are enabled and take turns.
void fire_in_turn(benchmark::State& state, unsigned int transitions) {
    unsigned int const tokens = std::max(firings / transitions, 2u);
    std::deque<drain> drains(transitions);
    ovel::petri_net net(processors, 0.0, stack_size);
    for (drain& each : drains)
        insert_drain(net, each, tokens);
    run_drains(state, net, drains, tokens);
}

void growth_rows(std::string const& row, void (*run)(benchmark::State&, unsigned int)) {
    for (unsigned int const number : {10u, 1'000u, 100'000u})
        timed_contestant(row, "ovel " + std::to_string(number),
                         [=](benchmark::State& state) { run(state, number); });
}

}  // namespace

void ovel_benchmark::register_rows() {
    for (unsigned int const stages : {1u, 4u, 16u})
        for (unsigned int const microseconds : {0u, 1u}) {
            std::string const row =
                "chain_of_" + std::to_string(stages) + '_' + (microseconds == 0 ? "empty" : "1us");
            chain_row(row, {stages, microseconds,
                            (microseconds == 0 ? 200'000 : 20'000) / in_flight / stages});
        }
    chain_row("share_of_1us", {4, 1, 100}, figure::share);
    chain_row("share_of_10us", {4, 10, 20}, figure::share);

    for (unsigned int const guests : {5u, 100u, 1'000u})
        philosophers_row(guests);

    growth_rows("firing_beside_places", fire_beside_places);
    growth_rows("firing_beside_arcs", fire_beside_arcs);
    growth_rows("firing_of_many_queued", fire_in_turn);
}
