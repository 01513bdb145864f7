#include "ovel_skip_list.h"
#include "ovel_list.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <new>
#include <random>
#include <utility>
#include <vector>

using ovel::list;
using ovel::skip_list;
using ovel::thread_function;
using ovel::triple;

namespace {

// Elements that compare equal can still be told apart by `tag`.
struct after_equals {
    int key;
    int tag;
    bool operator==(after_equals const&) const = default;
};
struct before_equals {
    int key;
    int tag;
    bool operator==(before_equals const&) const = default;
};

}  // namespace

template <>
struct ovel::skip_list_order<after_equals> {
    static bool precedes(after_equals const& x, after_equals const& e) {
        return x.key < e.key;
    }
};
template <>
struct ovel::skip_list_order<before_equals> {
    static bool precedes(before_equals const& x, before_equals const& e) {
        return x.key <= e.key;
    }
};

struct ovel::detail::inspector {
    template <class T>
    static unsigned int seed(skip_list<T> const& sorted) {
        return sorted._seed;
    }
    template <class T>
    static unsigned int capacity(skip_list<T> const& sorted) {
        return sorted._head->_capacity;
    }
    template <class T>
    static unsigned int level_in_use(skip_list<T> const& sorted) {
        return sorted._head->_level;
    }
    template <class T>
    static unsigned int level(typename skip_list<T>::iterator element) {
        return static_cast<typename skip_list<T>::links*>(element._position)->_level;
    }

    template <class T>
    static void check_links(skip_list<T>& sorted) {
        unsigned int highest = 1;
        unsigned int count = 0;
        auto before = sorted.end();
        for (auto each = sorted.begin(); each != sorted.end(); ++each) {
            EXPECT_EQ(std::prev(std::next(each)), each);
            EXPECT_EQ(std::prev(each), before);
            before = each;
            highest = std::max(highest, level<T>(each));
            ++count;
        }
        EXPECT_EQ(std::prev(sorted.end()), before);
        EXPECT_EQ(sorted.size(), count);
        EXPECT_EQ(level_in_use(sorted), highest);
        EXPECT_LT(highest, std::max(2u, capacity(sorted)));

        for (unsigned int i = 0; i < capacity(sorted); ++i) {
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

template <class T>
std::vector<T> elements(skip_list<T>& sorted) {
    return {sorted.begin(), sorted.end()};
}

static_assert(std::bidirectional_iterator<skip_list<after_equals>::iterator>);
static_assert(std::forward_iterator<list<int>::iterator>);
static_assert(std::forward_iterator<list<int>::const_iterator>);

TEST(skip_list_test, an_empty_list_has_no_element_and_a_null_position_is_in_no_list) {
    skip_list<after_equals> sorted;
    sorted.clear();
    EXPECT_EQ(sorted.begin(), sorted.end());
    EXPECT_EQ(--sorted.end(), sorted.end());
    EXPECT_EQ(sorted.find_first([](auto const&) { return true; }), sorted.end());
    EXPECT_NE(sorted.insert({1, 0}), skip_list<after_equals>::iterator());
    EXPECT_NE(sorted.end(), skip_list<after_equals>::iterator());
}

TEST(skip_list_test, work_is_ordered_by_space_then_time_then_arrival) {
    // The functions are never called; their addresses tell the entries apart.
    char names[4];
    auto const function = [&](int i) {
        return reinterpret_cast<thread_function*>(names + i);
    };
    skip_list<triple<thread_function*, double, double>> queue;
    queue.insert({function(0), 1.0, 2.0});
    queue.insert({function(1), 5.0, 1.0});
    queue.insert({function(2), 3.0, 2.0});
    queue.insert({function(3), 3.0, 2.0});

    std::vector<thread_function*> order;
    for (auto const& work : queue)
        order.push_back(work.first);
    EXPECT_EQ(order,
              (std::vector<thread_function*>{function(2), function(3), function(0), function(1)}));
    auto const fitting = [&](double space) {
        return queue.find_first([space](auto const& work) { return work.third <= space; });
    };
    EXPECT_EQ(fitting(1.5)->first, function(1));
    EXPECT_EQ(fitting(0.5), queue.end());
}

// The levels follow from the generator's first numbers: 16807, 282475249,
// 1622650073, 984943658, 1144108930, 470211272, 101027544, 1457850878.
TEST(skip_list_test, levels_are_drawn_as_the_seed_has_it) {
    struct {
        unsigned int seed, capacity, level;
    } const expected[] = {
        {1, 2, 1},          {1, 2, 1},          {16807, 2, 1},      {282475249, 2, 1},
        {1622650073, 4, 1}, {1144108930, 4, 1}, {1457850878, 4, 2},
    };
    skip_list<after_equals> sorted;
    for (auto const& each : expected) {
        auto const inserted = sorted.insert({0, 0});
        SCOPED_TRACE(sorted.size());
        EXPECT_EQ(inspector::seed(sorted), each.seed);
        EXPECT_EQ(inspector::capacity(sorted), each.capacity);
        EXPECT_EQ(inspector::level<after_equals>(inserted), each.level);
        inspector::check_links(sorted);
    }
}

TEST(skip_list_test, the_head_grows_at_powers_of_its_capacity_and_survives_clear) {
    skip_list<after_equals> sorted;
    for (int i = 0; i <= 65536; ++i) {
        sorted.insert({-i, 0});
        unsigned int const before = i;
        ASSERT_EQ(inspector::capacity(sorted), before < 4       ? 2u
                                               : before < 16    ? 4u
                                               : before < 256   ? 8u
                                               : before < 65536 ? 16u
                                                                : 32u);
    }
    inspector::check_links(sorted);
    unsigned int const seed = inspector::seed(sorted);
    sorted.clear();
    inspector::check_links(sorted);
    EXPECT_EQ(inspector::capacity(sorted), 32u);
    EXPECT_EQ(inspector::seed(sorted), seed);
    sorted.insert({1, 0});
    EXPECT_EQ((--sorted.end())->key, 1);
}

TEST(skip_list_test, a_search_tests_few_elements_and_none_twice) {
    constexpr int size = 20'000;
    skip_list<after_equals> sorted;
    for (int i = 0; i < size; ++i)
        sorted.insert({i * 7919 % size, i});
    for (int sought = 0; sought <= size; sought += 97) {
        std::vector<int> tested;
        auto const found = sorted.find_first([&](after_equals const& e) {
            tested.push_back(e.key);
            return e.key >= sought;
        });
        ASSERT_EQ(found == sorted.end() ? size : found->key, sought);
        // About two on each of log2(size) levels; a list without lanes tests thousands.
        EXPECT_LT(tested.size(), 150u);
        std::ranges::sort(tested);
        EXPECT_EQ(std::ranges::adjacent_find(tested), tested.end());
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
        bool const insert = model.empty() || random() % 4 < (step % 400 < 200 ? 3u : 1u);
        if (insert) {
            T const value{static_cast<int>(random() % 10), step};
            auto const place = std::ranges::find_if(
                model, [&](T const& e) { return ovel::skip_list_order<T>::precedes(value, e); });
            model.insert(place, value);
            EXPECT_EQ(*sorted.insert(value), value);
        } else {
            auto const index = random() % model.size();
            auto const next = sorted.erase(std::next(sorted.begin(), index));
            model.erase(model.begin() + index);
            EXPECT_EQ(next, std::next(sorted.begin(), index));
        }
        ASSERT_EQ(elements(sorted), model) << "step " << step;
        inspector::check_links(sorted);
        ASSERT_FALSE(testing::Test::HasFailure()) << "step " << step;
    }
    while (!sorted.empty())
        sorted.erase(--sorted.end());
    inspector::check_links(sorted);
}

TEST(skip_list_test, every_step_of_a_random_walk_keeps_order_and_links) {
    for (unsigned int seed = 1; seed <= 4; ++seed) {
        walk<after_equals>(seed);
        walk<before_equals>(seed);
    }
}

// Counts its instances; copying fails once `copies_left` is used up.
struct fragile {
    explicit fragile(int number_) : number(number_) {
        ++alive;
    }
    fragile(fragile const& other) : number(other.number) {
        if (copies_left-- == 0)
            throw std::bad_alloc();
        ++alive;
    }
    ~fragile() {
        --alive;
    }
    int number;
    static inline int alive = 0;
    static inline int copies_left = 0;
};

std::vector<int> numbers(list<fragile> const& values) {
    std::vector<int> result;
    for (fragile const& value : values)
        result.push_back(value.number);
    return result;
}

TEST(list_test, elements_keep_the_order_of_insertion_through_erasures) {
    fragile::copies_left = 1000;
    {
        list<fragile> values;
        values.clear();
        for (int i = 0; i < 6; ++i)
            values.push_back(fragile(i));
        auto const from = std::next(values.begin(), 2);
        auto const to = std::next(from, 2);
        EXPECT_EQ(values.erase(from, to), to);
        EXPECT_EQ(numbers(values), (std::vector{0, 1, 4, 5}));
        EXPECT_EQ(values.erase(to, values.end()), values.end());
        values.push_back(fragile(9));
        EXPECT_EQ(numbers(values), (std::vector{0, 1, 9}));
        EXPECT_EQ(values.size(), 3u);

        values.clear();
        EXPECT_EQ(values.begin(), values.end());
        EXPECT_EQ(fragile::alive, 0);
        values.push_back(fragile(1));
        EXPECT_EQ(numbers(values), (std::vector{1}));
    }
    EXPECT_EQ(fragile::alive, 0);
}

TEST(list_test, a_copy_is_complete_or_leaves_nothing_behind) {
    fragile::copies_left = 1000;
    list<fragile> values;
    for (int i = 0; i < 4; ++i)
        values.push_back(fragile(i));
    {
        list<fragile> copy(values);
        copy.begin()->number = 7;
        EXPECT_EQ(numbers(copy), (std::vector{7, 1, 2, 3}));
        EXPECT_EQ(numbers(values), (std::vector{0, 1, 2, 3}));
    }
    fragile::copies_left = 2;
    EXPECT_THROW(list<fragile>{std::as_const(values)}, std::bad_alloc);
    EXPECT_EQ(fragile::alive, 4);

    fragile::copies_left = 0;
    EXPECT_THROW(values.push_back(*values.begin()), std::bad_alloc);
    EXPECT_EQ(numbers(values), (std::vector{0, 1, 2, 3}));
}

TEST(list_test, a_prepared_element_goes_into_a_list_or_away) {
    fragile::copies_left = 1000;
    {
        fragile const value(5);
        list<fragile> values;
        auto taken = list<fragile>::prepare(value);
        auto const unused = list<fragile>::prepare(value);
        EXPECT_EQ(values.size(), 0u);
        fragile::copies_left = 0;
        values.push_back(std::move(taken));
        EXPECT_EQ(numbers(values), (std::vector{5}));
        EXPECT_EQ(fragile::alive, 3);
    }
    EXPECT_EQ(fragile::alive, 0);
}

}  // namespace
