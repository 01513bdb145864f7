// SPDX-License-Identifier: Apache-2.0
// The parts of the engine. Each takes thousands of random steps together with a model of standard
// containers.
#include "ovel_petri_crew.h"
#include "ovel_petri_enabled_transitions.h"
#include "ovel_petri_ready_firings.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <tuple>
#include <vector>

struct ovel::detail::inspector {
    static bool queued(petri_transition const& transition) {
        return transition.queued();
    }
    static unsigned int random(petri_transition const& transition) {
        return transition.random();
    }
};

namespace {

using namespace ovel;
using detail::inspector;

struct nothing : petri_function {
    void operator()() override {}
};

// Numbers of a walk, the same in every run.
struct walk {
    explicit walk(unsigned int seed) : _numbers(seed) {}

    unsigned int below(unsigned int bound) {
        return std::uniform_int_distribution<unsigned int>(0, bound - 1)(_numbers);
    }

private:
    std::mt19937 _numbers;
};

// One rank, a word's worth of them, one more, and more than three and four levels have bits.
TEST(ready_firings_test, the_first_come_of_the_first_rank_that_fits_is_taken) {
    constexpr unsigned int steps = 20000;
    // Only passed through, so any addresses will do.
    std::vector<long> const addresses(steps);
    for (unsigned int const ranks : {1u, 64u, 65u, 300u, 4097u, 262145u}) {
        SCOPED_TRACE(ranks);
        walk random(ranks);
        std::vector<double> spaces;  // each one of two ranks in a row
        for (unsigned int rank = 0; rank != ranks; ++rank)
            spaces.push_back(0.25 * ((ranks - 1 - rank) / 2));
        detail::ready_firings tested(spaces.data(), ranks, 1);
        std::map<unsigned int, std::deque<petri_transition*>> model;
        unsigned int rank = 0;
        for (unsigned int step = 0; step != steps; ++step) {
            // Mostly close to the last one, so that they share words.
            rank = random.below(4) == 0 ? random.below(ranks)
                                        : std::min(rank + random.below(5), ranks - 1);
            double const space = spaces[rank] - (random.below(2) == 0 ? 0.1 : 0.0);
            auto const fits = std::ranges::find_if(
                model, [&](auto const& each) { return spaces[each.first] <= space; });
            ASSERT_EQ(tested.fits(space), fits != model.end()) << "step " << step;
            // They grow to some dozens and then to none.
            if (random.below(5) < (step / 500 % 2 == 0 ? 3u : 2u)) {
                auto* const inserted =
                    reinterpret_cast<petri_transition*>(const_cast<long*>(&addresses[step]));
                tested.insert(rank, inserted);
                model[rank].push_back(inserted);
            } else if (fits == model.end()) {
                ASSERT_EQ(tested.take(space), nullptr) << "step " << step;
            } else {
                ASSERT_EQ(tested.take(space), fits->second.front()) << "step " << step;
                fits->second.pop_front();
                if (fits->second.empty())
                    model.erase(fits);
            }
        }
    }
}

// The greatest space, time and random number first; with few transitions, which fit into the
// array, and with many.
TEST(enabled_transitions_test, the_first_one_is_taken_and_any_one_is_erased) {
    skip_list<petri_transition*> list;
    unsigned int state = 1;
    detail::enabled_transitions tested(list, state);
    std::minstd_rand0 numbers;
    nothing function;
    std::deque<petri_transition> transitions;
    for (unsigned int i = 0; i != 30; ++i)
        transitions.emplace_back(function, false, 1.0 + i % 2, 0.5 * (i % 3), 0, nullptr);
    using key = std::tuple<double, double, unsigned int>;
    std::map<key, petri_transition*, std::greater<>> model;
    auto const key_of = [](petri_transition const& of) {
        return key(of.space(), of.time(), inspector::random(of));
    };
    walk random(1);
    for (unsigned int step = 0; step != 20000; ++step) {
        ASSERT_EQ(tested.empty(), model.empty());
        petri_transition& any = transitions[random.below(30)];
        bool const grows = random.below(5) < (step / 200 % 2 == 0 ? 3u : 2u);
        if (!inspector::queued(any) && grows) {
            tested.insert(&any);
            ASSERT_EQ(inspector::random(any), numbers());
            model.emplace(key_of(any), &any);
        } else if (inspector::queued(any) && random.below(2) == 0) {
            tested.erase(&any);
            ASSERT_EQ(model.erase(key_of(any)), 1u);
        } else if (!grows && !model.empty()) {
            ASSERT_EQ(tested.take_first(), model.begin()->second) << "step " << step;
            model.erase(model.begin());
        }
        for (petri_transition const& each : transitions)
            ASSERT_EQ(inspector::queued(each), model.contains(key_of(each)));
    }
    while (!model.empty()) {
        ASSERT_EQ(tested.take_first(), model.begin()->second);
        model.erase(model.begin());
    }
}

// Tenths of the budget do not add up to it in binary: the free space is right up to rounding,
// and exact while no firing takes any.
struct crew_model {
    static constexpr unsigned int threads = 3;
    static constexpr double budget = 1.0;
    static constexpr unsigned int tenths[] = {10, 10, 7, 7, 4, 4, 2, 2, 1, 1, 0, 0};

    crew_model() {
        for (unsigned int i = 0; i != std::size(tenths); ++i)
            transitions.emplace_back(function, true, 2.0 - i % 2, 0.1 * tenths[i], 0, nullptr);
        for (petri_transition& each : transitions)
            sorted.push_back(&each);
    }

    // Whether the firing of this index fits; `unsure` by how much that may be wrong.
    bool fits(unsigned int index, double unsure) const {
        unsigned int left = 10;
        for (unsigned int const each : running)
            left -= tenths[each];
        return 0.1 * tenths[index] <= 0.1 * left + (left == 10 ? 0.0 : unsure);
    }

    // A thread takes what the crew gives it.
    void take(petri_transition const* taken) {
        auto const index =
            static_cast<unsigned int>(std::ranges::find(sorted, taken) - sorted.begin());
        for (unsigned int const each : ready)
            ASSERT_FALSE(each < index && fits(each, -1e-9));
        if (taken == nullptr)
            return;
        ASSERT_TRUE(fits(index, 1e-9));
        auto const found = ready.find(index);
        ASSERT_NE(found, ready.end());
        ready.erase(found);
        running.push_back(index);
    }

    nothing function;
    std::deque<petri_transition> transitions;
    std::vector<petri_transition*> sorted;
    std::multiset<unsigned int> ready;  // indices into `sorted`
    std::vector<unsigned int> running;
    bool coming = false;
};

TEST(petri_crew_test, what_fits_runs_and_idle_threads_are_called_for_it) {
    crew_model model;
    detail::petri_crew tested(crew_model::threads, crew_model::budget, model.sorted.data(),
                              model.sorted.data() + model.sorted.size());
    walk random(1);
    for (unsigned int step = 0; step != 20000; ++step) {
        SCOPED_TRACE(step);
        unsigned int const what = random.below(3);
        if (what == 0 && model.ready.size() < 20) {
            unsigned int const index = random.below(12);
            tested.insert(model.sorted[index]);
            model.ready.insert(index);
        } else if (what == 1) {
            auto const wanted = [&](double unsure) {
                return !model.coming && model.running.size() < crew_model::threads &&
                       std::ranges::any_of(model.ready, [&](unsigned int each) {
                           return model.fits(each, unsure);
                       });
            };
            bool const called = tested.begin_call();
            ASSERT_TRUE(called ? wanted(1e-9) : !wanted(-1e-9));
            model.coming |= called;
        } else if (model.coming && random.below(2) == 0) {
            model.coming = false;
            ASSERT_NO_FATAL_FAILURE(model.take(tested.next(nullptr)));
        } else if (!model.running.empty()) {
            auto const ended = model.running.begin() +
                               random.below(static_cast<unsigned int>(model.running.size()));
            petri_transition* const transition = model.sorted[*ended];
            model.running.erase(ended);
            ASSERT_NO_FATAL_FAILURE(model.take(tested.next(transition)));
        }
    }
}

}  // namespace
