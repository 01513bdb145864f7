// SPDX-License-Identifier: Apache-2.0
#include "ovel_durable_tool.h"
#include "ovel_durable_engine.h"

#include <ovel_time.h>

#include <deque>

namespace ovel::durable::tool {

namespace {

// Passes tokens on in the order of the arcs, as ovel-net does in memory: what it puts
// beyond what it takes is new, and named after the firing.
class passing : public detail::body {
public:
    passing(std::vector<arc> const& arcs, std::function<void()> work) : _work(std::move(work)) {
        for (arc const& each : arcs)
            if (!each.input)
                _weights.push_back(each.weight);
    }

    void run(key const& firing, std::vector<std::vector<detail::token>>& taken,
             std::vector<std::vector<std::string>>& put) override {
        _work();
        std::deque<std::string> tokens;
        for (std::vector<detail::token>& each : taken)
            for (detail::token& one : each)
                tokens.push_back(std::move(one.value));
        std::uint64_t made = 0;
        for (std::size_t i = 0; i < _weights.size(); ++i)
            for (std::uint64_t n = 0; n < _weights[i]; ++n)
                if (tokens.empty()) {
                    put[i].push_back(firing.text() + '/' + std::to_string(made++));
                } else {
                    put[i].push_back(std::move(tokens.front()));
                    tokens.pop_front();
                }
    }

private:
    std::function<void()> const _work;
    std::vector<std::uint64_t> _weights;
};

result run(plan const& asked) {
    options chosen;
    chosen.threads = asked.threads;
    chosen.firings = asked.firings;
    chosen.report = asked.report;
    detail::connector const connect = detail::connect_to(asked.store);
    detail::engine member(connect, asked.net, chosen);
    for (place const& each : asked.places) {
        std::vector<std::string> initial;
        for (std::uint64_t i = 0; i < each.initial; ++i)
            initial.push_back(each.name + '/' + std::to_string(i));
        member.insert_place(each.name, each.capacity, "identity", std::move(initial));
    }
    for (transition const& each : asked.transitions) {
        std::vector<detail::arc> arcs;
        for (arc const& between : each.arcs)
            arcs.push_back({between.place, between.input, between.weight});
        member.insert_transition(each.name, std::move(arcs),
                                 std::make_unique<passing>(each.arcs, asked.work));
    }
    member.start(std::nullopt);
    for (bool ended = false; !ended;) {
        ovel::time const next = ovel::time::then(0.1);
        ended = member.join(&next);
        if (!ended && !asked.go_on()) {
            member.halt();
            member.join(nullptr);
            break;
        }
    }
    detail::state const seen = detail::state_of(connect, asked.net);
    result made{{}, {}, seen.claims.empty(), detail::repeats_values(connect, asked.net)};
    for (detail::place_state const& each : seen.places)
        made.tokens.push_back(each.tokens);
    for (detail::transition_state const& each : seen.transitions) {
        made.fired.push_back(each.fired);
        made.rests = made.rests && !each.enabled;
    }
    return made;
}

std::string show(std::string const& store) {
    detail::connector const connect = detail::connect_to(store);
    std::string text;
    for (std::string const& each : detail::nets_of(connect))
        text += (text.empty() ? "" : "\n") + detail::explanation(detail::state_of(connect, each));
    return text.empty() ? "There is no net in the store.\n" : text;
}

}  // namespace

}  // namespace ovel::durable::tool

extern "C" OVEL_DURABLE_EXPORT ovel::durable::tool::entry const* ovel_durable_tool_entry() {
    static ovel::durable::tool::entry const made{OVEL_DURABLE_VERSION, &ovel::durable::tool::run,
                                                 &ovel::durable::tool::show};
    return &made;
}
