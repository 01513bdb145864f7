// SPDX-License-Identifier: Apache-2.0
// The library's atomic words under the simulated kernel: the part of std::atomic's
// interface that the library uses, with a scheduling point before every access.
//
// All threads of a simulated program run on one thread of the system, so the words
// themselves are plain: an access is indivisible because no other thread runs until the
// next scheduling point. So every access is sequentially consistent, whatever its order.
// Finding what weaker orders allow is left to the race checker.
#ifndef OVEL_SIMULATION_ATOMIC_H
#define OVEL_SIMULATION_ATOMIC_H

#include "ovel_frame.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace ovel::simulation {

enum class access : unsigned char { load, store, exchange, add, compare_exchange, bits };

// Lets the scheduler choose which thread continues. Returns when this thread is to make
// its access.
OVEL_EXPORT void before_access(access kind, void const volatile* word);

// Ends the access. Records the value it found and the one it left, for the report's
// steps.
OVEL_EXPORT void after_access(std::uint64_t found, std::uint64_t left);

// Draws whether a weak compare-and-exchange fails although the values are equal.
OVEL_EXPORT bool draw_spurious_failure();

template <class T>
[[gnu::always_inline]] inline std::uint64_t as_bits(T const& value) {
    std::uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof(T) < sizeof bits ? sizeof(T) : sizeof bits);
    return bits;
}

}  // namespace ovel::simulation

// Inlined at every optimisation level, so that a report names the function that made the
// access.
#define OVEL_SIMULATION_INLINE [[gnu::always_inline]]

namespace ovel::detail {

template <class T>
class atomic {
    static_assert(std::is_trivially_copyable_v<T>);

    using difference = std::conditional_t<std::is_pointer_v<T>, std::ptrdiff_t, T>;

public:
    using value_type = T;
    static constexpr bool is_always_lock_free = true;

    constexpr atomic() noexcept : _value() {}
    constexpr atomic(T value) noexcept : _value(value) {}
    atomic(atomic const&) = delete;
    atomic& operator=(atomic const&) = delete;

    OVEL_SIMULATION_INLINE T load(std::memory_order = std::memory_order_seq_cst) const noexcept {
        simulation::before_access(simulation::access::load, &_value);
        T const value = _value;
        simulation::after_access(simulation::as_bits(value), simulation::as_bits(value));
        return value;
    }

    OVEL_SIMULATION_INLINE void store(T value,
                                      std::memory_order = std::memory_order_seq_cst) noexcept {
        _replace(simulation::access::store, [&](T) { return value; });
    }

    OVEL_SIMULATION_INLINE T exchange(T value,
                                      std::memory_order = std::memory_order_seq_cst) noexcept {
        return _replace(simulation::access::exchange, [&](T) { return value; });
    }

    OVEL_SIMULATION_INLINE bool compare_exchange_strong(T& expected, T desired, std::memory_order,
                                                        std::memory_order) noexcept {
        return compare_exchange_strong(expected, desired);
    }

    OVEL_SIMULATION_INLINE bool compare_exchange_strong(
        T& expected, T desired, std::memory_order = std::memory_order_seq_cst) noexcept {
        bool equal = false;
        T const found = _replace(simulation::access::compare_exchange, [&](T value) {
            equal = std::memcmp(&value, &expected, sizeof(T)) == 0;
            return equal ? desired : value;
        });
        if (!equal)
            expected = found;
        return equal;
    }

    OVEL_SIMULATION_INLINE bool compare_exchange_weak(T& expected, T desired, std::memory_order,
                                                      std::memory_order) noexcept {
        return compare_exchange_weak(expected, desired);
    }

    OVEL_SIMULATION_INLINE bool compare_exchange_weak(
        T& expected, T desired, std::memory_order = std::memory_order_seq_cst) noexcept {
        if (simulation::draw_spurious_failure()) {
            expected = load();
            return false;
        }
        return compare_exchange_strong(expected, desired);
    }

    OVEL_SIMULATION_INLINE T fetch_add(difference value,
                                       std::memory_order = std::memory_order_seq_cst) noexcept {
        return _replace(simulation::access::add, [&](T old) { return _sum(old, value); });
    }

    OVEL_SIMULATION_INLINE T fetch_sub(difference value,
                                       std::memory_order = std::memory_order_seq_cst) noexcept {
        return _replace(simulation::access::add, [&](T old) { return _difference(old, value); });
    }

    OVEL_SIMULATION_INLINE T fetch_and(T value,
                                       std::memory_order = std::memory_order_seq_cst) noexcept {
        return _replace(simulation::access::bits,
                        [&](T old) { return static_cast<T>(old & value); });
    }

    OVEL_SIMULATION_INLINE T fetch_or(T value,
                                      std::memory_order = std::memory_order_seq_cst) noexcept {
        return _replace(simulation::access::bits,
                        [&](T old) { return static_cast<T>(old | value); });
    }

    OVEL_SIMULATION_INLINE operator T() const noexcept {
        return load();
    }
    OVEL_SIMULATION_INLINE T operator=(T value) noexcept {
        store(value);
        return value;
    }
    OVEL_SIMULATION_INLINE T operator++() noexcept {
        return _sum(fetch_add(1), 1);
    }
    OVEL_SIMULATION_INLINE T operator++(int) noexcept {
        return fetch_add(1);
    }
    OVEL_SIMULATION_INLINE T operator--() noexcept {
        return _difference(fetch_sub(1), 1);
    }
    OVEL_SIMULATION_INLINE T operator--(int) noexcept {
        return fetch_sub(1);
    }
    OVEL_SIMULATION_INLINE T operator+=(difference value) noexcept {
        return _sum(fetch_add(value), value);
    }
    OVEL_SIMULATION_INLINE T operator-=(difference value) noexcept {
        return _difference(fetch_sub(value), value);
    }

private:
    // Sums wrap, like those of atomic words.
    static T _sum(T left, difference right) {
        if constexpr (std::is_integral_v<T>)
            return static_cast<T>(static_cast<std::make_unsigned_t<T>>(left) +
                                  static_cast<std::make_unsigned_t<T>>(right));
        else
            return left + right;
    }
    static T _difference(T left, difference right) {
        if constexpr (std::is_integral_v<T>)
            return static_cast<T>(static_cast<std::make_unsigned_t<T>>(left) -
                                  static_cast<std::make_unsigned_t<T>>(right));
        else
            return left - right;
    }

    template <class Change>
    OVEL_SIMULATION_INLINE T _replace(simulation::access kind, Change const& change) {
        simulation::before_access(kind, &_value);
        T const old = _value;
        T const changed = change(old);
        _value = changed;
        simulation::after_access(simulation::as_bits(old), simulation::as_bits(changed));
        return old;
    }

    alignas(sizeof(T) <= 8 && (sizeof(T) & (sizeof(T) - 1)) == 0 ? sizeof(T) : alignof(T)) T _value;
};

// Access to a word whose declared type is not atomic.
template <class T>
class atomic_ref {
public:
    explicit atomic_ref(T volatile& word) : _word(word) {}

    OVEL_SIMULATION_INLINE T load(std::memory_order) const {
        simulation::before_access(simulation::access::load, &_word);
        T const value = _word;
        simulation::after_access(simulation::as_bits(value), simulation::as_bits(value));
        return value;
    }

    OVEL_SIMULATION_INLINE void store(T value, std::memory_order) const {
        simulation::before_access(simulation::access::store, &_word);
        T const old = _word;
        _word = value;
        simulation::after_access(simulation::as_bits(old), simulation::as_bits(value));
    }

private:
    T volatile& _word;
};

}  // namespace ovel::detail

#undef OVEL_SIMULATION_INLINE

#endif
