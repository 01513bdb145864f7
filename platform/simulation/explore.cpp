// SPDX-License-Identifier: Apache-2.0
// Runs the scenarios of a program under as many schedules as time allows, or one schedule
// again.

#include "simulation.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iomanip>
#include <iostream>
#include <map>
#include <string>
#include <string_view>
#include <unordered_set>

namespace ovel::simulation {

std::vector<scenario>& scenarios() {
    static std::vector<scenario> all;
    return all;
}

namespace {

constexpr char usage[] =
    "usage: simulation_test [--seconds S] [--scenario NAME]\n"
    "for S seconds (60) together, all scenarios or those whose name begins so;\n"
    "one schedule again, as a failure prints it:\n"
    "  --scenario NAME --variant V --strategy HOW --seed N\n"
    "  --scenario NAME --variant V --strategy choices --choices POINT:ALTERNATIVE,...\n";

using options = std::map<std::string_view, std::string>;
using timer = std::chrono::steady_clock;

// The schedules of one scenario, run in time slices.
class exploration {
public:
    explicit exploration(scenario const& program) : _program(program) {
        for (unsigned int variant = 0; program.exhaustive && variant != program.variants; ++variant)
            _walks.emplace_back(program, variant);
    }

    // Returns false after showing the first schedule that failed.
    bool advance(timer::time_point end) {
        if (_schedules == 0)
            for (schedule const& each : _program.pinned)
                if (!_try(each, run(_program, each, 0)))
                    return false;
        // Walks get every other slice until they are complete.
        return !_walked() && ++_slices % 2 != 0 ? _walk_on(end) : _draw(end);
    }

    // A scenario with few choices left; the time is better spent elsewhere.
    bool done() const {
        return _walked() && _drawn();
    }

    void print() const {
        std::cout << std::left << std::setw(50) << _program.name << std::right << std::setw(11)
                  << _schedules << std::setw(11) << _interleavings.size()
                  << (_walks.empty() || !_walked() ? "\n" : "  all with 2 preemptions\n");
    }

private:
    bool _try(schedule const& when, outcome const& result) {
        if (!result.passed) {
            // Runs it again to record its steps.
            outcome const again = run(_program, when);
            std::cout << "\nFAILED " << _program.name << ": " << result.failure << '\n';
            if (again.failure != result.failure)
                std::cout << "NOT THE SAME WHEN RUN AGAIN: " << again.failure << '\n';
            std::cout << again.report << "schedules before: " << _schedules
                      << "\nreplay: " << replay_line(_program, when) << '\n';
            return false;
        }
        ++_schedules;
        if (_interleavings.insert(result.interleaving).second)
            _news = _schedules;
        return true;
    }

    bool _walked() const {
        return std::ranges::all_of(_walks, &walk::done);
    }
    bool _drawn() const {
        return _schedules > _news + 5000 && _schedules > 2 * _news;
    }

    // Runs all variants in turn.
    bool _walk_on(timer::time_point end) {
        while (!_walked() && timer::now() < end)
            for (walk& each : _walks)
                for (int some = 0; some != 50 && !each.done(); ++some) {
                    outcome const result = each.next();
                    if (!_try(each.last(), result))
                        return false;
                }
        return true;
    }

    bool _draw(timer::time_point end) {
        constexpr strategy drawn[] = {strategy::random, strategy::sticky, strategy::priorities,
                                      strategy::sticky};
        for (; timer::now() < end && !_drawn(); ++_seed)
            for (unsigned int variant = 0; variant != _program.variants; ++variant) {
                schedule const when = {
                    .how = drawn[(_seed + variant) % 4], .variant = variant, .seed = _seed};
                if (!_try(when, run(_program, when, 0)))
                    return false;
            }
        return true;
    }

    scenario const& _program;
    std::uint64_t _seed = 1;
    std::vector<walk> _walks;
    unsigned int _slices = 0;
    std::uint64_t _schedules = 0;
    std::uint64_t _news = 0;  // the last schedule with a new interleaving
    std::unordered_set<std::uint64_t> _interleavings;
};

int explore(std::string_view prefix, double seconds) {
    std::vector<exploration> all;
    for (scenario const& each : scenarios())
        if (std::string_view(each.name).starts_with(prefix))
            all.emplace_back(each);
    auto const after = [](timer::time_point start, double time) {
        return start +
               std::chrono::duration_cast<timer::duration>(std::chrono::duration<double>(time));
    };
    auto const end = after(timer::now(), seconds);
    // Short slices in turn, so that a fault shows early, whichever scenario finds it.
    for (bool some = true; some && timer::now() < end;) {
        some = false;
        for (exploration& each : all) {
            if (each.done() || timer::now() >= end)
                continue;
            some = true;
            if (!each.advance(std::min(end, after(timer::now(), 0.1))))
                return 1;
        }
    }
    std::cout << "scenario                                             schedules   distinct\n";
    for (exploration const& each : all)
        each.print();
    return all.empty() ? 2 : 0;
}

int replay(options const& asked) {
    schedule when = {.variant = static_cast<unsigned int>(std::stoul(asked.at("--variant"))),
                     .seed = std::stoull(asked.at("--seed"))};
    for (strategy const how :
         {strategy::random, strategy::sticky, strategy::priorities, strategy::choices})
        if (asked.at("--strategy") == name(how))
            when.how = how;
    char const* choices = asked.at("--choices").c_str();
    deviation each{};
    for (int read = 0; std::sscanf(choices, "%u:%u%n", &each.point, &each.alternative, &read) == 2;
         choices += choices[read] == ',' ? read + 1 : read)
        when.deviations.push_back(each);
    auto const program = std::ranges::find(scenarios(), asked.at("--scenario"), &scenario::name);
    if (program == scenarios().end())
        return 2;
    outcome const result = run(*program, when);
    std::cout << program->name << (result.passed ? " passed after " : " FAILED after ")
              << result.steps << " steps: " << result.failure << '\n'
              << result.report;
    return result.passed ? 0 : 1;
}

}  // namespace

int explore(int count, char** arguments) {
    options asked = {{"--seconds", "60"}, {"--scenario", ""}, {"--variant", "0"},
                     {"--strategy", ""},  {"--seed", "0"},    {"--choices", ""}};
    for (int each = 1; each < count; each += 2) {
        auto const option = asked.find(arguments[each]);
        if (option == asked.end() || each + 1 == count) {
            std::cerr << usage;
            return 2;
        }
        option->second = arguments[each + 1];
    }
    return asked.at("--strategy").empty()
               ? explore(asked.at("--scenario"), std::stod(asked.at("--seconds")))
               : replay(asked);
}

}  // namespace ovel::simulation
