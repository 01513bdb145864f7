// SPDX-License-Identifier: Apache-2.0
// The parts of the engine. Each takes thousands of random steps together with a model of standard
// containers.
#include "ovel_petri_enabled_transitions.h"
#include "ovel_petri_ready_firings.h"

#include "ovel_test.h"

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

// The next number of a walk, the same in every run.
unsigned int below(std::mt19937& numbers, unsigned int bound) {
    return static_cast<unsigned int>(numbers() % bound);
}

// One rank, a word's worth of them, one more, and more than three and four levels have bits.
TEST(ready_firings_test, the_first_come_of_the_first_rank_that_fits_is_taken) {
    constexpr unsigned int steps = 20000;
    // Only passed through, so any addresses will do.
    std::vector<long> const addresses(steps);
    for (unsigned int const ranks : {1u, 64u, 65u, 300u, 4097u, 262145u}) {
        SCOPED_TRACE(ranks);
        std::mt19937 random(ranks);
        std::vector<double> spaces;  // each one of two ranks in a row
        for (unsigned int rank = 0; rank != ranks; ++rank)
            spaces.push_back(0.25 * ((ranks - 1 - rank) / 2));
        detail::ready_firings tested(spaces.data(), ranks, 1);
        std::map<unsigned int, std::deque<petri_transition*>> model;
        unsigned int rank = 0;
        for (unsigned int step = 0; step != steps; ++step) {
            // Mostly close to the last one, so that they share words.
            rank = below(random, 4) == 0 ? below(random, ranks)
                                         : std::min(rank + below(random, 5), ranks - 1);
            double const space = spaces[rank] - (below(random, 2) == 0 ? 0.1 : 0.0);
            auto const fits = std::ranges::find_if(
                model, [&](auto const& each) { return spaces[each.first] <= space; });
            ASSERT_EQ(tested.fits(space), fits != model.end()) << "step " << step;
            // They grow to some dozens and then to none.
            if (below(random, 5) < (step / 500 % 2 == 0 ? 3u : 2u)) {
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
    std::mt19937 random(1);
    for (unsigned int step = 0; step != 20000; ++step) {
        ASSERT_EQ(tested.empty(), model.empty());
        petri_transition& any = transitions[below(random, 30)];
        bool const grows = below(random, 5) < (step / 200 % 2 == 0 ? 3u : 2u);
        if (!inspector::queued(any) && grows) {
            tested.insert(&any);
            ASSERT_EQ(inspector::random(any), numbers());
            model.emplace(key_of(any), &any);
        } else if (inspector::queued(any) && below(random, 2) == 0) {
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

}  // namespace
