// SPDX-License-Identifier: Apache-2.0
#include "ovel_test.h"

using namespace ovel;

// Elements that compare equal can still be told apart by `tag`. A new one goes
// before its equals or after them.
template <bool before>
struct element {
    int key;
    int tag;
    bool operator==(element const&) const = default;
};
using element_list = skip_list<element<false>>;

template <bool before>
struct ovel::skip_list_order<element<before>> {
    static bool precedes(element<before> const& x, element<before> const& e) {
        return before ? x.key <= e.key : x.key < e.key;
    }
    // Some runs share an entry.
    static std::size_t hash(element<before> const& x) requires(!before) {
        return static_cast<std::size_t>(x.key % 7);
    }
};

struct ovel::detail::inspector {
    template <class T>
    static unsigned int level(typename skip_list<T>::iterator element) {
        return static_cast<typename skip_list<T>::links*>(element._position)->_level;
    }

    // Every lane visits exactly the elements that are at least as high, in their order.
    template <class T>
    static void check_links(skip_list<T>& sorted) {
        unsigned int highest = 1;
        unsigned int count = 0;
        auto before = sorted.end();
        for (auto each = sorted.begin(); each != sorted.end(); ++each, ++count) {
            EXPECT_EQ(std::prev(each), before);
            before = each;
            highest = std::max(highest, level<T>(each));
        }
        EXPECT_EQ(std::prev(sorted.end()), before);
        EXPECT_EQ(sorted.size(), count);
        EXPECT_EQ(sorted._head->_level, highest);
        EXPECT_LT(highest, std::max(2u, sorted._head->_capacity));

        for (unsigned int i = 0; i < sorted._head->_capacity; ++i) {
            auto linked = sorted._forward(sorted._head)[i];
            for (auto each = sorted.begin(); each != sorted.end(); ++each) {
                if (level<T>(each) <= i)
                    continue;
                ASSERT_EQ(linked, each._position) << "level " << i;
                linked = sorted._forward(linked)[i];
            }
            ASSERT_EQ(linked, &sorted._end) << "level " << i;
        }
    }
};

namespace {

using ovel::detail::inspector;

static_assert(std::bidirectional_iterator<element_list::iterator>);
static_assert(std::forward_iterator<list<int>::iterator>);
static_assert(std::forward_iterator<list<int>::const_iterator>);

TEST(skip_list_test, a_search_tests_few_elements) {
    constexpr int size = 20'000;
    element_list sorted;
    for (int i = 0; i < size; ++i)
        sorted.insert({i * 7919 % size, i});
    for (int sought = 0; sought <= size; sought += 97) {
        int tested = 0;
        auto const found = sorted.find_first([&](element<false> const& e) {
            ++tested;
            return e.key >= sought;
        });
        ASSERT_EQ(found == sorted.end() ? size : found->key, sought);
        // About two on each of log2(size) levels; a list without lanes tests thousands.
        EXPECT_LT(tested, 150);
    }
}

// A random walk beside a plain sorted vector. Few keys make many equals, so that
// erasing must find its node by identity.
template <class T>
void walk(unsigned int seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    skip_list<T> sorted;
    std::vector<T> model;
    for (int step = 0; step < 600; ++step) {
        // The walk drifts up for 200 steps and then down.
        if (model.empty() || random() % 4 < (step % 400 < 200 ? 3u : 1u)) {
            T const value{static_cast<int>(random() % 10), step};
            auto const place = std::ranges::find_if(
                model, [&](T const& e) { return ovel::skip_list_order<T>::precedes(value, e); });
            model.insert(place, value);
            // Some have room for more levels than they get, some for fewer.
            auto prepared = sorted.prepare(value, 1 + random() % 3);
            EXPECT_EQ(*(step % 2 == 0 ? sorted.insert(value) : sorted.insert(prepared)), value);
        } else {
            auto const index = random() % model.size();
            auto const next = sorted.erase(std::next(sorted.begin(), index));
            model.erase(model.begin() + index);
            EXPECT_EQ(next, std::next(sorted.begin(), index));
        }
        EXPECT_TRUE(std::ranges::equal(sorted, model));
        inspector::check_links(sorted);
        ASSERT_FALSE(testing::Test::HasFailure()) << "step " << step;
    }
    auto second = sorted.begin(), last = sorted.end();
    EXPECT_TRUE(second++ == sorted.begin() && second == std::next(sorted.begin()));
    EXPECT_TRUE(last-- == sorted.end() && std::next(last) == sorted.end());
    while (sorted.size() > 20)
        sorted.erase(--sorted.end());
    inspector::check_links(sorted);
    sorted.clear();
    // An insertion must not use links to elements that are gone.
    for (int key = 0; key < 10; ++key)
        sorted.insert({key, key});
    inspector::check_links(sorted);
}

TEST(skip_list_test, every_step_of_a_random_walk_keeps_order_and_links) {
    for (unsigned int seed = 1; seed <= 4; ++seed) {
        walk<element<false>>(seed);
        walk<element<true>>(seed);
    }
}

bool are(list<fragile> const& values, std::vector<int> const& numbers) {
    return std::ranges::equal(values, numbers, {}, &fragile::number);
}

TEST(list_test, elements_keep_the_order_of_insertion_through_erasures) {
    {
        list<fragile> values;
        for (int i = 0; i < 6; ++i)
            values.push_back(fragile(i));
        auto from = values.begin();
        EXPECT_EQ(from++, values.begin());
        EXPECT_EQ((++from)->number, 2);
        auto const to = std::next(from, 2);
        EXPECT_EQ(values.erase(from, to), to);
        EXPECT_EQ(values.erase(to, values.end()), values.end());
        auto prepared = list<fragile>::prepare(fragile(9));
        auto const unused = list<fragile>::prepare(fragile(8));
        fragile::copies_left = 0;
        values.push_back(std::move(prepared));
        EXPECT_THROW(values.push_back(*values.begin()), std::bad_alloc);
        EXPECT_TRUE(are(values, {0, 1, 9}));
        EXPECT_EQ(values.size(), 3u);
        // Fails at the third element.
        fragile::copies_left = 2;
        EXPECT_THROW(list<fragile>{std::as_const(values)}, std::bad_alloc);
        EXPECT_EQ(fragile::alive, 4);
        fragile::copies_left = -1;
        EXPECT_TRUE(are(list<fragile>(values), {0, 1, 9}));
    }
    EXPECT_EQ(fragile::alive, 0);
}

}  // namespace
