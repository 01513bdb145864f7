// SPDX-License-Identifier: Apache-2.0
// The firings of a group that no thread runs yet.
#ifndef OVEL_PETRI_READY_FIRINGS_H
#define OVEL_PETRI_READY_FIRINGS_H

#include <algorithm>
#include <bit>
#include <cstdint>
#include <limits>
#include <memory>
#include <utility>

namespace ovel {

class petri_transition;

namespace detail {

// Firings in queues, one per rank. Rank 0 goes first, and a rank never takes more space
// than the one before it. Within a rank the order is first in, first out.
//
// All queues share one block of entries. A bitmap holds the ranks whose queue is not
// empty. So finding the first of them that fits takes as many steps as the number of
// ranks has digits in base 64.
//
// The class does not access the transitions. Not thread safe.
class ready_firings {
public:
    // No ranks.
    ready_firings() = default;

    // `ranks` ranks, which take `spaces[rank]` each, and memory for `capacity` firings.
    // Throws std::bad_alloc.
    ready_firings(double const* spaces, unsigned int ranks, unsigned int capacity)
        : _ranks(new rank_entry[ranks]),
          _ranks_size(ranks),
          _nonempty(ranks),
          _entries(new entry[capacity]),
          _capacity(capacity) {
        for (unsigned int i = 0; i != ranks; ++i)
            _ranks[i].space = spaces[i];
    }

    // If it throws std::bad_alloc, it has inserted nothing.
    void insert(unsigned int rank, petri_transition* transition) {
        unsigned int const added = _take_entry();
        _entries[added] = {transition, none};
        rank_entry& to = _ranks[rank];
        if (to.first == none) {
            to.first = added;
            _nonempty.insert(rank);
        } else {
            _entries[to.last].next = added;
        }
        to.last = added;
    }

    // Whether `take` would find a firing.
    bool fits(double space) const {
        return _find(space) != none;
    }

    // Fetches the cache lines that `insert` and `take` change.
    void prefetch() const {
        __builtin_prefetch(_ranks.get(), 1);
        __builtin_prefetch(_entries.get(), 1);
    }

    // Removes and returns the first firing that takes at most `space`; null if there is
    // none.
    petri_transition* take(double space) {
        unsigned int const rank = _find(space);
        if (rank == none)
            return nullptr;
        rank_entry& from = _ranks[rank];
        unsigned int const removed = from.first;
        from.first = std::exchange(_entries[removed].next, _free);
        _free = removed;
        if (from.first == none)
            _nonempty.erase(rank);
        return _entries[removed].transition;
    }

private:
    friend struct inspector;

    static constexpr unsigned int none = std::numeric_limits<unsigned int>::max();

    // A set of numbers below a bound.
    class number_set {
    public:
        number_set() = default;
        explicit number_set(unsigned int bound) {
            unsigned int words = 0;
            for (unsigned int size = bound; size > 64; ++_top) {
                size = (size + 63) / 64;
                _first_word[_top] = words;
                words += size + 1;  // the last word stays 0 and ends a search
            }
            if (words != 0)
                _words = std::make_unique<std::uint64_t[]>(words);
        }

        void insert(unsigned int number) {
            for (unsigned int level = 0; level != _top; ++level, number /= 64)
                _word(level, number) |= _bit(number);
            _top_word |= _bit(number);
        }
        void erase(unsigned int number) {
            for (unsigned int level = 0; level != _top; ++level, number /= 64)
                if ((_word(level, number) &= ~_bit(number)) != 0)
                    return;
            _top_word &= ~_bit(number);
        }

        // The least number that is `from` or more, or `none`. `from` is at most the
        // bound. The search begins in the rest of the word of `from`; one level up, it
        // continues after that word.
        unsigned int find(unsigned int from) const {
            for (unsigned int level = 0; level != _top; ++level, from = from / 64 + 1)
                if (std::uint64_t const left = _word(level, from) & -_bit(from); left != 0)
                    return _find_below(level, from / 64 * 64 + _lowest(left));
            std::uint64_t const left = from < 64 ? _top_word & -_bit(from) : 0;
            return left != 0 ? _find_below(_top, _lowest(left)) : none;
        }

    private:
        static std::uint64_t _bit(unsigned int number) {
            return std::uint64_t{1} << number % 64;
        }
        static unsigned int _lowest(std::uint64_t word) {
            return static_cast<unsigned int>(std::countr_zero(word));
        }
        std::uint64_t& _word(unsigned int level, unsigned int number) const {
            return _words[_first_word[level] + number / 64];
        }
        // The least of the numbers that `number` represents on this level.
        unsigned int _find_below(unsigned int level, unsigned int number) const {
            while (level-- != 0)
                number = number * 64 + _lowest(_word(level, number * 64));
            return number;
        }

        // 64 to the power of 6 exceeds any bound, and the top is a separate word.
        static constexpr unsigned int most_levels = 5;

        // Bit i of level 0 says whether i is in the set. Bit i of a higher level says
        // whether word i of the level below is not 0.
        std::uint64_t _top_word = 0;
        std::unique_ptr<std::uint64_t[]> _words;  // the levels below the top
        unsigned int _top = 0;
        unsigned int _first_word[most_levels];
    };

    // The queue of a rank. `last` is valid only if there is a first.
    struct rank_entry {
        double space;
        unsigned int first = none;
        unsigned int last;
    };
    struct entry {
        petri_transition* transition;
        unsigned int next;
    };

    // The first rank that fits and has a firing.
    unsigned int _find(double space) const {
        unsigned int fits = 0;
        if (_ranks_size != 0 && !(_ranks[0].space <= space))
            fits =
                static_cast<unsigned int>(std::partition_point(&_ranks[0], &_ranks[0] + _ranks_size,
                                                               [space](rank_entry const& each) {
                                                                   return !(each.space <= space);
                                                               }) -
                                          &_ranks[0]);
        return _nonempty.find(fits);
    }

    // Takes the entry that was freed last, because it is in the cache.
    unsigned int _take_entry() {
        if (_free != none)
            return std::exchange(_free, _entries[_free].next);
        if (_used == _capacity) {
            std::unique_ptr<entry[]> grown(new entry[2 * _capacity]);
            std::copy_n(_entries.get(), _used, grown.get());
            _entries = std::move(grown);
            _capacity *= 2;
        }
        return _used++;
    }

    std::unique_ptr<rank_entry[]> _ranks;
    unsigned int _ranks_size = 0;
    number_set _nonempty;
    std::unique_ptr<entry[]> _entries;
    unsigned int _capacity = 0;
    unsigned int _used = 0;     // entries taken at least once
    unsigned int _free = none;  // the first of a list of free entries
};

}  // namespace detail

}  // namespace ovel

#endif
