// SPDX-License-Identifier: Apache-2.0
// How a net of `ovel_petri.h` runs the bodies of its transitions. Only for that header.
//
// `firing` and `net_core` are complete where a body runs, and not here: what uses them is a
// template.
#ifndef OVEL_PETRI_BODY_H
#define OVEL_PETRI_BODY_H

#include "ovel_assure.h"
#include "ovel_petri_fit.h"
#include "ovel_petri_record.h"

#include <array>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace ovel::detail {

// A transition with a body of type `Body`.
template <class Body, class Inputs, class Outputs>
class body_record;

template <class Body, class... From, class... To>
class body_record<Body, inputs<From...>, outputs<To...>> final : public transition_record {
public:
    using traits = traits_of<Body, From...>;

    body_record(net_core& of, std::string&& called, inputs<From...> const& from,
                outputs<To...> const& to, Body&& body)
        : transition_record(of, std::move(called)), _body(std::move(body)), _from(from), _to(to) {
        // No arc may move once the net knows its variable.
        arcs.reserve(sizeof...(From) + sizeof...(To));
        std::apply([this](auto const&... each) { (this->_insert_arc(true, each), ...); },
                   _from.arcs);
        _insert_outputs(*this);
        inhibitors = _from.inhibitors;
        _check_arrays(std::index_sequence_for<From...>());
    }

    // The last call of a body that takes the end: with an empty value.
    template <class Firing>
    void flush(Firing& scope) {
        _call(scope, std::optional<typename From::value>()...);
    }
    void insert_outputs(transition_record& into) const {
        _insert_outputs(into);
    }

private:
    void operator()() override {
        std::array<unsigned int, sizeof...(From) + sizeof...(To)> left;
        _fire(left.data());
    }

    void _insert_outputs(transition_record& into) const {
        std::apply([&into](auto const&... each) { (_insert_arc_into(into, false, each), ...); },
                   _to.arcs);
    }

    // The std::array for a weighted arc has as many elements as the arc's weight.
    template <std::size_t... indices>
    void _check_arrays(std::index_sequence<indices...>) const {
        (_check_array<std::tuple_element_t<indices, typename traits::arguments>>(
             std::get<indices>(_from.arcs)),
         ...);
    }
    template <class Argument, class Arc>
    static void _check_array(Arc const& from) {
        if constexpr (Arc::weighted && array_size<Argument> != 0) {
            unsigned int const weight = from.weight;
            assure(weight == array_size<Argument>);
        }
    }

    void _run(firing& scope) override {
        if constexpr (traits::takes_values)
            _run_typed(scope, std::index_sequence_for<From...>());
        else if constexpr (traits::takes_stop)
            _body(scope, _stop_token(owner));
        else
            _body(scope);
    }

    template <class Firing, std::size_t... indices>
    void _run_typed(Firing& scope, std::index_sequence<indices...>) {
        // Braces take the tokens in the order of the places.
        typename traits::arguments taken{
            _take<std::tuple_element_t<indices, typename traits::arguments>>(
                scope, std::get<indices>(_from.arcs))...};
        std::apply([this, &scope](auto&... each) { this->_call(scope, std::move(each)...); },
                   taken);
    }

    // The arguments that a body gets from an arc.
    template <class Argument, class Firing, class Arc>
    static Argument _take(Firing& scope, Arc const& from) {
        if constexpr (is_read_arc<Arc>) {
            return Argument(scope.peek(from.end));
        } else if constexpr (!Arc::weighted) {
            return Argument(scope.take(from.end));
        } else if constexpr (array_size<Argument> != 0) {
            return _take_array<Argument>(scope, from,
                                         std::make_index_sequence<array_size<Argument>>());
        } else {
            Argument taken;
            taken.reserve(from.weight);
            for (unsigned int left = from.weight; left != 0; --left)
                taken.push_back(scope.take(from.end));
            return taken;
        }
    }
    template <class Argument, class Firing, class Arc, std::size_t... indices>
    static Argument _take_array(Firing& scope, Arc const& from, std::index_sequence<indices...>) {
        return Argument{(static_cast<void>(indices), scope.take(from.end))...};
    }

    // Calls the body and puts what it returns.
    template <class Firing, class... Arguments>
    void _call(Firing& scope, Arguments&&... arguments) {
        if constexpr (sizeof...(To) == 0)
            _invoke(std::forward<Arguments>(arguments)...);
        else
            _deliver(scope, _invoke(std::forward<Arguments>(arguments)...));
    }
    template <class... Arguments>
    decltype(auto) _invoke(Arguments&&... arguments) {
        if constexpr (traits::takes_stop)
            return std::invoke(_body, std::forward<Arguments>(arguments)..., _stop_token(owner));
        else
            return std::invoke(_body, std::forward<Arguments>(arguments)...);
    }
    template <class Core>
    static auto _stop_token(Core& core) {
        return core.stop_token();
    }

    template <class Firing, class Result>
    void _deliver(Firing& scope, Result&& result) {
        using plain = std::remove_cvref_t<Result>;
        constexpr auto all = std::index_sequence_for<To...>();
        if constexpr (sizeof...(To) == 1) {
            _put(scope, std::get<0>(_to.arcs), std::forward<Result>(result));
        } else if constexpr (variant_size<plain> == sizeof...(To)) {
            _put_one(scope, std::forward<Result>(result), all);
        } else if constexpr (tuple_size<plain> == sizeof...(To)) {
            _put_all(scope, std::forward<Result>(result), all);
        } else {
            if (result.has_value())
                _deliver(scope, *std::forward<Result>(result));
        }
    }

    template <class Firing, class Results, std::size_t... indices>
    void _put_all(Firing& scope, Results&& results, std::index_sequence<indices...>) {
        (_put(scope, std::get<indices>(_to.arcs),
              std::get<indices>(std::forward<Results>(results))),
         ...);
    }
    // The alternative that a variant holds goes to the place of its index.
    template <class Firing, class Results, std::size_t... indices>
    void _put_one(Firing& scope, Results&& results, std::index_sequence<indices...>) {
        ((results.index() == indices ? _put(scope, std::get<indices>(_to.arcs),
                                            std::get<indices>(std::forward<Results>(results)))
                                     : void()),
         ...);
    }

    // Puts what the body returned for one place.
    template <class Firing, class Arc, class Result>
    static void _put(Firing& scope, Arc const& to, Result&& result) {
        if constexpr (unwraps<Result&&, Arc>()) {
            if (result.has_value())
                _put(scope, to, *std::forward<Result>(result));
        } else if constexpr (Arc::weighted) {
            for (auto&& each : result)
                scope.put(to.end, static_cast<given<Result, decltype(each)>&&>(each));
        } else {
            scope.put(to.end, std::forward<Result>(result));
        }
    }

    Body _body;
    inputs<From...> const _from;
    outputs<To...> const _to;
};

// Calls the body of `Told` once more when that transition has ended. It takes the token that
// the net then puts into a place of this record's.
template <class Told, unsigned int arc_count>
class flush_record final : public transition_record {
public:
    flush_record(net_core& of, Told& told, petri_place* mark)
        : transition_record(of, std::string(told.name.text())),
          _told(told),
          _mark{&of, trace::shared_name(told.name.text()), mark} {
        mark_place = &_mark;
        arcs.reserve(arc_count);
        arcs.push_back({&_mark, true, 1, nullptr});
        told.insert_outputs(*this);
    }

private:
    void operator()() override {
        std::array<unsigned int, arc_count> left;
        _fire(left.data());
    }
    void _run(firing& scope) override {
        _run_with(scope);
    }
    template <class Firing>
    void _run_with(Firing& scope) {
        scope._take_mark();
        _told.flush(scope);
    }

    Told& _told;
    place_record _mark;
};

}  // namespace ovel::detail

#endif
