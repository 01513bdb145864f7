// SPDX-License-Identifier: Apache-2.0
#include "strategies.h"

#include "run.h"

#include <algorithm>
#include <iterator>

namespace ovel::simulation {

namespace {

// The ready thread after `slot` in turn; `slot` itself comes last.
unsigned int next_in_turn(threads_mask threads, unsigned int slot) {
    threads_mask const after =
        slot + 1 == slot_count ? 0 : threads & (~threads_mask{0} << (slot + 1));
    return lowest(after != 0 ? after : threads);
}

}  // namespace

char const* name(strategy which) {
    constexpr char const* names[] = {"random", "sticky", "priorities", "choices"};
    return names[static_cast<unsigned int>(which)];
}

unsigned int first_choice(alternatives const& from) {
    if (from.goes_on && !from.yields)
        return from.self;
    return next_in_turn(from.ready, from.self);
}

chooser::chooser(schedule const& when, unsigned int preemptions, generator& seeds)
    : _when(when), _preemptions_allowed(preemptions), _choice{seeds.next()} {
    constexpr unsigned int odds[] = {0, 256, 32, 8};
    _clock_odds = odds[seeds.below(std::size(odds))];
    // The steps with changes must not depend on the length of earlier runs. So the length
    // of the run is a guess, 32 to 4096 steps.
    unsigned int const length = 32u << seeds.below(8);
    _changes = seeds.below(most_changes + 1);
    for (unsigned int each = 0; each != _changes; ++each)
        _change_at[each] = seeds.below(length);
    std::sort(_change_at, _change_at + _changes);
    _clock_priority = seeds.next() >> 16 | _lowest_priority;
    if (seeds.below(2) == 0)
        _clock_priority = 0;
}

// Above all threads that have dropped.
std::uint64_t chooser::_draw_priority() {
    return _choice.next() >> 16 | std::uint64_t{1} << 32;
}

void chooser::add_thread(unsigned int slot) {
    _priorities[slot] = _draw_priority();
}

bool chooser::draw_spurious_failure() {
    return _when.how != strategy::choices && _choice.below(32) == 0;
}

unsigned int chooser::_choose_random(alternatives const& from) {
    if (from.clock && _clock_odds != 0 && _choice.below(_clock_odds) == 0)
        return the_clock;
    if (_when.how == strategy::sticky && from.goes_on && !from.yields && _choice.below(8) != 0)
        return from.self;
    threads_mask ready = from.ready;
    unsigned int skip = _choice.below(static_cast<unsigned int>(std::popcount(ready)));
    while (skip-- != 0)
        ready &= ready - 1;
    return lowest(ready);
}

unsigned int chooser::_choose_by_priority(alternatives const& from) {
    if (from.goes_on && from.yields)
        _priorities[from.self] = --_lowest_priority;
    while (_changed != _changes && from.steps >= _change_at[_changed]) {
        ++_changed;
        if (from.goes_on)
            _priorities[from.self] = --_lowest_priority;
    }
    unsigned int best = lowest(from.ready);
    for (threads_mask rest = from.ready & (from.ready - 1); rest != 0; rest &= rest - 1)
        if (_priorities[lowest(rest)] > _priorities[best])
            best = lowest(rest);
    if (from.clock && _clock_priority > _priorities[best]) {
        _clock_priority = _draw_priority();
        return the_clock;
    }
    return best;
}

unsigned int chooser::_choose_listed(alternatives const& from) {
    unsigned int const first = first_choice(from);
    bool const others_free = !from.goes_on;
    bool const can_preempt = _preemptions != _preemptions_allowed;
    // The first choice, the other threads in turn, the clock.
    unsigned int options[slot_count + 1];
    unsigned int count = 1;
    options[0] = first;
    if (others_free || can_preempt) {
        threads_mask rest = from.ready & ~bit(first);
        for (unsigned int each = first; rest != 0; ++count) {
            each = next_in_turn(rest, each);
            rest &= ~bit(each);
            options[count] = each;
        }
    }
    if (from.clock && can_preempt)
        options[count++] = the_clock;
    if (count == 1)
        return first;
    unsigned int take = 0;
    auto const& listed = _when.deviations;
    if (_next_deviation != listed.size() && listed[_next_deviation].point == _points.size())
        take = listed[_next_deviation++].alternative;
    if (take >= count)
        fail_run("the list of choices does not fit this program");
    _points.push_back({static_cast<unsigned char>(count), static_cast<unsigned char>(take)});
    if (take != 0 && (!others_free || options[take] == the_clock))
        ++_preemptions;
    return options[take];
}

unsigned int chooser::choose(alternatives const& from) {
    if (!from.clock && (from.ready & (from.ready - 1)) == 0)
        return lowest(from.ready);
    switch (_when.how) {
        case strategy::random:
        case strategy::sticky:
            return _choose_random(from);
        case strategy::priorities:
            return _choose_by_priority(from);
        case strategy::choices:
            break;
    }
    return _choose_listed(from);
}

}  // namespace ovel::simulation
