// SPDX-License-Identifier: Apache-2.0
#include "ovel_net_store.h"
#include "ovel_durable_tool.h"
#include "ovel_net_failure.h"
#include "ovel_net_system.h"
#include "ovel_thread_support.h"
#include "ovel_time.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <iostream>

namespace ovel_net {

namespace {

namespace tool = ovel::durable::tool;

tool::entry const& library() {
    if (durable_library == nullptr)
        throw failure{2, "--store is not available on this system"};
    void* const found = find_in_library(durable_library, tool::entry_name);
    if (found == nullptr)
        throw failure{2, std::string("--store needs the library ") + durable_library +
                             ": install the package libovel-durable1"};
    tool::entry const& entry = *reinterpret_cast<tool::entry const* (*)()>(found)();
    if (entry.version != std::string(OVEL_VERSION))
        throw failure{2, std::string(durable_library) + " is of version " + entry.version +
                             ", this program of version " OVEL_VERSION};
    return entry;
}

void add(std::vector<tool::arc>& arcs, std::vector<arc> const& from, bool input) {
    for (arc const& each : from)
        arcs.push_back({each.place, input, each.weight});
}

// The plan for the store, with the model's places and transitions.
tool::plan plan_of(net const& model, options const& chosen) {
    tool::plan made{};
    made.store = chosen.store;
    made.net = model.name;
    for (place const& each : model.places)
        made.places.push_back({each.id, std::max(chosen.capacity, each.least_room), each.initial});
    for (transition const& each : model.transitions) {
        tool::transition& added = made.transitions.emplace_back();
        added.name = each.id;
        add(added.arcs, each.inputs, true);
        add(added.arcs, each.outputs, false);
    }
    made.threads =
        chosen.threads != 0 ? chosen.threads : ovel::thread_support::available_processors();
    made.firings = chosen.firings;
    made.report = [](std::string const& line) {
        std::cerr << "ovel-net: " + line + '\n';
    };
    return made;
}

}  // namespace

result run_in_store(net const& model, options const& chosen, observer const& observe) {
    tool::entry const& with = library();
    tool::plan asked = plan_of(model, chosen);
    ovel::time const start = ovel::time::now();
    std::atomic<std::uint64_t> own = 0;  // firings of this process
    asked.work = [&own, work = ovel::time_base::seconds(chosen.work * 1e-6)] {
        ovel::time_base const end = ovel::time_base::now() + work;
        while (work != ovel::time_base() && ovel::time_base::now() < end) {}
        own.fetch_add(1, std::memory_order_relaxed);
    };
    auto const elapsed = [&] {
        return (ovel::time::now() - start).seconds();
    };
    asked.go_on = [&] {
        return observe(elapsed(), own.load(std::memory_order_relaxed)) &&
               elapsed() < chosen.seconds;
    };
    tool::result seen;
    try {
        seen = with.run(asked);
    } catch (std::exception const& failed) {
        throw failure{2, failed.what()};
    }
    result made;
    made.threads = asked.threads;
    made.seconds = elapsed();
    for (tool::place const& each : asked.places)
        made.capacities.push_back(static_cast<unsigned int>(each.capacity));
    made.marking.assign(seen.tokens.begin(), seen.tokens.end());
    made.firings = seen.fired;
    made.own = own;
    verify_marking(model, made);
    if (seen.repeated)
        throw internal_error("a token is in the net twice");
    made.end = seen.rests ? judge(model, made, false) : outcome::stopped;
    return made;
}

std::string show_store(std::string const& store) {
    tool::entry const& with = library();
    try {
        return with.show(store);
    } catch (std::exception const& failed) {
        throw failure{2, failed.what()};
    }
}

}  // namespace ovel_net
