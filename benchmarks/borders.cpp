// SPDX-License-Identifier: Apache-2.0
// The group borders: threads of the program exchange tokens with a net, on two processors.
#include "ovel_any.h"
#include "ovel_benchmark.h"
#include "ovel_benchmark_least_net.h"
#include "ovel_benchmark_queue.h"
#include "ovel_petri.h"
#include "ovel_petri_net.h"

#if defined(OVEL_PEER_TBB)
#include <tbb/concurrent_queue.h>
#include <tbb/flow_graph.h>
#endif

#include <chrono>
#include <deque>
#include <string>
#include <thread>
#include <vector>

namespace {

using clock_type = std::chrono::steady_clock;
using ovel_benchmark::bounded_queue;
using ovel_benchmark::contestant;
using ovel_benchmark::timed_contestant;

constexpr unsigned int processors = 2;
constexpr unsigned int stack_size = 65536;
constexpr unsigned int in_flight = 64;

// Moves a token on.
struct pass : ovel::petri_function {
    void operator()() override {
        ovel::any token;
        before->receive(token);
        after->send(token);
    }

    ovel::petri_place* before = nullptr;
    ovel::petri_place* after = nullptr;
};

// One token that a thread of the program sends and waits for.

void ask_net(benchmark::State& state) {
    pass through;
    ovel::petri_net net(processors, 0.0, stack_size);
    auto* const in = net.insert_place(1);
    auto* const out = net.insert_place(1);
    auto* const fires = net.insert_transition(through, false, 1.0, 0.0, 0);
    net.insert_input_arc(in, fires->input(through.before));
    net.insert_output_arc(fires->output(through.after), out);
    net.release();
    ovel::any token = 1;
    for (auto _ : state) {
        net.send(in, token);
        net.receive(out, token);
    }
    net.acquire();
}

void ask_least_net(benchmark::State& state) {
    ovel_benchmark::least_net<1> net(1, static_cast<unsigned int>(state.max_iterations));
    for (auto _ : state) {
        net.send(1);
        benchmark::DoNotOptimize(net.receive());
    }
}

void ask_thread(benchmark::State& state) {
    bounded_queue<int, 2 * in_flight> in;
    bounded_queue<int, 2 * in_flight> out;
    std::jthread const answers([&] {
        for (int token = in.pop(); token != 0; token = in.pop())
            out.push(token);
    });
    for (auto _ : state) {
        in.push(1);
        benchmark::DoNotOptimize(out.pop());
    }
    in.push(0);
}

#if defined(OVEL_PEER_TBB)
void ask_flow(benchmark::State& state) {
    tbb::flow::graph graph;
    tbb::concurrent_bounded_queue<int> out;
    tbb::flow::function_node<int> const node(graph, tbb::flow::serial,
                                             [&](int token) { out.push(token); });
    auto& in = const_cast<tbb::flow::function_node<int>&>(node);
    for (auto _ : state) {
        int token = 0;
        in.try_put(1);
        out.pop(token);
        benchmark::DoNotOptimize(token);
    }
    graph.wait_for_all();
}

// The caller does the work itself while it waits.
void ask_flow_and_help(benchmark::State& state) {
    tbb::flow::graph graph;
    int out = 0;
    tbb::flow::function_node<int> in(graph, tbb::flow::serial, [&](int token) { out = token; });
    for (auto _ : state) {
        in.try_put(1);
        graph.wait_for_all();
        benchmark::DoNotOptimize(out);
    }
}
#endif

// A chain that one thread of the program feeds and another drains, with `in_flight` tokens
// in each place, or in all of the peer's graph.

template <class Feed, class Drain>
double pass_through(unsigned int tokens, Feed feed, Drain drain) {
    auto const start = clock_type::now();
    std::jthread const feeds([&] {
        for (unsigned int i = 0; i != tokens; ++i)
            feed(static_cast<int>(i));
    });
    for (unsigned int i = 0; i != tokens; ++i)
        drain();
    return std::chrono::duration<double>(clock_type::now() - start).count();
}

double pass_net(unsigned int stages, unsigned int tokens) {
    std::deque<pass> passes(stages);
    ovel::petri_net net(processors, 0.0, stack_size);
    std::vector<ovel::petri_place*> places;
    for (unsigned int i = 0; i <= stages; ++i)
        places.push_back(net.insert_place(in_flight));
    for (unsigned int i = 0; i != stages; ++i) {
        auto* const fires = net.insert_transition(passes[i], false, 1.0, 0.0, 0);
        net.insert_input_arc(places[i], fires->input(passes[i].before));
        net.insert_output_arc(fires->output(passes[i].after), places[i + 1]);
    }
    net.release();
    ovel::any token;
    double const seconds = pass_through(
        tokens, [&](int value) { net.send(places.front(), value); },
        [&] { net.receive(places.back(), token); });
    net.acquire();
    return seconds;
}

double pass_typed_net(unsigned int stages, unsigned int tokens) {
    ovel::net net(processors);
    std::vector<ovel::place<int>> places;
    for (unsigned int i = 0; i <= stages; ++i)
        places.push_back(net.insert_place<int>(std::to_string(i), in_flight));
    for (unsigned int i = 0; i != stages; ++i)
        net.insert_transition("pass", from(places[i]), to(places[i + 1]),
                              [](int value) { return value; });
    net.start();
    double const seconds = pass_through(
        tokens, [&](int value) { places.front().send(value); },
        [&] { benchmark::DoNotOptimize(places.back().receive()); });
    net.join();
    return seconds;
}

double pass_least_net(unsigned int stages, unsigned int tokens) {
    ovel_benchmark::least_net<in_flight> net(stages, tokens);
    return pass_through(
        tokens, [&](int value) { net.send(value); },
        [&] { benchmark::DoNotOptimize(net.receive()); });
}

double pass_threads(unsigned int stages, unsigned int tokens) {
    std::deque<bounded_queue<int, 2 * in_flight>> queues(stages + 1);
    std::vector<std::jthread> threads;
    for (unsigned int i = 0; i != stages; ++i)
        threads.emplace_back([&, i] {
            for (unsigned int left = tokens; left != 0; --left)
                queues[i + 1].push(queues[i].pop());
        });
    return pass_through(
        tokens, [&](int value) { queues.front().push(value); },
        [&] { benchmark::DoNotOptimize(queues.back().pop()); });
}

#if defined(OVEL_PEER_TBB)
double pass_flow(unsigned int stages, unsigned int tokens) {
    using namespace tbb::flow;
    graph graph;
    tbb::concurrent_bounded_queue<int> out;
    out.set_capacity(in_flight);
    queue_node<int> in(graph);
    limiter_node<int> limit(graph, in_flight);
    std::deque<function_node<int, int>> nodes;
    for (unsigned int i = 0; i != stages; ++i)
        nodes.emplace_back(graph, serial, [](int value) { return value; });
    function_node<int, continue_msg> last(graph, serial, [&](int value) {
        out.push(value);
        return continue_msg();
    });
    make_edge(in, limit);
    make_edge(limit, nodes.front());
    for (unsigned int i = 0; i + 1 != stages; ++i)
        make_edge(nodes[i], nodes[i + 1]);
    make_edge(nodes.back(), last);
    make_edge(last, limit.decrementer());
    double const seconds = pass_through(
        tokens, [&](int value) { in.try_put(value); },
        [&] {
            int value = 0;
            out.pop(value);
            benchmark::DoNotOptimize(value);
        });
    graph.wait_for_all();
    return seconds;
}
#endif

void border_row(unsigned int stages) {
    unsigned int const tokens = 200'000 / stages;
    std::string const row = "fed_chain_of_" + std::to_string(stages);
    auto const add = [&](std::string const& name, double (*run)(unsigned int, unsigned int)) {
        timed_contestant(row, name, [=](benchmark::State& state) {
            for (auto _ : state)
                state.SetIterationTime(run(stages, tokens));
            state.SetItemsProcessed(state.iterations() * tokens);
        });
    };
    add("ovel", pass_net);
    add("ovel, typed", pass_typed_net);
#if defined(OVEL_PEER_TBB)
    add("tbb::flow", pass_flow);
#endif
    add("thread per stage", pass_threads);
    add("ovel's bound: counts and hand-offs", pass_least_net);
}

}  // namespace

void ovel_benchmark::register_rows() {
    for (unsigned int const stages : {1u, 4u, 16u})
        border_row(stages);

    contestant("token_in_and_back", "ovel", ask_net);
#if defined(OVEL_PEER_TBB)
    contestant("token_in_and_back", "tbb::flow", ask_flow);
    contestant("token_in_and_back", "tbb::flow, helping", ask_flow_and_help);
#endif
    contestant("token_in_and_back", "thread per stage", ask_thread);
    contestant("token_in_and_back", "ovel's bound: counts and hand-offs", ask_least_net);
}
