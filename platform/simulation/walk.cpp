// SPDX-License-Identifier: Apache-2.0
// Walks through the schedules of a program, a depth-first search in a tree of choices,
// and the notation of a schedule.

#include "report.h"
#include "run.h"
#include "simulation.h"

namespace ovel::simulation {

walk::walk(scenario const& program, unsigned int variant) : _program(program) {
    _last.how = strategy::choices;
    _last.variant = variant;
}

outcome walk::next(unsigned int steps_shown) {
    _last.deviations.clear();
    for (unsigned int at = 0; at != _path.size(); ++at)
        if (_path[at] != 0)
            _last.deviations.push_back({at, _path[at]});
    std::vector<choice_point> points;
    outcome result = run_and_trace(_program, _last, steps_shown, points);
    // Finds the last point with an alternative not yet taken. After it, every point takes
    // its first alternative again.
    while (!points.empty() && points.back().taken + 1 == points.back().count)
        points.pop_back();
    _path.clear();
    for (choice_point const& each : points)
        _path.push_back(each.taken);
    _done = _path.empty();
    if (!_done)
        ++_path.back();
    return result;
}

std::string replay_line(scenario const& program, schedule const& when) {
    std::string text;
    append(text, "simulation_test --scenario %s --variant %u --strategy %s", program.name,
           when.variant, name(when.how));
    if (when.how != strategy::choices) {
        append(text, " --seed %llu", static_cast<unsigned long long>(when.seed));
        return text;
    }
    text += " --choices ";
    for (deviation const& each : when.deviations)
        append(text, "%s%u:%u", &each == when.deviations.data() ? "" : ",", each.point,
               each.alternative);
    return text;
}

}  // namespace ovel::simulation
