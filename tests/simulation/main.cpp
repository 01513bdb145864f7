// Runs the scenarios under as many schedules as the time allows, or one schedule
// again.

#include "scenarios.h"

#include <sys/personality.h>
#include <unistd.h>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>

namespace ovel::simulation {

std::vector<scenario>& scenarios() {
    static std::vector<scenario> all;
    return all;
}

std::vector<pinned>& pinned_schedules() {
    static std::vector<pinned> all;
    return all;
}

namespace {

constexpr char usage[] =
    "usage: simulation_test [OPTION]...\n"
    "  --seconds S      time for all scenarios together (60)\n"
    "  --scenario NAME  only those whose name begins so\n"
    "  --strategy HOW   only random, sticky, priorities or choices\n"
    "  --list           names the scenarios\n"
    "one schedule again, as a failure prints it:\n"
    "  --scenario NAME --variant V --strategy HOW --seed N\n"
    "  --scenario NAME --variant V --strategy choices --choices POINT:ALTERNATIVE,...\n";

using timer = std::chrono::steady_clock;

struct options {
    double seconds = 60;
    std::string_view scenario;
    std::optional<strategy> only;
    std::optional<std::uint64_t> seed;
    unsigned int variant = 0;
    std::vector<deviation> choices;
    bool replay = false;
};

// The schedules of one scenario, run a slice of time at a time.
class exploration {
public:
    exploration(scenario const& program, options const& asked) : _program(program), _asked(asked) {
        bool const walked = asked.only.value_or(strategy::choices) == strategy::choices;
        _drawn = asked.only != strategy::choices;
        if (program.exhaustive && walked)
            for (unsigned int variant = 0; variant != program.variants; ++variant)
                _walks.emplace_back(program, variant);
    }

    // Whether no schedule failed; the first that did has been shown.
    bool advance(timer::time_point end) {
        if (_schedules == 0 && !_run_pinned())
            return false;
        // Walks get one slice of two until they are through.
        bool const walking = !_walks.empty() && !_complete && (!_drawn || ++_slices % 2 != 0);
        return walking ? _walk_on(end) : !_drawn || _draw(end);
    }

    // Where there is little to choose, the time is better spent elsewhere.
    bool done() const {
        bool const walked = _walks.empty() || _complete;
        return walked && (!_drawn || (_schedules > _news + 5000 && _schedules > 2 * _news));
    }

    std::uint64_t schedules() const {
        return _schedules;
    }

    void print() const {
        std::printf("%-50s %10llu %10zu %7.0f", _program.name,
                    static_cast<unsigned long long>(_schedules), _interleavings.size(),
                    static_cast<double>(_steps) /
                        static_cast<double>(std::max<std::uint64_t>(1, _schedules)));
        if (_complete)
            std::printf("  all with 2 preemptions");
        if (_reported != 0)
            std::printf("  %llu reported", static_cast<unsigned long long>(_reported));
        std::printf("\n");
    }

private:
    bool _try(schedule const& when, outcome const& result) {
        if (!result.passed) {
            // Once more, to see its steps.
            outcome const again = run(_program, when);
            std::printf("\nFAILED %s: %s\n", _program.name, result.failure.c_str());
            if (again.failure != result.failure)
                std::printf("NOT THE SAME WHEN RUN AGAIN: %s\n", again.failure.c_str());
            std::printf("%sschedules before: %llu\nreplay: %s\n", again.report.c_str(),
                        static_cast<unsigned long long>(_schedules),
                        replay_line(_program, when).c_str());
            return false;
        }
        ++_schedules;
        _reported += result.reported;
        _steps += result.steps;
        if (_interleavings.insert(result.interleaving).second)
            _news = _schedules;
        return true;
    }

    bool _run_pinned() {
        for (pinned const& each : pinned_schedules())
            if (std::strcmp(each.scenario, _program.name) == 0 &&
                !_try(each.when, run(_program, each.when, 0)))
                return false;
        return true;
    }

    // All variants in turn.
    bool _walk_on(timer::time_point end) {
        while (!_complete && timer::now() < end) {
            _complete = true;
            for (walk& each : _walks) {
                for (int some = 0; some != 50 && !each.done(); ++some) {
                    outcome const result = each.next();
                    if (!_try(each.last(), result))
                        return false;
                }
                _complete = _complete && each.done();
            }
        }
        return true;
    }

    bool _draw(timer::time_point end) {
        constexpr strategy drawn[] = {strategy::random, strategy::sticky, strategy::priorities,
                                      strategy::sticky};
        for (; timer::now() < end && !done(); ++_seed)
            for (unsigned int variant = 0; variant != _program.variants; ++variant) {
                schedule const when = {.how = _asked.only.value_or(drawn[(_seed + variant) % 4]),
                                       .variant = variant,
                                       .seed = _seed};
                if (!_try(when, run(_program, when, 0)))
                    return false;
            }
        return true;
    }

    scenario const& _program;
    options const& _asked;
    std::uint64_t _seed = 1;
    std::vector<walk> _walks;
    bool _drawn;
    bool _complete = false;  // the walks
    unsigned int _slices = 0;
    std::uint64_t _schedules = 0;
    std::uint64_t _news = 0;  // the schedule that was the last to show anything new
    std::uint64_t _reported = 0;
    std::uint64_t _steps = 0;
    std::unordered_set<std::uint64_t> _interleavings;
};

int explore(std::vector<scenario> const& programs, options const& asked) {
    std::vector<exploration> all;
    all.reserve(programs.size());
    for (scenario const& each : programs)
        all.emplace_back(each, asked);
    auto const after = [](timer::time_point start, double seconds) {
        return start +
               std::chrono::duration_cast<timer::duration>(std::chrono::duration<double>(seconds));
    };
    auto const end = after(timer::now(), asked.seconds);
    // Short slices in turn, so that a fault shows early whichever scenario finds it.
    constexpr double slice = 0.1;
    for (bool some = true; some && timer::now() < end;) {
        some = false;
        for (exploration& each : all) {
            if (each.done() || timer::now() >= end)
                continue;
            some = true;
            if (!each.advance(std::min(end, after(timer::now(), slice))))
                return 1;
        }
    }
    std::printf("%-50s %10s %10s %7s\n", "scenario", "schedules", "distinct", "steps");
    std::uint64_t schedules = 0;
    for (exploration const& each : all) {
        each.print();
        schedules += each.schedules();
    }
    std::printf("%llu schedules passed\n", static_cast<unsigned long long>(schedules));
    return 0;
}

int replay(scenario const& program, options const& asked) {
    schedule when = {.how = asked.only.value_or(strategy::random),
                     .variant = asked.variant,
                     .seed = asked.seed.value_or(0),
                     .deviations = asked.choices};
    outcome const result = run(program, when);
    std::printf("%s %s after %u steps%s%s\n%s", program.name, result.passed ? "passed" : "FAILED",
                result.steps, result.passed ? "" : ": ", result.failure.c_str(),
                result.report.c_str());
    return result.passed ? 0 : 1;
}

bool parse_choices(char const* text, std::vector<deviation>& choices) {
    while (*text != '\0') {
        deviation each{};
        int read = 0;
        if (std::sscanf(text, "%u:%u%n", &each.point, &each.alternative, &read) != 2)
            return false;
        choices.push_back(each);
        text += read;
        text += *text == ',';
    }
    return true;
}

int main(int count, char** arguments) {
    options asked;
    bool list = false;
    for (int each = 1; each != count; ++each) {
        std::string_view const option = arguments[each];
        if (option == "--list") {
            list = true;
            continue;
        }
        if (each + 1 == count) {
            std::fputs(usage, stderr);
            return 2;
        }
        char const* const value = arguments[++each];
        bool good = true;
        if (option == "--seconds") {
            asked.seconds = std::atof(value);
        } else if (option == "--scenario") {
            asked.scenario = value;
        } else if (option == "--strategy") {
            for (strategy const how :
                 {strategy::random, strategy::sticky, strategy::priorities, strategy::choices})
                if (std::strcmp(value, name(how)) == 0)
                    asked.only = how;
            good = asked.only.has_value();
        } else if (option == "--seed") {
            asked.seed = std::strtoull(value, nullptr, 10);
            asked.replay = true;
        } else if (option == "--choices") {
            good = parse_choices(value, asked.choices);
            asked.only = strategy::choices;
            asked.replay = true;
        } else if (option == "--variant") {
            asked.variant = static_cast<unsigned int>(std::atoi(value));
        } else {
            good = false;
        }
        if (!good) {
            std::fputs(usage, stderr);
            return 2;
        }
    }

    std::vector<scenario> chosen;
    for (scenario const& each : scenarios())
        if (asked.replay ? asked.scenario == each.name
                         : std::string_view(each.name).starts_with(asked.scenario))
            chosen.push_back(each);
    std::sort(chosen.begin(), chosen.end(), [](scenario const& one, scenario const& other) {
        return std::strcmp(one.name, other.name) < 0;
    });
    if (list) {
        for (scenario const& each : chosen)
            std::printf("%s\n", each.name);
        return 0;
    }
    if (chosen.empty()) {
        std::fprintf(stderr, "no scenario has this name\n");
        return 2;
    }
    if (asked.replay)
        return replay(chosen.front(), asked);

    return explore(chosen, asked);
}

}  // namespace

}  // namespace ovel::simulation

int main(int count, char** arguments) {
    // At the same addresses in every process, so that a run is the same although
    // the program under test should look at an address.
    if ((personality(0xffffffff) & ADDR_NO_RANDOMIZE) == 0 && personality(ADDR_NO_RANDOMIZE) != -1)
        execv("/proc/self/exe", arguments);
    int const result = ovel::simulation::main(count, arguments);
    std::fflush(stdout);
    // The library's state is that of the last run, which its exit hooks must not
    // see.
    _exit(result);
}
