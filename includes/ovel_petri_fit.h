// SPDX-License-Identifier: Apache-2.0
// Which bodies fit the arcs of a transition of `ovel_petri.h`. For that header only.
#ifndef OVEL_PETRI_FIT_H
#define OVEL_PETRI_FIT_H

#include "ovel_petri_record.h"

#include <array>
#include <cstddef>
#include <iterator>
#include <optional>
#include <ranges>
#include <stop_token>
#include <tuple>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace ovel::detail {

template <class T>
place_arc<T, false> arc_of(place<T> const& end) {
    return {end, 1};
}
template <class T>
place_arc<T, true> arc_of(place_arc<T, true> const& end) {
    return end;
}

// The arcs of an end that give a body tokens: one or none.
template <class End>
auto arcs_of(End const& end, std::vector<place_record*>&) {
    return std::tuple(arc_of(end));
}
template <class T>
std::tuple<read_arc<T>> arcs_of(read_arc<T> const& end, std::vector<place_record*>&) {
    return std::tuple(end);
}
inline std::tuple<> arcs_of(inhibitor const& end, std::vector<place_record*>& inhibitors) {
    inhibitors.push_back(end.place);
    return {};
}

template <class... Arcs>
struct inputs {
    std::tuple<Arcs...> arcs;
    std::vector<place_record*> inhibitors;
};
template <class... Arcs>
inputs<Arcs...> inputs_of(std::tuple<Arcs...> arcs, std::vector<place_record*>&& inhibitors) {
    return {std::move(arcs), std::move(inhibitors)};
}
template <class... Arcs>
struct outputs {
    std::tuple<Arcs...> arcs;
};

template <class T>
inline constexpr bool is_optional = false;
template <class T>
inline constexpr bool is_optional<std::optional<T>> = true;

template <class T>
inline constexpr std::size_t array_size = 0;
template <class T, std::size_t size>
inline constexpr std::size_t array_size<std::array<T, size>> = size;

// 0 for types that are not like tuples, or not variants.
template <class T>
inline constexpr std::size_t tuple_size = 0;
template <class T>
requires(std::tuple_size<T>::value !=
         0) inline constexpr std::size_t tuple_size<T> = std::tuple_size<T>::value;
template <class T>
inline constexpr std::size_t variant_size = 0;
template <class... Alternatives>
inline constexpr std::size_t variant_size<std::variant<Alternatives...>> = sizeof...(Alternatives);

// The values that a function is declared to take, as a std::tuple; an empty one if they are
// not known, as those of templates and overloads.
template <class Function>
struct parameters {
    using type = std::tuple<>;
};
template <class Result, class... Parameters>
struct parameters<Result (*)(Parameters...)> {
    using type = std::tuple<std::remove_cvref_t<Parameters>...>;
};
template <class Result, class... Parameters>
struct parameters<Result (*)(Parameters...) noexcept> : parameters<Result (*)(Parameters...)> {};
template <class Result, class Class, class... Parameters>
struct parameters<Result (Class::*)(Parameters...)> : parameters<Result (*)(Parameters...)> {};
template <class Result, class Class, class... Parameters>
struct parameters<Result (Class::*)(Parameters...) const> : parameters<Result (*)(Parameters...)> {
};
template <class Result, class Class, class... Parameters>
struct parameters<Result (Class::*)(Parameters...) noexcept>
    : parameters<Result (*)(Parameters...)> {};
template <class Result, class Class, class... Parameters>
struct parameters<Result (Class::*)(Parameters...) const noexcept>
    : parameters<Result (*)(Parameters...)> {};
template <class Result, class Class, class... Parameters>
struct parameters<Result (Class::*)(Parameters...)&> : parameters<Result (*)(Parameters...)> {};
template <class Result, class Class, class... Parameters>
struct parameters<Result (Class::*)(Parameters...)& noexcept>
    : parameters<Result (*)(Parameters...)> {};
template <class Result, class Class, class... Parameters>
struct parameters<Result (Class::*)(Parameters...) const&> : parameters<Result (*)(Parameters...)> {
};
template <class Result, class Class, class... Parameters>
struct parameters<Result (Class::*)(Parameters...) const& noexcept>
    : parameters<Result (*)(Parameters...)> {};
template <class Body>
requires requires {
    &Body::operator();
}
struct parameters<Body> : parameters<decltype(&Body::operator())> {};

template <class Body, std::size_t index>
struct parameter {
    using list = typename parameters<Body>::type;
    static consteval auto find() {
        if constexpr (index < std::tuple_size_v<list>)
            return std::type_identity<std::tuple_element_t<index, list>>();
        else
            return std::type_identity<void>();
    }
    using type = typename decltype(find())::type;
};

// What a body gets from an arc: a token; of a weighted arc a std::array of them, if it is
// declared to take one, or else a std::vector. A body that takes a std::optional of the token
// gets that.
template <class Body, class Arc, std::size_t index>
struct argument {
    using declared = typename parameter<Body, index>::type;
    using value = typename Arc::value;
    using type = std::conditional_t<
        !Arc::weighted,
        std::conditional_t<std::is_same_v<declared, std::optional<value>>, std::optional<value>,
                           value>,
        std::conditional_t<array_size<declared> != 0 &&
                               std::is_same_v<declared, std::array<value, array_size<declared>>>,
                           declared, std::vector<value>>>;
};

// How a body is called: with what the arcs give it, or with a `firing&`, and with a
// std::stop_token behind that or not.
enum class call { none, values, values_stop, scope, scope_stop };

template <class Body, class... Arguments>
consteval call find_call() {
    if constexpr (std::is_invocable_v<Body&, Arguments...>)
        return call::values;
    else if constexpr (std::is_invocable_v<Body&, Arguments..., std::stop_token>)
        return call::values_stop;
    else if constexpr (std::is_invocable_v<Body&, firing&>)
        return call::scope;
    else if constexpr (std::is_invocable_v<Body&, firing&, std::stop_token>)
        return call::scope_stop;
    else
        return call::none;
}

template <class Body, call how, class... Arguments>
consteval auto find_result() {
    if constexpr (how == call::values)
        return std::type_identity<std::invoke_result_t<Body&, Arguments...>>();
    else if constexpr (how == call::values_stop)
        return std::type_identity<std::invoke_result_t<Body&, Arguments..., std::stop_token>>();
    else if constexpr (how == call::scope)
        return std::type_identity<std::invoke_result_t<Body&, firing&>>();
    else if constexpr (how == call::scope_stop)
        return std::type_identity<std::invoke_result_t<Body&, firing&, std::stop_token>>();
    else
        return std::type_identity<void>();
}

template <class Body, class Indices, class... From>
struct body_traits;
template <class Body, std::size_t... indices, class... From>
struct body_traits<Body, std::index_sequence<indices...>, From...> {
    using arguments = std::tuple<typename argument<Body, From, indices>::type...>;
    static constexpr call how = find_call<Body, typename argument<Body, From, indices>::type...>();
    using result =
        typename decltype(find_result<Body, how,
                                      typename argument<Body, From, indices>::type...>())::type;
    static constexpr bool takes_stop = how == call::values_stop || how == call::scope_stop;
    static constexpr bool takes_values = how == call::values || how == call::values_stop;
    // Whether it is called once more, with an empty value, when its only place has ended.
    static constexpr bool flushes = takes_values && sizeof...(From) == 1 &&
                                    !(is_read_arc<From> || ...) &&
                                    (std::is_same_v<typename argument<Body, From, indices>::type,
                                                    std::optional<typename From::value>> &&
                                     ...);
};
template <class Body, class... From>
using traits_of = body_traits<Body, std::index_sequence_for<From...>, From...>;

// What keeps a body from fitting the arcs of its transition.
enum class misfit {
    none,
    parameters,
    weights,
    read_copy,
    scope_result,
    any_result,
    no_result,
    result,
    tuple
};

// Whether the elements of a range that a body returned may be moved from: it returned the range
// itself, which is no view of elements that it keeps.
template <class Result>
inline constexpr bool gives_elements =
    !std::is_lvalue_reference_v<Result> && !std::ranges::enable_view<std::remove_cvref_t<Result>> &&
    !std::ranges::enable_borrowed_range<std::remove_cvref_t<Result>>;

template <class Result, class Element>
using given = std::conditional_t<gives_elements<Result>, std::remove_reference_t<Element>, Element>;

template <class Result, class Arc>
consteval bool unwraps();

// Whether a place of `to` takes what a body returned for it: a value, or a range of them for
// a weighted arc, or an optional one.
template <class Result, class Arc>
consteval bool takes() {
    using plain = std::remove_cvref_t<Result>;
    if constexpr (unwraps<Result, Arc>())
        return true;
    else if constexpr (Arc::weighted && requires(plain & range) { *std::begin(range); })
        return std::is_convertible_v<given<Result, decltype(*std::begin(std::declval<plain&>()))>&&,
                                     typename Arc::value>;
    else
        return !Arc::weighted && std::is_convertible_v<Result, typename Arc::value>;
}

// Whether a place takes the content of what a body returned for it: of an optional, unless that
// is itself a token. A token may be made of any type, so this goes before a conversion.
template <class Result, class Arc>
consteval bool unwraps() {
    using plain = std::remove_cvref_t<Result>;
    if constexpr (is_optional<plain> &&
                  (Arc::weighted || !std::is_same_v<plain, typename Arc::value>))
        return takes<decltype(*std::declval<Result>()), Arc>();
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
    using plain = std::remove_cvref_t<Result>;
    constexpr auto all = std::make_index_sequence<sizeof...(To)>();
    if constexpr (sizeof...(To) == 0) {
        return std::is_void_v<Result> ? misfit::none : misfit::any_result;
    } else if constexpr (std::is_void_v<Result>) {
        return misfit::no_result;
    } else if constexpr (sizeof...(To) == 1) {
        return (takes<Result, To>() && ...) ? misfit::none : misfit::result;
    } else if constexpr (variant_size<plain> == sizeof...(To) ||
                         tuple_size<plain> == sizeof...(To)) {
        return take_all<Result, std::tuple<To...>>(all) ? misfit::none : misfit::result;
    } else if constexpr (is_optional<plain>) {
        return result_misfit<decltype(*std::declval<Result>()), To...>();
    } else {
        return misfit::tuple;
    }
}

template <class Body, class... From, class... To>
consteval misfit misfit_of(std::type_identity<inputs<From...>>,
                           std::type_identity<outputs<To...>>) {
    using traits = traits_of<Body, From...>;
    if constexpr (((is_read_arc<From> && !std::is_copy_constructible_v<typename From::value>) ||
                   ...))
        return misfit::read_copy;
    else if constexpr (traits::takes_values)
        return result_misfit<typename traits::result, To...>();
    else if constexpr (traits::how != call::none)
        return std::is_void_v<typename traits::result> ? misfit::none : misfit::scope_result;
    else if constexpr (std::is_invocable_v<Body&, typename From::value...>)
        return misfit::weights;
    else
        return misfit::parameters;
}

}  // namespace ovel::detail

#endif
