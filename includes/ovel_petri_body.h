// SPDX-License-Identifier: Apache-2.0
// How a net of `ovel_petri.h` runs the bodies of its transitions. Only for that header.
//
// `firing` is complete where a body runs, but not here: the code that uses it is a
// template.
#ifndef OVEL_PETRI_BODY_H
#define OVEL_PETRI_BODY_H

#include "ovel_petri_record.h"

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

namespace ovel {

namespace detail {

template <class T>
place_arc<T, false> arc_of(place<T> const& end) {
    return {end, 1};
}
template <class T>
place_arc<T, true> arc_of(place_arc<T, true> const& end) {
    return end;
}

template <class... Arcs>
struct inputs {
    std::tuple<Arcs...> arcs;
};
template <class... Arcs>
struct outputs {
    std::tuple<Arcs...> arcs;
};

template <class T>
inline constexpr bool is_optional = false;
template <class T>
inline constexpr bool is_optional<std::optional<T>> = true;

// 0 for types that are not tuple-like.
template <class T>
inline constexpr std::size_t tuple_size = 0;
template <class T>
requires(std::tuple_size<T>::value !=
         0) inline constexpr std::size_t tuple_size<T> = std::tuple_size<T>::value;

// The reasons why a body does not fit the arcs of its transition.
enum class misfit { none, parameters, weights, scope_result, any_result, no_result, result, tuple };

// Whether a place of `to` accepts what a body returned for it, a value or an optional
// one.
template <class Result, class Arc>
consteval bool takes() {
    if constexpr (std::is_convertible_v<Result, typename Arc::value>)
        return true;
    else if constexpr (is_optional<std::remove_cvref_t<Result>>)
        return std::is_convertible_v<decltype(*std::declval<Result>()), typename Arc::value>;
    else
        return false;
}

template <class Results, class Arcs, std::size_t... indices>
consteval bool take_all(std::index_sequence<indices...>) {
    return (takes<decltype(std::get<indices>(std::declval<Results>())),
                  std::tuple_element_t<indices, Arcs>>() &&
            ...);
}

template <class Result, class... To>
consteval misfit result_misfit() {
    if constexpr (sizeof...(To) == 0) {
        return std::is_void_v<Result> ? misfit::none : misfit::any_result;
    } else if constexpr (std::is_void_v<Result>) {
        return misfit::no_result;
    } else if constexpr (sizeof...(To) == 1) {
        return (takes<Result, To>() && ...) ? misfit::none : misfit::result;
    } else if constexpr (tuple_size<std::remove_cvref_t<Result>> == sizeof...(To)) {
        return take_all<Result, std::tuple<To...>>(std::make_index_sequence<sizeof...(To)>())
                   ? misfit::none
                   : misfit::result;
    } else {
        return misfit::tuple;
    }
}

template <class Body, class... From, class... To>
consteval misfit misfit_of(std::type_identity<inputs<From...>>,
                           std::type_identity<outputs<To...>>) {
    if constexpr (std::is_invocable_v<Body&, typename From::value...>) {
        if constexpr ((From::weighted || ...) || (To::weighted || ...))
            return misfit::weights;
        else
            return result_misfit<std::invoke_result_t<Body&, typename From::value...>, To...>();
    } else if constexpr (std::is_invocable_v<Body&, firing&>) {
        return std::is_void_v<std::invoke_result_t<Body&, firing&>> ? misfit::none
                                                                    : misfit::scope_result;
    } else {
        return misfit::parameters;
    }
}

// A transition with a body of type `Body`. The body either takes the values of its input
// places and returns those of its output places, or takes a `firing&`.
template <class Body, class Inputs, class Outputs>
class body_record;

template <class Body, class... From, class... To>
class body_record<Body, inputs<From...>, outputs<To...>> final : public transition_record {
public:
    body_record(net& of, std::string&& called, inputs<From...> const& from,
                outputs<To...> const& to, Body&& body)
        : transition_record(of, std::move(called)), _body(std::move(body)), _from(from), _to(to) {
        // No arc may move once the net knows its variable.
        arcs.reserve(sizeof...(From) + sizeof...(To));
        std::apply([this](auto const&... each) { (this->_insert_arc(true, each), ...); },
                   _from.arcs);
        std::apply([this](auto const&... each) { (this->_insert_arc(false, each), ...); },
                   _to.arcs);
    }

private:
    void operator()() override {
        std::array<unsigned int, sizeof...(From) + sizeof...(To)> left;
        _fire(left.data());
    }

    void _run(firing& scope) override {
        if constexpr (std::is_invocable_v<Body&, typename From::value...>)
            _run_typed(scope);
        else
            _body(scope);
    }

    template <class Firing>
    void _run_typed(Firing& scope) {
        // Braces take the tokens in the order of the places.
        std::tuple<typename From::value...> taken = std::apply(
            [&scope](auto const&... each) {
                return std::tuple<typename From::value...>{scope.take(each.end)...};
            },
            _from.arcs);
        if constexpr (sizeof...(To) == 0)
            std::apply(_body, std::move(taken));
        else if constexpr (sizeof...(To) == 1)
            _put(scope, std::get<0>(_to.arcs), std::apply(_body, std::move(taken)));
        else
            _put_all(scope, std::apply(_body, std::move(taken)),
                     std::make_index_sequence<sizeof...(To)>());
    }

    template <class Firing, class Results, std::size_t... indices>
    void _put_all(Firing& scope, Results&& results, std::index_sequence<indices...>) {
        (_put(scope, std::get<indices>(_to.arcs),
              std::get<indices>(std::forward<Results>(results))),
         ...);
    }

    // Puts what the body returned for one place.
    template <class Firing, class Arc, class Result>
    static void _put(Firing& scope, Arc const& to, Result&& result) {
        if constexpr (std::is_convertible_v<Result&&, typename Arc::value>)
            scope.put(to.end, std::forward<Result>(result));
        else if (result.has_value())
            scope.put(to.end, *std::forward<Result>(result));
    }

    Body _body;
    inputs<From...> const _from;
    outputs<To...> const _to;
};

}  // namespace detail

}  // namespace ovel

#endif
